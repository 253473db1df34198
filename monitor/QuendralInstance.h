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
// Every operation runs on one thread; the class takes no locks. Failures are
// return values plus one line in the log (Log.h), never exceptions.
#pragma once

#include "ProcessHandle.h"
#include "StartRecord.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

// Server status of an instance.
enum : int32_t {
    ServerStatusUnknown = 0,  // made, never refreshed
    ServerStatusStopped = 1,  // no live server process
    ServerStatusStarting = 2, // launched by us, not yet confirmed by the lock file
    ServerStatusRunning = 3,  // a live process with the instance's pid
    ServerStatusStopping = 4, // SIGTERM sent
};

// Outcome of the last refresh for the instance's place in the manager's list.
enum : int32_t {
    EntryStatusUnchanged = 0,
    EntryStatusNew = 1,
    EntryStatusChanged = 2,
    EntryStatusRemoved = 3, // configuration gone or unusable: the manager drops it
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
    // One of ServerStatus*, as of the last refresh, startup or shutdown.
    int32_t serverStatus() const { return _serverStatus; }
    // One of EntryStatus*, as of the last refresh.
    int32_t entryStatus() const { return _entryStatus; }
    // The server's pid as last known; 0 for none. While starting, the
    // launched process; once running, the lock file's live writer.
    int32_t pid() const { return _pid.pid(); }
    // The lock file's path once the configuration was read, else nullopt.
    const std::optional<std::string> &lockFile() const { return _lckFile; }
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
    void setStatus(int32_t status);
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
    // ends it with status 1. Returns the child's pid at once (never waits),
    // 0 when the fork fails. The child is collected later by isRunning.
    int32_t launchExecutable(const std::string &executable, const std::vector<std::string> &options,
                             const std::string &directory);
    // Refreshes, then, only if the instance is stopped and not removed,
    // forks the server ("quendral -f" in the directory) and becomes
    // Starting with the child as its pid. True when a process was launched
    // (it may still fail at once; a later refresh then finds it stopped).
    // The refresh and the launch happen under the instance's start lock and
    // the launch is recorded (StartRecord.h), so a start that any front end
    // of the user has in progress is seen, and refused. Logs "start record
    // unavailable: %@" when no record can be kept (the start goes ahead).
    bool startup();
    // Refreshes, then, only if the instance is running, sends SIGTERM to its
    // server and becomes Stopping. The signal goes only to the process the
    // instance knows as its server, never to one that took over its pid.
    // When the signal cannot be sent, logs "terminate: cannot terminate %@
    // (errno %d)" and returns false with the status unchanged. Never sends
    // another signal later.
    bool shutdown();
    // Why the last startup() or shutdown() did nothing, where the user needs
    // to know ("it is already starting"); empty otherwise.
    const std::string &failureReason() const { return _failure; }

    // Lock files are read only this far: a pid needs a few bytes, and nothing
    // on disk may make a refresh read without bound.
    static constexpr size_t kLockFileReadLimit = 4096;
    // A "quendral.ini" larger than this is not parsed; the default paths apply.
    static constexpr int64_t kConfigSizeLimit = 1 << 20;

  private:
    struct LockFileContent {
        int32_t pid = 0; // 0: no usable pid
        // When and by whom the file was last written, and which file it is.
        quendral::LockFileVersion version;
        uid_t owner = 0;
        // The file exists but could not be read for want of resources (no
        // descriptor left, no memory): nothing can be said of the server.
        bool unreadable = false;
    };
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

    std::string _path;
    std::optional<std::string> _lckFile;
    std::optional<std::string> _logFile;
    // The server as last known, held so that it stays that process.
    quendral::ProcessHandle _pid;
    std::optional<timespec> _cacheTime;
    bool _isDefault = false;
    int32_t _entryStatus = EntryStatusNew;
    int32_t _serverStatus = ServerStatusUnknown;
    std::string _displayName;
    std::string _failure;
    // The launch whose start record this instance made or took up, until
    // that start concludes.
    std::optional<quendral::LaunchedProcess> _launched;
    // The unit of the user's service manager the last launch was moved into.
    std::string _unit;
};
