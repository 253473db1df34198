// quendralctl status and the JSON of version 2: what a live server is doing
// (its program, since when, its memory, where it listens) and the end of its
// log, against real servers, real sockets and real log files.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

// The value after "Label: " on its line of `status`, "" when there is none.
std::string fact(const std::string &out, const std::string &label) {
    const std::string key = label + ": ";
    const size_t at = out.find(key);
    if (at == std::string::npos) return "";
    const size_t begin = at + key.size();
    return out.substr(begin, out.find('\n', begin) - begin);
}

// Seconds since the epoch of "2024-05-01T14:03:12+02:00", -1 when it is not
// that form.
long long parseIso(const std::string &text) {
    struct tm tm {};
    const char *rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    int hours = 0, minutes = 0;
    char sign = 0;
    if (!rest || std::sscanf(rest, "%c%2d:%2d", &sign, &hours, &minutes) != 3 ||
        (sign != '+' && sign != '-') || std::strlen(rest) != 6)
        return -1;
    const long long offset = (sign == '-' ? -1 : 1) * (hours * 3600LL + minutes * 60LL);
    return static_cast<long long>(timegm(&tm)) - offset;
}

class QuendralctlStatus : public ::testing::Test {
  protected:
    TempDir home;
    std::string env;
    std::string dir;
    void SetUp() override {
        fs::create_directories(home / "bin");
        fs::copy_file(demoServerPath(), home / "bin/quendral");
        env = "QUENDRAL_HOME=" + shellQuote(home.path()) + " QUENDRAL_DEMO_HTTP_PORT=0";
        dir = makeInstanceDir(home, "database");
    }
    void TearDown() override { runCtl("stop --all --wait 10", env); }
    CtlResult ctl(const std::string &args, const std::string &more = "") {
        return runCtl(args, more + " " + env);
    }
    // The status of a running server once `cond` holds for it.
    CtlResult statusOnce(const std::function<bool(const CtlResult &)> &cond) {
        CtlResult r;
        waitFor([&] {
            r = ctl("status");
            return cond(r);
        });
        return r;
    }
};

TEST_F(QuendralctlStatus, ShowsExactlyThePortTheServerListensOn) {
    const int port = freeLoopbackPort();
    ASSERT_GT(port, 0);
    const std::string portEnv = "QUENDRAL_DEMO_HTTP_PORT=" + std::to_string(port);
    ASSERT_EQ(runCtl("start --wait 10", env + " " + portEnv).status, 0);
    // The demo server listens just after writing its lock file.
    const CtlResult r =
        statusOnce([](const CtlResult &s) { return fact(s.out, "Listening") != "none"; });
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(shownStatus(r.out), "running\n");
    EXPECT_EQ(fact(r.out, "Listening"), "tcp 127.0.0.1:" + std::to_string(port));
    // One address: the next line is another fact, not a second address.
    EXPECT_NE(r.out.find("Listening: tcp 127.0.0.1:" + std::to_string(port) + "\n          Log: "),
              std::string::npos)
        << r.out;
    EXPECT_EQ(fact(r.out, "Directory"), dir);
    EXPECT_EQ(fact(r.out, "Server"), std::to_string(std::stoi(readFile(dir + "/quendral.lck"))) +
                                         " " + (home / "bin/quendral"));

    // The listing has the port in a column of its own.
    const CtlResult list = ctl("list");
    EXPECT_NE(list.out.find("  " + std::to_string(port) + "  "), std::string::npos) << list.out;
}

TEST_F(QuendralctlStatus, AServerListeningNowhereSaysNone) {
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const CtlResult r = ctl("status");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(fact(r.out, "Listening"), "none");
    EXPECT_NE(ctl("list").out.find("  none  "), std::string::npos);
}

TEST_F(QuendralctlStatus, APortOpenedByAChildOfTheServerIsTheServers) {
    // The lock file names the first process; a child it forked listens.
    const int port = freeLoopbackPort();
    ASSERT_GT(port, 0);
    const std::string more = "QUENDRAL_DEMO_FORK=1 QUENDRAL_DEMO_LOCK_PARENT=1 "
                             "QUENDRAL_DEMO_HTTP_PORT=" +
                             std::to_string(port);
    ASSERT_EQ(runCtl("start --wait 10", env + " " + more).status, 0);
    const int server = std::stoi(readFile(dir + "/quendral.lck"));
    const CtlResult r =
        statusOnce([](const CtlResult &s) { return fact(s.out, "Listening") != "none"; });
    EXPECT_EQ(fact(r.out, "Server").substr(0, fact(r.out, "Server").find(' ')),
              std::to_string(server));
    EXPECT_EQ(fact(r.out, "Listening"), "tcp 127.0.0.1:" + std::to_string(port)) << r.out;
    // The first process dies of SIGTERM and leaves its child: both go here.
    kill(-server, SIGTERM);
}

