#include "LogTail.h"

#include "SystemIo.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace quendralctl {

namespace {

constexpr size_t kChunk = 64 << 10;

// Opens a log file for reading: regular files only, never blocking on the
// open (a FIFO without writer would).
int openLog(const std::string &path, struct stat &st, std::string &error) {
    const quendral::sys::OpenedFile f = quendral::sys::openRegular(path);
    switch (f.kind) {
    case quendral::sys::FileKind::Regular:
        st = f.st;
        return f.fd;
    case quendral::sys::FileKind::Missing:
        if (f.errorNumber == ENOENT) {
            error = "there is no log file " + path;
            return -1;
        }
        [[fallthrough]];
    case quendral::sys::FileKind::Failed:
        error = "cannot open " + path + ": " + std::strerror(f.errorNumber);
        return -1;
    case quendral::sys::FileKind::Directory:
    case quendral::sys::FileKind::NotRegular:
        break;
    }
    error = path + " is not a regular file";
    return -1;
}

bool readAt(int fd, off_t offset, size_t size, std::string &into) {
    into.resize(size);
    size_t got = 0;
    const bool ok = quendral::sys::readAt(fd, offset, into.data(), size, got);
    into.resize(got);
    return ok;
}

// The last `lines` lines of the bytes from `begin` to `size` of an open
// file, read backwards in chunks until enough line ends are seen (or
// kTailReadLimit bytes are read).
bool tailOf(int fd, off_t begin, off_t size, size_t lines, std::string &text, std::string &error) {
    text.clear();
    if (lines == 0 || size <= begin) return true;
    off_t start = size;
    size_t found = 0;
    std::string chunk;
    while (start > begin && text.size() < kTailReadLimit) {
        const size_t want = static_cast<size_t>(std::min<off_t>(start - begin, kChunk));
        start -= static_cast<off_t>(want);
        if (!readAt(fd, start, want, chunk)) {
            error = std::strerror(errno);
            return false;
        }
        bool enough = false;
        for (size_t i = chunk.size(); i-- > 0;) {
            // The file's last byte ends the last line; it begins none.
            if (chunk[i] != '\n' || start + static_cast<off_t>(i) == size - 1) continue;
            if (++found == lines) {
                text.insert(0, chunk, i + 1, std::string::npos);
                enough = true;
                break;
            }
        }
        if (enough) break;
        text.insert(0, chunk);
    }
    if (!text.empty() && text.back() != '\n') text += '\n';
    return true;
}

} // namespace

LogTail readLogTail(const std::string &path, size_t lines) {
    return readLogTailSince(path, LogMark{}, lines);
}

LogMark markLog(const std::string &path) {
    LogMark mark;
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return mark;
    mark.exists = true;
    mark.device = st.st_dev;
    mark.inode = st.st_ino;
    mark.size = st.st_size;
    return mark;
}

LogTail readLogTailSince(const std::string &path, const LogMark &mark, size_t lines) {
    LogTail r;
    struct stat st;
    const int fd = openLog(path, st, r.error);
    if (fd < 0) return r;
    const bool sameFile = mark.exists && st.st_dev == mark.device && st.st_ino == mark.inode &&
                          st.st_size >= mark.size;
    r.ok = tailOf(fd, sameFile ? mark.size : 0, st.st_size, lines, r.text, r.error);
    close(fd);
    return r;
}

bool followLog(const std::string &path, size_t lines, const Writer &out, std::string &error) {
    struct stat st;
    int fd = openLog(path, st, error);
    if (fd < 0) return false;
    std::string text;
    if (!tailOf(fd, 0, st.st_size, lines, text, error)) {
        close(fd);
        return false;
    }
    // Without a final '\n' the tail got one added; what follows continues
    // that line, which is fine for reading.
    if (!out(text)) {
        close(fd);
        return true;
    }
    off_t offset = st.st_size;
    std::string chunk;
    for (;;) {
        struct stat now;
        if (fstat(fd, &now) == 0 && now.st_size < offset) offset = 0; // truncated in place
        while (fstat(fd, &now) == 0 && now.st_size > offset) {
            const size_t want = static_cast<size_t>(std::min<off_t>(now.st_size - offset, kChunk));
            if (!readAt(fd, offset, want, chunk) || chunk.empty()) break;
            offset += static_cast<off_t>(chunk.size());
            if (!out(chunk)) {
                close(fd);
                return true;
            }
        }
        // Rotated: the name now stands for another file. What the old one
        // got last has been read above; go on with the new one from its start.
        struct stat named;
        if (stat(path.c_str(), &named) == 0 &&
            (named.st_ino != st.st_ino || named.st_dev != st.st_dev)) {
            std::string ignored;
            const int next = openLog(path, named, ignored);
            if (next >= 0) {
                close(fd);
                fd = next;
                st = named;
                offset = 0;
                continue;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

} // namespace quendralctl
