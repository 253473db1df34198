#include "ProcessHandle.h"
#include "SystemIo.h"

#include <cerrno>
#include <dirent.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace quendral {

namespace {

int pidfdOpen(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

// The soft descriptor limit, read once: it is set at program start.
long descriptorLimit() {
    static const long limit = [] {
        rlimit rl{};
        if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY) return 1L << 20;
        return static_cast<long>(rl.rlim_cur);
    }();
    return limit;
}

int pidfdSendSignal(int fd, int sig) {
#ifdef SYS_pidfd_send_signal
    return static_cast<int>(syscall(SYS_pidfd_send_signal, fd, sig, nullptr, 0));
#else
    (void)fd;
    (void)sig;
    errno = ENOSYS;
    return -1;
#endif
}

// Reads the start of /proc/PID/NAME into buf as a NUL-terminated text; false
// when the process or the file cannot be read. Such files are produced whole
// by one read of this size.
bool readProcFile(pid_t pid, const char *name, char *buf, size_t size) {
    char path[48];
    (void)std::snprintf(path, sizeof path, "/proc/%d/%s", static_cast<int>(pid), name);
    return sys::readWholeSmall(path, buf, size);
}

} // namespace

// Fields 3 (state), 4 (parent), 5 (process group), 6 (session) and 22 (start time) of
// /proc/PID/stat. The command name (field 2) may hold blanks and parentheses, so the fields are
// counted from the last ')'.
std::optional<ProcessStat> readProcessStat(pid_t pid) {
    char buf[1024];
    if (pid <= 0 || !readProcFile(pid, "stat", buf, sizeof buf)) return std::nullopt;
    const char *p = std::strrchr(buf, ')');
    if (!p) return std::nullopt;
    p++;
    ProcessStat stat;
    // After ')' come field 3 (state) to field 22: skip 19 fields.
    for (int field = 3; field < 22; field++) {
        while (*p == ' ') p++;
        if (field == 3) stat.state = *p;
        if (field == 4) stat.parent = static_cast<pid_t>(std::strtol(p, nullptr, 10));
        if (field == 5) stat.group = static_cast<pid_t>(std::strtol(p, nullptr, 10));
        if (field == 6) stat.session = static_cast<pid_t>(std::strtol(p, nullptr, 10));
        while (*p && *p != ' ') p++;
        if (!*p) return std::nullopt;
    }
    char *end = nullptr;
    errno = 0;
    stat.startTicks = std::strtoull(p, &end, 10);
    if (end == p || errno != 0) return std::nullopt;
    return stat;
}

std::optional<pid_t> liveMemberOf(pid_t leader, unsigned long long notBefore) {
    if (leader <= 0) return std::nullopt;
    // The listing of /proc is taken in batches: a process forked after a
    // batch was read is not in it. A daemon hands over to a child it forks
    // and then exits, so a look may find the parent ended and miss the child.
    // A member seen ended is such a handover, or the end of the start: the
    // look is taken again (bounded), and a child forked before that member
    // ended is in the new listing.
    constexpr int kLooks = 4;
    for (int look = 0; look < kLooks; look++) {
        DIR *proc = opendir("/proc");
        if (!proc) return std::nullopt;
        std::optional<pid_t> found;
        bool endedMember = false;
        while (const dirent *e = readdir(proc)) {
            char *end = nullptr;
            const long pid = std::strtol(e->d_name, &end, 10);
            if (pid <= 0 || *end != '\0') continue;
            const auto stat = readProcessStat(static_cast<pid_t>(pid));
            if (!stat || stat->startTicks < notBefore) continue;
            if (stat->session != leader && stat->group != leader) continue;
            if (hasEnded(stat->state)) {
                endedMember = true;
                continue;
            }
            found = static_cast<pid_t>(pid);
            break;
        }
        closedir(proc);
        if (found || !endedMember) return found;
    }
    return std::nullopt;
}

std::optional<uid_t> processUser(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    char path[48];
    (void)std::snprintf(path, sizeof path, "/proc/%d", static_cast<int>(pid));
    // /proc/PID belongs to the process's effective user, unless the process
    // made itself non-dumpable: then it shows as root's, and only its status
    // file tells the truth.
    struct stat st;
    if (stat(path, &st) != 0) return std::nullopt;
    if (st.st_uid != 0) return st.st_uid;
    char buf[4096];
    if (!readProcFile(pid, "status", buf, sizeof buf)) return std::nullopt;
    // "Uid:\treal\teffective\tsaved\tfilesystem"
    const char *line = std::strstr(buf, "\nUid:");
    if (!line) return std::nullopt;
    char *end = nullptr;
    (void)std::strtoul(line + 5, &end, 10); // the real user
    const char *second = end;
    const unsigned long effective = std::strtoul(second, &end, 10);
    if (end == second) return std::nullopt;
    return static_cast<uid_t>(effective);
}

std::optional<timespec> processStartTime(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    const std::optional<ProcessStat> stat = readProcessStat(pid);
    if (!stat) return std::nullopt;
    return startTimeFromTicks(stat->startTicks);
}