TEST_F(QuendralctlStatus, MemoryAndSinceArePlausible) {
    const time_t before = time(nullptr);
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const time_t after = time(nullptr);
    const CtlResult r = ctl("status");
    EXPECT_NE(fact(r.out, "Memory"), "-") << r.out;
    EXPECT_NE(fact(r.out, "Since").find(" ago"), std::string::npos) << r.out;

    const auto j = nlohmann::json::parse(ctl("status --json").out);
    ASSERT_TRUE(j["memoryBytes"].is_number_unsigned()) << j.dump();
    EXPECT_GT(j["memoryBytes"].get<uint64_t>(), 0u);
    const long long since = parseIso(j["since"].get<std::string>());
    EXPECT_GE(since, before - 1) << j["since"];
    EXPECT_LE(since, after + 1) << j["since"];
}

TEST_F(QuendralctlStatus, ShowsTheLogsLastLinesAsAskedFor) {
    std::string log;
    for (int n = 1; n <= 10; n++) log += "line " + std::to_string(n) + "\n";
    writeFile(dir + "/quendral.log", log);
    const std::string head = "database stopped\n    Directory: " + dir +
                             "\n      Enabled: no\n          Log: " + dir + "/quendral.log\n";
    CtlResult r = ctl("status -n 3");
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, head + "\nline 8\nline 9\nline 10\n");
    r = ctl("status -n 0");
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, head);
    EXPECT_EQ(ctl("status").out, head + "\nline 6\nline 7\nline 8\nline 9\nline 10\n");
    EXPECT_EQ(ctl("status -n -1").status, 2);
}

TEST_F(QuendralctlStatus, AFifoAsTheLogNeverHangs) {
    ASSERT_EQ(mkfifo((dir + "/quendral.log").c_str(), 0600), 0);
    // timeout(1) ends a hang with 124, so a failure here is a status, not a
    // test run that never ends.
    const CtlResult r =
        runShell("timeout 20 env " + env + " " + shellQuote(QUENDRALCTL_PATH) + " status -n 3");
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_EQ(fact(r.out, "Log"), dir + "/quendral.log (cannot be read)");
}

TEST_F(QuendralctlStatus, AnotherUsersServerShowsDashesForWhatCannotBeRead) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to run a server as nobody";
    if (!fs::exists("/usr/bin/setpriv")) GTEST_SKIP() << "needs setpriv";
    // A server of nobody's, named by nobody's own lock file (a lock file
    // speaks only for a process of its owner).
    ChildProcess server(
        {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "sleep", "1000"});
    ASSERT_TRUE(waitFor([&] {
        struct stat st;
        return stat(("/proc/" + std::to_string(server.pid())).c_str(), &st) == 0 &&
               st.st_uid == 65534;
    }));
    const std::string lck = dir + "/quendral.lck";
    writeLockFile(lck, server.pid());
    ASSERT_EQ(chown(lck.c_str(), 65534, 65534), 0);
    // Root that may signal but not look into another user's processes, as
    // any other user looks at them.
    const CtlResult r = runShell(
        "env " + env + " setpriv --bounding-set=-sys_ptrace,-dac_read_search,-dac_override " +
        shellQuote(QUENDRALCTL_PATH) + " status");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(shownStatus(r.out), "running\n");
    EXPECT_EQ(fact(r.out, "Server"), std::to_string(server.pid()) + " -");
    EXPECT_EQ(fact(r.out, "Listening"), "-");
    EXPECT_NE(fact(r.out, "Since"), "") << r.out;
    EXPECT_EQ(r.err, "");
    const auto j = nlohmann::json::parse(
        runShell("env " + env +
                 " setpriv --bounding-set=-sys_ptrace,-dac_read_search,-dac_override " +
                 shellQuote(QUENDRALCTL_PATH) + " status --json")
            .out);
    EXPECT_TRUE(j["listening"].is_null()) << j.dump();
    EXPECT_EQ(j["serverStatus"], "running");
}

