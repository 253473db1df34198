// Servers that start when the user logs in.
//
// The monitor has no settings of its own beyond its own login item, so
// "start this instance's server at login" lives where such settings live on
// Linux: with the user's service manager. Where one answers on the session
// bus, enabling writes a user unit into the user's unit directory
// ($XDG_CONFIG_HOME/systemd/user, by default ~/.config/systemd/user, so it
// works whatever the installation) and enables it in the manager, wanted by
// the default target. Elsewhere it writes an XDG autostart entry of its own
// ($XDG_CONFIG_HOME/autostart), never the monitor's login item.
//
// Either runs the same start as `quendralctl start DIR --wait`, with the
// installation found at enable time, so every rule of a real start holds: one
// start per instance, the server's own scope, the log's end on failure (in the
// journal, for the unit). The unit is a oneshot without restarts: a server
// that fails at once leaves the unit failed, and nothing retries in a loop.
//
// Both are named after the instance directory's path escaped as systemd
// escapes paths ("/home/u/q/sales" gives "home-u-q-sales"):
// "quendral-server-<escaped>.service" and "quendral-server-<escaped>.desktop".
// A directory that is no instance any more is still disabled by its path; an
// enabled one that was removed makes its start fail with its reason.
#pragma once

#include <string>

namespace quendral {

// `path` as `systemd-escape --path` gives it.
std::string escapeUnitPath(const std::string &path);

// "quendral-server-<escaped>.service" for an instance directory.
std::string loginUnitName(const std::string &directory);
// Where the unit file and the autostart entry of `directory` go.
std::string loginUnitFile(const std::string &directory);
std::string loginAutostartEntry(const std::string &directory);

// Whether `directory`'s server starts at login: its unit is enabled (the
// default target wants it) or its autostart entry is there. Looks at files
// only (two lstat calls): cheap enough for every line of a listing.
bool isEnabledAtLogin(const std::string &directory);

struct AtLoginChange {
    bool ok = false;
    std::string how;   // ok: "unit NAME" or "autostart entry PATH"
    std::string error; // !ok: why
};

// Makes `directory`'s server start at login, with `program` (quendralctl's
// absolute path) and the installation `home`.
AtLoginChange enableAtLogin(const std::string &directory, const std::string &home,
                            const std::string &program);
// Undoes it, whichever way it was done; ok when nothing is left.
AtLoginChange disableAtLogin(const std::string &directory);

} // namespace quendral
