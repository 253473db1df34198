// Reading a small file from disk without ever blocking or reading without
// bound: only regular files are read (opened non-blocking, so a FIFO or a
// device swapped in cannot stall the open), and only their first bytes.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <sys/types.h>

namespace quendral {

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

} // namespace quendral
