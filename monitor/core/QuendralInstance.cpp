#include "QuendralInstance.h"

#include "SystemIo.h"
#include "Environment.h"
#include "ExecutableTrust.h"
#include "Localization.h"
#include "Log.h"
#include "PathUtil.h"
#include "ServerUnit.h"
#include "StartRecord.h"
#include "ncfg.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace quendral;

const char *statusWord(ServerStatus status) {
    switch (status) {
    case ServerStatusUnknown:
        return "unknown";
    case ServerStatusStopped:
        return "stopped";
    case ServerStatusStarting:
        return "starting";
    case ServerStatusRunning:
        return "running";
    case ServerStatusStopping:
        return "stopping";
    }
    return "unknown";
}

namespace {

// A refusal for an instance whose status cannot be known says why.
std::string unknownText(const std::string &reason) {
    return reason.empty() ? "" : "its status is unknown: " + reason;
}

} // namespace

QuendralInstance::QuendralInstance(std::string path)
    : _path(std::move(path)), _displayName(path::lastComponent(_path)) {
    _isDefault = _displayName == "database";
}

std::string QuendralInstance::instanceName() const {
    if (_isDefault) return localizedString(QM_TRANSLATE_NOOP("Quendral", "Default Instance"));
    return fillPlaceholders(localizedString(QM_TRANSLATE_NOOP("Quendral", "Instance '%@'")),
                            {_displayName});
}

std::string QuendralInstance::qualify(const std::optional<std::string> &value,
                                      const std::string &defaultValue) const {
    return InstanceConfig::qualify(_path, value, defaultValue);
}

bool QuendralInstance::isValid() {
    return _config.check(_path);
}

std::optional<std::string> QuendralInstance::logFile() {
    if (!isValid()) return std::nullopt;
    const auto &log = _config.logFile();
    if (log && path::existsNotDirectory(*log)) return log;
    return std::nullopt;
}

int32_t QuendralInstance::pidValueFromLockFile() {
    return readLockFile().pid;
}

LockFileContent QuendralInstance::readLockFile() {
    const auto &lock = _config.lockFile();
    if (!lock) return {};
    return quendral::readLockFile(*lock, _path);
}

bool QuendralInstance::writtenBy(const LockFileContent &lock, const ProcessHandle &process) const {
    return lockFileWrittenBy(lock, process, _path);
}

bool QuendralInstance::isRunning(int32_t pid) {
    if (pid <= 0) return false;
    // Collect one child that has ended, whichever it is, so servers we
    // launched do not stay zombies.
    const pid_t reaped = waitpid(-1, nullptr, WNOHANG);
    if (reaped == pid) return false;
    // The known server is asked through its handle: if it ended, a process
    // that has its pid now is someone else. Another user's process (EPERM)
    // exists: alive means exists.
    if (pid == _pid.pid()) return _pid.alive();
    return kill(pid, 0) == 0 || errno == EPERM;
}

void QuendralInstance::setStatus(ServerStatus status) {
    _unknownReason.clear();
    if (_serverStatus == ServerStatusStarting && status != ServerStatusStarting && _launched) {
        // The start has concluded (the server runs, or the launched process
        // ended): its record has said what it had to say.
        forgetStartRecord(_path, *_launched);
        _launched.reset();
    }
    if (_serverStatus == ServerStatusStarting && status != ServerStatusStarting) {
        // The start has concluded. If the launched process ended without a
        // server and never ran the program, it said why before it went:
        // logged here, once, since the tray has no other way to tell the
        // user (quendralctl asks launchFailure and says it in its own
        // words). Either way the report's descriptor goes now.
        if (status == ServerStatusStopped) {
            const bool known = _failure.kind == ActionFailure::ExecFailed;
            (void)launchFailure();
            if (!known && _failure.kind == ActionFailure::ExecFailed)
                logMessage("%@", {_failure.text});
        }
        _execReport = ExecReport();
    }
    if (status != _serverStatus) {
        _entryStatus = EntryStatusChanged;
        _serverStatus = status;
    } else {
        _entryStatus = EntryStatusUnchanged;
    }
}

