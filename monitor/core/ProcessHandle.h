// A hold on one process that stays with that process. A pid alone does not:
// once a server has ended, the system may give its pid to any later process,
// and a lock file left behind then names that stranger. The handle is opened
// once, when the monitor takes a pid as its server's; from then on it answers
// for that process only, so a later process that took over the pid is never
// probed as the server nor signalled.
#pragma once

#include <ctime>
#include <optional>
#include <sys/types.h>

namespace quendral {

// What /proc/PID/stat says of a process: its state letter ('Z' for one that
// has ended but was not yet collected) and when it began, in clock ticks
// after boot. The ticks do not move when the wall clock is set, and a pid
// with the same ticks is the same process. nullopt where the system does not
// say (no such process, no /proc, or /proc hiding another user's processes).
struct ProcessStat {
    char state = 0;
    pid_t parent = 0;
    pid_t group = 0;   // its process group
    pid_t session = 0; // its session
    unsigned long long startTicks = 0;
};
std::optional<ProcessStat> readProcessStat(pid_t pid);

// Whether a state letter from /proc means the process has ended: a zombie
// waits only for its parent to collect it, and where orphans are collected
// late (containers) it may wait seconds. It is not a server any more.
inline bool hasEnded(char state) {
    return state == 'Z' || state == 'X' || state == 'x';
}

// A live process (not ended) in the session or process group that `leader`
// began, which began no earlier than `notBefore` (clock ticks after boot),
// or nullopt when there is none. A session or group outlives its leader: a
// server whose first process forks and exits (a daemon) lives on in it. Its
// number is never given to a new process while any member lives. Scans
// /proc.
std::optional<pid_t> liveMemberOf(pid_t leader, unsigned long long notBefore);

// The effective user a process runs as, or nullopt where the system does not
// say (no such process, or /proc hiding it from us).
std::optional<uid_t> processUser(pid_t pid);

// When a process began, as wall-clock time, or nullopt where the system does
// not say (no /proc, or /proc mounted so that another user's processes are
// hidden from us).
std::optional<timespec> processStartTime(pid_t pid);
// The wall-clock time of a start time in clock ticks after boot, as the
// clock reads now.
std::optional<timespec> startTimeFromTicks(unsigned long long startTicks);

// Whether a process that began at `start` could have written a file last
// modified at `mtime`: it began no later than that, allowing one second for
// the coarseness of start times. An unknown start time cannot rule it out.
bool couldHaveWritten(const std::optional<timespec> &start, const timespec &mtime);

class ProcessHandle {
  public:
    // Descriptors below the limit that pidfds leave free: a program holding
    // hundreds of servers must still be able to open a lock file.
    static constexpr int kDescriptorReserve = 64;
    // Whether fd is one of those last descriptors, which whatever the
    // monitor keeps open for long leaves to the lock files.
    static bool inDescriptorReserve(int fd);

    ProcessHandle() = default;
    // Holds whichever process has this pid now (none for pid <= 0), and
    // reads its start time.
    explicit ProcessHandle(pid_t pid);
    ~ProcessHandle();
    ProcessHandle(ProcessHandle &&other) noexcept;
    ProcessHandle &operator=(ProcessHandle &&other) noexcept;
    ProcessHandle(const ProcessHandle &) = delete;
    ProcessHandle &operator=(const ProcessHandle &) = delete;

    pid_t pid() const { return pid_; }
    // Whether the process is still running. One that has ended but was not
    // yet collected by its parent (a zombie) has ended. Another user's
    // process that runs is alive, though we may not signal it: whether it
    // is the server is for the lock file's rules to say (its owner, its
    // time), and two servers on one directory are worse than a stop that
    // is refused.
    bool alive() const;
    // Sends `sig` to the process: 0, or the errno of the failure (ESRCH once
    // it has ended, even if its pid now belongs to another process).
    int signal(int sig) const;
    // Whether the held process could have written a file last modified at
    // `mtime` (see couldHaveWritten).
    bool couldHaveWritten(const timespec &mtime) const;
    // When the held process began, in clock ticks after boot (see
    // ProcessStat), or nullopt where the system does not say.
    std::optional<unsigned long long> startTicks() const { return startTicks_; }
    // The effective user the held process runs as (see processUser), read
    // when first asked.
    std::optional<uid_t> user() const;
    // A descriptor that turns readable (POLLIN) when the held process ends,
    // for poll(2) beside others: -1 where there is none (no pidfd) or the
    // process did not exist, whose end then has to be found by probing.
    // Owned by the handle; valid while the handle holds this process.
    int waitDescriptor() const { return exists_ ? fd_ : -1; }

  private:
    void close();

    pid_t pid_ = 0;
    // A pidfd; -1 where the kernel has none (before Linux 5.3), none could
    // be opened, or it would have taken one of the last descriptors the
    // process may open (kDescriptorReserve). Then the pid is probed with its
    // start time, as it was before pidfds existed.
    int fd_ = -1;
    // Whether it existed when the handle was made (signal 0 answered, or
    // refused as another user's): asked once, so that a probe is one
    // system call.
    bool exists_ = false;
    std::optional<unsigned long long> startTicks_;
    std::optional<timespec> start_;
    mutable std::optional<std::optional<uid_t>> user_;
};

} // namespace quendral
