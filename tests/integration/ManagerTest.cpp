// The manager over real directory trees: what a scan finds, what it keeps
// between calls, and how it treats search paths that go bad.
#include "ModelTestUtil.h"
#include "QuendralManager.h"
#include "Unprivileged.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

using Instances = std::vector<std::shared_ptr<QuendralInstance>>;

std::vector<std::string> directories(const Instances &all) {
    std::vector<std::string> dirs;
    for (const auto &i : all) dirs.push_back(i->directory());
    return dirs;
}

class Manager : public ::testing::Test {
  protected:
    TempDir home;
    QuendralManager manager;
    LogCapture log;
};

TEST_F(Manager, StartsWithNoSearchPathsAndFindsNothing) {
    EXPECT_TRUE(manager.searchPaths().empty());
    EXPECT_TRUE(manager.allInstances().empty());
}

TEST_F(Manager, SearchPathThatIsAnInstanceIsListedWithItsValidSubdirectories) {
    writeFile(home / "quendral.ini", "[database]\n");
    makeInstanceDir(home, "sales");
    fs::create_directories(home / "plain");
    writeFile(home / "file.txt", "not a directory\n");
    manager.addSearchPath(home.path());
    EXPECT_EQ(directories(manager.allInstances()),
              (std::vector<std::string>{home.path(), home.path() + "/sales"}));
}

TEST_F(Manager, HiddenSubdirectoriesAndLinksToDirectoriesAreTakenUnderTheirOwnPath) {
    const std::string real = makeInstanceDir(home, ".hidden");
    fs::create_directory_symlink(real, home / "link");
    manager.addSearchPath(home.path());
    EXPECT_EQ(directories(manager.allInstances()),
              (std::vector<std::string>{home.path() + "/.hidden", home.path() + "/link"}));
}

TEST_F(Manager, ScanIsOneLevelDeep) {
    fs::create_directories(home / "outer");
    makeInstanceDir(home, "outer/inner");
    manager.addSearchPath(home.path());
    EXPECT_TRUE(manager.allInstances().empty());
}

TEST_F(Manager, SubdirectoryAppearsAsNewOnceItGainsAConfiguration) {
    fs::create_directories(home / "later");
    manager.addSearchPath(home.path());
    EXPECT_TRUE(manager.allInstances().empty());

    writeFile(home / "later/quendral.ini", "[database]\n");
    const Instances all = manager.allInstances();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0]->directory(), home.path() + "/later");
    // Filed and refreshed in the same call: the status changed from unknown.
    EXPECT_EQ(all[0]->serverStatus(), ServerStatusStopped);
    EXPECT_EQ(all[0]->entryStatus(), EntryStatusChanged);
}

TEST_F(Manager, InstancesAreKeptWithTheirStateBetweenCalls) {
    makeInstanceDir(home, "database");
    manager.addSearchPath(home.path());
    const Instances first = manager.allInstances();
    const Instances second = manager.allInstances();
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(first[0].get(), second[0].get());
    EXPECT_EQ(second[0]->entryStatus(), EntryStatusUnchanged);
}

TEST_F(Manager, DeletedInstanceOfAStoppedServerIsDropped) {
    makeInstanceDir(home, "database");
    makeInstanceDir(home, "sales");
    manager.addSearchPath(home.path());
    ASSERT_EQ(manager.allInstances().size(), 2u);
    fs::remove_all(home / "sales");
    EXPECT_EQ(directories(manager.allInstances()),
              (std::vector<std::string>{home.path() + "/database"}));
}

TEST_F(Manager, DeletedInstanceWhoseServerRunsStaysListed) {
    const std::string dir = makeInstanceDir(home, "database");
    ChildProcess server;
    writeLockFile(dir + "/quendral.lck", server.pid());
    manager.addSearchPath(home.path());
    ASSERT_EQ(manager.allInstances().at(0)->serverStatus(), ServerStatusRunning);

    fs::remove_all(dir);
    Instances all = manager.allInstances();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0]->serverStatus(), ServerStatusRunning);
    EXPECT_EQ(all[0]->pid(), server.pid());

    // Once the server is gone, the next scan drops it.
    server.killAndReap();
    EXPECT_TRUE(manager.allInstances().empty());
}

