// Every verb and option of quendralctl through the real binary, against real
// installations with the demo server, and servers that fail or hang.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

std::vector<std::string> linesOf(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

class QuendralctlVerbs : public CtlInstallation {
  protected:
    // An instance whose own server program writes its log and then fails at
    // once, or (hang) writes it and never gets as far as its lock file.
    std::string brokenInstance(const std::string &name, bool hang) {
        const std::string dir = makeInstanceDir(home, name);
        writeFile(
            dir + "/quendral",
            std::string("#!/bin/sh\n") +
                "for i in 1 2 3 4 5 6 7 8 9 10 11 12; do echo \"boot step $i\" >> quendral.log; "
                "done\necho 'FATAL: cannot open data file' >> quendral.log\n" +
                (hang ? "echo $$ > hung.pid; exec sleep 1000\n" : "exit 1\n"));
        chmod((dir + "/quendral").c_str(), 0755);
        return dir;
    }
    int pidInLockFile(const std::string &dir) {
        try {
            return std::stoi(readFile(dir + "/quendral.lck"));
        } catch (const std::exception &) {
            return 0;
        }
    }
};

TEST_F(QuendralctlVerbs, ListMarksTheDefaultAndHasNoHeaderInAPipe) {
    makeInstanceDir(home, "database");
    makeInstanceDir(home, "sales");
    const CtlResult r = ctl("list");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "* database  stopped         -  -      " + home.path() + "/database\n" +
                         "  sales     stopped         -  -      " + home.path() + "/sales\n");
}

TEST_F(QuendralctlVerbs, ListShowsAHeaderOnATerminal) {
    makeInstanceDir(home, "sales");
    // script(1) gives the tool a terminal as its output.
    const CtlResult r = runShell(
        "script -qec " + shellQuote("env " + env + " " + shellQuote(QUENDRALCTL_PATH) + " list") +
        " /dev/null");
    EXPECT_NE(r.out.find("NAME"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("DIRECTORY"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("* sales"), std::string::npos) << r.out;
}

TEST_F(QuendralctlVerbs, ListNamesPrintsTheDisplayNamesAlone) {
    makeInstanceDir(home, "database");
    makeInstanceDir(home, "sales");
    EXPECT_EQ(ctl("list --names").out, "database\nsales\n");
    EXPECT_EQ(ctl("list --names --json").status, 2);
}

TEST_F(QuendralctlVerbs, JsonListHasItsVersionAndEveryField) {
    makeInstanceDir(home, "database");
    const CtlResult r = ctl("list --json");
    ASSERT_EQ(r.status, 0);
    const auto j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["version"], 2);
    EXPECT_EQ(j["default"], home.path() + "/database");
    const auto &i = j["instances"][0];
    for (const char *key :
         {"name", "displayName", "directory", "isDefault", "serverStatus", "pid", "lockFile",
          "logFile", "canStart", "unit", "since", "memoryBytes", "listening"})
        EXPECT_TRUE(i.contains(key)) << key;
    EXPECT_EQ(i["lockFile"], home.path() + "/database/quendral.lck");
    EXPECT_EQ(i["canStart"], true);
}

TEST_F(QuendralctlVerbs, NamesThatAreNotUtf8NeverBreakAListing) {
    const std::string odd = std::string("caf\xe9") + "-\xff";
    makeInstanceDir(home, "database");
    makeInstanceDir(home, odd);
    makeInstanceDir(home, "sales");

    const CtlResult json = ctl("list --json");
    ASSERT_EQ(json.status, 0) << json.err;
    const auto j = nlohmann::json::parse(json.out);
    ASSERT_EQ(j["instances"].size(), 3u);
    // In byte order, as every listing.
    EXPECT_EQ(j["instances"][0]["displayName"], "caf\xef\xbf\xbd-\xef\xbf\xbd");
    EXPECT_EQ(j["instances"][0]["directory"], home.path() + "/caf\xef\xbf\xbd-\xef\xbf\xbd");
    EXPECT_EQ(j["instances"][1]["displayName"], "database");

    // Plain output writes the bytes as they are.
    EXPECT_NE(ctl("list").out.find("  " + odd + "  "), std::string::npos);
    EXPECT_EQ(ctl("list --names").out, odd + "\ndatabase\nsales\n");

    // And it can be named on the command line by its name or directory.
    EXPECT_EQ(ctl("start " + shellQuote(odd) + " --wait 10").status, 0);
    EXPECT_EQ(ctl("status " + shellQuote(home / odd)).status, 0);
    const CtlResult st = ctl("status " + shellQuote(odd) + " --json");
    EXPECT_EQ(nlohmann::json::parse(st.out)["serverStatus"], "running");
    EXPECT_EQ(ctl("stop " + shellQuote(odd) + " --wait 10").status, 0);
}

TEST_F(QuendralctlVerbs, NamesWithQuotesTabsNewlinesAndFormatsArePassedThrough) {
    const std::vector<std::string> names = {"it's \"q\"", "a\tb", "two\nlines", "%n%s", "R&D"};
    for (const auto &n : names) makeInstanceDir(home, n);
    const CtlResult json = ctl("list --json");
    ASSERT_EQ(json.status, 0);
    const auto j = nlohmann::json::parse(json.out);
    std::set<std::string> seen;
    for (const auto &i : j["instances"]) seen.insert(i["displayName"]);
    EXPECT_EQ(seen, std::set<std::string>(names.begin(), names.end()));
    for (const auto &n : names) {
        EXPECT_EQ(ctl("start " + shellQuote(n) + " --wait 10").status, 0) << n;
        EXPECT_EQ(ctl("status " + shellQuote(n)).status, 0) << n;
    }
    EXPECT_EQ(ctl("stop --all --wait 10").status, 0);
}

TEST_F(QuendralctlVerbs, StatusJsonIsTheInstancesObject) {
    makeInstanceDir(home, "database");
    CtlResult r = ctl("status --json");
    EXPECT_EQ(r.status, 3);
    auto j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["serverStatus"], "stopped");
    EXPECT_EQ(j["name"], "Default Instance");
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    r = ctl("status database --json");
    EXPECT_EQ(r.status, 0);
    j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j["serverStatus"], "running");
    EXPECT_EQ(j["pid"], pidInLockFile(home / "database"));
}

