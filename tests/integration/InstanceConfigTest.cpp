// An instance's names, its configuration and where its files lie.
#include "Localization.h"
#include "ModelTestUtil.h"
#include "Unprivileged.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;

namespace {

class InstanceConfig : public ::testing::Test {
  protected:
    TempDir dir;
    LogCapture log;
};

TEST_F(InstanceConfig, DirectoryNamedDatabaseIsTheDefaultInstance) {
    QuendralInstance db(makeInstanceDir(dir, "database"));
    EXPECT_TRUE(db.isDefault());
    EXPECT_EQ(db.instanceName(), "Default Instance");
    EXPECT_EQ(db.displayName(), "database");
}

TEST_F(InstanceConfig, DefaultTestIsCaseSensitive) {
    QuendralInstance db(makeInstanceDir(dir, "Database"));
    EXPECT_FALSE(db.isDefault());
    EXPECT_EQ(db.instanceName(), "Instance 'Database'");
}

TEST_F(InstanceConfig, NewInstanceIsUnknownNewAndWithoutPid) {
    const std::string p = makeInstanceDir(dir, "x");
    QuendralInstance i(p);
    EXPECT_EQ(i.directory(), p);
    EXPECT_EQ(i.serverStatus(), ServerStatusUnknown);
    EXPECT_EQ(i.entryStatus(), EntryStatusNew);
    EXPECT_EQ(i.pid(), 0);
    EXPECT_FALSE(i.lockFile());
}

TEST_F(InstanceConfig, PathIsKeptExactlyAsGiven) {
    makeInstanceDir(dir, "real");
    ASSERT_EQ(symlink((dir / "real").c_str(), (dir / "link").c_str()), 0);
    const std::string given = dir / "link";
    QuendralInstance i(given);
    EXPECT_EQ(i.directory(), given);
    EXPECT_EQ(i.displayName(), "link");
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), given + "/quendral.lck");
}

TEST_F(InstanceConfig, PlaceholdersInTheDisplayNameAppearLiterally) {
    for (const std::string name : {"100%", "a%@b", "%s%s%n", "%d%%"}) {
        QuendralInstance i(makeInstanceDir(dir, name));
        EXPECT_EQ(i.instanceName(), "Instance '" + name + "'");
    }
}

TEST_F(InstanceConfig, NamesGoThroughTheTranslator) {
    auto previous = quendral::setTranslator([](const std::string &key) -> std::string {
        if (key == "Default Instance") return "Standardinstanz";
        if (key == "Instance '%@'") return "Instanz „%@“";
        return "";
    });
    QuendralInstance db(makeInstanceDir(dir, "database"));
    QuendralInstance other(makeInstanceDir(dir, "other"));
    EXPECT_EQ(db.instanceName(), "Standardinstanz");
    EXPECT_EQ(other.instanceName(), "Instanz „other“");
    quendral::setTranslator(previous);
}

TEST_F(InstanceConfig, WithoutLockfileKeyTheLockFileIsInTheInstanceDirectory) {
    const std::string p = makeInstanceDir(dir, "x", "[database]\nport = 1\n");
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p + "/quendral.lck");
}

TEST_F(InstanceConfig, RelativeLockfileResolvesAgainstTheDirectoryWithDotDotApplied) {
    const std::string p = makeInstanceDir(dir, "x", "[database]\nlockfile = ../run/./x.lck\n");
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), dir.path() + "/run/x.lck");
}

TEST_F(InstanceConfig, AbsoluteLockfileStaysAsWritten) {
    const std::string p =
        makeInstanceDir(dir, "x", "[database]\nlockfile = /var/run/../q//x.lck\n");
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), "/var/run/../q//x.lck");
}

TEST_F(InstanceConfig, EmptyLockfileValueIsTheInstanceDirectoryItself) {
    const std::string p = makeInstanceDir(dir, "x", "[database]\nlockfile =\n");
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p);
}

TEST_F(InstanceConfig, KeyLookupIgnoresCase) {
    const std::string p = makeInstanceDir(dir, "x", "[DataBase]\nLockFile = a.lck\n");
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p + "/a.lck");
}

TEST_F(InstanceConfig, KeysOutsideTheFirstDatabaseSectionAreNotUsed) {
    const std::string p = makeInstanceDir(dir, "x",
                                          "lockfile = top.lck\n[other]\nlockfile = other.lck\n"
                                          "[database]\nerrorlogfile = e.log\n"
                                          "[database]\nlockfile = second.lck\n");
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p + "/quendral.lck");
}

TEST_F(InstanceConfig, LaterDuplicateKeyInTheSectionWins) {
    const std::string p = makeInstanceDir(dir, "x", "[database]\nlockfile=a.lck\nLOCKFILE=b.lck\n");
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p + "/b.lck");
}

TEST_F(InstanceConfig, TouchingTheFileReparsesIt) {
    const std::string p = makeInstanceDir(dir, "x", "[database]\nlockfile=a.lck\n");
    setMtime(p + "/quendral.ini", 1000000000);
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    writeFile(p + "/quendral.ini", "[database]\nlockfile=b.lck\n");
    setMtime(p + "/quendral.ini", 1000000001);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p + "/b.lck");
}

TEST_F(InstanceConfig, UnchangedModificationDateNeverRereads) {
    const std::string p = makeInstanceDir(dir, "x", "[database]\nlockfile=a.lck\n");
    setMtime(p + "/quendral.ini", 1000000000);
    QuendralInstance i(p);
    ASSERT_TRUE(i.isValid());
    writeFile(p + "/quendral.ini", "[database]\nlockfile=bbbbbbbbbbbbbbbbbbbbb.lck\n");
    setMtime(p + "/quendral.ini", 1000000000);
    ASSERT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p + "/a.lck");
}

