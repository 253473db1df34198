// A start in progress seen by every instance object of the user, through the
// start record: real slow servers, real processes named by hand-made
// records, and the records' files on disk.
#include "ModelTestUtil.h"
#include "StartRecord.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;
using namespace quendral;
namespace fs = std::filesystem;

namespace {

class StartRecordTest : public ::testing::Test, protected DemoInstallationFixture {
  protected:
    ScopedEnv slow{"QUENDRAL_DEMO_START_DELAY_MS", "1500"};
    std::string record = startRecordPath(instDir);

    void writeRecord(pid_t pid, unsigned long long ticks) {
        writeFile(record, std::to_string(pid) + " " + std::to_string(ticks) + "\n");
    }
    unsigned long long ticksOf(pid_t pid) {
        const auto stat = readProcessStat(pid);
        EXPECT_TRUE(stat.has_value());
        return stat ? stat->startTicks : 0;
    }
};

TEST_F(StartRecordTest, RecordsLiveInAPrivateDirectoryOfTheUser) {
    ASSERT_FALSE(record.empty());
    const auto dir = startRecordDirectory();
    ASSERT_TRUE(dir.has_value());
    struct stat st;
    ASSERT_EQ(lstat(dir->c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_uid, geteuid());
    EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST_F(StartRecordTest, AnotherObjectOfTheSameInstanceSeesTheStartAndCannotStartIt) {
    ASSERT_TRUE(inst->startup());
    QuendralInstance other(instDir);
    other.refresh();
    EXPECT_EQ(other.serverStatus(), ServerStatusStarting);
    EXPECT_EQ(other.pid(), inst->pid());
    EXPECT_FALSE(other.startup());
    EXPECT_EQ(other.failureReason(), "it is already starting");
    EXPECT_FALSE(other.shutdown()) << "a start in progress cannot be stopped";
    EXPECT_EQ(other.failureReason(), "it is starting");
    EXPECT_EQ(processesIn(instDir).size(), 1u);
    // Both follow the start to its end.
    EXPECT_TRUE(waitFor([&] {
        inst->refresh();
        other.refresh();
        return inst->serverStatus() == ServerStatusRunning &&
               other.serverStatus() == ServerStatusRunning;
    })) << inst->serverStatus()
        << " " << other.serverStatus() << " " << inst->pid() << " " << other.pid() << " "
        << readFile(lck);
    EXPECT_EQ(other.pid(), inst->pid());
    EXPECT_FALSE(fs::exists(record)) << "a concluded start leaves no record";
}

TEST_F(StartRecordTest, TwoPathsToOneDirectoryMeetOneRecord) {
    const std::string link = home / "alias";
    fs::create_directory_symlink(instDir, link);
    QuendralInstance viaLink(link + "/");
    ASSERT_TRUE(viaLink.startup());
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStarting);
    EXPECT_FALSE(inst->startup());
    EXPECT_EQ(processesIn(instDir).size(), 1u);
}

TEST_F(StartRecordTest, RecordNamingAProcessThatEndedIsVoidAndRemoved) {
    ChildProcess gone({"true"});
    const unsigned long long ticks = ticksOf(gone.pid());
    waitpid(gone.pid(), nullptr, 0);
    writeRecord(gone.pid(), ticks);
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
    EXPECT_FALSE(fs::exists(record));
    EXPECT_TRUE(inst->startup());
}

TEST_F(StartRecordTest, RecordNamingAZombieIsVoid) {
    // Ended but not collected, as an orphan waits for a slow init.
    ChildProcess ended({"true"});
    const unsigned long long ticks = ticksOf(ended.pid());
    ASSERT_TRUE(waitFor([&] { return processState(ended.pid()) == 'Z'; }));
    writeRecord(ended.pid(), ticks);
    QuendralInstance other(instDir);
    other.refresh();
    EXPECT_EQ(other.serverStatus(), ServerStatusStopped);
    EXPECT_EQ(processState(ended.pid()), 'Z') << "still a zombie while it was judged";
}

TEST_F(StartRecordTest, RecordWhosePidWasTakenByALaterProcessIsIgnored) {
    // The recorded launch ended long ago; its pid now belongs to an
    // unrelated process of ours that began later.
    ChildProcess unrelated;
    const unsigned long long ticks = ticksOf(unrelated.pid());
    ASSERT_GT(ticks, 100u);
    writeRecord(unrelated.pid(), ticks - 100);
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
    EXPECT_EQ(inst->pid(), 0);
    EXPECT_FALSE(inst->shutdown());
    EXPECT_TRUE(inst->startup()) << "a void record blocks nothing";
    EXPECT_NE(inst->pid(), unrelated.pid());
    const char state = processState(unrelated.pid());
    EXPECT_TRUE(state != 0 && state != 'Z') << "never signalled";
}

TEST_F(StartRecordTest, RecordNamingALiveLaunchShowsStartingUntilItEnds) {
    // A front end that launched this process and was killed since: the
    // process is on its way for as long as it lives.
    ChildProcess launched;
    writeRecord(launched.pid(), ticksOf(launched.pid()));
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStarting);
    EXPECT_EQ(inst->pid(), launched.pid());
    EXPECT_FALSE(inst->startup());
    launched.killAndReap();
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
    EXPECT_FALSE(fs::exists(record));
}

TEST_F(StartRecordTest, StartingServerKilledIsStoppedForEveryone) {
    ASSERT_TRUE(inst->startup());
    QuendralInstance other(instDir);
    other.refresh();
    ASSERT_EQ(other.serverStatus(), ServerStatusStarting);
    kill(inst->pid(), SIGKILL);
    // Not collected yet: its parent (this test, as the launching front end)
    // has not looked. Another front end sees it ended all the same.
    ASSERT_TRUE(waitFor([&] { return processState(inst->pid()) == 'Z'; }));
    other.refresh();
    EXPECT_EQ(other.serverStatus(), ServerStatusStopped);
    inst->refresh();
    EXPECT_EQ(inst->serverStatus(), ServerStatusStopped);
}

TEST_F(StartRecordTest, NoRecordIsLeftWhenAStartIsRefused) {
    ASSERT_TRUE(inst->startup());
    ASSERT_TRUE(waitFor([&] {
        inst->refresh();
        return inst->serverStatus() == ServerStatusRunning;
    }));
    EXPECT_FALSE(inst->startup()) << "running";
    EXPECT_FALSE(fs::exists(record));
    ASSERT_TRUE(inst->shutdown());
}

TEST_F(StartRecordTest, ALockHeldElsewhereMakesAStartWaitThenGiveUp) {
    // A front end stopped (SIGSTOP) while it decides a start holds the lock:
    // a start here is refused after a bounded wait instead of hanging.
    StartLock held(instDir);
    ASSERT_EQ(held.state(), StartLock::Held);
    const pid_t child = fork();
    if (child == 0) {
        QuendralInstance again(instDir);
        _exit(again.startup()                                                   ? 1
              : again.failureReason() == "another start of it is being decided" ? 0
                                                                                : 2);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(processesIn(instDir).empty());
}

TEST_F(StartRecordTest, TheServerInheritsNoRecordDescriptor) {
    ASSERT_TRUE(inst->startup());
    const pid_t pid = inst->pid();
    ASSERT_TRUE(waitFor([&] {
        inst->refresh();
        return inst->serverStatus() == ServerStatusRunning;
    }));
    const std::string dir = *startRecordDirectory();
    for (const auto &e : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code ec;
        const std::string target = fs::read_symlink(e.path(), ec).string();
        EXPECT_FALSE(target.starts_with(dir)) << target;
    }
    ASSERT_TRUE(inst->shutdown());
}

TEST_F(StartRecordTest, RecordsLiveInOnePlaceWhateverTheEnvironmentSays) {
    // The desktop's tray, cron, su and ssh differ in XDG_RUNTIME_DIR and
    // HOME: the records stay in the home the password database gives.
    const passwd *pw = getpwuid(geteuid());
    ASSERT_NE(pw, nullptr);
    TempDir other;
    ScopedEnv runtime("XDG_RUNTIME_DIR", other.path());
    ScopedEnv home("HOME", other.path());
    findStartRecordDirectoryAgain();
    const auto dir = startRecordDirectory();
    ASSERT_TRUE(dir.has_value());
    struct stat st;
    if (stat(pw->pw_dir, &st) == 0 && st.st_uid == geteuid() && (st.st_mode & 022) == 0)
        EXPECT_EQ(*dir, std::string(pw->pw_dir) + "/.local/state/quendral-monitor");
    else
        EXPECT_EQ(*dir, "/tmp/quendral-monitor-" + std::to_string(geteuid()));
    EXPECT_TRUE(inst->startup());
}

TEST_F(StartRecordTest, AnotherUsersDirectoryUnderTmpTakesAndDeniesNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to make a directory of another user's";
    const std::string planted = "/tmp/quendral-monitor-" + std::to_string(geteuid());
    if (fs::exists(planted)) GTEST_SKIP() << planted << " exists already";
    // Made first by someone else, open to all, as anyone may in /tmp.
    ASSERT_EQ(mkdir(planted.c_str(), 0777), 0);
    ASSERT_EQ(chown(planted.c_str(), 65534, 65534), 0);
    findStartRecordDirectoryAgain();
    const auto dir = startRecordDirectory();
    ASSERT_TRUE(dir.has_value());
    EXPECT_FALSE(dir->starts_with("/tmp/")) << *dir;
    ASSERT_TRUE(inst->startup());
    QuendralInstance other(instDir);
    other.refresh();
    EXPECT_EQ(other.serverStatus(), ServerStatusStarting) << "records are kept all the same";
    EXPECT_FALSE(other.startup());
    EXPECT_EQ(processesIn(instDir).size(), 1u);
    EXPECT_TRUE(fs::is_empty(planted)) << "nothing of ours went there";
    fs::remove_all(planted);
}

TEST_F(StartRecordTest, ARecordsDirectoryThatWasRemovedIsMadeAgainAtTheNextStart) {
    const auto dir = startRecordDirectory();
    ASSERT_TRUE(dir.has_value());
    // A cleaner of old files took it away under a running front end.
    fs::remove_all(*dir);
    ASSERT_TRUE(inst->startup()) << inst->failureReason();
    EXPECT_TRUE(fs::is_directory(*dir));
    QuendralInstance other(instDir);
    other.refresh();
    EXPECT_EQ(other.serverStatus(), ServerStatusStarting) << "the start is recorded again";
    EXPECT_FALSE(other.startup());
    EXPECT_EQ(processesIn(instDir).size(), 1u);
}

TEST_F(StartRecordTest, ADirectoryOrLinkAtARecordsNameBlocksNoStart) {
    for (const std::string kind : {"directory", "link"}) {
        SCOPED_TRACE(kind);
        fs::remove_all(record);
        if (kind == "directory")
            fs::create_directories(record + "/inside");
        else
            fs::create_symlink("/etc/passwd", record);
        ASSERT_TRUE(inst->startup()) << inst->failureReason();
        EXPECT_TRUE(waitFor([&] {
            inst->refresh();
            return inst->serverStatus() == ServerStatusRunning;
        }));
        ASSERT_TRUE(inst->shutdown());
        EXPECT_TRUE(waitFor([&] {
            inst->refresh();
            return inst->serverStatus() == ServerStatusStopped;
        }));
        EXPECT_EQ(readFile("/etc/passwd").empty(), false) << "the link's target is untouched";
    }
}

TEST_F(StartRecordTest, ARecordTheUserDidNotWriteNeverCounts) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to plant a file of another user's";
    // Planted while the directory was open to others: it names a live
    // process, and would show the instance starting for as long as it runs.
    ChildProcess live({"sleep", "1000"});
    writeRecord(live.pid(), ticksOf(live.pid()));
    ASSERT_EQ(chown(record.c_str(), 65534, 65534), 0);
    QuendralInstance other(instDir);
    other.refresh();
    EXPECT_EQ(other.serverStatus(), ServerStatusStopped);
    ASSERT_TRUE(inst->startup()) << inst->failureReason();
    struct stat st;
    ASSERT_EQ(stat(record.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, geteuid()) << "the start's record is the user's own";
}

} // namespace
