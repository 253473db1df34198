#include "LockFile.h"

#include "Log.h"
#include "SystemIo.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <unistd.h>

namespace quendral {

LockFileContent readLockFile(const std::string &path) {
    // A directory there counts as no lock file; a FIFO, a device or bytes
    // that are not ASCII cannot be one.
    BoundedRead lock = readBounded(path, kLockFileReadLimit);
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
            logMessage("Error reading %@: %@", {path, lock.error});
            LockFileContent unknown;
            unknown.unreadable = true;
            return unknown;
        }
        break;
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
    const auto launched = liveStartRecord(directory);
    return launched && launched->pid == identity.pid &&
           launched->startTicks == identity.startTicks &&
           couldHaveWritten(launched->recordedAt, lock.version.mtime);
}

void logStaleLockFile(const std::string &path) {
    logMessage("stale .lck file detected: %@", {path});
}

} // namespace quendral
