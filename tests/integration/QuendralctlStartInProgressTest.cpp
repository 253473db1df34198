// One start per instance, whoever asks: separate quendralctl processes, at
// once or one after another, against real slow demo servers.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

class StartInProgress : public CtlInstallation {
  protected:
    std::string dir;
    void SetUp() override {
        CtlInstallation::SetUp();
        dir = makeInstanceDir(home, "database");
    }
    // Runs `count` quendralctl processes with `args` at once; their exit
    // statuses.
    std::vector<int> atOnce(int count, const std::string &args, const std::string &extraEnv) {
        std::string cmd;
        for (int i = 0; i < count; i++)
            cmd += "(env " + env + " " + extraEnv + " " + shellQuote(QUENDRALCTL_PATH) + " " +
                   args + " >/dev/null 2>&1; echo rc=$?) & ";
        cmd += "wait";
        const CtlResult r = runShell(cmd);
        std::vector<int> codes;
        std::istringstream in(r.out);
        for (std::string line; std::getline(in, line);)
            if (line.starts_with("rc=")) codes.push_back(std::stoi(line.substr(3)));
        return codes;
    }
    bool runningWithin(int seconds) {
        return waitFor([&] { return ctl("status").status == 0; }, std::chrono::seconds(seconds));
    }
};

TEST_F(StartInProgress, StartThenStatusSaysStarting) {
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_START_DELAY_MS=3000").status, 0);
    const CtlResult status = ctl("status");
    EXPECT_EQ(shownStatus(status.out), "starting\n");
    EXPECT_EQ(status.status, 3);
    const CtlResult list = ctl("list");
    EXPECT_NE(list.out.find("starting"), std::string::npos) << list.out;
}

TEST_F(StartInProgress, ASecondStartJoinsTheFirstAndLaunchesNothing) {
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_START_DELAY_MS=3000").status, 0);
    const CtlResult again = ctl("start");
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, "database already starting\n");
    EXPECT_EQ(again.err, "");
    EXPECT_EQ(processesIn(dir).size(), 1u);
    EXPECT_TRUE(runningWithin(10));
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(StartInProgress, EightStartsAtOnceLaunchOneServer) {
    const auto codes = atOnce(8, "start --wait 8", "QUENDRAL_DEMO_START_DELAY_MS=1000");
    ASSERT_EQ(codes.size(), 8u);
    EXPECT_EQ(std::count(codes.begin(), codes.end(), 0), 8) << "each joins the one start";
    EXPECT_EQ(processesIn(dir).size(), 1u);
    EXPECT_EQ(ctl("status").status, 0);
}

TEST_F(StartInProgress, StopDuringAnotherStartIsRefusedAndTheServerComesUp) {
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_START_DELAY_MS=2000").status, 0);
    const CtlResult stop = ctl("stop");
    EXPECT_EQ(stop.status, 1);
    EXPECT_NE(stop.err.find("starting"), std::string::npos) << stop.err;
    EXPECT_TRUE(runningWithin(10));
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(StartInProgress, TwoRestartsAtOnceLeaveOneServer) {
    ASSERT_EQ(ctl("start --wait 10", "QUENDRAL_DEMO_START_DELAY_MS=300").status, 0);
    const auto codes = atOnce(2, "restart --wait 10", "QUENDRAL_DEMO_START_DELAY_MS=800");
    ASSERT_EQ(codes.size(), 2u);
    EXPECT_TRUE(runningWithin(10));
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(StartInProgress, FrontEndKilledDuringItsWaitLeavesTheStartVisible) {
    ChildProcess waiting({"env", "QUENDRAL_HOME=" + home.path(), "QUENDRAL_DEMO_HTTP_PORT=0",
                          "QUENDRAL_DEMO_START_DELAY_MS=2500", QUENDRALCTL_PATH, "start", "--wait",
                          "30"});
    ASSERT_TRUE(waitFor([&] { return shownStatus(ctl("status").out) == "starting\n"; }));
    waiting.killAndReap();
    EXPECT_EQ(shownStatus(ctl("status").out), "starting\n");
    EXPECT_EQ(ctl("start").out, "database already starting\n");
    EXPECT_TRUE(runningWithin(10));
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(StartInProgress, ALaunchedProcessThatExitsAtOnceIsStoppedForEveryone) {
    // The first start's program says who it is and fails; later ones run
    // the demo server.
    writeFile(dir + "/quendral",
              "#!/bin/sh\nif [ -e failed.once ]; then exec " + shellQuote(home / "bin/quendral") +
                  " \"$@\"; fi\necho $$ > launched.pid\ntouch failed.once\nexit 1\n");
    chmod((dir + "/quendral").c_str(), 0755);
    ASSERT_EQ(ctl("start").status, 0);
    ASSERT_TRUE(waitFor([&] { return fs::exists(dir + "/launched.pid"); }));
    pid_t launched = 0;
    ASSERT_TRUE(waitFor([&] {
        try {
            launched = std::stoi(readFile(dir + "/launched.pid"));
        } catch (const std::exception &) {
            return false; // not written yet
        }
        const char state = processState(launched);
        return launched > 0 && (state == 0 || state == 'Z');
    }));
    const CtlResult status = ctl("status");
    EXPECT_EQ(shownStatus(status.out), "stopped\n");
    EXPECT_EQ(status.status, 3);
    EXPECT_EQ(ctl("start --wait 10").status, 0);
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(StartInProgress, AStartingServerKilledIsStopped) {
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_START_DELAY_MS=5000").status, 0);
    const auto json = nlohmann::json::parse(ctl("status --json").out);
    ASSERT_EQ(json["serverStatus"], "starting");
    const pid_t pid = json["pid"].get<int>();
    ASSERT_GT(pid, 0);
    kill(pid, SIGKILL);
    ASSERT_TRUE(waitFor([&] {
        const char state = processState(pid);
        return state == 0 || state == 'Z';
    }));
    const CtlResult status = ctl("status");
    EXPECT_EQ(shownStatus(status.out), "stopped\n");
    EXPECT_EQ(status.status, 3);
}

TEST_F(StartInProgress, RestartWhileAnotherStartIsOnItsWayWaitsAndLeavesOneServer) {
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_START_DELAY_MS=1000").status, 0);
    const CtlResult r = ctl("restart --wait 10", "QUENDRAL_DEMO_START_DELAY_MS=300");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database restarted\n");
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(StartInProgress, AllCountsAStartInProgressAsDone) {
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_START_DELAY_MS=1000").status, 0);
    const CtlResult r = ctl("start --all --wait 10");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database started\n");
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

} // namespace
