// Reading an instance's log file from its end, as `quendralctl log` and a
// failed start show it. Only the tail is ever read: a log may have grown to
// gigabytes. And, like every read of the monitor, opening it never waits on a
// FIFO or a device: those are refused at once.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace quendralctl {

struct LogTail {
    bool ok = false;
    std::string error; // when !ok: why the file cannot be read
    std::string text;  // the last lines, each ending in '\n' (one is added
                       // to a last line without)
};

// The last `lines` lines of the file at `path`, reading at most about
// kTailReadLimit bytes from its end.
LogTail readLogTail(const std::string &path, size_t lines);

// Where a log file stood at some moment (before a start), so that what was
// written after can be told from what earlier runs wrote.
struct LogMark {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
};
LogMark markLog(const std::string &path);

// readLogTail of what was written to the file at `path` since `mark`: past
// the marked size while it is the same file and has not shrunk; all of it
// when it was replaced (a new inode), truncated, or did not exist.
LogTail readLogTailSince(const std::string &path, const LogMark &mark, size_t lines);

// Writes text out; false when it could not be written.
using Writer = std::function<bool(std::string_view)>;

// Writes the last `lines` lines through `out`, then what is appended,
// polling, until the process is interrupted. A file replaced by a new one
// (rotated) is followed on into the new file; one truncated in place is read
// again from its start. Returns only on an error (false, with `error` set)
// or when `out` fails (true: the writer knows why).
bool followLog(const std::string &path, size_t lines, const Writer &out, std::string &error);

constexpr size_t kTailReadLimit = 4 << 20;

} // namespace quendralctl
