// An instance's lock file: what it says, and for whom it may speak.
//
// Contract:
//   - The server writes the lock file, never the monitor: its pid is the
//     file's first run of decimal digits (low 32 bits), and a clean shutdown
//     removes it. A file left by a server that ended names a pid the system
//     may give to anyone.
//   - readLockFile never blocks and never reads more than kReadLimit bytes;
//     a directory there counts as no lock file; a FIFO, device, non-ASCII
//     text, no digit or a pid that is not positive is logged as the model's
//     messages say ("Error reading %@: %@", "Malformed .lck file %@") and
//     names no pid. A file that exists but cannot be read, or that someone
//     other than the instance's owner may have chosen (a link, a place
//     outside the instance named by a configuration others may write), is
//     `unreadable`: nothing may be concluded about the server.
//   - lockFileWrittenBy is the one place that decides whether a live process
//     is the server the file speaks for: never PID 1 nor this program; only
//     a process running as the file's owner; and only one that began no
//     later than the file was written, an answer a clock step does not
//     change (remembered verdicts and start records, StartRecord.h).
#pragma once

#include "ProcessHandle.h"
#include "StartRecord.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace quendral {

struct LockFileContent {
    int32_t pid = 0; // 0: no usable pid
    // When and by whom the file was last written, and which file it is.
    LockFileVersion version;
    uid_t owner = 0;
    // The file may not speak, or could not be read (see readLockFile):
    // nothing can be said of the server, and `reason` says why.
    bool unreadable = false;
    std::string reason;
};

// Lock files are read only this far: a pid needs a few bytes, and nothing on
// disk may make a refresh read without bound.
constexpr size_t kLockFileReadLimit = 4096;

// Reads the lock file at `path` (qualified) of the instance in `directory`.
// It speaks only where nobody but the instance's owner (or root) chose its
// place: it is opened without following links, inside the directory through
// no link at all, and one outside counts only when the directory's
// "quendral.ini" passes the program rule (ExecutableTrust.h); a file with
// other names (hard links) never counts. Where it may not speak, or exists
// but cannot be read (no permission, no descriptor left), the content is
// `unreadable`: the instance's status is unknown, never stopped on a guess.
LockFileContent readLockFile(const std::string &path, const std::string &directory);

// Whether `process` (alive) is the server that wrote `lock`, the lock file
// of the instance in `directory` (see the contract).
bool lockFileWrittenBy(const LockFileContent &lock, const ProcessHandle &process,
                       const std::string &directory);

// "stale .lck file detected: <path>", logged at each refresh that meets a
// lock file whose writer has ended.
void logStaleLockFile(const std::string &path);

} // namespace quendral
