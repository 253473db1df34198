#include "BoundedRead.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quendral {

BoundedRead readBounded(const std::string &path, size_t limit) {
    BoundedRead r;
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        // What stat cannot see (missing, or behind a directory we may not
        // search) counts as not there; only a file that exists but cannot
        // be opened is an error.
        struct stat st;
        if (err == ENOENT || err == ENOTDIR || stat(path.c_str(), &st) != 0) {
            r.status = BoundedRead::Missing;
        } else {
            r.error = std::strerror(err);
            r.errorNumber = err;
        }
        return r;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        r.status = S_ISDIR(st.st_mode) ? BoundedRead::Directory : BoundedRead::NotRegular;
        close(fd);
        return r;
    }
    // Sized from fstat so that a normal file takes one read; a file that
    // grows meanwhile is read up to the limit all the same.
    const size_t size = static_cast<size_t>(st.st_size);
    const size_t want = std::min(limit, size + 1);
    r.text.resize(want);
    size_t got = 0;
    while (got < want) {
        const ssize_t n = read(fd, r.text.data() + got, want - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            r.errorNumber = errno;
            r.error = std::strerror(errno);
            close(fd);
            r.text.clear();
            return r;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
        if (got == size) break;
    }
    close(fd);
    r.text.resize(got);
    r.status = BoundedRead::Ok;
    r.mtime = st.st_mtim;
    r.owner = st.st_uid;
    r.device = st.st_dev;
    r.inode = st.st_ino;
    r.complete = got < limit || (got == size && size <= limit);
    return r;
}

} // namespace quendral
