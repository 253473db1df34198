// quendralctl never takes a stale lock file's pid for the server, and a start
// that meets one waits for the new server's own lock file.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

using namespace testsupport;

namespace {

class QuendralctlLockFile : public ::testing::Test {
  protected:
    TempDir home;
    std::string env;
    std::string lck;
    void SetUp() override {
        std::filesystem::create_directories(home / "bin");
        std::filesystem::copy_file(demoServerPath(), home / "bin/quendral");
        makeInstanceDir(home, "database");
        lck = home / "database/quendral.lck";
        env = "QUENDRAL_HOME=" + shellQuote(home.path()) + " QUENDRAL_DEMO_HTTP_PORT=0";
    }
    void TearDown() override {
        // A server this test started is named in its own lock file.
        const CtlResult r = runCtl("list --json", env);
        if (r.out.find("\"running\"") != std::string::npos) runCtl("stop --wait 5", env);
    }
};

TEST_F(QuendralctlLockFile, OldLockFileNamingAnUnrelatedProcessIsStaleAndThatProcessLivesOn) {
    ReusedPidLockFile stranger(lck);
    const std::string staleLine = "quendralctl: stale .lck file detected: " + lck + "\n";

    const CtlResult list = runCtl("list", env);
    EXPECT_EQ(list.status, 0);
    EXPECT_EQ(list.out, "* database  stopped         -  -      " + home.path() + "/database\n");
    EXPECT_NE(list.err.find(staleLine), std::string::npos) << list.err;

    const CtlResult status = runCtl("status", env);
    EXPECT_EQ(status.status, 3);
    EXPECT_EQ(shownStatus(status.out), "stopped\n");

    // Stopped is what a stop asks for: nothing to do, nothing signalled,
    // and the stale lock file said.
    const CtlResult stop = runCtl("stop", env);
    EXPECT_EQ(stop.status, 0);
    EXPECT_EQ(stop.out, "database already stopped\n");
    EXPECT_NE(stop.err.find(staleLine), std::string::npos) << stop.err;
    EXPECT_TRUE(stranger.unrelatedAlive());
}

// A slow server started over a lock file left by an earlier one: start --wait
// returns once the new server's own lock file is there, and status agrees.
void startOverStaleLock(const std::string &env, const std::string &lck) {
    const CtlResult start = runCtl("start --wait 20", "QUENDRAL_DEMO_START_DELAY_MS=1000 " + env);
    ASSERT_EQ(start.status, 0) << start.err;
    EXPECT_EQ(start.out, "database started\n");
    const std::string written = readFile(lck);
    const CtlResult status = runCtl("status", env);
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(shownStatus(status.out), "running\n");
    const CtlResult list = runCtl("list", env);
    ASSERT_FALSE(written.empty());
    EXPECT_NE(list.out.find(" " + written.substr(0, written.size() - 1) + "  "), std::string::npos)
        << list.out << " / lock file " << written;
    // That is the demo server, which stops on request and removes its file.
    EXPECT_EQ(runCtl("stop --wait 10", env).status, 0);
    EXPECT_FALSE(std::filesystem::exists(lck));
}

TEST_F(QuendralctlLockFile, StartOverALockFileNamingADeadPidWaitsForTheNewServer) {
    ChildProcess gone({"true"});
    const pid_t pid = gone.pid();
    waitpid(pid, nullptr, 0);
    writeLockFile(lck, pid);
    startOverStaleLock(env, lck);
}

TEST_F(QuendralctlLockFile, StartOverALockFileNamingAReusedPidWaitsForTheNewServer) {
    ReusedPidLockFile stranger(lck);
    startOverStaleLock(env, lck);
    EXPECT_TRUE(stranger.unrelatedAlive());
}

} // namespace
