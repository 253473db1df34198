#include "QuendralInstance.h"

#include "BoundedRead.h"
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

QuendralInstance::QuendralInstance(std::string path)
    : _path(std::move(path)), _displayName(path::lastComponent(_path)) {
    _isDefault = _displayName == "database";
}

std::string QuendralInstance::instanceName() const {
    if (_isDefault) return localizedString("Default Instance");
    return fillPlaceholders(localizedString("Instance '%@'"), {_displayName});
}

std::string QuendralInstance::qualify(const std::optional<std::string> &value,
                                      const std::string &defaultValue) const {
    const std::string &v = value ? *value : defaultValue;
    if (path::isAbsolute(v)) return v;
    return path::standardize(path::append(_path, v));
}

bool QuendralInstance::isValid() {
    // lstat follows links in every component but the last, so the file it
    // sees under the path as given is the one under the resolved path. The
    // resolved form is built only for the message, which names it; this
    // check runs for every instance at every scan.
    const std::string ini = path::append(_path, "quendral.ini");
    struct stat st;
    if (lstat(ini.c_str(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) {
        logMessage("%@ is not a regular file - skipped",
                   {path::append(path::resolveSymlinks(_path), "quendral.ini")});
        return false;
    }
    if (_cacheTime && _cacheTime->tv_sec == st.st_mtim.tv_sec &&
        _cacheTime->tv_nsec == st.st_mtim.tv_nsec)
        return true;

    // The time is recorded before parsing, so a file that cannot be parsed is
    // not tried again until it changes.
    _cacheTime = st.st_mtim;
    std::map<std::string, std::string> values;
    TWK_CfgHandle *h = nullptr;
    if (st.st_size <= kConfigSizeLimit && TWK_Cfg_init(&h, ini.c_str()) == 0) {
        if (TWK_Cfg_find(h, "database", nullptr) == 0 && TWK_Cfg_nextentry(h) == 0) {
            do {
                const int type = h->flags & TWK_CFG_TYPEMASK;
                if (type == TWK_CFG_SECTION) break;
                if (type == TWK_CFG_KEY) {
                    std::string key = h->id;
                    std::transform(key.begin(), key.end(), key.begin(),
                                   [](unsigned char c) { return std::tolower(c); });
                    values[key] = h->value;
                }
            } while (TWK_Cfg_nextentry(h) == 0);
        }
        TWK_Cfg_done(h);
    }
    auto get = [&](const char *key) -> std::optional<std::string> {
        auto it = values.find(key);
        return it == values.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
    _lckFile = qualify(get("lockfile"), "quendral.lck");
    _logFile = qualify(get("errorlogfile"), "quendral.log");
    return true;
}

std::optional<std::string> QuendralInstance::logFile() {
    if (!isValid()) return std::nullopt;
    if (_logFile && path::existsNotDirectory(*_logFile)) return _logFile;
    return std::nullopt;
}

int32_t QuendralInstance::pidValueFromLockFile() {
    return readLockFile().pid;
}

QuendralInstance::LockFileContent QuendralInstance::readLockFile() {
    if (!_lckFile) return {};

    // A directory there counts as no lock file; a FIFO, a device or bytes
    // that are not ASCII cannot be one.
    BoundedRead lock = readBounded(*_lckFile, kLockFileReadLimit);
    switch (lock.status) {
    case BoundedRead::Missing:
    case BoundedRead::Directory:
        return {};
    case BoundedRead::NotRegular:
        lock.error = "not a regular file";
        break;
    case BoundedRead::Ok:
        if (std::any_of(lock.text.begin(), lock.text.end(),
                        [](unsigned char c) { return c > 0x7F; }))
            lock.error = "the file is not ASCII text";
        break;
    case BoundedRead::Failed:
        if (lock.errorNumber == EMFILE || lock.errorNumber == ENFILE ||
            lock.errorNumber == ENOMEM) {
            // Not an answer about the server: the file is there, we could
            // not look. Taking it for "no server" would offer a second start.
            logMessage("Error reading %@: %@", {*_lckFile, lock.error});
            LockFileContent unknown;
            unknown.unreadable = true;
            return unknown;
        }
        break;
    }
    if (!lock.error.empty()) {
        logMessage("Error reading %@: %@", {*_lckFile, lock.error});
        return {};
    }
    const std::string &text = lock.text;
    const size_t first = text.find_first_of("0123456789");
    if (first == std::string::npos) {
        logMessage("Malformed .lck file %@", {*_lckFile});
        return {};
    }
    // The digit run's low 32 bits, taken as a signed pid.
    uint32_t value = 0;
    for (size_t i = first; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]));
         i++)
        value = value * 10u + static_cast<uint32_t>(text[i] - '0');
    const auto lockPid = static_cast<int32_t>(value);
    // A wrapped value of zero or below names no process; kill() must never
    // see it (-1 would signal every process of the user).
    if (lockPid <= 0) {
        logMessage("Malformed .lck file %@", {*_lckFile});
        return {};
    }
    LockFileContent content;
    content.pid = lockPid;
    content.version = {lock.device, lock.inode, lock.mtime};
    content.owner = lock.owner;
    return content;
}

