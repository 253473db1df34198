// One Quendral server instance on disk: a directory holding "quendral.ini".
//
// What an instance knows
//   Its directory (as given, links not resolved), its display name (the
//   directory's last component; "database" makes it the default instance),
//   the lock and log file paths from "quendral.ini" (section "database",
//   keys "lockfile" and "errorlogfile", relative to the directory), and the
//   server process it last knew.
//
// Who writes the lock file
//   The server, never the monitor. A running server writes its pid into the
//   lock file (the first run of decimal digits is the pid) and removes the
//   file when it shuts down cleanly. A server that crashed, was killed or
//   lost power leaves the file behind, naming a pid that ended; the system
//   may later give that pid to any unrelated process. So a lock file counts
//   only for a live process that could have written it: one that began no
//   later than the file was last modified (one second's grace). Any other
//   lock file is stale: "stale .lck file detected: <path>" is logged at each
//   refresh that meets it and its pid is never probed as the server again
//   nor signalled. Where the system does not tell when a process began, a
//   live pid is taken as it stands.
//
// Status lifecycle (refresh() moves it unless noted)
//   Unknown  --refresh-->  Stopped or Running
//   Stopped  --startup() launches the server-->  Starting
//   Stopped  --no live writer in the lock file, and a start record names a
//              live process launched by any front end of the user
//              (StartRecord.h)-->  Starting
//   Starting --the lock file names the launched process or another live
//              process that could have written it-->  Running
//   Starting --the launched process ends, and no live writer is named-->
//              Stopped
//   Running  --shutdown() sends SIGTERM-->  Stopping
//   Stopping --the server ends-->  Stopped
//   Running  --the server ends-->  Stopped
//   Any      --a live writer is named in the lock file-->  Running
//   While starting, a lock file that names no live writer (left by an
//   earlier server) does not end the start: the launched server has not
//   written its own yet. Running therefore always means a live process that
//   wrote the lock file or that this instance launched, and a server on its
//   way is never shown stopped (so never offered a second start).
//
// Entry status says what the last refresh did to the instance's place in
// the manager's list: changed, unchanged, or removed (the configuration file
// is gone or not a regular file while no server runs).
//
// Rooms: the configuration is read by InstanceConfig.h, the lock file by
// LockFile.h (which also decides whom it speaks for), the server is found and
// launched by ServerLauncher.h, and the start lock and records are
// StartRecord.h; this class keeps the status lifecycle and the operations.
//
// Every operation runs on one thread; the class takes no locks. Failures are
// return values plus one line in the log (Log.h), never exceptions; startup
// and shutdown also say why they did nothing (failure()).
#pragma once

#include "InstanceConfig.h"
#include "LockFile.h"
#include "ProcessHandle.h"
#include "ServerLauncher.h"
#include "StartRecord.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// Server status of an instance. A named type, so that a switch that misses
// a value is a compiler warning; 32 bits, as the values are shared.
enum ServerStatus : int32_t {
    ServerStatusUnknown = 0,  // made, never refreshed
    ServerStatusStopped = 1,  // no live server process
    ServerStatusStarting = 2, // launched by us, not yet confirmed by the lock file
    ServerStatusRunning = 3,  // a live process with the instance's pid
    ServerStatusStopping = 4, // SIGTERM sent
};

// Outcome of the last refresh for the instance's place in the manager's list.
enum EntryStatus : int32_t {
    EntryStatusUnchanged = 0,
    EntryStatusNew = 1,
    EntryStatusChanged = 2,
    EntryStatusRemoved = 3, // configuration gone or unusable: the manager drops it
};

// The status as one lower-case word ("stopped", "running", …), for output
// that scripts read.
const char *statusWord(ServerStatus status);

// Why startup() or shutdown() did nothing or failed, for the user.
struct ActionFailure {
    enum Kind {
        None,
        Removed,           // the configuration is gone: no instance to act on
        NotStopped,        // startup: starting, running, stopping or unknown
        NotRunning,        // shutdown: stopped, starting, stopping or unknown
        StartBeingDecided, // another front end holds the start lock
        StartLockFailed,   // the start lock could not be taken (text says why)
        NoExecutable,      // no server program that may be started
        ForkFailed,        // text: "cannot start <program>: <strerror>"
        ExecFailed,        // the launched child could not run the program
        SignalFailed,      // text: "cannot terminate <pid>: <strerror>"
    };
    Kind kind = None;
    // In a few words: "it is already starting", "cannot start
    // /opt/q/bin/quendral: Permission denied". Empty where the status says
    // it all (NotStopped or NotRunning for a settled status).
    std::string text;
};

