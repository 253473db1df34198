// What quendralctl writes, and what becomes of it: output that cannot be
// written is a failure for every verb, and names are escaped on a terminal.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

const std::string kCannotWrite = "quendralctl: cannot write the output: No space left on device\n";

class QuendralctlOutput : public CtlInstallation {
  protected:
    void SetUp() override {
        CtlInstallation::SetUp();
        makeInstanceDir(home, "database");
        makeInstanceDir(home, "sales");
    }
    // The command with its standard output on /dev/full, where every write
    // fails with ENOSPC.
    CtlResult toFullDisk(const std::string &args) { return ctl(args + " >/dev/full"); }
    // The command on a terminal (script(1) gives it one for its output and
    // its errors alike): what the terminal got, line ends as "\n".
    std::string onTerminal(const std::string &args) {
        const CtlResult r =
            runShell("script -qec " +
                     shellQuote("env " + env + " " + shellQuote(QUENDRALCTL_PATH) + " " + args) +
                     " /dev/null");
        std::string out = r.out;
        std::erase(out, '\r');
        return withoutUnitNotices(out);
    }
};

TEST_F(QuendralctlOutput, EveryVerbFailsWhenItsOutputCannotBeWritten) {
    writeFile(home / "database/quendral.log", "one\ntwo\n");
    for (const char *args :
         {"list", "list --json", "list --names", "status", "status --json", "env",
          "completion bash", "completion zsh", "completion fish", "log", "--help", "--version"}) {
        SCOPED_TRACE(args);
        // First the same command with somewhere to write, so that the failure
        // below can only come from the output.
        const CtlResult fine = ctl(std::string(args) + " >/dev/null");
        EXPECT_TRUE(fine.status == 0 || fine.status == 3) << fine.err;
        const CtlResult full = toFullDisk(args);
        EXPECT_EQ(full.status, 1);
        // The version line is flushed by the option parser already, so its
        // failure is seen later, without its reason.
        const std::string expected = std::string(args) == "--version"
                                         ? "quendralctl: cannot write the output\n"
                                         : kCannotWrite;
        EXPECT_EQ(full.err, expected);
    }
}

TEST_F(QuendralctlOutput, LogFollowEndsWithAFailureWhenItsOutputCannotBeWritten) {
    writeFile(home / "database/quendral.log", "one\ntwo\n");
    // timeout(1) only guards the suite against a follow that never ends.
    const CtlResult r = runShell("timeout 20 env " + env + " " + shellQuote(QUENDRALCTL_PATH) +
                                 " log -f >/dev/full");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, kCannotWrite);
}

TEST_F(QuendralctlOutput, StartStopAndRestartActButFailWhenTheirLinesCannotBeWritten) {
    CtlResult r = toFullDisk("start sales --wait 10");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, kCannotWrite);
    EXPECT_EQ(ctl("status sales").status, 0) << "the server was started all the same";

    const int before = std::stoi(readFile(home / "sales/quendral.lck"));
    r = toFullDisk("restart sales --wait 10");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, kCannotWrite);
    EXPECT_EQ(ctl("status sales").status, 0);
    EXPECT_NE(std::stoi(readFile(home / "sales/quendral.lck")), before);

    r = toFullDisk("stop --all --wait 10");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, kCannotWrite);
    EXPECT_EQ(ctl("status sales").status, 3) << "the server was stopped all the same";
}

