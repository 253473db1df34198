// Starting and stopping an instance's server for real, with the demo server.
#include "ModelTestUtil.h"
#include "ServerUnit.h"

#include <gtest/gtest.h>
#include <cstring>
#include <thread>
#include <sys/un.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdlib>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;

namespace {

// An installation with bin/quendral (the demo server) and one instance.
class ProcessControl : public ::testing::Test {
  protected:
    TempDir home;
    LogCapture log;
    std::string instDir;
    std::string lck;
    std::unique_ptr<QuendralInstance> inst;
    ScopedEnv noBinary{"QUENDRAL_BINARY", ""};
    ScopedEnv noHttp{"QUENDRAL_DEMO_HTTP_PORT", "0"};

    void SetUp() override {
        unsetenv("QUENDRAL_BINARY");
        std::filesystem::create_directories(home / "bin");
        std::filesystem::copy_file(demoServerPath(), home / "bin/quendral");
        instDir = makeInstanceDir(home, "db", "[database]\nlockfile = run/db.lck\n");
        std::filesystem::create_directories(instDir + "/run");
        lck = instDir + "/run/db.lck";
        inst = std::make_unique<QuendralInstance>(instDir);
        ASSERT_TRUE(inst->isValid());
    }
    void TearDown() override {
        // Whatever a test launched and left running goes now.
        if (inst && inst->pid() > 0 && parentOf(inst->pid()) == getpid()) {
            kill(inst->pid(), SIGKILL);
            waitpid(inst->pid(), nullptr, 0);
        }
    }
    // Starts an instance whose program has no execute bit (it is launched
    // all the same) and refreshes until the launch has ended and is gone.
    void startAProgramThatCannotRunUntilItEnded() {
        writeFile(instDir + "/quendral", "not a program\n");
        chmod((instDir + "/quendral").c_str(), 0644);
        ASSERT_TRUE(inst->startup());
        const pid_t launched = inst->pid();
        ASSERT_TRUE(refreshUntil(ServerStatusStopped));
        EXPECT_TRUE(refreshUntilReaped(launched));
    }
    // Refreshes until the launched process is gone, zombie included.
    bool refreshUntilReaped(pid_t pid) {
        return waitFor([&] {
            inst->refresh();
            return processState(pid) == 0;
        });
    }
    bool refreshUntil(int32_t status) {
        return waitFor([&] {
            inst->refresh();
            return inst->serverStatus() == status;
        });
    }
};

TEST_F(ProcessControl, StartupLaunchesTheServerWhichRunsOnceItsLockFileAppears) {
    ASSERT_TRUE(inst->startup());
    EXPECT_EQ(inst->serverStatus(), ServerStatusStarting);
    EXPECT_EQ(inst->entryStatus(), EntryStatusChanged);
    const pid_t launched = inst->pid();
    ASSERT_GT(launched, 0);
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    EXPECT_EQ(inst->pid(), launched);
    EXPECT_EQ(readFile(lck), std::to_string(launched) + "\n");
    EXPECT_TRUE(log.linesButUnitNotices().empty());
    // It runs in its own session in the instance directory.
    EXPECT_EQ(getsid(launched), launched);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(launched) + "/cwd"),
              std::filesystem::path(instDir));
}

TEST_F(ProcessControl, ShutdownStopsTheServerWhichRemovesItsLockFileAndIsReaped) {
    ASSERT_TRUE(inst->startup());
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    const pid_t pid = inst->pid();
    ASSERT_TRUE(inst->shutdown());
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopping);
    ASSERT_TRUE(refreshUntil(ServerStatusStopped));
    EXPECT_FALSE(std::filesystem::exists(lck));
    EXPECT_EQ(processState(pid), 0) << "the server must not stay a zombie";
    EXPECT_NE(readFile(instDir + "/quendral.log").find("Server shutdown complete"),
              std::string::npos);
}

TEST_F(ProcessControl, SlowStartStaysStartingWithEntryStatusUntouched) {
    ScopedEnv slow("QUENDRAL_DEMO_START_DELAY_MS", "700");
    ASSERT_TRUE(inst->startup());
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStarting);
    EXPECT_EQ(inst->entryStatus(), EntryStatusChanged); // still from startup's setStatus
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
}

