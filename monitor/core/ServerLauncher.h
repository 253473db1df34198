// Finding the server program and starting it in an instance directory.
//
// Contract:
//   - findServerExecutable looks, in order, at QUENDRAL_BINARY, "quendral"
//     in the instance directory and "../bin/quendral" beside it, and takes a
//     candidate only when it may be started (ExecutableTrust.h); else the
//     bare name "quendral", which resolveServerExecutable looks up along
//     PATH under the same rule. Every skipped candidate is logged.
//   - launchServer forks and returns at once with the child's pid, 0 when
//     the fork fails (errno kept in forkError). Before its program runs the
//     child waits until it has been moved into a unit of its own
//     (ServerUnit.h), closes every descriptor, enters the directory, starts
//     a new session, puts its standard streams on /dev/null, unblocks every
//     signal and puts back the descriptor limit the program was given.
//   - What the child could not do (enter the directory, run the program) it
//     reports through a close-on-exec pipe before it ends with status 1: the
//     pipe closes empty when the program runs. ExecReport reads that verdict
//     without blocking, or waiting a bounded time. The pipe's end is kept
//     only until the start concludes, and never among the descriptors
//     reserved for lock files (ProcessHandle::kDescriptorReserve).
#pragma once

#include <optional>
#include <functional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace quendral {

std::string findServerExecutable(const std::string &directory);

// The program to run for a found executable: a path as it is, a bare name
// looked up along PATH (only entries that pass the trust rule; relative ones
// taken against the instance directory). "" when there is none.
std::string resolveServerExecutable(const std::string &found, const std::string &directory);

// The verdict of a launched child on its own start.
class ExecReport {
  public:
    ExecReport() = default;
    // fd: the pipe's read end (non-blocking), taken over; the program and
    // the directory are named in the verdict.
    ExecReport(int fd, std::string program, std::string directory)
        : fd_(fd), program_(std::move(program)), directory_(std::move(directory)) {}
    ~ExecReport();
    ExecReport(ExecReport &&other) noexcept;
    ExecReport &operator=(ExecReport &&other) noexcept;
    ExecReport(const ExecReport &) = delete;
    ExecReport &operator=(const ExecReport &) = delete;

    // Why the child did not run its program ("cannot start /x/quendral:
    // Permission denied"); "" when it reported no failure (it ran the
    // program, or in the rarest case had no descriptor left to report on);
    // nullopt while that is not known yet (waiting at most waitMs for it) or
    // there is no report to read.
    std::optional<std::string> failure(int waitMs = 0);

  private:
    int fd_ = -1;
    std::string program_, directory_;
    std::optional<std::string> verdict_;
};

struct Launch {
    pid_t pid = 0;     // 0: the fork failed
    int forkError = 0; // its errno then
    std::string unit;  // the unit the child was moved into, "" for none
    ExecReport report;
};

// Starts `executable` (searched along PATH only when it has no "/") with
// `options` as its argument vector, argument 0 first, in `directory`. Logs
// "cannot start %@: %@" when the fork fails and "the server of %@ has no unit
// of its own: %@" when a service manager is there and gave it none.
// `forked`, when given, is called with the child's pid right after the fork,
// before anything that may wait (the move into a unit); should it answer
// false, or this process be gone before the move is decided, the child ends
// without running the program (then pid is 0 and forkError 0: the caller
// knows why). `inUnit`, when given, is called with the control group of the
// unit the child was moved into, before the child may run.
Launch launchServer(const std::string &executable, const std::vector<std::string> &options,
                    const std::string &directory, const std::function<bool(pid_t)> &forked = {},
                    const std::function<void(const std::string &)> &inUnit = {});

} // namespace quendral
