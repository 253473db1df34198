#include "Commands.h"

#include "Environment.h"
#include "FindInstance.h"
#include "InstanceJson.h"
#include "ServerAtLogin.h"
#include "LogTail.h"
#include "Output.h"
#include "ReadyWait.h"
#include "ServerFacts.h"
#include "StatusReport.h"
#include "WaitEvents.h"

#include <algorithm>
#include <iterator>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <unistd.h>

namespace quendralctl {

namespace {

using Clock = std::chrono::steady_clock;

// How long restart waits for a server to stop when no --wait (or 0) is given.
constexpr double kRestartStopSeconds = 30;
// How many lines of the log follow a start that failed.
constexpr size_t kFailureLogLines = 10;

// Now plus at most kMaxWaitSeconds: no overflow.
Clock::time_point after(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Refreshes the instances until each one satisfies `done` or the deadline
// has passed, sleeping between looks until something happens to them
// (WaitEvents.h).
void waitUntil(const Instances &list, const std::function<bool(const QuendralInstance &)> &done,
               Clock::time_point deadline) {
    WaitEvents events;
    for (;;) {
        Instances pending;
        for (const auto &i : list) {
            if (done(*i)) continue;
            // Watched before the look, so that a change right after it
            // still wakes the sleep below.
            events.watch(*i);
            i->refresh();
            if (!done(*i)) pending.push_back(i);
        }
        if (pending.empty() || Clock::now() >= deadline) return;
        events.sleep(pending, deadline);
    }
}

// Why the directory cannot be listed and its entries looked at; "" when it
// can.
std::string whyUnreadable(const std::string &dir) {
    DIR *d = opendir(dir.c_str());
    if (!d) return std::strerror(errno);
    closedir(d);
    if (faccessat(AT_FDCWD, dir.c_str(), X_OK, AT_EACCESS) != 0) return std::strerror(errno);
    return "";
}

bool is(const QuendralInstance &i, ServerStatus status) {
    return i.serverStatus() == status;
}
bool settled(const QuendralInstance &i) {
    return !is(i, ServerStatusStarting) && !is(i, ServerStatusStopping);
}

// What the user gets for one instance: a line on stdout saying what was done
// ("sales started", "sales already running") when it went well, an error
// line on stderr (then the log's end, for a failed start) when not.
struct Outcome {
    explicit Outcome(InstancePtr i) : instance(std::move(i)) {}
    InstancePtr instance;
    bool failed = false;
    std::string error;
    bool showLog = false;
    std::string done;  // what the line on stdout says
    bool ours = false; // this command launched or signalled the server
    LogMark logBefore; // the log file as it was before our start
};

void fail(Outcome &o, const std::string &what, bool showLog = false) {
    o.failed = true;
    o.error = o.instance->displayName() + " " + what;
    o.showLog = showLog;
}

// Why startup() or shutdown() did nothing. A refusal by status reads as it
// always has ("sales cannot be started (it is running)"); a failure names
// what failed, the name first and the system's reason last, as service tools
// say it: "sales: cannot start /opt/q/bin/quendral: Permission denied".
void failAction(Outcome &o, bool start) {
    const ActionFailure &f = o.instance->failure();
    const std::string name = o.instance->displayName();
    const std::string passive = start ? "cannot be started" : "cannot be stopped";
    switch (f.kind) {
    case ActionFailure::ForkFailed:
    case ActionFailure::ExecFailed:
    case ActionFailure::SignalFailed:
        o.failed = true;
        o.error = name + ": " + f.text;
        return;
    case ActionFailure::Removed:
    case ActionFailure::NoExecutable:
        o.failed = true;
        o.error = name + (start ? ": cannot start: " : ": cannot stop: ") + f.text;
        return;
    case ActionFailure::NotStopped:
    case ActionFailure::NotRunning:
    case ActionFailure::StartBeingDecided:
    case ActionFailure::StartLockFailed:
        if (!f.text.empty()) {
            fail(o, passive + ": " + f.text);
            return;
        }
        break;
    case ActionFailure::None:
        break;
    }
    fail(o, passive + " (it is " + statusWord(o.instance->serverStatus()) + ")");
}

// How long a start waits for the launched child to say whether it could run
// the server program: it needs well under a millisecond.
constexpr int kLaunchVerdictWaitMs = 2000;

// Where the instance's log file stands before a start.
LogMark markLogOf(QuendralInstance &i) {
    const auto path = i.logFile();
    return path ? markLog(*path) : LogMark{};
}

// The end of what this start wrote to the instance's log, so that a failed
// start explains itself. What earlier runs wrote is left out: a start that
// failed before its server wrote a line (a program that cannot be run)
// would otherwise show the last run's lines as if they were its own.
void printLogEnd(const Outcome &o) {
    const auto path = o.instance->logFile();
    if (!path) return;
    const LogTail tail = readLogTailSince(*path, o.logBefore, kFailureLogLines);
    if (tail.ok) std::cerr << linesShownOn(STDERR_FILENO, tail.text);
}

int report(std::vector<Outcome> &outcomes) {
    int code = Ok;
    for (Outcome &o : outcomes) {
        if (o.failed) {
            fail(Failed, o.error);
            if (o.showLog) printLogEnd(o);
            code = Failed;
        } else {
            writeOut(shownOn(STDOUT_FILENO, o.instance->displayName()) + " " + o.done + "\n");
        }
    }
    return code;
}

// Starts each stopped instance; with a wait, until it runs, fails or the time
// is up. As init scripts and service managers do it: an instance already
// running needs nothing, and a start that another front end has on its way
// (the tray, another quendralctl) is joined, not refused: with a wait its
// outcome is waited for as if it were this command's own. Only an instance
// that cannot get to running is an error.
std::vector<Outcome> startAll(const Instances &list, const Options &o) {
    // One deadline for the whole wait: running, then listening, within the
    // seconds given, not each step afresh.
    const Clock::time_point deadline = after(o.wait);
    if (o.wait > 0)
        waitUntil(
            list, [](const QuendralInstance &i) { return !is(i, ServerStatusStopping); }, deadline);
    std::vector<Outcome> outcomes;
    Instances underway; // launched here, or joined
    for (const auto &i : list) {
        Outcome &out = outcomes.emplace_back(i);
        if (is(*i, ServerStatusStopping)) {
            fail(out, "cannot be started while it is stopping");
        } else if (is(*i, ServerStatusStopped) || is(*i, ServerStatusUnknown)) {
            out.logBefore = markLogOf(*i);
            if (i->startup()) {
                out.ours = true;
                // A program that cannot be run is known at once: say so
                // now rather than "starting", or after the whole wait.
                if (const auto why = i->launchFailure(kLaunchVerdictWaitMs); why && !why->empty())
                    failAction(out, true);
                else
                    underway.push_back(i);
            } else if (is(*i, ServerStatusStarting) ||
                       i->failure().kind == ActionFailure::StartBeingDecided) {
                // Another front end got there first, between the look and
                // the start: its start is joined.
                out.logBefore = {};
                underway.push_back(i);
            } else if (is(*i, ServerStatusRunning)) {
                out.done = "already running";
            } else {
                failAction(out, true);
            }
        } else if (is(*i, ServerStatusStarting)) {
            underway.push_back(i);
        } else {
            out.done = "already running";
        }
    }
    if (o.wait > 0) waitUntil(underway, settled, deadline);
    Instances listening;
    const auto listens = [&](const Outcome &out) {
        return std::find(listening.begin(), listening.end(), out.instance) != listening.end();
    };
    if (o.wait > 0 && o.ready) {
        // Ready is asked of every server, one already running too: a
        // script's next pass may come while it is still on its way up.
        Instances all;
        for (const Outcome &out : outcomes)
            if (!out.failed) all.push_back(out.instance);
        listening = waitUntilListening(all, deadline);
        for (Outcome &out : outcomes)
            if (!out.failed && !out.done.empty() && !listens(out))
                fail(out, "runs but does not listen on a TCP port yet", true);
    }
    for (Outcome &out : outcomes) {
        if (out.failed ||
            std::find(underway.begin(), underway.end(), out.instance) == underway.end())
            continue;
        const QuendralInstance &i = *out.instance;
        if (is(i, ServerStatusStopped) && out.ours && i.failure().kind == ActionFailure::ExecFailed)
            failAction(out, true);
        else if (is(i, ServerStatusStopped))
            fail(out, "did not start (stopped)", true);
        else if (o.wait > 0 && is(i, ServerStatusStarting))
            fail(out, "did not start within the time given (starting)", true);
        else if (o.wait > 0 && o.ready && !listens(out))
            fail(out, "runs but does not listen on a TCP port yet", true);
        else if (o.wait > 0 || is(i, ServerStatusRunning))
            out.done = "started";
        else
            out.done = out.ours ? "starting" : "already starting";
    }
    return outcomes;
}

// Stops each running instance; with a wait, until it has stopped or the time
// is up. An instance already stopped needs nothing; a stop on its way is
// joined.
std::vector<Outcome> stopAll(const Instances &list, const Options &o) {
    if (o.wait > 0)
        waitUntil(
            list, [](const QuendralInstance &i) { return !is(i, ServerStatusStarting); },
            after(o.wait));
    std::vector<Outcome> outcomes;
    Instances stopping;
    for (const auto &i : list) {
        Outcome &out = outcomes.emplace_back(i);
        if (is(*i, ServerStatusStarting)) {
            fail(out, "cannot be stopped while it is starting");
        } else if (is(*i, ServerStatusRunning)) {
            if (i->shutdown()) {
                out.ours = true;
                stopping.push_back(i);
            } else if (is(*i, ServerStatusStopped)) {
                out.done = "already stopped"; // it ended between the look and the stop
            } else {
                failAction(out, false);
            }
        } else if (is(*i, ServerStatusStopping)) {
            stopping.push_back(i);
        } else if (is(*i, ServerStatusStopped)) {
            out.done = "already stopped";
        } else if (!i->unknownReason().empty()) {
            // Whether a server runs cannot be known: not stopped, and not
            // for stopping either, with --all as alone.
            fail(out, "cannot be stopped: its status is unknown: " + i->unknownReason());
        } else if (o.all) {
            out.done = statusWord(i->serverStatus()); // unknown: nothing to stop
        } else {
            fail(out,
                 std::string("cannot be stopped (it is ") + statusWord(i->serverStatus()) + ")");
        }
    }
    if (o.wait > 0)
        waitUntil(
            stopping, [](const QuendralInstance &i) { return !is(i, ServerStatusStopping); },
            after(o.wait));
    for (Outcome &out : outcomes) {
        if (out.failed || !out.done.empty()) continue;
        if (o.wait > 0 && !is(*out.instance, ServerStatusStopped))
            fail(out, std::string("did not stop within the time given (") +
                          statusWord(out.instance->serverStatus()) + ")");
        else if (is(*out.instance, ServerStatusStopped))
            out.done = "stopped";
        else
            out.done = out.ours ? "stopping" : "already stopping";
    }
    return outcomes;
}

} // namespace

// The instances a start, stop or restart acts on; false (after saying why)
// when there is none.
bool targets(const Instances &all, const Options &o, Instances &out, int &code) {
    if (o.all) {
        out = all;
        return true;
    }
    if (o.instance.empty()) {
        const InstancePtr found = QuendralManager::defaultInstance(all);
        if (!found) {
            code = fail(NoInstance, "no default instance (give an instance name)");
            return false;
        }
        out = {found};
        return true;
    }
    const Found found = findInstance(all, o.instance);
    if (!found.instance) {
        code = fail(found.code, found.error);
        return false;
    }
    out = {found.instance};
    return true;
}

std::string exitStatusHelp() {
    std::string text = "Exit status:", line = text;
    const size_t count = std::size(kExitMeanings);
    for (size_t k = 0; k < count; k++) {
        const std::string item = std::to_string(kExitMeanings[k].code) + " " +
                                 kExitMeanings[k].meaning + (k + 1 == count ? "." : ",");
        if (line.size() + 1 + item.size() > 80) {
            text += "\n" + item;
            line = item;
        } else {
            text += " " + item;
            line += " " + item;
        }
    }
    return text;
}

int fail(int code, const std::string &message) {
    // Messages name instances and paths: escaped on a terminal (Output.h).
    sayOnStderr(shownOn(STDERR_FILENO, message));
    return code;
}

int readInstallation(QuendralManager &manager, Instances &all) {
    // An installation that cannot be listed would look like one without
    // instances: `list` would print nothing and `stop --all` succeed having
    // stopped nothing. So it is an error, with the system's reason. A
    // directory that may be read but not searched lists names whose
    // instances cannot be looked at: the same.
    const std::vector<std::string> searched = manager.searchPaths();
    for (const std::string &dir : searched) {
        if (const std::string why = whyUnreadable(dir); !why.empty())
            return fail(
                NoInstance,
                std::string("cannot read the installation ").append(dir).append(": ").append(why));
    }
    all = manager.allInstances();
    // The manager drops a directory it failed to list (and has logged why):
    // it became unreadable since the check above.
    for (const std::string &dir : searched) {
        const auto &now = manager.searchPaths();
        if (std::find(now.begin(), now.end(), dir) == now.end())
            return fail(NoInstance, "cannot read the installation " + dir);
    }
    return Ok;
}

int list(const Instances &all, const Options &o) {
    const InstancePtr def = QuendralManager::defaultInstance(all);
    FactsReader facts;
    if (o.json) {
        nlohmann::ordered_json out;
        out["version"] = kJsonVersion;
        out["default"] = def ? nlohmann::ordered_json(def->directory()) : nullptr;
        out["instances"] = nlohmann::ordered_json::array();
        for (const auto &i : all) out["instances"].push_back(instanceJson(*i, facts));
        writeOut(dumpJson(out) + "\n");
        return Ok;
    }
    // Into a pipe, names are written as they are, whatever their bytes; on a
    // terminal, control characters are escaped (Output.h).
    if (o.names) {
        std::string names;
        for (const auto &i : all) names += shownOn(STDOUT_FILENO, i->displayName()) + "\n";
        writeOut(names);
        return Ok;
    }
    // The lines are put together here and written at once: printf per field
    // costs more than everything else per instance.
    std::vector<std::string> shown, ports;
    shown.reserve(all.size());
    ports.reserve(all.size());
    size_t width = 4, portsWidth = 5;
    for (const auto &i : all) {
        shown.push_back(shownOn(STDOUT_FILENO, i->displayName()));
        width = std::max(width, shown.back().size());
        // Only a running server is looked at: a listing of stopped
        // instances reads neither the process table nor the socket tables.
        ports.push_back(is(*i, ServerStatusRunning) ? portsText(facts.listeningOf(i->pid())) : "-");
        portsWidth = std::max(portsWidth, ports.back().size());
    }
    auto pad = [](std::string &out, const std::string &s, size_t w, bool right) {
        if (right && s.size() < w) out.append(w - s.size(), ' ');
        out += s;
        if (!right && s.size() < w) out.append(w - s.size(), ' ');
    };
    std::string out;
    // A header for people; scripts reading a pipe get the lines alone.
    if (isatty(STDOUT_FILENO)) {
        out += "  ";
        pad(out, "NAME", width, false);
        out += "  STATUS        PID  ";
        pad(out, "PORTS", portsWidth, false);
        out += "  DIRECTORY\n";
    }
    for (size_t k = 0; k < all.size(); k++) {
        const auto &i = all[k];
        // "*" the default instance, "+" one whose server starts at login.
        out += i == def ? '*' : ' ';
        out += quendral::isEnabledAtLogin(i->directory()) ? '+' : ' ';
        pad(out, shown[k], width, false);
        out += "  ";
        pad(out, statusWord(i->serverStatus()), 8, false);
        out += "  ";
        pad(out, i->pid() > 0 ? std::to_string(i->pid()) : "-", 7, true);
        out += "  ";
        pad(out, ports[k], portsWidth, false);
        out += "  ";
        out += shownOn(STDOUT_FILENO, i->directory());
        out += '\n';
    }
    writeOut(out);
    return Ok;
}

int status(const Instances &all, const Options &o) {
    Instances one;
    int code = Ok;
    if (!targets(all, o, one, code)) return code;
    QuendralInstance &i = *one.front();
    FactsReader facts;
    if (o.json)
        writeOut(dumpJson(instanceJson(i, facts)) + "\n");
    else
        writeOut(statusReport(i, facts, static_cast<size_t>(o.statusLines)));
    return is(i, ServerStatusRunning) ? Ok : NotRunning;
}

int start(const Instances &all, const Options &o) {
    Instances chosen;
    int code = Ok;
    if (!targets(all, o, chosen, code)) return code;
    auto outcomes = startAll(chosen, o);
    return report(outcomes);
}

int stop(const Instances &all, const Options &o) {
    Instances chosen;
    int code = Ok;
    if (!targets(all, o, chosen, code)) return code;
    auto outcomes = stopAll(chosen, o);
    return report(outcomes);
}

int restart(const Instances &all, const Options &o) {
    Instances chosen;
    int code = Ok;
    if (!targets(all, o, chosen, code)) return code;
    // Stop what runs and wait for it to be gone (a server still shutting
    // down would meet the new one), then start everything. Without a wait
    // ("--wait 0" included) the old server is still waited for, as long as
    // a stop takes by default: not waiting there would leave it running and
    // nothing started. Only the new server is not waited for.
    Options stopping = o;
    stopping.wait = o.wait > 0 ? o.wait : kRestartStopSeconds;
    Instances running;
    for (const auto &i : chosen)
        if (!is(*i, ServerStatusStopped)) running.push_back(i);
    std::vector<Outcome> outcomes;
    for (Outcome &out : stopAll(running, stopping))
        if (out.failed) outcomes.push_back(out);
    Instances startable;
    for (const auto &i : chosen)
        if (std::none_of(outcomes.begin(), outcomes.end(),
                         [&](const Outcome &f) { return f.instance == i; }))
            startable.push_back(i);
    auto started = startAll(startable, o);
    // A server stopped here and started again was restarted.
    for (Outcome &out : started) {
        if (std::find(running.begin(), running.end(), out.instance) == running.end()) continue;
        if (out.done == "started") out.done = "restarted";
        if (out.done == "starting") out.done = "restarting";
    }
    // Reported in the listing's order.
    outcomes.insert(outcomes.end(), started.begin(), started.end());
    std::vector<Outcome> ordered;
    for (const auto &i : chosen)
        for (const Outcome &out : outcomes)
            if (out.instance == i) ordered.push_back(out);
    return report(ordered);
}

int log(const Instances &all, const Options &o) {
    Instances one;
    int code = Ok;
    if (!targets(all, o, one, code)) return code;
    QuendralInstance &i = *one.front();
    const auto path = i.logFile();
    if (!path) return fail(Failed, i.displayName() + " has no log file");
    const auto lines = static_cast<size_t>(o.lines);
    if (o.follow) {
        std::string error;
        return followLog(*path, lines, writeOut, error) ? Ok : fail(Failed, error);
    }
    const LogTail tail = readLogTail(*path, lines);
    if (!tail.ok) return fail(Failed, tail.error);
    writeOut(tail.text);
    return Ok;
}

int env() {
    for (const char *var : {"QUENDRAL_HOME", "PATH", "LD_LIBRARY_PATH", "ODBCINI", "ODBCINSTINI"})
        if (const auto v = quendral::serverVariable(var))
            writeOut(std::string(var) + "=" + *v + "\n");
    return Ok;
}

int completion(const std::string &shell) {
    const char *script = shell == "bash"   ? kBashCompletion
                         : shell == "zsh"  ? kZshCompletion
                         : shell == "fish" ? kFishCompletion
                                           : nullptr;
    if (!script) return fail(Usage, "no completion for " + shell + " (bash, zsh or fish)");
    writeOut(script);
    return Ok;
}

} // namespace quendralctl
