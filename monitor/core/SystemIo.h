// The one home of how this program touches files it does not control.
//
// Contract:
//   - Nothing here ever blocks on a file: a file is opened non-blocking and
//     read only when it is a regular file, so a FIFO or a device swapped in
//     for a configuration, lock or log file cannot stall the open or the read.
//   - Nothing here reads without bound: readBounded takes at most `limit`
//     bytes, readWholeSmall at most its buffer.
//   - A system call interrupted by a signal is retried (retryOnInterrupt);
//     every other failure is reported with its errno, never printed.
//   - The user's directories (home, configuration home) and the program's
//     own path are found by one rule each, written here.
// The configuration library under libsrc/ keeps its own C equivalents: it is
// self-contained and links nothing of this.
#pragma once

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace quendral {

namespace sys {

// Calls `call` again while it fails with EINTR; returns its last result.
template <class Call> auto retryOnInterrupt(Call &&call) -> decltype(call()) {
    decltype(call()) result;
    do result = call();
    while (result < 0 && errno == EINTR);
    return result;
}

enum class FileKind {
    Regular,    // fd is open for reading
    Missing,    // nothing there, or behind a directory we may not search
    Directory,  // a directory stands there
    NotRegular, // a FIFO, device or socket: not opened for reading
    Failed,     // it exists but could not be opened (errorNumber says why)
};

struct OpenedFile {
    int fd = -1; // Regular only; the caller closes it
    FileKind kind = FileKind::Failed;
    int errorNumber = 0; // Failed, Missing: the open's errno
    struct stat st {};   // Regular, Directory, NotRegular: what fstat said
};

// Opens path for reading, close-on-exec, without ever waiting: O_NONBLOCK
// keeps a FIFO without writer from stalling the open, and anything but a
// regular file is closed again at once.
OpenedFile openRegular(const std::string &path);

// Reads up to `size` bytes at `offset` (pread), stopping early only at the
// file's end. false on a read error (errno set).
bool readAt(int fd, off_t offset, char *buf, size_t size, size_t &got);

// Writes all of `size` bytes. false on a write error (errno set).
bool writeAll(int fd, const char *data, size_t size);

// A small file without a size to go by (/proc, /sys) read in one call into
// buf as a NUL-terminated text of at most size - 1 bytes. false when it
// cannot be opened or read, or is empty.
bool readWholeSmall(const char *path, char *buf, size_t size);

// The whole of such a file, however many reads it takes; nullopt when it
// cannot be opened or read.
std::optional<std::string> readWhole(const char *path);

// The path of the running program (/proc/self/exe); "" when unknown.
std::string ownExecutablePath();

// The user's home directory: $HOME when set, else the password database's
// entry; "" when neither says.
std::string homeDirectory();

// Where the user's configuration lives: $XDG_CONFIG_HOME when it is an
// absolute path, else ~/.config; "" without a home directory.
std::string configHome();

// The path with every link resolved and made absolute; "" when some part of
// it does not exist or cannot be searched.
std::string realPath(const std::string &path);

// The directory that holds path, lexically: "/a/b" gives "/a", "/a" gives
// "/", "a" gives ".".
std::string parentDirectory(const std::string &path);

} // namespace sys

// The first bytes of a small file, read without blocking or without bound.
struct BoundedRead {
    enum Status {
        Ok,         // text holds the file's first bytes, at most the limit
        Missing,    // nothing there, or behind a directory we may not search
        Directory,  // a directory stands there
        NotRegular, // a FIFO, device or socket: not read
        Failed,     // it exists but could not be opened or read (error says why)
    };
    Status status = Failed;
    std::string text;
    std::string error;
    bool complete = false; // Ok and the whole file fit within the limit
    timespec mtime{};      // Ok: when the file was last modified
    uid_t owner = 0;       // Ok: who owns the file
    dev_t device = 0;      // Ok: the file's identity, device and inode
    ino_t inode = 0;
    int errorNumber = 0; // Failed: the errno behind error
};

BoundedRead readBounded(const std::string &path, size_t limit);
// The same for a regular file already open (fd, with what fstat said of it),
// which it closes.
BoundedRead readBoundedFrom(int fd, const struct stat &st, size_t limit);

} // namespace quendral