TEST_F(Manager, RemovedDirectoryThatReturnsIsFiledAsANewInstance) {
    makeInstanceDir(home, "database");
    manager.addSearchPath(home.path());
    const auto before = manager.allInstances().at(0);
    fs::remove_all(home / "database");
    EXPECT_TRUE(manager.allInstances().empty());
    makeInstanceDir(home, "database");
    const auto after = manager.allInstances().at(0);
    EXPECT_NE(before.get(), after.get());
}

TEST_F(Manager, SymlinkedSearchPathIsStoredResolved) {
    fs::create_directories(home / "real");
    makeInstanceDir(home, "real/database");
    fs::create_directory_symlink(home / "real", home / "link");
    manager.addSearchPath(home.path() + "/link");
    EXPECT_EQ(manager.searchPaths(), (std::vector<std::string>{home.path() + "/real"}));
    EXPECT_EQ(directories(manager.allInstances()),
              (std::vector<std::string>{home.path() + "/real/database"}));
}

TEST_F(Manager, SearchPathThatIsAFileOrMissingIsNeverAdded) {
    writeFile(home / "file", "x\n");
    manager.addSearchPath(home.path() + "/file");
    manager.addSearchPath(home.path() + "/missing");
    EXPECT_TRUE(manager.searchPaths().empty());
    EXPECT_TRUE(log.lines.empty()) << "ignored silently";
}

TEST_F(Manager, DeletedSearchPathIsReportedOnceAndNeverScannedAgain) {
    fs::create_directories(home / "gone");
    fs::create_directories(home / "kept");
    makeInstanceDir(home, "kept/database");
    manager.addSearchPath(home.path() + "/gone");
    manager.addSearchPath(home.path() + "/kept");
    manager.addSearchPath(home.path() + "/gone");
    fs::remove_all(home / "gone");

    // The remaining path is still scanned in the same call.
    EXPECT_EQ(directories(manager.allInstances()),
              (std::vector<std::string>{home.path() + "/kept/database"}));
    EXPECT_EQ(log.count("Invalid directory " + home.path() + "/gone: No such file or directory"),
              1u);
    EXPECT_EQ(manager.searchPaths(), (std::vector<std::string>{home.path() + "/kept"}));

    fs::create_directories(home / "gone");
    makeInstanceDir(home, "gone/back");
    log.clear();
    EXPECT_EQ(manager.allInstances().size(), 1u);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(Manager, UnlistableSearchPathIsDropped) {
    chmod(home.path().c_str(), 0755);
    fs::create_directories(home / "closed");
    fs::permissions(home / "closed", fs::perms::owner_exec | fs::perms::owner_write);
    const int status = runUnprivileged([&] {
        QuendralManager m;
        m.addSearchPath(home.path() + "/closed");
        if (m.searchPaths().size() != 1) return 10;
        LogCapture capture;
        m.allInstances();
        if (capture.count("Invalid directory " + home.path() + "/closed: Permission denied") != 1)
            return 11;
        return m.searchPaths().empty() ? 0 : 12;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(Manager, ConfigurationThatIsNotAFileIsReportedAtEveryScan) {
    fs::create_directories(home / "odd/quendral.ini");
    manager.addSearchPath(home.path());
    manager.allInstances();
    manager.allInstances();
    EXPECT_EQ(log.count(home.path() + "/odd/quendral.ini is not a regular file - skipped"), 2u);
}

TEST_F(Manager, SamePathStringIsFiledOnce) {
    makeInstanceDir(home, "database");
    manager.addSearchPath(home.path());
    manager.addSearchPath(home.path());
    EXPECT_EQ(manager.allInstances().size(), 1u);
}

} // namespace