TEST_F(QuendralctlVerbs, WhatIsAlreadyDoneSucceedsForOneInstanceAndOverAll) {
    makeInstanceDir(home, "database");
    makeInstanceDir(home, "sales");
    CtlResult r = ctl("stop");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "database already stopped\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(ctl("stop --all").status, 0);
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    r = ctl("start");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "database already running\n");
    EXPECT_EQ(r.err, "");
    r = ctl("start --all --wait 10");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database already running\nsales started\n");
}

TEST_F(QuendralctlVerbs, RestartOfARunningInstanceGivesItANewServer) {
    const std::string dir = makeInstanceDir(home, "database");
    ASSERT_EQ(ctl("start --wait 10").status, 0);
    const int before = pidInLockFile(dir);
    const CtlResult r = ctl("restart --wait 10");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database restarted\n");
    const int after = pidInLockFile(dir);
    EXPECT_NE(after, 0);
    EXPECT_NE(after, before);
    // Ended, whether or not init has collected it yet.
    const char state = processState(before);
    EXPECT_TRUE(state == 0 || state == 'Z') << "the old server ended; state " << state;
    EXPECT_NE(readFile(dir + "/quendral.log").find("Server shutdown complete"), std::string::npos);
}

TEST_F(QuendralctlVerbs, RestartOfAStoppedInstanceStartsIt) {
    const std::string dir = makeInstanceDir(home, "database");
    EXPECT_EQ(ctl("restart --wait 10").status, 0);
    EXPECT_EQ(ctl("status").status, 0);
}

TEST_F(QuendralctlVerbs, RestartOfASlowInstanceWaitsForTheNewServer) {
    const std::string dir = makeInstanceDir(home, "database");
    ASSERT_EQ(ctl("start --wait 10", "QUENDRAL_DEMO_START_DELAY_MS=800").status, 0);
    const int before = pidInLockFile(dir);
    // Restarted while the next server is slow to come up: still restarting
    // when asked again, and running with a new pid at the end.
    const CtlResult r = ctl("restart --wait 10", "QUENDRAL_DEMO_START_DELAY_MS=800");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "database restarted\n");
    EXPECT_NE(pidInLockFile(dir), before);
    // A restart asked while it is still starting waits for that start first.
    ASSERT_EQ(ctl("restart", "QUENDRAL_DEMO_START_DELAY_MS=800").status, 0);
    const CtlResult during = ctl("restart --wait 10", "QUENDRAL_DEMO_START_DELAY_MS=800");
    EXPECT_EQ(during.status, 0) << during.err;
    EXPECT_EQ(ctl("status").status, 0);
}

TEST_F(QuendralctlVerbs, AllActsOnEveryInstanceWithOneLineEach) {
    makeInstanceDir(home, "alpha");
    brokenInstance("broken", false);
    makeInstanceDir(home, "gamma");
    ASSERT_EQ(ctl("start gamma --wait 10").status, 0);

    const CtlResult start = ctl("start --all --wait 10");
    EXPECT_EQ(start.status, 1) << "one of them failed";
    EXPECT_EQ(linesOf(start.out),
              (std::vector<std::string>{"alpha started", "gamma already running"}));
    const auto err = linesOf(start.err);
    ASSERT_FALSE(err.empty());
    EXPECT_EQ(err[0], "quendralctl: broken did not start (stopped)");
    // The log's last ten lines follow.
    ASSERT_EQ(err.size(), 11u) << start.err;
    EXPECT_EQ(err[1], "boot step 4");
    EXPECT_EQ(err[10], "FATAL: cannot open data file");

    const CtlResult stop = ctl("stop --all --wait 10");
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_EQ(linesOf(stop.out), (std::vector<std::string>{
                                     "alpha stopped", "broken already stopped", "gamma stopped"}));
    EXPECT_EQ(ctl("start alpha --all").status, 2) << "a name and --all exclude each other";
}

