// quendralctl's --wait: the seconds it takes, and what 0 means, against real
// servers.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

class QuendralctlWait : public CtlInstallation {
  protected:
    std::string dir;
    void SetUp() override {
        CtlInstallation::SetUp();
        dir = makeInstanceDir(home, "database");
    }
    CtlResult ctl(const std::string &args) { return runCtl(args, env); }
    int lockPid() {
        try {
            return std::stoi(readFile(dir + "/quendral.lck"));
        } catch (const std::exception &) {
            return 0;
        }
    }
};

TEST_F(QuendralctlWait, SecondsBeyondADayOrNotANumberAreAUsageErrorSaidPlainly) {
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const int server = lockPid();
    const std::vector<std::string> values = {"1e10", "86400.5", "-1", "nan", "inf",
                                             "soon", "0x10",    "5s", "''"};
    for (const std::string &value : values) {
        const CtlResult r = ctl("stop --wait " + value);
        EXPECT_EQ(r.status, 2) << value;
        EXPECT_EQ(r.err,
                  "quendralctl: --wait must be between 0 and 86400 seconds, not " + value + "\n");
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(ctl("status").status, 0) << "none of them stopped the server";
    EXPECT_EQ(lockPid(), server);
    // The bounds themselves, and fractions, are fine.
    EXPECT_EQ(ctl("stop --wait 86400").status, 0);
    EXPECT_EQ(ctl("start --wait 2.5e1").status, 0);
    EXPECT_EQ(ctl("stop --wait 0.5").status, 0);
}

TEST_F(QuendralctlWait, ALongWaitLastsUntilTheServerHasStopped) {
    // A server that notes SIGTERM in its log and goes on running until it is
    // killed.
    writeFile(dir + "/quendral",
              "#!/bin/sh\ntrap 'echo got TERM >> quendral.log' TERM\necho $$ > quendral.lck\n"
              "while :; do sleep 0.05; done\n");
    chmod((dir + "/quendral").c_str(), 0755);
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const int server = lockPid();
    ASSERT_GT(server, 0);

    // `stop --wait 86400` in the background: it must still be waiting when
    // the server ends, however long that takes.
    const std::string out = home / "stop.out";
    const pid_t stopper = fork();
    ASSERT_GE(stopper, 0);
    if (stopper == 0) {
        execl("/bin/sh", "sh", "-c",
              ("exec env " + env + " " + shellQuote(QUENDRALCTL_PATH) + " stop --wait 86400 >" +
               shellQuote(out) + " 2>/dev/null")
                  .c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
    EXPECT_TRUE(waitFor(
        [&] {
            return fs::exists(dir + "/quendral.log") &&
                   readFile(dir + "/quendral.log").find("got TERM") != std::string::npos;
        },
        std::chrono::seconds(20)));
    kill(server, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(stopper, &status, 0), stopper);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << readFile(out);
    EXPECT_EQ(readFile(out), "database stopped\n");
}

TEST_F(QuendralctlWait, StartWithWaitZeroStartsAndDoesNotWait) {
    const CtlResult r = ctl("start --wait 0");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database starting\n");
    EXPECT_TRUE(waitFor([&] { return ctl("status").status == 0; }));
}

TEST_F(QuendralctlWait, StopWithWaitZeroStopsAndDoesNotWait) {
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const CtlResult r = ctl("stop --wait 0");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database stopping\n");
    EXPECT_TRUE(waitFor([&] { return ctl("status").status == 3; }));
}

TEST_F(QuendralctlWait, RestartWithWaitZeroStillStartsANewServer) {
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const int before = lockPid();
    const CtlResult r = ctl("restart --wait 0");
    EXPECT_EQ(r.status, 0) << r.err;
    // The old server was waited for; the new one is on its way.
    EXPECT_EQ(r.out, "database restarting\n");
    const char state = processState(before);
    EXPECT_TRUE(state == 0 || state == 'Z') << "the old server has ended; state " << state;
    EXPECT_TRUE(waitFor([&] { return ctl("status").status == 0; }));
    EXPECT_NE(lockPid(), before);
    EXPECT_NE(lockPid(), 0);
}

// The events end a wait: with the fallback poll set to 10 s, only they can
// end it within 2 s of what it waits for.
const std::string kSlowFallback = "QUENDRALCTL_TEST_FALLBACK_POLL_MS=10000 ";

double cpuSecondsOfChildren() {
    rusage ru{};
    getrusage(RUSAGE_CHILDREN, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

TEST_F(QuendralctlWait, StartWaitEndsWhenTheLockFileIsWritten) {
    const double cpuBefore = cpuSecondsOfChildren();
    const CtlResult r =
        runCtl("start --wait 60", kSlowFallback + "QUENDRAL_DEMO_START_DELAY_MS=1500 " + env);
    const auto returned = std::chrono::system_clock::now();
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database started\n");
    struct stat st;
    ASSERT_EQ(stat((dir + "/quendral.lck").c_str(), &st), 0);
    const auto written = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(st.st_mtim.tv_sec) +
            std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
    EXPECT_LT(returned - written, std::chrono::seconds(2));
    // It slept while the server took its time: no busy loop (the server is
    // not our child, its time is not counted here).
    EXPECT_LT(cpuSecondsOfChildren() - cpuBefore, 0.5);
}

TEST_F(QuendralctlWait, StopWaitEndsWhenTheServerEnds) {
    // A server that takes a second to end after SIGTERM and leaves its lock
    // file behind: only its end can end the wait.
    writeFile(dir + "/quendral", "#!/bin/sh\ntrap 'sleep 1; exit 0' TERM\necho $$ > quendral.lck\n"
                                 "while :; do sleep 0.05; done\n");
    chmod((dir + "/quendral").c_str(), 0755);
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const auto before = std::chrono::steady_clock::now();
    const CtlResult r = runCtl("stop --wait 60", kSlowFallback + env);
    const auto took = std::chrono::steady_clock::now() - before;
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database stopped\n");
    // One second of its own, then at most two of ours.
    EXPECT_LT(took, std::chrono::seconds(3));
}

TEST_F(QuendralctlWait, TheFallbackPollAloneEndsTheWaitWithoutEvents) {
    const std::string polled =
        "QUENDRALCTL_TEST_NO_EVENTS=1 QUENDRALCTL_TEST_FALLBACK_POLL_MS=200 ";
    CtlResult r = runCtl("start --wait 60", polled + "QUENDRAL_DEMO_START_DELAY_MS=500 " + env);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database started\n");
    r = runCtl("stop --wait 60", polled + env);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database stopped\n");
}

} // namespace