TEST_F(QuendralctlOutput, ControlCharactersInNamesAreEscapedOnATerminalOnly) {
    const std::string retitle = "evil\033]0;pwned\007", split = "two\nlines", slash = "back\\slash";
    const std::string retitleDir = makeInstanceDir(home, retitle);
    makeInstanceDir(home, split);
    makeInstanceDir(home, slash);
    const std::string csi = "csi\xc2\x9b"; // U+009B, a control sequence's start
    makeInstanceDir(home, csi);
    const std::string retitleShown = "evil\\033]0;pwned\\007", splitShown = "two\\012lines",
                      slashShown = "back\\\\slash";

    // The listing: names and directories, each escaped, on one line each.
    std::string seen = onTerminal("list");
    EXPECT_EQ(seen.find('\033'), std::string::npos) << seen;
    EXPECT_EQ(seen.find('\007'), std::string::npos) << seen;
    EXPECT_NE(seen.find("  " + retitleShown + "  "), std::string::npos) << seen;
    EXPECT_NE(seen.find(home / retitleShown + "\n"), std::string::npos) << seen;
    EXPECT_NE(seen.find("  " + splitShown + "  "), std::string::npos) << seen;
    EXPECT_NE(seen.find("  " + slashShown + "  "), std::string::npos) << seen;
    seen = onTerminal("list --names");
    EXPECT_EQ(seen, slashShown + "\ncsi\\302\\233\ndatabase\n" + retitleShown + "\nsales\n" +
                        splitShown + "\n");

    // A verb's line, an error naming what was typed, and a message of the
    // model naming a path (a lock file left by a server that ended).
    seen = onTerminal("start " + shellQuote(retitle) + " --wait 10");
    EXPECT_EQ(seen, retitleShown + " started\n");
    seen = onTerminal("status " + shellQuote("no\033such"));
    EXPECT_EQ(seen, "quendralctl: no such instance: no\\033such\n");
    ASSERT_EQ(ctl("stop " + shellQuote(retitle) + " --wait 10").status, 0);
    ChildProcess ended({"true"});
    const pid_t endedPid = ended.pid();
    ended.killAndReap();
    writeLockFile(retitleDir + "/quendral.lck", endedPid);
    seen = onTerminal("status -n 0 " + shellQuote(retitle));
    EXPECT_EQ(seen,
              "quendralctl: stale .lck file detected: " + home / retitleShown + "/quendral.lck\n" +
                  retitleShown + " stopped\n    Directory: " + home / retitleShown +
                  "\n      Enabled: no\n          Log: " + home / retitleShown + "/quendral.log\n");

    // Into a pipe the bytes are kept; JSON escapes them its own way.
    EXPECT_EQ(ctl("list --names").out,
              slash + "\n" + csi + "\ndatabase\n" + retitle + "\nsales\n" + split + "\n");
    EXPECT_NE(ctl("list").out.find(home / retitle + "\n"), std::string::npos);
    const std::string json = ctl("list --json").out;
    EXPECT_EQ(json.find('\033'), std::string::npos);
    EXPECT_NE(json.find("evil\\u001b]0;pwned\\u0007"), std::string::npos) << json;
    EXPECT_EQ(json.find("\xc2\x9b"), std::string::npos) << json;
    EXPECT_NE(json.find("csi\\u009b"), std::string::npos) << json;
    const auto parsed = nlohmann::json::parse(json);
    std::vector<std::string> names;
    for (const auto &i : parsed.at("instances")) names.push_back(i.at("displayName"));
    EXPECT_NE(std::find(names.begin(), names.end(), retitle), names.end());
    EXPECT_NE(std::find(names.begin(), names.end(), csi), names.end());
}

TEST_F(QuendralctlOutput, LogLinesShownWithStatusOrAfterAFailedStartAreEscapedOnATerminal) {
    // Whoever writes the log (the server, anyone who may write the file)
    // may put an escape sequence, a C1 control or bytes that are not UTF-8
    // in it: on a terminal they are shown, not obeyed, line by line.
    const std::string dir = home / "database";
    writeFile(dir + "/quendral.log", "plain line\nretitle \033]0;pwned\007\nc1 \xc2\x9b"
                                     "2J\nbad \xff\n");
    const std::string expected =
        "plain line\nretitle \\033]0;pwned\\007\nc1 \\302\\2332J\nbad \\377\n";
    std::string seen = onTerminal("status -n 4");
    EXPECT_EQ(seen.find('\033'), std::string::npos) << seen;
    EXPECT_NE(seen.find("\n\n" + expected), std::string::npos) << seen;
    // Into a pipe, the log's bytes as they are.
    EXPECT_NE(ctl("status -n 4").out.find("retitle \033]0;pwned\007\n"), std::string::npos);

    // A start that fails writes its reason with the escape in it: the log's
    // end after the error is escaped too.
    writeFile(dir + "/quendral",
              "#!/bin/sh\nprintf 'FATAL \\033[2J cleared\\n' >> quendral.log\nexit 1\n");
    ASSERT_EQ(chmod((dir + "/quendral").c_str(), 0755), 0);
    seen = onTerminal("start --wait 5");
    EXPECT_EQ(seen.find('\033'), std::string::npos) << seen;
    EXPECT_NE(seen.find("FATAL \\033[2J cleared\n"), std::string::npos) << seen;
}

} // namespace