bool QuendralInstance::writtenBy(const LockFileContent &lock, const ProcessHandle &process) const {
    // Init and this program are never an instance's server, whatever a file
    // says: stopping them would end the system or the monitor.
    if (lock.pid == 1 || lock.pid == getpid()) return false;
    // Whoever can write the lock file can name any pid in it; it speaks only
    // for a process of the user who owns it (root's file for root's process),
    // so it can never turn another user's process into the server, even for
    // a monitor run as root. Where the system hides who runs a process, the
    // process cannot be shown to be the owner's.
    const std::optional<uid_t> user = process.user();
    if (!user || *user != lock.owner) return false;
    const LaunchedProcess identity{process.pid(), process.startTicks().value_or(0)};
    if (process.couldHaveWritten(lock.version.mtime)) {
        if (process.startTicks()) rememberLockWriter(lock.version, identity);
        return true;
    }
    // Begun after the file was written, as the wall clock reads now. Either
    // the pid was reused after the writer ended, or the clock was stepped
    // forward since the file was written. Start ticks and file identity do
    // not move with the clock: a verdict made before the step still tells.
    // So does the start record of the launch that this very process is: it
    // was written just after the launch, so a lock file written no earlier
    // (both times as the clock read then, before any later step) came from
    // the launched server, not from an earlier one.
    if (!process.startTicks()) return false;
    if (isRememberedLockWriter(lock.version, identity)) return true;
    const auto launched = liveStartRecord(_path);
    return launched && launched->pid == identity.pid &&
           launched->startTicks == identity.startTicks &&
           quendral::couldHaveWritten(launched->recordedAt, lock.version.mtime);
}

bool QuendralInstance::isRunning(int32_t pid) {
    if (pid <= 0) return false;
    // Collect one child that has ended, whichever it is, so servers we
    // launched do not stay zombies.
    const pid_t reaped = waitpid(-1, nullptr, WNOHANG);
    if (reaped == pid) return false;
    // The known server is asked through its handle: if it ended, a process
    // that has its pid now is someone else. Another user's process (EPERM)
    // counts as not running either way.
    if (pid == _pid.pid()) return _pid.alive();
    return kill(pid, 0) == 0;
}

void QuendralInstance::setStatus(int32_t status) {
    if (_serverStatus == ServerStatusStarting && status != ServerStatusStarting && _launched) {
        // The start has concluded (the server runs, or the launched process
        // ended): its record has said what it had to say.
        forgetStartRecord(_path, *_launched);
        _launched.reset();
    }
    if (status != _serverStatus) {
        _entryStatus = EntryStatusChanged;
        _serverStatus = status;
    } else {
        _entryStatus = EntryStatusUnchanged;
    }
}

