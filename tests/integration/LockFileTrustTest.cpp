// Which process a lock file speaks for: only a live one that could have
// written it. Real processes and real files; a pid the system has "reused"
// is a live unrelated process named by a lock file last written before it
// began, which is all the monitor can see of a reused pid.
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;

namespace {

// A pid that surely names no process: one of ours that has ended and been
// reaped.
pid_t deadPid() {
    ChildProcess c({"true"});
    const pid_t pid = c.pid();
    waitpid(pid, nullptr, 0);
    return pid;
}

class LockFileTrust : public ::testing::Test, public DemoInstallationFixture {
  protected:
    void TearDown() override {
        unsetenv("QUENDRAL_DEMO_START_DELAY_MS");
        unsetenv("QUENDRAL_DEMO_FORK");
        // Only processes this test started are ended here.
        for (pid_t pid : launched)
            if (parentOf(pid) == getpid()) kill(pid, SIGKILL);
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }
    std::string stale() const { return "stale .lck file detected: " + lck; }
    std::vector<pid_t> launched;

    // A slow start meets a lock file left by an earlier server: the instance
    // stays starting, refresh after refresh, until the launched server's own
    // lock file appears, and then runs with that server's pid.
    void slowStartOverStaleLock() {
        setenv("QUENDRAL_DEMO_START_DELAY_MS", "800", 1);
        ASSERT_TRUE(startup());
        const pid_t server = inst->pid();
        std::vector<int32_t> seen;
        ASSERT_TRUE(waitFor([&] {
            inst->refresh();
            if (seen.empty() || seen.back() != inst->serverStatus())
                seen.push_back(inst->serverStatus());
            return inst->serverStatus() != ServerStatusStarting;
        }));
        EXPECT_EQ(seen, (std::vector<int32_t>{ServerStatusStarting, ServerStatusRunning}));
        EXPECT_EQ(inst->pid(), server);
        EXPECT_EQ(readFile(lck), std::to_string(server) + "\n");
    }
    bool startup() {
        const bool ok = inst->startup();
        if (ok) launched.push_back(inst->pid());
        return ok;
    }
    bool refreshUntil(int32_t status, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        return waitFor(
            [&] {
                inst->refresh();
                return inst->serverStatus() == status;
            },
            limit);
    }
};

TEST_F(LockFileTrust, OldLockFileNamingAnUnrelatedLiveProcessIsStale) {
    ReusedPidLockFile stranger(lck);
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst->pid(), 0);
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst->entryStatus(), EntryStatusUnchanged);
    EXPECT_EQ(log.count(stale()), 2u) << "logged at each refresh";
    EXPECT_FALSE(inst->shutdown());
    EXPECT_EQ(log.count(stale()), 3u);
    EXPECT_TRUE(stranger.unrelatedAlive()) << "the unrelated process was signalled";
}

TEST_F(LockFileTrust, LockFileWrittenByALiveProcessAfterItBeganIsItsServer) {
    ChildProcess server;
    writeLockFile(lck, server.pid());
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst->pid(), server.pid());
    EXPECT_TRUE(log.lines.empty());
    ASSERT_TRUE(inst->shutdown());
    EXPECT_TRUE(waitFor([&] { return processState(server.pid()) == 'Z'; }));
}

TEST_F(LockFileTrust, LockFileTouchedLaterStillSpeaksForItsWriter) {
    ChildProcess server;
    writeLockFile(lck, server.pid());
    sleep(1);
    writeFile(lck, std::to_string(server.pid()) + "\n");
    // A fresh instance, so that it reads the touched file.
    QuendralInstance other(instDir);
    ASSERT_TRUE(other.isValid());
    other.refresh();
    EXPECT_EQ(other.serverStatus(), ServerStatusRunning);
    EXPECT_EQ(other.pid(), server.pid());
}

TEST_F(LockFileTrust, ServerThatEndsWhileRunningLeavesAStaleFileAndIsNotFollowedToAReusedPid) {
    ChildProcess server;
    writeLockFile(lck, server.pid());
    inst->refresh();
    ASSERT_EQ(inst->serverStatus(), ServerStatusRunning);
    server.killAndReap();
    // The same file now names another live process, begun after the file
    // was written.
    ReusedPidLockFile stranger(lck);
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
    EXPECT_EQ(log.count(stale()), 1u);
    EXPECT_FALSE(inst->shutdown());
    EXPECT_TRUE(stranger.unrelatedAlive());
}

TEST_F(LockFileTrust, SlowStartOverALockFileNamingADeadPidStaysStartingUntilItsOwnLockFile) {
    writeLockFile(lck, deadPid());
    slowStartOverStaleLock();
    EXPECT_GE(log.count(stale()), 1u);
    EXPECT_EQ(std::count_if(log.lines.begin(), log.lines.end(),
                            [](const std::string &l) { return l.find("different") != l.npos; }),
              0);
}