class QuendralInstance {
  public:
    // An instance of the directory `path`, kept as given. Reads nothing:
    // status Unknown, entry status New, no pid, configuration not yet read.
    explicit QuendralInstance(std::string path);

    // "Default Instance" for the default instance, else "Instance '<display
    // name>'", both through the localisation seam.
    std::string instanceName() const;
    // The directory as given to the constructor.
    const std::string &directory() const { return _path; }
    // The directory's last path component.
    std::string displayName() const { return _displayName; }
    // Whether the display name is exactly "database".
    bool isDefault() const { return _isDefault; }
    // As of the last refresh, startup or shutdown.
    ServerStatus serverStatus() const { return _serverStatus; }
    // As of the last refresh.
    EntryStatus entryStatus() const { return _entryStatus; }
    // Why the last refresh left the status unknown (the lock file may not
    // speak or cannot be read: "<lock file>: it is a symbolic link"); empty
    // for any other status.
    const std::string &unknownReason() const { return _unknownReason; }
    // The server's pid as last known; 0 for none. While starting, the
    // launched process; once running, the lock file's live writer.
    int32_t pid() const { return _pid.pid(); }
    // The lock file's path once the configuration was read, else nullopt.
    const std::optional<std::string> &lockFile() const { return _config.lockFile(); }
    // A descriptor that turns readable when the server as last known (while
    // starting, the launched process) ends, -1 where there is none (see
    // ProcessHandle::waitDescriptor). Valid until the next refresh, startup
    // or shutdown, which may let that process go.
    int serverWaitDescriptor() const { return _pid.waitDescriptor(); }

    // `value` (or `defaultValue` when there is none) as an absolute path: an
    // absolute one as it stands, a relative one appended to the directory and
    // standardised ("~" expanded, "." and ".." and repeated slashes resolved).
    std::string qualify(const std::optional<std::string> &value,
                        const std::string &defaultValue) const;
    // Whether "quendral.ini" exists and is a regular file (it is looked at
    // without following a link in its own name). Parses it again when its
    // modification time changed since the last parse, and sets the lock and
    // log file paths (defaults "quendral.lck", "quendral.log"). Logs "%@ is
    // not a regular file - skipped" for anything else standing there; a
    // missing file returns false silently. A file that cannot be parsed, or
    // one over kConfigSizeLimit, leaves the defaults in force and still
    // counts as valid.
    bool isValid();
    // The error log's path if the configuration is valid and something other
    // than a directory exists there (links followed), else nullopt. May parse
    // the configuration as isValid() does.
    std::optional<std::string> logFile();
    // The pid in the lock file: its first digit run's low 32 bits, 0 for
    // none. Silent when there is no lock file (or a directory); logs "Error
    // reading %@: %@" for a file that cannot be read (not a regular file,
    // not ASCII, no permission) and "Malformed .lck file %@" when there is no
    // digit or the value is not a positive pid. Reads at most
    // kLockFileReadLimit bytes and never blocks.
    int32_t pidValueFromLockFile();
    // Whether `pid` is a live process of ours to signal (another user's
    // counts as not running). Side effect: collects one ended child of this
    // process, whichever it is (without waiting), so launched servers do not
    // stay zombies; if that child is `pid`, the answer is false. The known
    // server's pid is probed through its handle, so a process that took over
    // the pid after the server ended does not count.
    bool isRunning(int32_t pid);
    // Sets the server status; entry status becomes Changed if it differed,
    // else Unchanged.
    void setStatus(ServerStatus status);
    // Brings the pid and both statuses up to date from the known server, the
    // lock file and the process table (see the lifecycle above). Logs the
    // stale message for each stale lock file met, "pid value from .lck file
    // is different (expected %d, got %d)" when a starting server's lock file
    // names another live writer (which is then followed), and whatever
    // pidValueFromLockFile and isValid log. Collects one or two ended
    // children (see isRunning). Reads the configuration only when no server
    // is seen running.
    void refresh();

