#include "ServerLauncher.h"

#include "Environment.h"
#include "ExecutableTrust.h"
#include "Log.h"
#include "PathUtil.h"
#include "ProcessHandle.h"
#include "ServerUnit.h"
#include "SystemIo.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quendral {

namespace {

std::optional<std::string> currentDirectory() {
    std::string dir(256, '\0');
    while (getcwd(dir.data(), dir.size()) == nullptr) {
        if (errno != ERANGE || dir.size() > (1u << 20)) return std::nullopt;
        dir.resize(dir.size() * 2);
    }
    dir.resize(std::strlen(dir.c_str()));
    return dir;
}

// What the child sends when it cannot go on: the step and its errno.
struct ChildFailure {
    int step; // one of the below
    int error;
};
enum : int { kStepDirectory = 1, kStepSession = 2, kStepStreams = 3, kStepProgram = 4 };

[[noreturn]] void childFails(int report, int step) {
    const ChildFailure f{step, errno};
    if (report >= 0) {
        // The parent may have let go of its end: a write then must end this
        // child with status 1 as every failure does, not by SIGPIPE. Only
        // now, so that a server never inherits the signal ignored.
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, nullptr);
        (void)sys::retryOnInterrupt([&] { return write(report, &f, sizeof f); });
    }
    _exit(1);
}

// Closes every descriptor but `keep` (none when it is -1). closefrom finds
// the open ones itself where the kernel has no close_range (before 5.9) or a
// container's sandbox refuses it. Safe between fork and exec.
void closeAllBut(int keep) {
    if (keep < 0) {
        closefrom(0);
        return;
    }
    for (int fd = 0; fd < keep; fd++) close(fd);
    closefrom(keep + 1);
}

} // namespace

std::string findServerExecutable(const std::string &directory) {
    // A candidate that exists is taken only if nobody else can have put it
    // there; one that fails is logged and the search goes on.
    auto usable = [](const std::string &candidate) {
        if (!path::existsNotDirectory(candidate)) return false;
        const auto why = whyUntrusted(candidate);
        if (why) logUntrusted(candidate, *why);
        return !why;
    };
    if (const char *binary = std::getenv("QUENDRAL_BINARY"); binary && *binary) {
        // The server runs in its instance directory, so a relative name
        // would be looked up there by exec, not where it was checked: it is
        // made absolute once, against our own directory, and exactly that
        // file is checked and started.
        std::optional<std::string> absolute = binary;
        if (!path::isAbsolute(binary)) {
            const auto here = currentDirectory();
            absolute = here ? std::optional(path::append(*here, binary)) : std::nullopt;
            if (!absolute) logUntrusted(binary, "the current directory cannot be found");
        }
        if (absolute && usable(*absolute)) return *absolute;
    }
    std::string inside = path::append(directory, "quendral");
    if (usable(inside)) return inside;
    std::string beside = path::append(directory, "../bin/quendral");
    if (usable(beside)) return beside;
    return "quendral";
}

std::string resolveServerExecutable(const std::string &found, const std::string &directory) {
    if (found.find('/') != std::string::npos) return found;
    // The bare name is looked up here rather than by execvp in the child, so
    // that every PATH entry passes the same test as the other candidates;
    // argument 0 stays "quendral" all the same.
    const auto searchPath = serverVariable("PATH");
    return findTrustedOnPath(found, searchPath ? *searchPath : "/bin:/usr/bin", directory)
        .value_or("");
}

ExecReport::~ExecReport() {
    if (fd_ >= 0) close(fd_);
}

ExecReport::ExecReport(ExecReport &&other) noexcept
    : fd_(other.fd_), program_(std::move(other.program_)), directory_(std::move(other.directory_)),
      verdict_(std::move(other.verdict_)) {
    other.fd_ = -1;
}

ExecReport &ExecReport::operator=(ExecReport &&other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) close(fd_);
        fd_ = other.fd_;
        program_ = std::move(other.program_);
        directory_ = std::move(other.directory_);
        verdict_ = std::move(other.verdict_);
        other.fd_ = -1;
    }
    return *this;
}

std::optional<std::string> ExecReport::failure(int waitMs) {
    if (verdict_ || fd_ < 0) return verdict_;
    pollfd p{fd_, POLLIN, 0};
    if (sys::retryOnInterrupt([&] { return poll(&p, 1, waitMs); }) <= 0) return std::nullopt;
    ChildFailure f{};
    const ssize_t n = sys::retryOnInterrupt([&] { return read(fd_, &f, sizeof f); });
    if (n < 0 && errno == EAGAIN) return std::nullopt;
    close(fd_);
    fd_ = -1;
    if (n != static_cast<ssize_t>(sizeof f)) {
        verdict_ = ""; // closed empty: the program runs
        return verdict_;
    }
    const std::string why = std::strerror(f.error);
    switch (f.step) {
    case kStepDirectory:
        verdict_ = "cannot enter " + directory_ + ": " + why;
        break;
    case kStepSession:
        verdict_ = "cannot start " + program_ + " in a session: " + why;
        break;
    case kStepStreams:
        verdict_ = "cannot open /dev/null: " + why;
        break;
    default:
        verdict_ = "cannot start " + program_ + ": " + why;
        break;
    }
    return verdict_;
}