TEST_F(QuendralctlVerbs, StartThatTimesOutShowsTheLogsEnd) {
    brokenInstance("database", true);
    const CtlResult r = ctl("start --wait 1");
    EXPECT_EQ(r.status, 1);
    const auto err = linesOf(r.err);
    ASSERT_EQ(err.size(), 11u) << r.err;
    EXPECT_EQ(err[0], "quendralctl: database did not start within the time given (starting)");
    EXPECT_EQ(err[10], "FATAL: cannot open data file");
    // It never gets further; a server still starting cannot be stopped.
    kill(std::stoi(readFile(home / "database/hung.pid")), SIGKILL);
}

TEST_F(QuendralctlVerbs, AFailedStartShowsOnlyWhatItWroteToTheLog) {
    const std::string dir = brokenInstance("database", false);
    const std::string program = dir + "/quendral";
    const std::string failed = "quendralctl: database did not start (stopped)\n";
    CtlResult r = ctl("start --wait 10");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(linesOf(r.err).size(), 11u) << r.err;

    // The program can no longer be run: the start says why, in one line,
    // and the last run's lines are not passed off as its own.
    ASSERT_EQ(chmod(program.c_str(), 0644), 0);
    r = ctl("start --wait 10");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "quendralctl: database: cannot start " + program + ": Permission denied\n");

    // Appended to the same file: only the new lines.
    writeFile(program, "#!/bin/sh\necho 'second run: no data' >> quendral.log\nexit 1\n");
    ASSERT_EQ(chmod(program.c_str(), 0755), 0);
    r = ctl("start --wait 10");
    EXPECT_EQ(r.err, failed + "second run: no data\n");

    // The server moved the old log aside and began a new one: the new
    // file's lines.
    writeFile(program, "#!/bin/sh\nmv quendral.log quendral.log.1\n"
                       "echo 'third run: new log' >> quendral.log\nexit 1\n");
    r = ctl("start --wait 10");
    EXPECT_EQ(r.err, failed + "third run: new log\n");

    // Truncated and written anew, shorter than before: what it holds now.
    writeFile(program, "#!/bin/sh\n: > quendral.log\necho 'fourth' >> quendral.log\nexit 1\n");
    r = ctl("start --wait 10");
    EXPECT_EQ(r.err, failed + "fourth\n");
}

TEST_F(QuendralctlVerbs, AStartWhoseProgramCannotBeRunSaysWhyAtOnceWithoutAWait) {
    const std::string dir = brokenInstance("database", false);
    const std::string program = dir + "/quendral";
    ASSERT_EQ(chmod(program.c_str(), 0644), 0);
    const CtlResult r = ctl("start");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "") << "not reported as starting";
    EXPECT_EQ(r.err, "quendralctl: database: cannot start " + program + ": Permission denied\n");
    // The next start is free to try again, and fails the same way: nothing
    // is left starting.
    const CtlResult again = ctl("start");
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err,
              "quendralctl: database: cannot start " + program + ": Permission denied\n");
}

TEST_F(QuendralctlVerbs, LogPrintsTheLastLines) {
    const std::string dir = makeInstanceDir(home, "database");
    std::string text;
    for (int i = 1; i <= 30; i++) text += "line " + std::to_string(i) + "\n";
    writeFile(dir + "/quendral.log", text);
    CtlResult r = ctl("log");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(linesOf(r.out).size(), 20u);
    EXPECT_EQ(linesOf(r.out).front(), "line 11");
    r = ctl("log database -n 3");
    EXPECT_EQ(r.out, "line 28\nline 29\nline 30\n");
    EXPECT_EQ(ctl("log -n 0").out, "");
    EXPECT_EQ(ctl("log -n 100").out, text);
    // A last line without its line end is a line too.
    writeFile(dir + "/quendral.log", "a\nb\nc");
    EXPECT_EQ(ctl("log -n 2").out, "b\nc\n");
    EXPECT_EQ(ctl("log -n -1").status, 2);
}

TEST_F(QuendralctlVerbs, LogWithoutALogFileIsAnError) {
    makeInstanceDir(home, "database");
    const CtlResult r = ctl("log");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "quendralctl: database has no log file\n");
}

