// What quendralctl writes, and what becomes of it: output that cannot be
// written is a failure for every verb.
#include "CtlRunner.h"
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

const std::string kCannotWrite = "quendralctl: cannot write the output: No space left on device\n";

class QuendralctlOutput : public ::testing::Test {
  protected:
    TempDir home;
    std::string env;
    void SetUp() override {
        fs::create_directories(home / "bin");
        fs::copy_file(demoServerPath(), home / "bin/quendral");
        makeInstanceDir(home, "database");
        makeInstanceDir(home, "sales");
        env = "QUENDRAL_HOME=" + shellQuote(home.path()) + " QUENDRAL_DEMO_HTTP_PORT=0";
    }
    void TearDown() override { runCtl("stop --all --wait 10", env); }
    CtlResult ctl(const std::string &args) { return runCtl(args, env); }
    // The command with its standard output on /dev/full, where every write
    // fails with ENOSPC.
    CtlResult toFullDisk(const std::string &args) { return ctl(args + " >/dev/full"); }
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

} // namespace