void QuendralInstance::logStaleLockFile() const {
    quendral::logStaleLockFile(_config.lockFile().value_or(""));
}

bool QuendralInstance::lockFileConfirmsStart() {
    const LockFileContent lock = readLockFile();
    if (lock.pid == 0) return false; // not written yet (or not readable now)
    if (lock.pid == _pid.pid()) {
        if (writtenBy(lock, _pid)) return true;
        // Older than the process we launched: an earlier server's file whose
        // pid the system has given to ours by chance.
        logStaleLockFile();
        return false;
    }
    ProcessHandle named(lock.pid);
    if (!named.alive() || !writtenBy(lock, named)) {
        // Left by an earlier server; ours has not written its own yet.
        logStaleLockFile();
        return false;
    }
    // A server that forks: the lock file names the process that serves.
    logMessage("pid value from .lck file is different (expected %d, got %d)",
               {std::to_string(_pid.pid()), std::to_string(lock.pid)});
    _pid = std::move(named);
    return true;
}

void QuendralInstance::refresh() {
    if (_pid.pid() != 0 && isRunning(_pid.pid())) {
        if (_serverStatus == ServerStatusStopping) return;
        if (_serverStatus == ServerStatusStarting && !lockFileConfirmsStart()) return;
        setStatus(ServerStatusRunning);
        return;
    }
    const LockFileContent lock = readLockFile();
    // Could not look: nothing is known of the server, and unknown is what
    // the instance says (no one may start it, no one may stop it) until the
    // file can be read again. Stopped would offer a second server.
    if (lock.unreadable) {
        _pid = ProcessHandle();
        setStatus(ServerStatusUnknown);
        _unknownReason = lock.reason;
        return;
    }
    _pid = ProcessHandle(lock.pid);
    if (lock.pid != 0) {
        if (isRunning(lock.pid) && writtenBy(lock, _pid)) {
            setStatus(ServerStatusRunning);
            return;
        }
        // Its writer has ended; a live process with that pid began later and
        // is not the server. Forget the pid so it is neither probed as the
        // server nor signalled.
        logStaleLockFile();
        _pid = ProcessHandle();
    }
    if (adoptRecordedStart()) return;
    setStatus(ServerStatusStopped);
    if (!isValid()) _entryStatus = EntryStatusRemoved;
}

bool QuendralInstance::adoptRecordedStart() {
    // No server speaks through the lock file; a server launched by another
    // front end (or by an earlier run of this one) may still be on its way.
    const auto launched = liveStartRecord(_path);
    if (!launched) return false;
    // The launched process, or once it has ended (a server that
    // daemonises) a live process of the session it began. A daemon's
    // processes hand over to each other (each forks the next and exits):
    // one that went between the look and the hold is followed by another
    // look, until nothing of the start is left.
    ProcessHandle handle;
    for (;;) {
        const auto live = liveProcessOfStart(*launched);
        if (!live) return false;
        handle = ProcessHandle(*live);
        // The handle is opened after the look: it must still hold that
        // very process (which began no earlier than the launch).
        const bool same = handle.startTicks() && *handle.startTicks() >= launched->startTicks &&
                          (*live != launched->pid || handle.startTicks() == launched->startTicks);
        if (same && handle.alive()) break;
    }
    _pid = std::move(handle);
    _launched = launched;
    // The lock file's path, for the refreshes that follow the start to its
    // end: an instance that never saw itself stopped has not read it yet.
    isValid();
    // A start in progress, whoever made it: the lifecycle goes on from here
    // as for a start of our own.
    if (_serverStatus != ServerStatusStarting) setStatus(ServerStatusStarting);
    return true;
}

bool QuendralInstance::canStart() const {
    return access(_path.c_str(), R_OK | W_OK) == 0;
}

std::string QuendralInstance::findExecutable() const {
    return findServerExecutable(_path);
}