Launch launchServer(const std::string &executable, const std::vector<std::string> &options,
                    const std::string &directory, const std::function<bool(pid_t)> &forked,
                    const std::function<void(const std::string &)> &inUnit) {
    Launch launch;
    // Everything the child needs is prepared before the fork: between fork
    // and exec it makes system calls only.
    std::vector<char *> argv;
    argv.reserve(options.size() + 1);
    for (const std::string &o : options) argv.push_back(const_cast<char *>(o.c_str()));
    argv.push_back(nullptr);
    // The servers' environment: their search lists, not this program's.
    const std::vector<std::string> environment = serverEnvironment();
    std::vector<char *> envp;
    envp.reserve(environment.size() + 1);
    for (const std::string &e : environment) envp.push_back(const_cast<char *>(e.c_str()));
    envp.push_back(nullptr);
    const char *file = executable.c_str();
    const char *dir = directory.c_str();
    sigset_t none;
    sigemptyset(&none);
    const std::optional<rlimit> descriptors = originalDescriptorLimit();
    // The child waits on this channel until it has been moved into a unit
    // of its own (ServerUnit.h): a server that forks at once must not leave
    // processes behind in ours. We say "go" once the move is decided. If we
    // die first (killed while the service manager took its time), the
    // channel closes without a word and the child ends: the start record
    // written at the fork names it, and ends with it, so the next front end
    // finds the instance stopped and no server runs unseen. A socket, so
    // that saying "go" to a child that has already gone raises no SIGPIPE.
    int release[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, release) != 0)
        release[0] = release[1] = -1;
    // And it says on this one why it could not run the program; a program
    // that runs closes it (close-on-exec) without a word.
    int report[2];
    if (pipe2(report, O_CLOEXEC | O_NONBLOCK) != 0) report[0] = report[1] = -1;

    const pid_t child = fork();
    if (child < 0) {
        launch.forkError = errno;
        logMessage("cannot start %@: %@", {executable, std::strerror(launch.forkError)});
        for (const int fd : {release[0], release[1], report[0], report[1]})
            if (fd >= 0) close(fd);
        return launch;
    }
    if (child > 0) {
        if (release[0] >= 0) close(release[0]);
        if (report[1] >= 0) close(report[1]);
        launch.pid = child;
        // Recorded before anything can wait: the move below may take the
        // service manager's time. A start that cannot be recorded does not
        // happen: the child hears no "go" and ends without running anything.
        if (forked && !forked(child)) {
            for (const int fd : {release[1], report[0]})
                if (fd >= 0) close(fd);
            if (release[1] < 0) kill(child, SIGKILL); // it would not wait for a word
            while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
            }
            launch.pid = 0;
            return launch;
        }
        // Kept until the start concludes: not among the descriptors left to
        // the lock files, where there would be no report rather than none of
        // those.
        if (report[0] >= 0 && ProcessHandle::inDescriptorReserve(report[0])) {
            close(report[0]);
            report[0] = -1;
        }
        launch.report = ExecReport(report[0], executable, directory);
        const UnitMove move = moveIntoOwnScope(child, directory, currentLogIdent());
        launch.unit = move.unit;
        // Known before the child may go: a server that leaves its session at
        // once is still in its scope.
        if (move.moved && inUnit) {
            if (const std::string cgroup = unifiedCgroupOf(child); !cgroup.empty()) inUnit(cgroup);
        }
        // Where the user has no service manager at all, a server without a
        // unit is how every server runs: only a manager that is there and
        // fails is worth a line, and once: a tray that starts servers all
        // day would otherwise say it at every start.
        static std::atomic<bool> said{false};
        if (!move.moved && !move.noManager && !said.exchange(true))
            logMessage("the server of %@ has no unit of its own: %@", {directory, move.why});
        if (release[1] >= 0) {
            const char go = 'g';
            (void)sys::retryOnInterrupt([&] { return send(release[1], &go, 1, MSG_NOSIGNAL); });
            close(release[1]);
        }
        return launch;
    }

    if (release[0] >= 0) {
        // Our copy of the parent's end goes first, or the read below would
        // never see the parent close its own.
        close(release[1]);
        char go = 0;
        // The front end that launched us went before it said "go": this
        // start has no one to stand for it but its record, which names us.
        if (sys::retryOnInterrupt([&] { return read(release[0], &go, 1); }) != 1) _exit(1);
    }
    // Every descriptor goes but the report's, which must stand above the
    // standard streams (it was given one of them if they were closed). If no
    // descriptor is left to move it to, the child goes on without a report:
    // the parent then learns nothing of a failure, not a false one.
    int keep = report[1];
    if (keep >= 0 && keep < 3) keep = fcntl(keep, F_DUPFD_CLOEXEC, 3);
    closeAllBut(keep);
    if (chdir(dir) != 0) childFails(keep, kStepDirectory);
    if (setsid() == -1) childFails(keep, kStepSession);
    const int null = open("/dev/null", O_RDWR);
    if (null < 0) childFails(keep, kStepStreams);
    if (null != 0 && (dup2(null, 0) != 0 || close(null) != 0)) childFails(keep, kStepStreams);
    if (dup2(0, 1) != 1 || dup2(0, 2) != 2) childFails(keep, kStepStreams);
    // A server must not inherit the monitor's blocked signals, nor the
    // descriptor limit the monitor raised for itself.
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (descriptors) setrlimit(RLIMIT_NOFILE, &*descriptors);
    execvpe(file, argv.data(), envp.data());
    childFails(keep, kStepProgram);
}

} // namespace quendral