TEST_F(ProcessControl, LockFileNamingAnotherPidIsAdoptedWithAMessage) {
    ChildProcess other;
    ScopedEnv otherPid("QUENDRAL_DEMO_LOCK_PID", std::to_string(other.pid()));
    ASSERT_TRUE(inst->startup());
    const pid_t launched = inst->pid();
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    EXPECT_EQ(inst->pid(), other.pid());
    EXPECT_EQ(log.count("pid value from .lck file is different (expected " +
                        std::to_string(launched) + ", got " + std::to_string(other.pid()) + ")"),
              1u);
    kill(launched, SIGKILL);
}

TEST_F(ProcessControl, ServerThatExitsAtOnceGoesBackToStoppedAndIsReaped) {
    ScopedEnv fail("QUENDRAL_DEMO_FAIL", "1");
    ASSERT_TRUE(inst->startup());
    const pid_t launched = inst->pid();
    ASSERT_TRUE(refreshUntil(ServerStatusStopped));
    EXPECT_TRUE(refreshUntilReaped(launched));
}

TEST_F(ProcessControl, ServerIgnoringSigtermStaysStopping) {
    ScopedEnv ignore("QUENDRAL_DEMO_IGNORE_TERM", "1");
    ASSERT_TRUE(inst->startup());
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    ASSERT_TRUE(inst->shutdown());
    for (int i = 0; i < 20; i++) {
        usleep(20000);
        inst->refresh();
        ASSERT_EQ(inst->serverStatus(), ServerStatusStopping);
        ASSERT_EQ(inst->entryStatus(), EntryStatusChanged); // untouched since shutdown
    }
    // No second signal is ever sent: the server is still there.
    EXPECT_NE(processState(inst->pid()), 0);
    EXPECT_NE(processState(inst->pid()), 'Z');
}

TEST_F(ProcessControl, StartupOnARunningInstanceDoesNothing) {
    ChildProcess server;
    writeLockFile(lck, server.pid());
    EXPECT_FALSE(inst->startup());
    EXPECT_EQ(inst->serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst->pid(), server.pid());
}

TEST_F(ProcessControl, ShutdownOfAStoppedOrStartingInstanceDoesNothing) {
    EXPECT_FALSE(inst->shutdown());
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);

    ScopedEnv slow("QUENDRAL_DEMO_START_DELAY_MS", "2000");
    ASSERT_TRUE(inst->startup());
    EXPECT_FALSE(inst->shutdown());
    EXPECT_EQ(inst->serverStatus(), ServerStatusStarting);
    EXPECT_NE(processState(inst->pid()), 0);
}

TEST_F(ProcessControl, StartupOfARemovedInstanceDoesNothing) {
    std::filesystem::remove(instDir + "/quendral.ini");
    EXPECT_FALSE(inst->startup());
    EXPECT_EQ(inst->entryStatus(), EntryStatusRemoved);
    EXPECT_EQ(inst->pid(), 0);
}

TEST_F(ProcessControl, ExecutableSearchOrder) {
    // Beside the instance: ../bin/quendral, joined and not standardised.
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    // Inside the instance directory wins over that.
    writeFile(instDir + "/quendral", "");
    EXPECT_EQ(inst->findExecutable(), instDir + "/quendral");
    // QUENDRAL_BINARY wins over both when it names a file.
    ScopedEnv binary("QUENDRAL_BINARY", home / "bin/quendral");
    EXPECT_EQ(inst->findExecutable(), home / "bin/quendral");
}

TEST_F(ProcessControl, QuendralBinaryNamingADirectoryOrNothingIsIgnored) {
    {
        ScopedEnv binary("QUENDRAL_BINARY", home.path());
        EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    }
    ScopedEnv binary("QUENDRAL_BINARY", home / "missing");
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
}

TEST_F(ProcessControl, WithoutAnyExecutableTheBareNameIsLeftToPath) {
    std::filesystem::remove(home / "bin/quendral");
    EXPECT_EQ(inst->findExecutable(), "quendral");
}

