#include "Output.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace quendralctl {

namespace {
int firstError = 0;
} // namespace

bool writeOut(std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = write(STDOUT_FILENO, text.data(), text.size());
        if (n > 0) {
            text.remove_prefix(static_cast<size_t>(n));
            continue;
        }
        if (n == 0) errno = EIO; // nothing taken, and no reason given
        if (errno == EINTR) continue;
        // A descriptor left non-blocking by whoever gave it to us: wait until
        // the reader makes room rather than losing output.
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            pollfd p{STDOUT_FILENO, POLLOUT, 0};
            if (poll(&p, 1, -1) >= 0 || errno == EINTR) continue;
        }
        if (firstError == 0) firstError = errno;
        return false;
    }
    return true;
}

int outputError() {
    return firstError;
}

} // namespace quendralctl