TEST_F(LockFileTrust, SlowStartOverALockFileNamingAReusedPidStaysStartingUntilItsOwnLockFile) {
    ReusedPidLockFile stranger(lck);
    slowStartOverStaleLock();
    EXPECT_GE(log.count(stale()), 1u);
    EXPECT_TRUE(stranger.unrelatedAlive());
}

TEST_F(LockFileTrust, LaunchedProcessThatDiesOverAStaleLockFileIsStoppedWithTheStaleMessage) {
    ReusedPidLockFile stranger(lck);
    setenv("QUENDRAL_DEMO_START_DELAY_MS", "60000", 1);
    ASSERT_TRUE(startup());
    const pid_t server = inst->pid();
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStarting);
    kill(server, SIGKILL);
    ASSERT_TRUE(refreshUntil(ServerStatusStopped));
    EXPECT_EQ(inst->pid(), 0);
    EXPECT_GE(log.count(stale()), 1u);
    EXPECT_TRUE(stranger.unrelatedAlive());
    // A new start is offered and works.
    unsetenv("QUENDRAL_DEMO_START_DELAY_MS");
    ASSERT_TRUE(startup());
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    EXPECT_EQ(inst->pid(), launched.back());
}

TEST_F(LockFileTrust, LockFileOlderThanTheLaunchedProcessThatNamesItsPidIsNotItsAnswer) {
    // The earlier server's file happens to name the pid the system gives to
    // the server launched now; it is older than that process.
    setenv("QUENDRAL_DEMO_START_DELAY_MS", "60000", 1);
    ASSERT_TRUE(startup());
    const pid_t server = inst->pid();
    writeLockFile(lck, server);
    backdate(lck, 3600);
    inst->refresh();
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStarting);
    EXPECT_EQ(log.count(stale()), 2u);
    // Once the file is written again (by the server), it is its answer.
    writeLockFile(lck, server);
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst->pid(), server);
}

TEST_F(LockFileTrust, ServerThatForksAndWaitsIsFollowedToTheChildNamedInTheLockFile) {
    setenv("QUENDRAL_DEMO_FORK", "1", 1);
    ASSERT_TRUE(startup());
    const pid_t first = inst->pid();
    ASSERT_TRUE(refreshUntil(ServerStatusRunning));
    const pid_t child = inst->pid();
    EXPECT_NE(child, first);
    EXPECT_EQ(parentOf(child), first);
    EXPECT_EQ(readFile(lck), std::to_string(child) + "\n");
    EXPECT_EQ(log.count("pid value from .lck file is different (expected " + std::to_string(first) +
                        ", got " + std::to_string(child) + ")"),
              1u);
    // Stop reaches the child that serves; the waiting parent ends with it.
    ASSERT_TRUE(inst->shutdown());
    ASSERT_TRUE(refreshUntil(ServerStatusStopped));
    // It has ended once it is a zombie: the model collects it at a later
    // probe of any instance, one ended child a probe.
    EXPECT_TRUE(waitFor([&] {
        const char state = processState(first);
        return state == 0 || state == 'Z';
    }));
}

TEST_F(LockFileTrust, ServerWhoseFirstProcessExitsIsFollowedToTheDaemonNamedInTheLockFile) {
    setenv("QUENDRAL_DEMO_FORK", "2", 1);
    ASSERT_TRUE(startup());
    const pid_t first = inst->pid();
    ASSERT_TRUE(waitFor([&] {
        inst->refresh();
        return inst->serverStatus() == ServerStatusRunning && inst->pid() != first;
    }));
    const pid_t daemon = inst->pid();
    EXPECT_EQ(readFile(lck), std::to_string(daemon) + "\n");
    ASSERT_TRUE(inst->shutdown());
    EXPECT_TRUE(waitFor([&] { return kill(daemon, 0) != 0; }));
    ASSERT_TRUE(refreshUntil(ServerStatusStopped));
}

TEST_F(LockFileTrust, KnownServerThatEndedIsNeverSignalledThroughItsOldPid) {
    // The instance knows a live server; it ends between two looks, and the
    // lock file it leaves names a process begun later. Stop must not reach
    // that process, whichever path the refresh takes.
    ChildProcess server;
    writeLockFile(lck, server.pid());
    inst->refresh();
    ASSERT_EQ(inst->serverStatus(), ServerStatusRunning);
    server.killAndReap();
    ReusedPidLockFile stranger(lck);
    EXPECT_FALSE(inst->shutdown());
    EXPECT_TRUE(stranger.unrelatedAlive());
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
}

} // namespace