std::optional<timespec> startTimeFromTicks(unsigned long long ticks) {
    const long hz = sysconf(_SC_CLK_TCK);
    if (hz <= 0) return std::nullopt;
    // The boot time as wall-clock time: what /proc/stat calls btime, but
    // current (it moves when the clock is set) and finer than a second.
    // Reading it now, not once, keeps start times comparable with file
    // times when the clock has been set since the monitor started.
    timespec real{}, boot{};
    if (clock_gettime(CLOCK_REALTIME, &real) != 0 || clock_gettime(CLOCK_BOOTTIME, &boot) != 0)
        return std::nullopt;
    const long long ns =
        (static_cast<long long>(real.tv_sec) - boot.tv_sec) * 1000000000LL +
        (real.tv_nsec - boot.tv_nsec) +
        static_cast<long long>(ticks % static_cast<unsigned long long>(hz)) * (1000000000LL / hz);
    timespec start{};
    start.tv_sec = static_cast<time_t>(
        ns / 1000000000LL + static_cast<long long>(ticks / static_cast<unsigned long long>(hz)));
    start.tv_nsec = static_cast<long>(ns % 1000000000LL);
    if (start.tv_nsec < 0) {
        start.tv_nsec += 1000000000L;
        start.tv_sec--;
    }
    return start;
}

bool couldHaveWritten(const std::optional<timespec> &start, const timespec &mtime) {
    // Without a start time the liveness test alone decides, as it must on a
    // system that does not tell when processes began.
    if (!start) return true;
    const time_t latest = mtime.tv_sec + 1;
    return start->tv_sec < latest || (start->tv_sec == latest && start->tv_nsec <= mtime.tv_nsec);
}

bool ProcessHandle::inDescriptorReserve(int fd) {
    return fd >= descriptorLimit() - kDescriptorReserve;
}

ProcessHandle::ProcessHandle(pid_t pid) : pid_(pid > 0 ? pid : 0) {
    if (pid_ == 0) return;
    // The handle first, then the start time: if the process is still alive
    // after the time was read, that time is its own and not that of a
    // process which took the pid in between.
    fd_ = pidfdOpen(pid_);
    if (fd_ >= 0 && inDescriptorReserve(fd_)) {
        ::close(fd_);
        fd_ = -1;
    }
    if (const auto stat = readProcessStat(pid_)) {
        startTicks_ = stat->startTicks;
        start_ = startTimeFromTicks(stat->startTicks);
    }
    // Asked once. EPERM: it exists, as another user's.
    const int probe = fd_ >= 0 ? pidfdSendSignal(fd_, 0) : kill(pid_, 0);
    exists_ = probe == 0 || errno == EPERM;
}

ProcessHandle::~ProcessHandle() {
    close();
}

ProcessHandle::ProcessHandle(ProcessHandle &&other) noexcept
    : pid_(std::exchange(other.pid_, 0)), fd_(std::exchange(other.fd_, -1)),
      exists_(std::exchange(other.exists_, false)),
      startTicks_(std::exchange(other.startTicks_, std::nullopt)),
      start_(std::exchange(other.start_, std::nullopt)),
      user_(std::exchange(other.user_, std::nullopt)) {}

ProcessHandle &ProcessHandle::operator=(ProcessHandle &&other) noexcept {
    if (this != &other) {
        close();
        pid_ = std::exchange(other.pid_, 0);
        fd_ = std::exchange(other.fd_, -1);
        exists_ = std::exchange(other.exists_, false);
        startTicks_ = std::exchange(other.startTicks_, std::nullopt);
        start_ = std::exchange(other.start_, std::nullopt);
        user_ = std::exchange(other.user_, std::nullopt);
    }
    return *this;
}

void ProcessHandle::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

int ProcessHandle::signal(int sig) const {
    // kill() with 0 or a negative pid would reach whole groups of processes.
    if (pid_ <= 0) return ESRCH;
    const int r = fd_ >= 0 ? pidfdSendSignal(fd_, sig) : kill(pid_, sig);
    return r == 0 ? 0 : errno;
}

bool ProcessHandle::alive() const {
    if (pid_ <= 0 || !exists_) return false;
    if (fd_ >= 0) {
        // A pidfd turns readable when its process ends, before anyone
        // collects it: so a zombie is seen as ended with one system call.
        pollfd p{fd_, POLLIN, 0};
        const int r = sys::retryOnInterrupt([&] { return poll(&p, 1, 0); });
        return r == 0;
    }
    // Without a pidfd the pid alone answers; /proc then tells a zombie,
    // and a start time that changed tells a process that took the pid.
    if (kill(pid_, 0) != 0 && errno != EPERM) return false;
    const auto stat = readProcessStat(pid_);
    if (!stat) return true;
    if (hasEnded(stat->state)) return false;
    return !startTicks_ || *startTicks_ == stat->startTicks;
}

std::optional<uid_t> ProcessHandle::user() const {
    if (!user_) user_ = processUser(pid_);
    return *user_;
}

bool ProcessHandle::couldHaveWritten(const timespec &mtime) const {
    return quendral::couldHaveWritten(start_, mtime);
}

} // namespace quendral