    // Whether the user may start and stop this instance: the directory is
    // both readable and writable by them.
    bool canStart() const;
    // The server executable to start: QUENDRAL_BINARY if it names an
    // existing non-directory, else "quendral" in the instance directory,
    // else "../bin/quendral" beside it (whether executable or not), else the
    // bare name "quendral" for execvp's PATH search. Never empty.
    std::string findExecutable() const;
    // Forks; the child closes every descriptor, enters `directory`, starts a
    // new session, puts its standard streams on /dev/null and execs
    // `executable` (searched along PATH only when it has no "/") with
    // `options` as its argument vector, argument 0 first; any failure there
    // ends it with status 1, after saying why (launchFailure). Returns the
    // child's pid at once (never waits), 0 when the fork fails (logged). The
    // child is collected later by isRunning.
    int32_t launchExecutable(const std::string &executable, const std::vector<std::string> &options,
                             const std::string &directory);
    // Refreshes, then, only if the instance is stopped and not removed,
    // forks the server ("quendral -f" in the directory) and becomes
    // Starting with the child as its pid. True when a process was launched
    // (it may still fail at once; a later refresh then finds it stopped).
    // The refresh and the launch happen under the instance's start lock and
    // the launch is recorded (StartRecord.h), so a start that any front end
    // of the user has in progress is seen, and refused. Where no record can
    // be kept the start fails (StartLockFailed, with the reason) and the
    // launched child ends without running the server.
    bool startup();
    // Refreshes, then, only if the instance is running, sends SIGTERM to its
    // server and becomes Stopping. The signal goes only to the process the
    // instance knows as its server, never to one that took over its pid.
    // When the signal cannot be sent, logs "terminate: cannot terminate %@
    // (errno %d)" and returns false with the status unchanged. Never sends
    // another signal later.
    bool shutdown();
    // Why the last startup() or shutdown() did nothing or failed; kind None
    // when it did what was asked. A launched program that turned out not to
    // run is told here too (ExecFailed) once a refresh sees it end.
    const ActionFailure &failure() const { return _failure; }
    // failure().text.
    const std::string &failureReason() const { return _failure.text; }
    // After a startup() that launched a process: why that process could not
    // run the server program ("cannot start /x/quendral: Permission
    // denied"), "" when it runs it, nullopt while that is not known (waiting
    // at most waitMs; the child needs well under a millisecond once moved
    // into its unit). A failure is also kept in failure(), kind ExecFailed.
    std::optional<std::string> launchFailure(int waitMs = 0);

    static constexpr size_t kLockFileReadLimit = quendral::kLockFileReadLimit;
    static constexpr int64_t kConfigSizeLimit = quendral::InstanceConfig::kSizeLimit;

  private:
    using LockFileContent = quendral::LockFileContent;
    LockFileContent readLockFile();
    // The one place that decides whether `process` (alive) is the server the
    // lock file speaks for: not PID 1 nor this program; running as the
    // file's owner; and begun no later than the file was written (see
    // couldHaveWritten), an answer that a clock step does not change.
    bool writtenBy(const LockFileContent &lock, const quendral::ProcessHandle &process) const;
    // While starting: whether the lock file now names a live process that
    // could have written it (adopting it when it is another than the one we
    // launched).
    bool lockFileConfirmsStart();
    void logStaleLockFile() const;
    // Without a live writer in the lock file: takes up a start that a
    // record shows in progress. True when the instance is now starting.
    bool adoptRecordedStart();

    void refuse(ActionFailure::Kind kind, std::string text = {});

    std::string _path;
    // "quendral.ini" as last read: _lckFile, _logFile and _cacheTime.
    quendral::InstanceConfig _config;
    // The server as last known, held so that it stays that process.
    quendral::ProcessHandle _pid;
    bool _isDefault = false;
    EntryStatus _entryStatus = EntryStatusNew;
    ServerStatus _serverStatus = ServerStatusUnknown;
    std::string _displayName;
    ActionFailure _failure;
    std::string _unknownReason;
    // What the last launched child says of its own start.
    quendral::ExecReport _execReport;
    // The launch whose start record this instance made or took up, until
    // that start concludes.
    std::optional<quendral::LaunchedProcess> _launched;
    // While startup() launches: records the start at the fork.
    std::function<bool(pid_t)> _onFork;
    // And at the move into a unit of its own: records its control group.
    std::function<void(const std::string &)> _onMove;
    // The unit of the user's service manager the last launch was moved into.
    std::string _unit;
};