TEST_F(InstanceConfig, MissingConfigurationIsInvalidWithoutMessage) {
    std::filesystem::create_directories(dir / "x");
    QuendralInstance i(dir / "x");
    EXPECT_FALSE(i.isValid());
    EXPECT_TRUE(log.lines.empty());
    EXPECT_FALSE(i.lockFile());
}

TEST_F(InstanceConfig, ConfigurationThatIsNotARegularFileIsSkippedWithMessage) {
    std::filesystem::create_directories(dir / "fifo");
    ASSERT_EQ(mkfifo((dir / "fifo/quendral.ini").c_str(), 0600), 0);
    std::filesystem::create_directories(dir / "directory/quendral.ini");
    std::filesystem::create_directories(dir / "link");
    writeFile(dir / "real.ini", "[database]\n");
    ASSERT_EQ(symlink((dir / "real.ini").c_str(), (dir / "link/quendral.ini").c_str()), 0);
    std::filesystem::create_directories(dir / "device");
    ASSERT_EQ(symlink("/dev/zero", (dir / "device/quendral.ini").c_str()), 0);

    for (const char *name : {"fifo", "directory", "link", "device"}) {
        QuendralInstance i(dir / name);
        EXPECT_FALSE(i.isValid()) << name;
        EXPECT_EQ(log.count(dir / name + "/quendral.ini is not a regular file - skipped"), 1u)
            << name;
    }
}

TEST_F(InstanceConfig, ConfigurationPathUsesTheResolvedDirectory) {
    makeInstanceDir(dir, "real");
    ASSERT_EQ(symlink((dir / "real").c_str(), (dir / "link").c_str()), 0);
    std::filesystem::remove(dir / "real/quendral.ini");
    ASSERT_EQ(mkfifo((dir / "real/quendral.ini").c_str(), 0600), 0);
    QuendralInstance i(dir / "link");
    EXPECT_FALSE(i.isValid());
    EXPECT_EQ(log.count(dir / "real/quendral.ini is not a regular file - skipped"), 1u);
}

TEST_F(InstanceConfig, HugeConfigurationIsNotParsedAndTheDefaultsApply) {
    std::string big = "[database]\nlockfile = big.lck\n";
    big += std::string((2 << 20), ';');
    const std::string p = makeInstanceDir(dir, "x", big);
    QuendralInstance i(p);
    EXPECT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p + "/quendral.lck");
}

TEST_F(InstanceConfig, ConfigurationWithNulAndNonAsciiBytesStillLoads) {
    using namespace std::string_literals;
    const std::string p =
        makeInstanceDir(dir, "x", "\xff\xfe[x]\0\n[database]\nlockfile = \xc3\xa4.lck\n"s);
    QuendralInstance i(p);
    EXPECT_TRUE(i.isValid());
    EXPECT_EQ(*i.lockFile(), p + "/\xc3\xa4.lck");
}

TEST_F(InstanceConfig, UnreadableConfigurationKeepsTheDefaultsAndIsValid) {
    TempDir shared;
    chmod(shared.path().c_str(), 0777);
    const std::string p = shared / "x";
    const int rc = runUnprivileged([&] {
        std::filesystem::create_directories(p);
        writeFile(p + "/quendral.ini", "[database]\nlockfile = mine.lck\n");
        chmod((p + "/quendral.ini").c_str(), 0);
        setMtime(p + "/quendral.ini", 1000000500);
        QuendralInstance i(p);
        if (!i.isValid()) return 1;
        if (*i.lockFile() != p + "/quendral.lck") return 2;
        // The failed parse is not retried until the file's time changes.
        chmod((p + "/quendral.ini").c_str(), 0600);
        if (!i.isValid() || *i.lockFile() != p + "/quendral.lck") return 3;
        setMtime(p + "/quendral.ini", 1000000000);
        if (!i.isValid() || *i.lockFile() != p + "/mine.lck") return 4;
        return 0;
    });
    EXPECT_EQ(rc, 0);
}

TEST_F(InstanceConfig, LogFileIsGivenOnlyWhenItExistsAndIsNotADirectory) {
    const std::string p = makeInstanceDir(dir, "x", "[database]\nerrorlogfile = logs/e.log\n");
    QuendralInstance i(p);
    EXPECT_FALSE(i.logFile());
    std::filesystem::create_directories(p + "/logs/e.log");
    EXPECT_FALSE(i.logFile());
    std::filesystem::remove(p + "/logs/e.log");
    writeFile(p + "/logs/e.log", "line\n");
    ASSERT_TRUE(i.logFile());
    EXPECT_EQ(*i.logFile(), p + "/logs/e.log");
}

TEST_F(InstanceConfig, LogFileOfAnInvalidInstanceIsNone) {
    const std::string p = makeInstanceDir(dir, "x");
    writeFile(p + "/quendral.log", "line\n");
    QuendralInstance i(p);
    ASSERT_TRUE(i.logFile());
    std::filesystem::remove(p + "/quendral.ini");
    EXPECT_FALSE(i.logFile());
}

TEST_F(InstanceConfig, QualifyStandardizesRelativePathsOnly) {
    QuendralInstance i("/srv/q/db");
    EXPECT_EQ(i.qualify(std::nullopt, "quendral.lck"), "/srv/q/db/quendral.lck");
    EXPECT_EQ(i.qualify("a/./b//c/", "x"), "/srv/q/db/a/b/c");
    EXPECT_EQ(i.qualify("../../../../x", "y"), "/x");
    EXPECT_EQ(i.qualify("/abs/../x", "y"), "/abs/../x");
}

} // namespace
