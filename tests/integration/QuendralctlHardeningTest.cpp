// What quendralctl must not be talked into: taking PID 1 for a server inside
// a pid namespace, taking another user's live server for a stopped one, or
// taking servers it cannot look at for stopped when it is short of
// descriptors.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

class QuendralctlHardening : public CtlInstallation {};

TEST_F(QuendralctlHardening, PidOneOfAPidNamespaceIsNeverTheServer) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a pid namespace";
    const std::string dir = makeInstanceDir(home, "database");
    // Inside, the shell is PID 1 and writes a lock file naming itself: the
    // file is root's, like the shell, and younger than it.
    const CtlResult r = runShell(
        "unshare -pf --mount-proc sh -c " +
        shellQuote("echo 1 > " + shellQuote(dir + "/quendral.lck") + "; env " + env + " " +
                   shellQuote(QUENDRALCTL_PATH) + " status; echo status=$?; env " + env + " " +
                   shellQuote(QUENDRALCTL_PATH) + " stop; echo stop=$?; echo alive"));
    if (r.out.find("status=") == std::string::npos)
        GTEST_SKIP() << "no pid namespace here: " << r.err;
    EXPECT_NE(r.out.find("database stopped\n    Directory: " + dir +
                         "\n      Enabled: no\n          Log: -\nstatus=3\n"),
              std::string::npos)
        << r.out << r.err;
    // Stopped, so a stop has nothing to do: PID 1 is never signalled.
    EXPECT_NE(r.out.find("database already stopped\nstop=0\nalive\n"), std::string::npos)
        << r.out << r.err;
}

TEST_F(QuendralctlHardening, AnotherUsersLiveServerIsRunningAndNeverStartedTwice) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to be the other user";
    if (!fs::exists("/usr/bin/setpriv")) GTEST_SKIP() << "needs setpriv";
    const std::string dir = makeInstanceDir(home, "database");
    // An ordinary user's installation, which root started a server in (as
    // `sudo quendralctl start` does): the lock file is root's and names
    // root's live server, which the user may not signal.
    for (const std::string &p : {home.path(), dir}) ASSERT_EQ(chmod(p.c_str(), 0755), 0);
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const auto servers = processesIn(dir);
    ASSERT_EQ(servers.size(), 1u);
    const auto asUser = [&](const std::string &args) {
        return runShell("env " + env + " setpriv --reuid=65534 --regid=65534 --clear-groups " +
                        shellQuote(QUENDRALCTL_PATH) + " " + args);
    };
    const CtlResult status = asUser("status");
    EXPECT_EQ(status.status, 0) << status.out << status.err;
    EXPECT_EQ(shownStatus(status.out), "running\n");
    EXPECT_EQ(status.err.find("stale"), std::string::npos) << status.err;
    const CtlResult start = asUser("start --wait 5");
    EXPECT_EQ(start.status, 0) << start.err;
    EXPECT_EQ(start.out, "database already running\n");
    EXPECT_EQ(processesIn(dir), servers) << "no second server on the directory";
    // Only a stop needs the right to signal, and says it lacks it.
    const CtlResult stop = asUser("stop");
    EXPECT_EQ(stop.status, 1);
    EXPECT_NE(stop.err.find("Operation not permitted"), std::string::npos) << stop.err;
    EXPECT_EQ(processesIn(dir), servers);
    EXPECT_EQ(ctl("stop --wait 10").status, 0);
}

TEST_F(QuendralctlHardening, FrontEndsWithAndWithoutARuntimeDirectorySeeEachOthersStarts) {
    // The desktop has XDG_RUNTIME_DIR; cron, su and ssh may not, or another.
    const std::string dir = makeInstanceDir(home, "database");
    TempDir runtime;
    ASSERT_EQ(
        ctl("start", "XDG_RUNTIME_DIR=" + runtime.path() + " QUENDRAL_DEMO_START_DELAY_MS=2000")
            .status,
        0);
    const CtlResult other = runShell("env -u XDG_RUNTIME_DIR HOME=/nonexistent " + env + " " +
                                     shellQuote(QUENDRALCTL_PATH) + " start --wait 10");
    EXPECT_EQ(other.status, 0) << other.err;
    EXPECT_EQ(other.out, "database started\n");
    EXPECT_EQ(processesIn(dir).size(), 1u) << "a second server from a front end elsewhere";
}

TEST_F(QuendralctlHardening, FewDescriptorsLeftNeverMakeRunningServersStoppedNorStartDuplicates) {
    constexpr int kServers = 40;
    for (int i = 0; i < kServers; i++) makeInstanceDir(home, "db" + std::to_string(100 + i));
    ASSERT_EQ(ctl("start --all --wait 30").status, 0);
    const size_t servers = processesIn(home.path()).size();
    ASSERT_EQ(servers, static_cast<size_t>(kServers));

    // Soft and hard limit alike, so the tool cannot raise it: each running
    // server it knows would want a descriptor of its own.
    const std::string limited = "ulimit -n 30 && env " + env + " " + shellQuote(QUENDRALCTL_PATH);
    const CtlResult list = runShell(limited + " list");
    EXPECT_EQ(list.status, 0) << list.err;
    std::istringstream lines(list.out);
    int running = 0, total = 0;
    for (std::string line; std::getline(lines, line); total++)
        if (line.find(" running ") != std::string::npos) running++;
    EXPECT_EQ(total, kServers);
    EXPECT_EQ(running, kServers) << list.out;

    const CtlResult start = runShell(limited + " start --all");
    EXPECT_EQ(start.status, 0) << start.err;
    EXPECT_EQ(processesIn(home.path()).size(), static_cast<size_t>(kServers))
        << "no second server for any instance";
}

} // namespace
