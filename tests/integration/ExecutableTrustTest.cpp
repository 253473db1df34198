// The monitor starts no program that another user could have put in its way:
// real files with real owners and modes, and real starts. A planted program
// is a script that leaves a mark if it ever runs.
#include "ModelTestUtil.h"

#include <gtest/gtest.h>

#include <csignal>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

class ExecutableTrust : public ::testing::Test, public DemoInstallationFixture {
  protected:
    const std::string mark = home / "planted-program-ran";
    std::vector<pid_t> launched;

    void TearDown() override {
        for (pid_t pid : launched) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    // A program that marks that it ran, as another user might plant it.
    void plant(const std::string &path, mode_t mode = 0755) {
        writeFile(path, "#!/bin/sh\ntouch '" + mark + "'\n");
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }
    static uid_t nobody() {
        const passwd *pw = getpwnam("nobody");
        return pw ? pw->pw_uid : 65534;
    }
    bool giveToAnotherUser(const std::string &path) {
        return chown(path.c_str(), nobody(), static_cast<gid_t>(-1)) == 0;
    }
    // Starts the instance and returns the file its server runs, once it runs.
    std::string startAndSeeWhatRuns() {
        if (!inst->startup()) return "";
        launched.push_back(inst->pid());
        const pid_t pid = inst->pid();
        if (!waitFor([&] {
                inst->refresh();
                return inst->serverStatus() != ServerStatusStarting;
            }))
            return "";
        std::error_code ec;
        const std::string exe = fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec);
        return inst->serverStatus() == ServerStatusRunning ? exe : "";
    }
    std::string argv0Of(pid_t pid) {
        const std::string cmdline = readFile("/proc/" + std::to_string(pid) + "/cmdline");
        return cmdline.substr(0, cmdline.find('\0'));
    }
    bool logged(const std::string &path, const std::string &reason) {
        return log.count(path + " is not started: " + reason) == 1;
    }
    std::string bin() const { return fs::canonical(home / "bin/quendral"); }
};

TEST_F(ExecutableTrust, AnotherUsersProgramInAWorldWritableInstanceDirectoryIsNotRun) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give a file to another user";
    const std::string planted = instDir + "/quendral";
    plant(planted);
    ASSERT_TRUE(giveToAnotherUser(planted));
    ASSERT_EQ(chmod(instDir.c_str(), 0777), 0);
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    EXPECT_TRUE(logged(planted, "it belongs to another user")) << log.lines.size();
    EXPECT_EQ(startAndSeeWhatRuns(), bin());
    EXPECT_FALSE(fs::exists(mark));
}

TEST_F(ExecutableTrust, OwnProgramInAWorldWritableInstanceDirectoryIsNotRunEither) {
    // Anyone could replace it there.
    const std::string planted = instDir + "/quendral";
    plant(planted);
    ASSERT_EQ(chmod(instDir.c_str(), 0777), 0);
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    EXPECT_TRUE(logged(planted, "its directory " + instDir + " is writable by group or others"));
    EXPECT_EQ(startAndSeeWhatRuns(), bin());
    EXPECT_FALSE(fs::exists(mark));
}

TEST_F(ExecutableTrust, WorldWritableBinWithoutTheStickyBitIsNotUsed) {
    ASSERT_EQ(chmod((home / "bin").c_str(), 0777), 0);
    const std::string candidate = instDir + "/../bin/quendral";
    ScopedEnv path("PATH", "/usr/bin:/bin");
    EXPECT_EQ(inst->findExecutable(), "quendral");
    EXPECT_TRUE(
        logged(candidate, "its directory " + home.path() + "/bin is writable by group or others"));
    // Nothing else to start: said once, and nothing runs.
    EXPECT_FALSE(inst->startup());
    EXPECT_EQ(log.count("quendral executable not found"), 1u);
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
}

TEST_F(ExecutableTrust, StickyWorldWritableBinWithOurOwnFileIsUsed) {
    ASSERT_EQ(chmod((home / "bin").c_str(), 01777), 0);
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    EXPECT_EQ(startAndSeeWhatRuns(), bin());
    EXPECT_TRUE(log.linesButUnitNotices().empty());
}

TEST_F(ExecutableTrust, StickyBinDoesNotMakeAnotherUsersFileSafe) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give a file to another user";
    ASSERT_EQ(chmod((home / "bin").c_str(), 01777), 0);
    ASSERT_TRUE(giveToAnotherUser(home / "bin/quendral"));
    ScopedEnv path("PATH", "/usr/bin:/bin");
    EXPECT_EQ(inst->findExecutable(), "quendral");
    EXPECT_TRUE(logged(instDir + "/../bin/quendral", "it belongs to another user"));
}

TEST_F(ExecutableTrust, GroupWritableFileIsNotRun) {
    const std::string planted = instDir + "/quendral";
    plant(planted, 0775);
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    EXPECT_TRUE(logged(planted, "it is writable by group or others"));
    EXPECT_EQ(startAndSeeWhatRuns(), bin());
    EXPECT_FALSE(fs::exists(mark));
}

