#include "LockFile.h"

#include "ExecutableTrust.h"
#include "Log.h"
#include "PathUtil.h"
#include "SystemIo.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendral {

namespace {

// What stands at a lock file's place, opened without following a link, or
// why it may not speak.
struct LockOpen {
    BoundedRead read;
    std::string distrust; // non-empty: it speaks for nobody, and this is why
};

bool isLink(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// Opens `path` read-only without waiting and without following a link in
// its last component; `at`/`name` as for openat. Fills `r` for what is not a
// regular file and returns the descriptor of one that is (-1 otherwise).
int openNoFollow(int at, const char *name, const std::string &path, LockOpen &r, struct stat &st) {
    const int fd = openat(at, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        const int err = errno;
        if (err == ENOENT || err == ENOTDIR) {
            r.read.status = BoundedRead::Missing;
        } else if (err == ELOOP && isLink(path)) {
            r.distrust = "it is a symbolic link";
        } else {
            r.read.status = BoundedRead::Failed;
            r.read.errorNumber = err;
            r.read.error = std::strerror(err);
        }
        return -1;
    }
    if (fstat(fd, &st) != 0) {
        r.read.status = BoundedRead::Failed;
        r.read.errorNumber = errno;
        r.read.error = std::strerror(errno);
        close(fd);
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        r.read.status = S_ISDIR(st.st_mode) ? BoundedRead::Directory : BoundedRead::NotRegular;
        close(fd);
        return -1;
    }
    return fd;
}

// The lock file of the instance in `directory`, if it may speak: inside the
// directory, reached through no link; outside it, only where the
// configuration that put it there is one nobody else may change.
LockOpen openLockFile(const std::string &path, const std::string &directory) {
    LockOpen r;
    struct stat st {};
    int fd = -1;
    const std::string dir = path::standardize(directory);
    const std::string prefix = dir == "/" ? dir : dir + "/";
    if (path.size() > prefix.size() && path.compare(0, prefix.size(), prefix) == 0) {
        // Walked from the instance directory one step at a time, no step a
        // link: whoever may write below it cannot send us elsewhere.
        std::string rest = path.substr(prefix.size());
        int at = open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (at < 0) {
            const int err = errno;
            if (err == ENOENT || err == ENOTDIR) {
                r.read.status = BoundedRead::Missing;
            } else {
                r.read.status = BoundedRead::Failed;
                r.read.errorNumber = err;
                r.read.error = std::strerror(err);
            }
            return r;
        }
        for (size_t slash; (slash = rest.find('/')) != std::string::npos;) {
            const std::string step = rest.substr(0, slash);
            rest.erase(0, slash + 1);
            const int next =
                openat(at, step.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            const int err = errno;
            close(at);
            if (next < 0) {
                const std::string stepPath = path.substr(0, path.size() - rest.size() - 1);
                const bool link = (err == ENOTDIR || err == ELOOP) && isLink(stepPath);
                if (link) {
                    r.distrust = stepPath + " is a symbolic link";
                } else if (err == ENOENT || err == ENOTDIR) {
                    r.read.status = BoundedRead::Missing;
                } else {
                    r.read.status = BoundedRead::Failed;
                    r.read.errorNumber = err;
                    r.read.error = std::strerror(err);
                }
                return r;
            }
            at = next;
        }
        fd = openNoFollow(at, rest.c_str(), path, r, st);
        close(at);
    } else {
        // Elsewhere: whoever wrote the configuration chose the place, so it
        // must be someone the program rule would trust with a program.
        const std::string ini = path::append(directory, "quendral.ini");
        if (const auto why = whyUntrusted(ini)) {
            r.distrust = "it lies outside the instance directory and " + ini +
                         " may have been written by another user (" + *why + ")";
            return r;
        }
        fd = openNoFollow(AT_FDCWD, path.c_str(), path, r, st);
    }
    if (fd < 0) return r;
    if (st.st_nlink > 1) {
        // Another name of the same file: a link to someone else's pid file.
        close(fd);
        r.distrust = "it has other names (hard links)";
        return r;
    }
    r.read = readBoundedFrom(fd, st, kLockFileReadLimit);
    return r;
}

} // namespace

LockFileContent readLockFile(const std::string &path, const std::string &directory) {
    // A directory there counts as no lock file; a FIFO, a device or bytes
    // that are not ASCII cannot be one.
    LockOpen opened = openLockFile(path, directory);
    if (!opened.distrust.empty()) {
        // Not an answer about the server: someone other than the instance's
        // owner may have chosen what this file says, or where it points.
        logMessage("Error reading %@: %@", {path, opened.distrust});
        LockFileContent unknown;
        unknown.unreadable = true;
        unknown.reason = path + ": " + opened.distrust;
        return unknown;
    }
    BoundedRead &lock = opened.read;
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
    case BoundedRead::Failed: {
        // The file is there and we could not look (no permission, no
        // descriptor left, no memory): not an answer about the server.
        // Taking it for "no server" would offer a second start.
        logMessage("Error reading %@: %@", {path, lock.error});
        LockFileContent unknown;
        unknown.unreadable = true;
        unknown.reason = path + ": " + lock.error;
        return unknown;
    }
    }
    if (!lock.error.empty()) {
        logMessage("Error reading %@: %@", {path, lock.error});
        return {};
    }
    const std::string &text = lock.text;
    const size_t first = text.find_first_of("0123456789");
    if (first == std::string::npos) {
        logMessage("Malformed .lck file %@", {path});
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
        logMessage("Malformed .lck file %@", {path});
        return {};
    }
    LockFileContent content;
    content.pid = lockPid;
    content.version = {lock.device, lock.inode, lock.mtime};
    content.owner = lock.owner;
    return content;
}

bool lockFileWrittenBy(const LockFileContent &lock, const ProcessHandle &process,
                       const std::string &directory) {
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
    const LaunchedProcess identity{process.pid(), process.startTicks().value_or(0), {}, {}};
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
    const auto launched = liveStartRecord(directory);
    return launched && launched->pid == identity.pid &&
           launched->startTicks == identity.startTicks &&
           couldHaveWritten(launched->recordedAt, lock.version.mtime);
}

void logStaleLockFile(const std::string &path) {
    logMessage("stale .lck file detected: %@", {path});
}

} // namespace quendral
