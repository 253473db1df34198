// How refresh moves an instance's server status, with real processes.
#include "ModelTestUtil.h"
#include "Unprivileged.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;

namespace {

class InstanceStatus : public ::testing::Test, public InstanceFixture {
  protected:
    void SetUp() override { ASSERT_TRUE(inst.isValid()); }
    std::string stale() const { return "stale .lck file detected: " + lck; }
};

// A pid that surely names no process: one of ours that has ended and been
// reaped.
pid_t deadPid() {
    ChildProcess c({"true"});
    const pid_t pid = c.pid();
    waitpid(pid, nullptr, 0);
    return pid;
}

TEST_F(InstanceStatus, NoPidAnywhereIsStopped) {
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst.entryStatus(), EntryStatusChanged);
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst.entryStatus(), EntryStatusUnchanged);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(InstanceStatus, ServerStartedElsewhereIsAdoptedFromItsLockFile) {
    ChildProcess server;
    writeLockFile(lck, server.pid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst.pid(), server.pid());
    EXPECT_EQ(inst.entryStatus(), EntryStatusChanged);
}

TEST_F(InstanceStatus, KnownLivePidKeepsRunningWithoutReadingTheLockFile) {
    ChildProcess server;
    writeLockFile(lck, server.pid());
    inst.refresh();
    // The lock file is no longer consulted while the known pid lives.
    writeFile(lck, "garbage");
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst.entryStatus(), EntryStatusUnchanged);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(InstanceStatus, KnownPidDeadButLockFilePidAliveIsAdopted) {
    ChildProcess first, second;
    writeLockFile(lck, first.pid());
    inst.refresh();
    ASSERT_EQ(inst.pid(), first.pid());
    first.killAndReap();
    writeLockFile(lck, second.pid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst.pid(), second.pid());
}

TEST_F(InstanceStatus, StaleLockFileLogsAtEveryRefreshAndStaysStopped) {
    writeLockFile(lck, deadPid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst.entryStatus(), EntryStatusChanged);
    inst.refresh();
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst.entryStatus(), EntryStatusUnchanged);
    EXPECT_EQ(log.count(stale()), 3u);
    EXPECT_EQ(log.lines.size(), 3u);
}

TEST_F(InstanceStatus, RunningServerThatDiesBecomesStopped) {
    auto server = std::make_unique<ChildProcess>();
    writeLockFile(lck, server->pid());
    inst.refresh();
    ASSERT_EQ(inst.serverStatus(), ServerStatusRunning);
    server.reset();
    std::filesystem::remove(lck);
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst.pid(), 0);
}

TEST_F(InstanceStatus, ProcessOfAnotherUserCountsAsNotRunning) {
    // This test process (root on CI) is the other user's process; the
    // monitor runs as nobody.
    TempDir shared;
    chmod(shared.path().c_str(), 0777);
    const std::string p = shared / "x";
    const pid_t rootOwned = getpid();
    const int rc = runUnprivileged([&] {
        std::filesystem::create_directories(p);
        writeFile(p + "/quendral.ini", "[database]\n");
        writeLockFile(p + "/quendral.lck", rootOwned);
        LogCapture inner;
        QuendralInstance i(p);
        if (!i.isValid()) return 1;
        i.refresh();
        if (i.serverStatus() != ServerStatusStopped) return 2;
        if (inner.count("stale .lck file detected: " + p + "/quendral.lck") != 1) return 3;
        return 0;
    });
    EXPECT_EQ(rc, 0);
}

TEST_F(InstanceStatus, DeletingTheConfigurationOfAStoppedInstanceMarksItRemoved) {
    inst.refresh();
    std::filesystem::remove(instDir + "/quendral.ini");
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst.entryStatus(), EntryStatusRemoved);
    // A later refresh goes through setStatus first, then removed again.
    inst.refresh();
    EXPECT_EQ(inst.entryStatus(), EntryStatusRemoved);
}

TEST_F(InstanceStatus, DeletingTheConfigurationWhileTheServerRunsChangesNothingUntilItStops) {
    auto server = std::make_unique<ChildProcess>();
    writeLockFile(lck, server->pid());
    inst.refresh();
    ASSERT_EQ(inst.serverStatus(), ServerStatusRunning);
    std::filesystem::remove(instDir + "/quendral.ini");
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst.entryStatus(), EntryStatusUnchanged);
    server.reset();
    inst.refresh(); // the known pid is dead; the lock file names it: stale
    EXPECT_EQ(inst.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst.entryStatus(), EntryStatusRemoved);
}

TEST_F(InstanceStatus, SetStatusTracksWhetherTheValueChanged) {
    inst.setStatus(ServerStatusUnknown);
    EXPECT_EQ(inst.entryStatus(), EntryStatusUnchanged);
    inst.setStatus(ServerStatusRunning);
    EXPECT_EQ(inst.entryStatus(), EntryStatusChanged);
    EXPECT_EQ(inst.serverStatus(), ServerStatusRunning);
    inst.setStatus(ServerStatusRunning);
    EXPECT_EQ(inst.entryStatus(), EntryStatusUnchanged);
}

TEST_F(InstanceStatus, IsRunningRefusesPidsOfZeroAndBelow) {
    EXPECT_FALSE(inst.isRunning(0));
    EXPECT_FALSE(inst.isRunning(-1));
    EXPECT_FALSE(inst.isRunning(-getpgrp()));
}

TEST_F(InstanceStatus, IsRunningReapsOneEndedChildPerCall) {
    ChildProcess a({"true"}), b({"true"});
    ASSERT_TRUE(
        waitFor([&] { return processState(a.pid()) == 'Z' && processState(b.pid()) == 'Z'; }));
    ChildProcess live;
    EXPECT_TRUE(inst.isRunning(live.pid()));
    EXPECT_TRUE(inst.isRunning(live.pid()));
    EXPECT_EQ(processState(a.pid()), 0);
    EXPECT_EQ(processState(b.pid()), 0);
}

TEST_F(InstanceStatus, IsRunningIsFalseForTheChildItJustReaped) {
    ChildProcess child({"true"});
    ASSERT_TRUE(waitFor([&] { return processState(child.pid()) == 'Z'; }));
    EXPECT_FALSE(inst.isRunning(child.pid()));
    EXPECT_EQ(processState(child.pid()), 0);
}

} // namespace