TEST_F(ExecutableTrust, FileInAGroupWritableDirectoryIsNotRun) {
    ASSERT_EQ(chmod(instDir.c_str(), 0775), 0);
    const std::string planted = instDir + "/quendral";
    plant(planted);
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    EXPECT_TRUE(logged(planted, "its directory " + instDir + " is writable by group or others"));
    EXPECT_EQ(startAndSeeWhatRuns(), bin());
    EXPECT_FALSE(fs::exists(mark));
}

TEST_F(ExecutableTrust, LinkStandingInAWritableDirectoryIsNotFollowed) {
    // The target is safe, but whoever may write beside the link may point it
    // elsewhere.
    ASSERT_EQ(chmod(instDir.c_str(), 0777), 0);
    fs::create_symlink(home / "bin/quendral", instDir + "/quendral");
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    EXPECT_TRUE(logged(instDir + "/quendral",
                       "its directory " + instDir + " is writable by group or others"));
}

TEST_F(ExecutableTrust, QuendralBinaryNamingAnUnsafeFileIsSkippedAndASafeOneUsed) {
    const std::string unsafe = home / "unsafe-quendral";
    plant(unsafe, 0777);
    {
        ScopedEnv binary("QUENDRAL_BINARY", unsafe);
        EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
        EXPECT_TRUE(logged(unsafe, "it is writable by group or others"));
        EXPECT_EQ(startAndSeeWhatRuns(), bin());
        EXPECT_FALSE(fs::exists(mark));
        ASSERT_TRUE(inst->shutdown());
        ASSERT_TRUE(waitFor([&] {
            inst->refresh();
            return inst->serverStatus() == ServerStatusStopped;
        }));
    }
    const std::string safe = home / "own-quendral";
    fs::copy_file(demoServerPath(), safe);
    ScopedEnv binary("QUENDRAL_BINARY", safe);
    EXPECT_EQ(inst->findExecutable(), safe);
    const std::string runs = startAndSeeWhatRuns();
    EXPECT_EQ(runs, fs::canonical(safe).string());
    EXPECT_EQ(argv0Of(inst->pid()), "quendral");
}

TEST_F(ExecutableTrust, PathSearchSkipsUnsafeEntriesAndKeepsArgumentZero) {
    fs::remove(home / "bin/quendral");
    const std::string open = home / "shared";
    const std::string safe = home / "safe";
    fs::create_directories(open);
    fs::create_directories(safe);
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
    plant(open + "/quendral");
    fs::copy_file(demoServerPath(), safe + "/quendral");
    ScopedEnv path("PATH", open + ":" + safe + ":/usr/bin:/bin");
    EXPECT_EQ(inst->findExecutable(), "quendral");
    EXPECT_EQ(startAndSeeWhatRuns(), fs::canonical(safe + "/quendral").string());
    EXPECT_TRUE(
        logged(open + "/quendral", "its directory " + open + " is writable by group or others"));
    EXPECT_EQ(argv0Of(inst->pid()), "quendral");
    EXPECT_FALSE(fs::exists(mark));
}

TEST_F(ExecutableTrust, RelativePathEntryIsTakenInTheInstanceDirectory) {
    // Where the server will run, as execvp there would take it.
    fs::remove(home / "bin/quendral");
    fs::create_directories(instDir + "/tools");
    fs::copy_file(demoServerPath(), instDir + "/tools/quendral");
    ScopedEnv path("PATH", "tools:/usr/bin:/bin");
    EXPECT_EQ(startAndSeeWhatRuns(), fs::canonical(instDir + "/tools/quendral").string());
}

} // namespace

namespace {

// Changes the working directory for the life of the object.
class ScopedChdir {
  public:
    explicit ScopedChdir(const std::string &dir) : old_(fs::current_path()) {
        fs::current_path(dir);
    }
    ~ScopedChdir() { fs::current_path(old_); }

  private:
    fs::path old_;
};

TEST_F(ExecutableTrust, RelativeQuendralBinaryIsCheckedAndRunFromWhereItWasNamed) {
    // The name is taken where the user gave it, here; the same name inside
    // the instance directory (where the server runs) holds a planted
    // program writable by anyone.
    const std::string here = home / "caller";
    fs::create_directories(here + "/bin");
    fs::copy_file(demoServerPath(), here + "/bin/quendral");
    fs::create_directories(instDir + "/bin");
    plant(instDir + "/bin/quendral", 0777);
    ScopedChdir cd(here);
    ScopedEnv binary("QUENDRAL_BINARY", "bin/quendral");
    EXPECT_EQ(inst->findExecutable(), here + "/bin/quendral");
    EXPECT_EQ(startAndSeeWhatRuns(), fs::canonical(here + "/bin/quendral").string());
    EXPECT_FALSE(fs::exists(mark));
}

TEST_F(ExecutableTrust, RelativeQuendralBinaryNamingAnUnsafeFileIsRefusedAsItsAbsolutePathIs) {
    const std::string here = home / "caller";
    fs::create_directories(here + "/bin");
    plant(here + "/bin/quendral", 0777);
    ScopedChdir cd(here);
    ScopedEnv binary("QUENDRAL_BINARY", "bin/quendral");
    EXPECT_EQ(inst->findExecutable(), instDir + "/../bin/quendral");
    EXPECT_TRUE(logged(here + "/bin/quendral", "it is writable by group or others"));
    EXPECT_EQ(startAndSeeWhatRuns(), bin());
    EXPECT_FALSE(fs::exists(mark));
}

} // namespace