// Every field of version 2 in each state, with the values a script may rely
// on.
void expectVersion1Fields(const nlohmann::json &i) {
    for (const char *key : {"name", "displayName", "directory", "isDefault", "serverStatus", "pid",
                            "lockFile", "logFile", "canStart"})
        EXPECT_TRUE(i.contains(key)) << key;
}

TEST_F(QuendralctlStatus, JsonHasEveryFieldWhenStopped) {
    const auto list = nlohmann::json::parse(ctl("list --json").out);
    EXPECT_EQ(list["version"], 2);
    const auto &i = list["instances"][0];
    expectVersion1Fields(i);
    EXPECT_EQ(i["serverStatus"], "stopped");
    EXPECT_EQ(i["pid"], 0);
    EXPECT_TRUE(i["since"].is_null());
    EXPECT_TRUE(i["memoryBytes"].is_null());
    EXPECT_EQ(i["listening"], nlohmann::json::array());
    EXPECT_TRUE(i["unit"].is_null());
    EXPECT_EQ(nlohmann::json::parse(ctl("status --json").out), i);
}

TEST_F(QuendralctlStatus, JsonHasEveryFieldWhenRunning) {
    const int port = freeLoopbackPort();
    ASSERT_GT(port, 0);
    ASSERT_EQ(
        runCtl("start --wait 10", env + " QUENDRAL_DEMO_HTTP_PORT=" + std::to_string(port)).status,
        0);
    nlohmann::json i;
    ASSERT_TRUE(waitFor([&] {
        i = nlohmann::json::parse(ctl("list --json").out)["instances"][0];
        return !i["listening"].empty();
    }));
    expectVersion1Fields(i);
    EXPECT_EQ(i["serverStatus"], "running");
    EXPECT_GT(i["pid"], 0);
    EXPECT_GT(parseIso(i["since"]), 0) << i["since"];
    EXPECT_GT(i["memoryBytes"].get<uint64_t>(), 0u);
    EXPECT_EQ(i["listening"],
              nlohmann::json::parse(R"([{"proto": "tcp", "address": "127.0.0.1", "port": )" +
                                    std::to_string(port) + "}]"));
    EXPECT_TRUE(i.contains("unit"));
}

TEST_F(QuendralctlStatus, JsonHasEveryFieldWhenStarting) {
    // A server that takes its time to write its lock file.
    ASSERT_EQ(ctl("start --wait 0", "QUENDRAL_DEMO_START_DELAY_MS=60000").status, 0);
    const CtlResult r = ctl("status --json");
    EXPECT_EQ(r.status, 3);
    const auto i = nlohmann::json::parse(r.out);
    expectVersion1Fields(i);
    EXPECT_EQ(i["serverStatus"], "starting");
    ASSERT_GT(i["pid"], 0);
    EXPECT_GT(parseIso(i["since"]), 0) << i["since"];
    EXPECT_GT(i["memoryBytes"].get<uint64_t>(), 0u);
    EXPECT_EQ(i["listening"], nlohmann::json::array());
    // The launched server ends on SIGTERM while it waits.
    kill(i["pid"].get<int>(), SIGTERM);
    EXPECT_TRUE(waitFor([&] { return shownStatus(ctl("status").out) == "stopped\n"; }));
}

TEST_F(QuendralctlStatus, JsonOfANameThatIsNotUtf8HasTheNewFields) {
    const std::string odd = std::string("caf\xe9");
    makeInstanceDir(home, odd);
    ASSERT_EQ(ctl("start " + shellQuote(odd) + " --wait 10").status, 0);
    const CtlResult r = ctl("status " + shellQuote(odd) + " --json");
    ASSERT_EQ(r.status, 0) << r.err;
    const auto i = nlohmann::json::parse(r.out);
    EXPECT_EQ(i["displayName"], "caf\xef\xbf\xbd");
    EXPECT_GT(parseIso(i["since"]), 0);
    EXPECT_EQ(i["listening"], nlohmann::json::array());
    const auto list = nlohmann::json::parse(ctl("list --json").out);
    EXPECT_EQ(list["version"], 2);
    EXPECT_EQ(list["instances"][0]["serverStatus"], "running");
    EXPECT_EQ(ctl("stop --all --wait 10").status, 0);
}

} // namespace
