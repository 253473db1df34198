// What quendralctl must not be talked into: taking PID 1 for a server inside
// a pid namespace, or taking servers it cannot look at for stopped when it is
// short of descriptors.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
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
