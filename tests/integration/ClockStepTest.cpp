// A clock step changes no one's status: the wall clock is really stepped
// (as root), so these tests run alone (RUN_SERIAL) and put the clock back.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

// Steps the wall clock by `seconds` for the life of the object.
class ClockStep {
  public:
    explicit ClockStep(long seconds) : seconds_(seconds) { ok_ = shift(seconds_); }
    ~ClockStep() {
        if (ok_) shift(-seconds_);
    }
    bool ok() const { return ok_; }

  private:
    static bool shift(long seconds) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        now.tv_sec += seconds;
        return clock_settime(CLOCK_REALTIME, &now) == 0;
    }
    long seconds_;
    bool ok_ = false;
};

class ClockStepTest : public CtlInstallation {
  protected:
    std::string dir;
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to step the clock";
        CtlInstallation::SetUp();
        dir = makeInstanceDir(home, "database");
    }
};

TEST_F(ClockStepTest, ARunningServerStaysRunningWhenTheClockStepsForward) {
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    ASSERT_EQ(ctl("status").status, 0);
    ClockStep step(60);
    if (!step.ok()) GTEST_SKIP() << "the clock cannot be set here";
    const CtlResult status = ctl("status");
    EXPECT_EQ(shownStatus(status.out), "running\n");
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(ctl("start").out, "database already running\n") << "no second server";
    EXPECT_EQ(processesIn(dir).size(), 1u);
    QuendralInstance fresh(dir);
    ASSERT_TRUE(fresh.isValid());
    fresh.refresh();
    EXPECT_EQ(fresh.serverStatus(), ServerStatusRunning);
}

TEST_F(ClockStepTest, AServerNoOneHasLookedAtYetStaysRunningWhenTheClockSteps) {
    // Launched and left: its lock file is written, and judged for the first
    // time only after the step.
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_START_DELAY_MS=200").status, 0);
    ASSERT_TRUE(waitFor([&] { return fs::exists(dir + "/quendral.lck"); }));
    ClockStep step(60);
    if (!step.ok()) GTEST_SKIP() << "the clock cannot be set here";
    EXPECT_EQ(shownStatus(ctl("status").out), "running\n");
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(ClockStepTest, AStaleLockFileStaysStaleWhenTheClockStepsBack) {
    ReusedPidLockFile stranger(dir + "/quendral.lck");
    ASSERT_EQ(ctl("status").status, 3);
    ClockStep step(-60);
    if (!step.ok()) GTEST_SKIP() << "the clock cannot be set here";
    EXPECT_EQ(shownStatus(ctl("status").out), "stopped\n");
    EXPECT_EQ(ctl("stop").out, "database already stopped\n") << "nothing signalled";
    EXPECT_TRUE(stranger.unrelatedAlive());
}

} // namespace
