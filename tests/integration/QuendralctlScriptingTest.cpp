// quendralctl as scripts use it, "to make it so" and again on the next pass:
// idempotent actions, a waiting start that joins the one in progress, a wait
// until the server accepts connections, and nothing on stderr where all is
// normal. Real quendralctl processes against real demo servers.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

using namespace testsupport;

namespace {

class Scripting : public CtlInstallation {
  protected:
    std::string dir;
    void SetUp() override {
        CtlInstallation::SetUp();
        dir = makeInstanceDir(home, "database");
    }
    // quendralctl as it runs: stderr as it is, notices included.
    CtlResult raw(const std::string &args, const std::string &extraEnv = "") {
        return runCtl(args, env + " " + extraEnv);
    }
};

TEST_F(Scripting, StartOfARunningInstanceSucceedsWithNothingDone) {
    const CtlResult first = ctl("start --wait 10");
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.out, "database started\n");
    const auto servers = processesIn(dir);
    ASSERT_EQ(servers.size(), 1u);
    for (const std::string args : {"start", "start --wait 10"}) {
        const CtlResult again = raw(args);
        EXPECT_EQ(again.status, 0) << args;
        EXPECT_EQ(again.out, "database already running\n") << args;
        EXPECT_EQ(again.err, "") << args;
    }
    EXPECT_EQ(processesIn(dir), servers) << "nothing launched, nothing signalled";
}

TEST_F(Scripting, StopOfAStoppedInstanceSucceedsWithNothingDone) {
    for (const std::string args : {"stop", "stop --wait 10"}) {
        const CtlResult r = raw(args);
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_EQ(r.out, "database already stopped\n") << args;
        EXPECT_EQ(r.err, "") << args;
    }
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const CtlResult stop = ctl("stop --wait 10");
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(stop.out, "database stopped\n");
}

TEST_F(Scripting, ThreeWaitingStartsAtOnceAllSucceedWithOneServer) {
    std::string cmd;
    for (int i = 0; i < 3; i++)
        cmd += "(env " + env + " QUENDRAL_DEMO_START_DELAY_MS=1500 " +
               shellQuote(QUENDRALCTL_PATH) + " start --wait 10 2>&1; echo rc=$?) & ";
    cmd += "wait";
    const CtlResult r = runShell(cmd);
    std::istringstream in(r.out);
    std::vector<int> codes;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("rc="))
            codes.push_back(std::stoi(line.substr(3)));
        else
            EXPECT_EQ(line, "database started") << r.out;
    }
    EXPECT_EQ(codes, std::vector<int>({0, 0, 0})) << r.out;
    EXPECT_EQ(processesIn(dir).size(), 1u);
    EXPECT_EQ(ctl("status").status, 0);
}

TEST_F(Scripting, AStartWithoutWaitMeetingAnotherOneSucceedsAndLaunchesNothing) {
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_START_DELAY_MS=3000").status, 0);
    const CtlResult again = raw("start");
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, "database already starting\n");
    EXPECT_EQ(again.err, "");
    EXPECT_EQ(processesIn(dir).size(), 1u);
}

TEST_F(Scripting, AWaitingStartThatJoinsAFailingStartFailsWithTheReason) {
    ASSERT_EQ(ctl("start", "QUENDRAL_DEMO_FAIL_AFTER_MS=1000").status, 0);
    const CtlResult joined = ctl("start --wait 10");
    EXPECT_EQ(joined.status, 1);
    EXPECT_EQ(joined.out, "");
    EXPECT_NE(joined.err.find("quendralctl: database did not start (stopped)\n"), std::string::npos)
        << joined.err;
    EXPECT_NE(joined.err.find("Cannot open the database: demo failure"), std::string::npos)
        << "the log's end tells why: " << joined.err;
    EXPECT_TRUE(processesIn(dir).empty()) << "the joined start launched nothing of its own";
}

TEST_F(Scripting, StartAllOverAMixSaysWhatWasDoneForEach) {
    makeInstanceDir(home, "sales");
    makeInstanceDir(home, "zebra");
    ASSERT_EQ(ctl("start sales --wait 10").status, 0);
    const CtlResult r = ctl("start --all --wait 10");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database started\nsales already running\nzebra started\n");
    const CtlResult stop = ctl("stop --all --wait 10");
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(stop.out, "database stopped\nsales stopped\nzebra stopped\n");
    const CtlResult again = ctl("stop --all");
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out,
              "database already stopped\nsales already stopped\nzebra already stopped\n");
}

