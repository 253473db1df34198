// A server belongs to itself, not to the front end that started it.
//
// On a systemd desktop every program runs in a unit of the user's service
// manager: the monitor started at login in the unit made from its autostart
// entry (stopped with the graphical session, killed 5 s after SIGTERM), one
// started from a launcher in the launcher's scope. fork() and setsid() change
// the session, not the control group, so a server launched as a plain child
// would be stopped, and killed mid-shutdown, whenever the monitor's unit is;
// and its memory would count as the monitor's when the system picks a unit to
// kill for want of memory.
//
// So a launched server is moved, before it runs anything of its own, into a
// transient scope of the user's manager: "app-<launcher>-quendral-<random>.scope"
// (the name systemd's convention gives launched applications), described by
// its instance directory, collected when it ends (no failed units pile up),
// with a stop timeout that gives a database time to shut down. The child
// waits between fork and exec until the move is done or has failed.
//
// This talks to the manager over the user's session bus with libsystemd's
// sd-bus, from the Qt-free core, so the tray and quendralctl share it. Where
// there is no bus or no manager, or the manager does not answer within
// kReplyLimitMs, the server runs where it was launched; the reason is
// returned for one log line and the start goes on.
#pragma once

#include <string>
#include <sys/types.h>

namespace quendral {

struct UnitMove {
    bool moved = false;
    std::string unit; // the scope's name when moved
    std::string why;  // why not, when not moved
    // Not moved because the machine has no service manager for the user
    // (no session bus, none answering on it): normal on a headless server,
    // over ssh, in a container, and nothing to report.
    bool noManager = false;
};

// Moves `pid` (just forked, not yet running its program) into a new scope.
// `launcher` names the front end ("quendral-monitor", "quendralctl").
UnitMove moveIntoOwnScope(pid_t pid, const std::string &instanceDirectory,
                          const std::string &launcher);

// One part of a unit name as systemd writes it: letters, digits, ":" and
// "_" as they are, "." too but first; every other byte, and "-" (which
// separates the parts of a name), as \xNN.
std::string escapeUnitNamePart(const std::string &part);

// The unit of the user's service manager that holds `pid` (from its control
// group), or "" where it is in none or this cannot be read.
std::string unitOfProcess(pid_t pid);

// The control group of `pid` in the unified hierarchy ("/user.slice/…/x.scope"),
// or "" where it cannot be read.
std::string unifiedCgroupOf(pid_t pid);

// How long a start waits for the manager at the most.
constexpr int kReplyLimitMs = 1000;
// What the scope gives a server between SIGTERM and SIGKILL.
constexpr unsigned long long kStopTimeoutSeconds = 90;

} // namespace quendral