TEST_F(QuendralctlVerbs, LogOnAFifoFailsAtOnce) {
    const std::string dir = makeInstanceDir(home, "database");
    ASSERT_EQ(mkfifo((dir + "/quendral.log").c_str(), 0644), 0);
    // Guarded by timeout(1) only so that a regression cannot hang the suite.
    const CtlResult r =
        runShell("timeout 20 env " + env + " " + shellQuote(QUENDRALCTL_PATH) + " log -f");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("is not a regular file"), std::string::npos) << r.err;
}

// Runs `quendralctl log -f` with its output in a pipe.
class Follower {
  public:
    Follower(const std::string &env, const std::string &args) {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], 1);
            close(fds[0]);
            close(fds[1]);
            execl("/bin/sh", "sh", "-c",
                  ("exec env " + env + " " + shellQuote(QUENDRALCTL_PATH) + " " + args).c_str(),
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        fd_ = fds[0];
        fcntl(fd_, F_SETFL, O_NONBLOCK);
    }
    ~Follower() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0) close(fd_);
    }
    pid_t pid() const { return pid_; }
    // Everything printed so far.
    const std::string &output() {
        char buf[4096];
        ssize_t n;
        while ((n = read(fd_, buf, sizeof buf)) > 0) out_.append(buf, static_cast<size_t>(n));
        return out_;
    }
    bool waitForOutput(const std::string &text) {
        return waitFor([&] { return output().find(text) != std::string::npos; },
                       std::chrono::seconds(20));
    }

  private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::string out_;
};

void append(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::app) << text;
}

TEST_F(QuendralctlVerbs, LogFollowSeesAppendedLinesAndARotatedFile) {
    const std::string dir = makeInstanceDir(home, "database");
    const std::string log = dir + "/quendral.log";
    writeFile(log, "old 1\nold 2\nold 3\n");
    Follower f(env, "log -f -n 2");
    ASSERT_TRUE(f.waitForOutput("old 3\n"));
    EXPECT_EQ(f.output(), "old 2\nold 3\n");
    append(log, "new 1\n");
    ASSERT_TRUE(f.waitForOutput("new 1\n"));
    // Rotated: the file is renamed away and a new one takes its name.
    append(log, "last of the old file\n");
    fs::rename(log, log + ".1");
    writeFile(log, "first of the new file\n");
    ASSERT_TRUE(f.waitForOutput("first of the new file\n"));
    append(log, "new 2\n");
    ASSERT_TRUE(f.waitForOutput("new 2\n"));
    EXPECT_EQ(f.output(),
              "old 2\nold 3\nnew 1\nlast of the old file\nfirst of the new file\nnew 2\n");
}

TEST_F(QuendralctlVerbs, LogOfAHugeFileReadsOnlyItsTail) {
    const std::string dir = makeInstanceDir(home, "database");
    const std::string log = dir + "/quendral.log";
    // 8 GiB, sparse, then the lines that matter.
    {
        const int fd = open(log.c_str(), O_CREAT | O_WRONLY, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, 8LL << 30), 0);
        close(fd);
    }
    append(log, "\ntail 1\ntail 2\n");
    Follower f(env, "log -f -n 2");
    ASSERT_TRUE(f.waitForOutput("tail 2\n"));
    EXPECT_EQ(f.output(), "tail 1\ntail 2\n");
    // What the process has read in all, its own program and libraries
    // included: a few megabytes at most, not the file.
    std::ifstream io("/proc/" + std::to_string(f.pid()) + "/io");
    std::string key;
    long long rchar = -1;
    while (io >> key)
        if (key == "rchar:") io >> rchar;
    ASSERT_GE(rchar, 0);
    EXPECT_LT(rchar, 64LL << 20);
}

TEST_F(QuendralctlVerbs, UnknownVerbIsNamed) {
    const CtlResult r = ctl("bogus");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "quendralctl: unknown command 'bogus' (see quendralctl --help)\n");
    const CtlResult withHome = runCtl("--home /tmp frobnicate");
    EXPECT_EQ(withHome.status, 2);
    EXPECT_EQ(withHome.err, "quendralctl: unknown command 'frobnicate' (see quendralctl --help)\n");
}

TEST_F(QuendralctlVerbs, HelpShowsEveryVerbWithExamples) {
    const CtlResult r = ctl("--help");
    EXPECT_EQ(r.status, 0);
    for (const char *verb :
         {"list", "status", "start", "stop", "restart", "log", "env", "completion"})
        EXPECT_NE(r.out.find(std::string("\n  ") + verb), std::string::npos) << verb;
    EXPECT_NE(r.out.find("quendralctl restart --all"), std::string::npos);
    EXPECT_NE(r.out.find("quendralctl log"), std::string::npos);
}

} // namespace