TEST_F(ProcessControl, NonExecutableServerInTheInstanceIsUsedAndTheInstanceReturnsToStopped) {
    ASSERT_NO_FATAL_FAILURE(startAProgramThatCannotRunUntilItEnded());
    EXPECT_FALSE(std::filesystem::exists(lck));
}

TEST_F(ProcessControl, AProgramWithoutTheExecuteBitIsLaunchedAndSaysWhyItDidNotRun) {
    const std::string program = instDir + "/quendral";
    writeFile(program, "not a program\n");
    chmod(program.c_str(), 0644);
    // The start goes ahead: the file is there, and only running it tells.
    ASSERT_TRUE(inst->startup());
    EXPECT_EQ(inst->failure().kind, ActionFailure::None);
    const pid_t launched = inst->pid();
    EXPECT_EQ(inst->launchFailure(5000), "cannot start " + program + ": Permission denied");
    EXPECT_EQ(inst->failure().kind, ActionFailure::ExecFailed);
    ASSERT_TRUE(refreshUntil(ServerStatusStopped));
    EXPECT_TRUE(refreshUntilReaped(launched));
    // Whoever asked has it to say in its own words: nothing is logged.
    EXPECT_EQ(log.count("cannot start " + program + ": Permission denied"), 0u);
}

TEST_F(ProcessControl, TheRefreshThatSeesAProgramThatCouldNotRunEndLogsWhyOnce) {
    const std::string program = instDir + "/quendral";
    writeFile(program, "not a program\n");
    chmod(program.c_str(), 0644);
    ASSERT_TRUE(inst->startup());
    const pid_t launched = inst->pid();
    ASSERT_TRUE(refreshUntil(ServerStatusStopped));
    EXPECT_TRUE(refreshUntilReaped(launched));
    inst->refresh();
    EXPECT_EQ(log.count("cannot start " + program + ": Permission denied"), 1u);
    EXPECT_EQ(inst->failure().kind, ActionFailure::ExecFailed);
}

TEST_F(ProcessControl, AStartThatConcludedHoldsNoDescriptor) {
    const int before = openDescriptors();
    ASSERT_TRUE(inst->startup());
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    ASSERT_TRUE(inst->shutdown());
    const pid_t server = inst->pid();
    ASSERT_TRUE(refreshUntil(ServerStatusStopped));
    EXPECT_TRUE(refreshUntilReaped(server));
    EXPECT_EQ(openDescriptors(), before);

    // Nor one whose program could not be run.
    ASSERT_NO_FATAL_FAILURE(startAProgramThatCannotRunUntilItEnded());
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ProcessControl, AServerThatRunsSaysNothingOfItsLaunch) {
    ASSERT_TRUE(inst->startup());
    EXPECT_EQ(inst->launchFailure(5000), "");
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    EXPECT_EQ(inst->failure().kind, ActionFailure::None);
}

TEST_F(ProcessControl, StartupAndShutdownSayWhyTheyDidNothing) {
    EXPECT_FALSE(inst->shutdown());
    EXPECT_EQ(inst->failure().kind, ActionFailure::NotRunning);
    EXPECT_EQ(inst->failure().text, "");

    ChildProcess server;
    writeLockFile(lck, server.pid());
    EXPECT_FALSE(inst->startup());
    EXPECT_EQ(inst->failure().kind, ActionFailure::NotStopped);
    EXPECT_EQ(inst->failure().text, "");

    std::filesystem::remove(lck);
    std::filesystem::remove(instDir + "/quendral.ini");
    QuendralInstance gone(instDir);
    EXPECT_FALSE(gone.startup());
    EXPECT_EQ(gone.failure().kind, ActionFailure::Removed);
}

TEST_F(ProcessControl, WithoutAProgramThatMayBeStartedTheStartSaysSo) {
    std::filesystem::remove(home / "bin/quendral");
    ScopedEnv path("PATH", home / "bin");
    EXPECT_FALSE(inst->startup());
    EXPECT_EQ(inst->failure().kind, ActionFailure::NoExecutable);
    EXPECT_EQ(log.count("quendral executable not found"), 1u);
}