TEST_F(Scripting, RestartOfAStoppedInstanceStartsItAndOfARunningOneRestartsIt) {
    const CtlResult first = ctl("restart --wait 10");
    EXPECT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.out, "database started\n");
    const CtlResult second = ctl("restart --wait 10");
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(second.out, "database restarted\n");
}

TEST_F(Scripting, AStartWithNoSessionBusAndNoRuntimeDirectorySaysNothingOnStderr) {
    const CtlResult r = runShell("env -u DBUS_SESSION_BUS_ADDRESS -u XDG_RUNTIME_DIR " + env + " " +
                                 shellQuote(QUENDRALCTL_PATH) + " start --wait 10");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "database started\n");
    EXPECT_EQ(r.err, "");
    // A session bus address that leads nowhere: no bus is normal too.
    const CtlResult stop = raw("stop --wait 10");
    ASSERT_EQ(stop.status, 0) << stop.err;
    const CtlResult nowhere =
        raw("start --wait 10", "DBUS_SESSION_BUS_ADDRESS=unix:path=" + home / "no-bus-here");
    EXPECT_EQ(nowhere.status, 0);
    EXPECT_EQ(nowhere.err, "");
}

TEST_F(Scripting, StatusOpensWithTheNameAndTheStatusWord) {
    makeInstanceDir(home, "sales");
    EXPECT_TRUE(ctl("status sales").out.starts_with("sales stopped\n")) << ctl("status sales").out;
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    EXPECT_TRUE(ctl("status").out.starts_with("database running\n")) << ctl("status").out;
}

TEST_F(Scripting, ReadyWaitsUntilTheServerListensAndAConnectionRightAfterIsTaken) {
    const int port = freeLoopbackPort();
    ASSERT_GT(port, 0);
    const std::string server =
        "QUENDRAL_DEMO_HTTP_PORT=" + std::to_string(port) + " QUENDRAL_DEMO_LISTEN_DELAY_MS=1000";
    const auto began = std::chrono::steady_clock::now();
    // The connection is made by the shell right after the tool, as in
    // `quendralctl start --wait 30 --ready && client ...`.
    const CtlResult r =
        runShell("env " + env + " " + server + " " + shellQuote(QUENDRALCTL_PATH) +
                 " start --wait 10 --ready && bash -c 'exec 3<>/dev/tcp/127.0.0.1/" +
                 std::to_string(port) + "' && echo connected");
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database started\nconnected\n") << r.err;
    EXPECT_GE(took, std::chrono::milliseconds(1000)) << "returned before the server listened";
    EXPECT_TRUE(connectsToLoopback(port));
}

TEST_F(Scripting, ReadyOfAServerThatNeverListensFailsAtTheDeadline) {
    const CtlResult r = ctl("start --wait 1.5 --ready");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("quendralctl: database runs but does not listen on a TCP port yet\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(ctl("status").status, 0) << "the server runs on";
    // The next pass finds it running and ready to be waited for again.
    const CtlResult again = ctl("start --wait 1 --ready");
    EXPECT_EQ(again.status, 1);
}

TEST_F(Scripting, ReadyKeepsOneDeadlineForTheWholeWait) {
    // Running after 2.5 s and never listening: "--wait 3" is three seconds
    // in all, not three for running and three more for listening.
    const auto began = std::chrono::steady_clock::now();
    const CtlResult r = ctl("start --wait 3 --ready", "QUENDRAL_DEMO_START_DELAY_MS=2500");
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("quendralctl: database runs but does not listen on a TCP port yet\n"),
              std::string::npos)
        << r.err;
    EXPECT_GE(took, std::chrono::milliseconds(3000));
    // The deadline and the tool's own start and end, with room for a busy
    // machine; a second wait would take 5.5 s.
    EXPECT_LT(took, std::chrono::milliseconds(4500));
}

TEST_F(Scripting, ReadyNeedsAWait) {
    const CtlResult r = ctl("start --ready");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("--wait"), std::string::npos) << r.err;
}

} // namespace