void QuendralInstance::logStaleLockFile() const {
    logMessage("stale .lck file detected: %@", {_lckFile.value_or("")});
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
    ProcessHandle handle(launched->pid);
    // The handle is opened after the record was checked: it must still hold
    // that very process.
    if (handle.startTicks() != launched->startTicks || !handle.alive()) return false;
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

namespace {

std::optional<std::string> currentDirectory() {
    std::string dir(256, '\0');
    while (getcwd(dir.data(), dir.size()) == nullptr) {
        if (errno != ERANGE || dir.size() > (1u << 20)) return std::nullopt;
        dir.resize(dir.size() * 2);
    }
    dir.resize(std::strlen(dir.c_str()));
    return dir;
}

} // namespace

std::string QuendralInstance::findExecutable() const {
    // A candidate that exists is taken only if nobody else can have put it
    // there; one that fails is logged and the search goes on.
    auto usable = [](const std::string &candidate) {
        if (!path::existsNotDirectory(candidate)) return false;
        const auto why = whyUntrusted(candidate);
        if (why) logUntrusted(candidate, *why);
        return !why;
    };
    if (const char *binary = std::getenv("QUENDRAL_BINARY"); binary && *binary) {
        // The server runs in its instance directory, so a relative name
        // would be looked up there by exec, not where it was checked: it is
        // made absolute once, against our own directory, and exactly that
        // file is checked and started.
        std::optional<std::string> absolute = binary;
        if (!path::isAbsolute(binary)) {
            const auto here = currentDirectory();
            absolute = here ? std::optional(path::append(*here, binary)) : std::nullopt;
            if (!absolute) logUntrusted(binary, "the current directory cannot be found");
        }
        if (absolute && usable(*absolute)) return *absolute;
    }
    std::string inside = path::append(_path, "quendral");
    if (usable(inside)) return inside;
    std::string beside = path::append(_path, "../bin/quendral");
    if (usable(beside)) return beside;
    return "quendral";
}

int32_t QuendralInstance::launchExecutable(const std::string &executable,
                                           const std::vector<std::string> &options,
                                           const std::string &directory) {
    // Everything the child needs is prepared before the fork: between fork
    // and exec it makes system calls only.
    std::vector<char *> argv;
    argv.reserve(options.size() + 1);
    for (const std::string &o : options) argv.push_back(const_cast<char *>(o.c_str()));
    argv.push_back(nullptr);
    const char *file = executable.c_str();
    const char *dir = directory.c_str();
    sigset_t none;
    sigemptyset(&none);
    const std::optional<rlimit> descriptors = originalDescriptorLimit();
    // The child waits on this pipe until it has been moved into a unit of
    // its own (ServerUnit.h): a server that forks at once must not leave
    // processes behind in ours. If we die first, the pipe closes and the
    // child goes on all the same.
    int release[2];
    if (pipe2(release, O_CLOEXEC) != 0) release[0] = release[1] = -1;

    const pid_t child = fork();
    if (child < 0) {
        logMessage("cannot start %@: %@", {executable, std::strerror(errno)});
        if (release[0] >= 0) close(release[0]);
        if (release[1] >= 0) close(release[1]);
        return 0;
    }
    if (child > 0) {
        if (release[0] >= 0) close(release[0]);
        const UnitMove move = moveIntoOwnScope(child, directory, currentLogIdent());
        _unit = move.unit;
        if (!move.moved)
            logMessage("the server of %@ has no unit of its own: %@", {directory, move.why});
        if (release[1] >= 0) close(release[1]);
        return child;
    }

    if (release[0] >= 0) {
        // Our copy of the write end goes first, or the read below would
        // never see the parent close its own.
        close(release[1]);
        char go;
        ssize_t n;
        do n = read(release[0], &go, 1);
        while (n < 0 && errno == EINTR);
    }
    for (int fd = 0; fd < 32; fd++) close(fd);
    // Descriptors above 31 would otherwise leak into the server for its
    // whole life.
    closefrom(32);
    if (chdir(dir) != 0) _exit(1);
    if (setsid() == -1) _exit(1);
    if (open("/dev/null", O_RDWR) != 0) _exit(1);
    dup2(0, 1);
    dup2(0, 2);
    // A server must not inherit the monitor's blocked signals, nor the
    // descriptor limit the monitor raised for itself.
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (descriptors) setrlimit(RLIMIT_NOFILE, &*descriptors);
    execvp(file, argv.data());
    _exit(1);
}

bool QuendralInstance::startup() {
    _failure.clear();
    // The check that the instance is stopped and the launch are one step
    // for every front end of the user: both happen under the instance's
    // start lock, and the launch is recorded before the lock is let go.
    StartLock lock(_path);
    if (lock.state() == StartLock::Busy || lock.state() == StartLock::Failed) {
        refresh();
        _failure = lock.error();
        return false;
    }
    if (lock.state() == StartLock::Unavailable)
        logMessage("start record unavailable: %@", {lock.error()});
    refresh();
    if (_entryStatus == EntryStatusRemoved || _serverStatus != ServerStatusStopped) {
        if (_serverStatus == ServerStatusStarting) _failure = "it is already starting";
        return false;
    }
    std::string executable = findExecutable();
    if (executable.find('/') == std::string::npos) {
        // The bare name is looked up here rather than by execvp in the
        // child, so that every PATH entry passes the same test as the other
        // candidates; argument 0 stays "quendral" all the same.
        const char *searchPath = std::getenv("PATH");
        executable = findTrustedOnPath(executable, searchPath ? searchPath : "/bin:/usr/bin", _path)
                         .value_or("");
    }
    if (executable.empty()) {
        logMessage("quendral executable not found");
        return false;
    }
    // Held from the fork on, so that neither a refresh nor a stop can ever
    // take another process for it.
    _pid = ProcessHandle(launchExecutable(executable, {"quendral", "-f"}, _path));
    if (_pid.pid() == 0) return false;
    _launched = lock.record(_pid.pid());
    setStatus(ServerStatusStarting);
    return true;
}

bool QuendralInstance::shutdown() {
    _failure.clear();
    refresh();
    if (_serverStatus != ServerStatusRunning) {
        if (_serverStatus == ServerStatusStarting) _failure = "it is starting";
        return false;
    }
    // Through the handle: the signal reaches the server or nobody.
    if (const int err = _pid.signal(SIGTERM); err != 0) {
        logMessage("terminate: cannot terminate %@ (errno %d)",
                   {instanceName(), std::to_string(err)});
        return false;
    }
    setStatus(ServerStatusStopping);
    return true;
}