TEST_F(ProcessControl, ChildThatCannotEnterItsDirectoryExitsAtOnceWithStatusOne) {
    const int32_t pid =
        inst->launchExecutable(home / "bin/quendral", {"quendral", "-f"}, home / "no/such/dir");
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(ProcessControl, LaunchedServerHasDevNullForItsStandardStreamsAndNoOtherDescriptors) {
    ScopedEnv slow("QUENDRAL_DEMO_START_DELAY_MS", "3000");
    const int32_t pid = inst->launchExecutable(home / "bin/quendral", {"quendral", "-f"}, instDir);
    ASSERT_GT(pid, 0);
    const std::string fdDir = "/proc/" + std::to_string(pid) + "/fd";
    ASSERT_TRUE(waitFor([&] {
        return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe").filename() ==
               "quendral";
    }));
    // The server opens files of its instance for a moment (its quendral.ini
    // as it starts, its log to write a line): those are its own, not
    // inherited; caught under load at times.
    const std::string ownFiles = instDir + "/";
    std::vector<std::string> targets;
    for (const auto &e : std::filesystem::directory_iterator(fdDir)) {
        std::error_code ec;
        const std::string target = std::filesystem::read_symlink(e.path(), ec).string();
        if (ec || target.starts_with(ownFiles)) continue; // closed meanwhile, or its own
        targets.push_back(e.path().filename().string() + "->" + target);
    }
    std::sort(targets.begin(), targets.end());
    EXPECT_EQ(targets, (std::vector<std::string>{"0->/dev/null", "1->/dev/null", "2->/dev/null"}));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Makes every SIGTERM sent by kill() or pidfd_send_signal() fail with EPERM
// in this process: the way a server that the user may not signal looks from
// here. Both calls take the signal as their second argument.
bool forbidSigterm() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_kill, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_send_signal, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SIGTERM, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog prog{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
}

TEST_F(ProcessControl, ShutdownThatCannotSignalLogsTheErrnoAndStaysRunning) {
    ChildProcess server;
    writeLockFile(lck, server.pid());
    const pid_t child = fork();
    if (child == 0) {
        if (!forbidSigterm()) _exit(10);
        LogCapture inner;
        QuendralInstance i(instDir);
        if (!i.isValid()) _exit(11);
        if (i.shutdown()) _exit(12);
        if (i.serverStatus() != ServerStatusRunning) _exit(13);
        if (i.failure().kind != ActionFailure::SignalFailed ||
            i.failure().text !=
                "cannot terminate " + std::to_string(server.pid()) + ": Operation not permitted")
            _exit(15);
        if (inner.lines != std::vector<std::string>{"terminate: cannot terminate Instance 'db' "
                                                    "(errno " +
                                                    std::to_string(EPERM) + ")"})
            _exit(14);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_NE(processState(server.pid()), 0);
}

} // namespace

namespace {

TEST_F(ProcessControl, WithoutAServiceManagerTheServerStartsAsBeforeAndNothingIsSaid) {
    // No bus at that address: a session without one (ssh, cron, a
    // container) is normal, and every server there runs without a unit.
    ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home / "no-bus-here");
    ASSERT_TRUE(inst->startup());
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    EXPECT_TRUE(log.lines.empty()) << log.lines[0];
    EXPECT_EQ(quendral::unitOfProcess(inst->pid()), "") << "still where it was launched";
}

TEST_F(ProcessControl, ABusThatFailsTheServerStartsAsBeforeWithOneLineSayingWhy) {
    // Something listens where the bus should be, and hangs up on every
    // connection: a bus that is there and fails is worth a line.
    const std::string path = home / "failing-bus";
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof addr.sun_path);
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listener, 8), 0);
    std::thread hangingUp([listener] {
        for (;;) {
            const int c = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) return;
            close(c);
        }
    });
    ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + path);
    ScopedEnv runtime("XDG_RUNTIME_DIR", home / "no-runtime-here");
    ASSERT_TRUE(inst->startup());
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    shutdown(listener, SHUT_RDWR);
    close(listener);
    hangingUp.join();
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_TRUE(log.lines[0].starts_with("the server of " + instDir +
                                         " has no unit of its own: cannot reach the session bus: "))
        << log.lines[0];
    EXPECT_EQ(quendral::unitOfProcess(inst->pid()), "") << "still where it was launched";
}

} // namespace
