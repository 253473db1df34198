#include "SystemIo.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

namespace quendral {

namespace sys {

OpenedFile openRegular(const std::string &path) {
    OpenedFile f;
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        f.errorNumber = err;
        // What stat cannot see (missing, or behind a directory we may not
        // search) counts as not there; only a file that exists but cannot
        // be opened is an error.
        if (err == ENOENT || err == ENOTDIR || stat(path.c_str(), &f.st) != 0) {
            f.kind = FileKind::Missing;
        } else {
            f.kind = FileKind::Failed;
        }
        return f;
    }
    if (fstat(fd, &f.st) != 0) {
        f.kind = FileKind::Failed;
        f.errorNumber = errno;
        close(fd);
        return f;
    }
    if (!S_ISREG(f.st.st_mode)) {
        f.kind = S_ISDIR(f.st.st_mode) ? FileKind::Directory : FileKind::NotRegular;
        close(fd);
        return f;
    }
    f.fd = fd;
    f.kind = FileKind::Regular;
    return f;
}

bool readAt(int fd, off_t offset, char *buf, size_t size, size_t &got) {
    got = 0;
    while (got < size) {
        const ssize_t n = retryOnInterrupt(
            [&] { return pread(fd, buf + got, size - got, offset + static_cast<off_t>(got)); });
        if (n < 0) return false;
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    return true;
}

bool writeAll(int fd, const char *data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = retryOnInterrupt([&] { return write(fd, data + done, size - done); });
        if (n < 0) return false;
        if (n == 0) {
            errno = EIO;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool readWholeSmall(const char *path, char *buf, size_t size) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return false;
    const ssize_t n = retryOnInterrupt([&] { return read(fd, buf, size - 1); });
    close(fd);
    if (n <= 0) return false;
    buf[n] = '\0';
    return true;
}

std::optional<std::string> readWhole(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return std::nullopt;
    std::string text;
    char buf[8192];
    for (;;) {
        const ssize_t n = retryOnInterrupt([&] { return read(fd, buf, sizeof buf); });
        if (n < 0) {
            close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        text.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

std::string ownExecutablePath() {
    char buf[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "";
    return std::string(buf, static_cast<size_t>(n));
}

std::string homeDirectory() {
    if (const char *h = std::getenv("HOME"); h && *h) return h;
    if (const passwd *pw = getpwuid(getuid()); pw && pw->pw_dir && *pw->pw_dir) return pw->pw_dir;
    return "";
}

std::string configHome() {
    if (const char *xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/') return xdg;
    const std::string home = homeDirectory();
    return home.empty() ? "" : (home.back() == '/' ? home : home + '/') + ".config";
}

std::string realPath(const std::string &path) {
    char buf[PATH_MAX];
    return !path.empty() && realpath(path.c_str(), buf) ? std::string(buf) : std::string();
}

std::string parentDirectory(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace sys

BoundedRead readBounded(const std::string &path, size_t limit) {
    BoundedRead r;
    const sys::OpenedFile f = sys::openRegular(path);
    switch (f.kind) {
    case sys::FileKind::Missing:
        r.status = BoundedRead::Missing;
        return r;
    case sys::FileKind::Directory:
        r.status = BoundedRead::Directory;
        return r;
    case sys::FileKind::NotRegular:
        r.status = BoundedRead::NotRegular;
        return r;
    case sys::FileKind::Failed:
        r.errorNumber = f.errorNumber;
        r.error = std::strerror(f.errorNumber);
        return r;
    case sys::FileKind::Regular:
        break;
    }
    return readBoundedFrom(f.fd, f.st, limit);
}

BoundedRead readBoundedFrom(int fd, const struct stat &st, size_t limit) {
    BoundedRead r;
    const sys::OpenedFile f{fd, sys::FileKind::Regular, 0, st};
    // Sized from fstat so that a normal file takes one read; a file that
    // grows meanwhile is read up to the limit all the same.
    const size_t size = static_cast<size_t>(f.st.st_size);
    const size_t want = std::min(limit, size + 1);
    r.text.resize(want);
    size_t got = 0;
    while (got < want) {
        const ssize_t n =
            sys::retryOnInterrupt([&] { return read(f.fd, r.text.data() + got, want - got); });
        if (n < 0) {
            r.errorNumber = errno;
            r.error = std::strerror(errno);
            close(f.fd);
            r.text.clear();
            return r;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
        if (got == size) break;
    }
    close(f.fd);
    r.text.resize(got);
    r.status = BoundedRead::Ok;
    r.mtime = f.st.st_mtim;
    r.owner = f.st.st_uid;
    r.device = f.st.st_dev;
    r.inode = f.st.st_ino;
    r.complete = got < limit || (got == size && size <= limit);
    return r;
}

} // namespace quendral
