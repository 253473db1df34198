#include "WaitEvents.h"
#include "SystemIo.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace quendralctl {

namespace {

long envNumber(const char *name, long fallback) {
    const char *v = std::getenv(name);
    if (!v || !*v) return fallback;
    char *end = nullptr;
    const long n = std::strtol(v, &end, 10);
    return *end || n < 0 ? fallback : n;
}

// What happens to a lock file when a server writes it (closing it after, or
// renaming a finished file into place) or removes it, and to the watched
// directory itself. Not IN_CREATE nor IN_MODIFY: those come while the file
// is still empty or half written, and reading it then would report a
// malformed lock file that is merely unfinished. A server that keeps its
// lock file open after writing it is seen by the fallback poll.
constexpr uint32_t kLockFileEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                     IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// Whether the descriptor is readable already: a pidfd whose process has
// ended stays so, and polling it again would return at once, forever.
bool readableNow(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0;
}

} // namespace

WaitEvents::WaitEvents()
    : events_(envNumber("QUENDRALCTL_TEST_NO_EVENTS", 0) == 0),
      fallback_(envNumber("QUENDRALCTL_TEST_FALLBACK_POLL_MS", 1000)) {}

WaitEvents::~WaitEvents() {
    if (inotify_ < 0) return;
    // Letting go of an inotify instance waits for the kernel's retiring of
    // inotify watches, which is shared by the whole system: after any
    // process let go of one that held watches (our own previous run, in a
    // script), even an instance that never held one waits 10 to 20 ms here,
    // and so does a process's exit that lets go of it. A script waiting for
    // this tool would wait that long for nothing. So the last reference goes
    // to a child of ours that nobody waits for: it keeps nothing else open,
    // lets go after we have, and ends. (And none is made until something is
    // to be watched: a wait that finds everything settled at its first look
    // never pays for one.)
    int gate[2];
    if (pipe2(gate, O_CLOEXEC) != 0) {
        close(inotify_);
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        const unsigned low = static_cast<unsigned>(std::min(inotify_, gate[0]));
        const unsigned high = static_cast<unsigned>(std::max(inotify_, gate[0]));
        if (low > 0) close_range(0, low - 1, 0);
        if (high > low + 1) close_range(low + 1, high - 1, 0);
        close_range(high + 1, ~0U, 0);
        char c;
        (void)quendral::sys::retryOnInterrupt([&] { return read(gate[0], &c, 1); });
        _exit(0);
    }
    close(gate[0]);
    if (child < 0) {
        close(gate[1]);
        close(inotify_);
        return;
    }
    close(inotify_); // not the last reference while the child holds one
    close(gate[1]);  // which lets the child go on
}

void WaitEvents::watch(const QuendralInstance &instance) {
    if (!events_ || !instance.lockFile()) return;
    // Made on the first watch: without inotify (none left for this user)
    // the lock files are polled, and it is not tried again.
    if (!inotifyTried_) {
        inotifyTried_ = true;
        inotify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    }
    if (inotify_ < 0) return;
    const std::string &lock = *instance.lockFile();
    const size_t slash = lock.rfind('/');
    if (slash == std::string::npos) return;
    const std::string dir = quendral::sys::parentDirectory(lock);
    const std::string name = lock.substr(slash + 1);
    if (!watchedLockFiles_.insert(dir + '/' + name).second) return;
    // Two instances sharing a directory get the same watch descriptor back.
    const int wd = inotify_add_watch(inotify_, dir.c_str(), kLockFileEvents);
    if (wd >= 0) lockNames_[wd].insert(name);
}

bool WaitEvents::drainNotifications() {
    alignas(inotify_event) char buf[16384];
    bool relevant = false;
    for (;;) {
        const ssize_t n =
            quendral::sys::retryOnInterrupt([&] { return read(inotify_, buf, sizeof buf); });
        if (n <= 0) return relevant;
        for (ssize_t at = 0; at < n;) {
            const auto *e = reinterpret_cast<const inotify_event *>(buf + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            // Lost events, or a directory gone or moved: look again.
            if (e->mask & (IN_Q_OVERFLOW | IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
                relevant = true;
                continue;
            }
            const auto names = lockNames_.find(e->wd);
            // The server's log often lives beside its lock file: its lines
            // are no reason to look.
            if (e->len > 0 && names != lockNames_.end() && names->second.count(e->name))
                relevant = true;
        }
    }
}

void WaitEvents::sleep(const std::vector<std::shared_ptr<QuendralInstance>> &pending,
                       Clock::time_point deadline) {
    std::vector<pollfd> fds;
    if (inotify_ >= 0) fds.push_back({inotify_, POLLIN, 0});
    if (events_) {
        for (const auto &i : pending) {
            const int fd = i->serverWaitDescriptor();
            if (fd >= 0 && !readableNow(fd)) fds.push_back({fd, POLLIN, 0});
        }
    }
    const Clock::time_point until = std::min(deadline, Clock::now() + fallback_);
    for (;;) {
        // To the nanosecond: poll's milliseconds, rounded up, would sleep
        // up to a millisecond past a short deadline (the look of --ready).
        const auto left =
            std::chrono::duration_cast<std::chrono::nanoseconds>(until - Clock::now());
        if (left.count() <= 0) return;
        const timespec timeout{static_cast<time_t>(left.count() / 1000000000),
                               static_cast<long>(left.count() % 1000000000)};
        const int r = ppoll(fds.data(), fds.size(), &timeout, nullptr);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return; // the time is up (or poll cannot be used: look again)
        for (const pollfd &p : fds) {
            if (!p.revents) continue;
            if (p.fd != inotify_) return; // a server has ended
            if (drainNotifications()) return;
        }
    }
}

} // namespace quendralctl