int32_t QuendralInstance::launchExecutable(const std::string &executable,
                                           const std::vector<std::string> &options,
                                           const std::string &directory) {
    Launch launch = launchServer(executable, options, directory, _onFork, _onMove);
    _unit = launch.unit;
    _execReport = std::move(launch.report);
    if (launch.pid == 0 && launch.forkError != 0)
        _failure = {ActionFailure::ForkFailed,
                    "cannot start " + executable + ": " + std::strerror(launch.forkError)};
    return launch.pid;
}

void QuendralInstance::refuse(ActionFailure::Kind kind, std::string text) {
    _failure = {kind, std::move(text)};
}

std::optional<std::string> QuendralInstance::launchFailure(int waitMs) {
    auto why = _execReport.failure(waitMs);
    if (why && !why->empty()) _failure = {ActionFailure::ExecFailed, *why};
    return why;
}

bool QuendralInstance::startup() {
    _failure = {};
    // The check that the instance is stopped and the launch are one step
    // for every front end of the user: both happen under the instance's
    // start lock, and the launch is recorded before the lock is let go.
    StartLock lock(_path);
    if (lock.state() == StartLock::Busy || lock.state() == StartLock::Failed) {
        refresh();
        refuse(lock.state() == StartLock::Busy ? ActionFailure::StartBeingDecided
                                               : ActionFailure::StartLockFailed,
               lock.error());
        return false;
    }
    refresh();
    // What that refresh learnt of an earlier launch is not this start's.
    _failure = {};
    if (_entryStatus == EntryStatusRemoved) {
        refuse(ActionFailure::Removed, "its configuration file is gone");
        return false;
    }
    if (_serverStatus != ServerStatusStopped) {
        refuse(ActionFailure::NotStopped, _serverStatus == ServerStatusStarting
                                              ? "it is already starting"
                                              : unknownText(_unknownReason));
        return false;
    }
    const std::string executable = resolveServerExecutable(findExecutable(), _path);
    if (executable.empty()) {
        logMessage("quendral executable not found");
        refuse(ActionFailure::NoExecutable, "no quendral program that may be started");
        return false;
    }
    // Held from the fork on, so that neither a refresh nor a stop can ever
    // take another process for it.
    // The start is recorded at the fork, before the launch can wait on the
    // service manager: a front end killed meanwhile leaves a record that
    // names the launched process, never a server that nobody can see.
    // No record, no launch: a start that no other front end can see would
    // let one of them launch a second server.
    _onFork = [&](pid_t child) {
        _launched = lock.record(child);
        return _launched.has_value();
    };
    // And where the service manager gave it a scope, the scope too: a server
    // that leaves its session at once lives on there.
    _onMove = [&](const std::string &cgroup) {
        if (_launched) _launched = lock.recordScope(cgroup);
    };
    _pid = ProcessHandle(launchExecutable(executable, {"quendral", "-f"}, _path));
    _onFork = {};
    _onMove = {};
    if (_pid.pid() == 0) {
        if (_failure.kind == ActionFailure::None)
            refuse(ActionFailure::StartLockFailed, "cannot record the start: " + lock.error());
        return false; // launchExecutable said why
    }
    setStatus(ServerStatusStarting);
    return true;
}

bool QuendralInstance::shutdown() {
    refresh();
    _failure = {};
    if (_serverStatus != ServerStatusRunning) {
        refuse(ActionFailure::NotRunning, _serverStatus == ServerStatusStarting
                                              ? "it is starting"
                                              : unknownText(_unknownReason));
        return false;
    }
    // Through the handle: the signal reaches the server or nobody.
    if (const int err = _pid.signal(SIGTERM); err != 0) {
        logMessage("terminate: cannot terminate %@ (errno %d)",
                   {instanceName(), std::to_string(err)});
        refuse(ActionFailure::SignalFailed,
               "cannot terminate " + std::to_string(_pid.pid()) + ": " + std::strerror(err));
        return false;
    }
    setStatus(ServerStatusStopping);
    return true;
}
