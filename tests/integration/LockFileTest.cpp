// Reading the server's pid from an instance's lock file.
#include "ModelTestUtil.h"
#include "Unprivileged.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;

namespace {

class LockFile : public ::testing::Test, public InstanceFixture {
  protected:
    void SetUp() override { ASSERT_TRUE(inst.isValid()); }
    int32_t pidFrom(std::string_view content) {
        writeFile(lck, content);
        return inst.pidValueFromLockFile();
    }
};

TEST_F(LockFile, NoPathBeforeTheConfigurationWasReadGivesZero) {
    QuendralInstance fresh(instDir);
    writeLockFile(lck, 4711);
    EXPECT_EQ(fresh.pidValueFromLockFile(), 0);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(LockFile, MissingLockFileGivesZeroSilently) {
    EXPECT_EQ(inst.pidValueFromLockFile(), 0);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(LockFile, DirectoryGivesZeroSilently) {
    std::filesystem::create_directories(lck);
    EXPECT_EQ(inst.pidValueFromLockFile(), 0);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(LockFile, BlanksBeforeThePidAreSkipped) {
    EXPECT_EQ(pidFrom("  4711\n"), 4711);
}

TEST_F(LockFile, FirstDigitRunAnywhereIsThePid) {
    EXPECT_EQ(pidFrom("12345\n"), 12345);
    EXPECT_EQ(pidFrom("pid 12345"), 12345);
    EXPECT_EQ(pidFrom("x12345y9"), 12345);
    EXPECT_EQ(pidFrom("-42\n"), 42);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(LockFile, OnlyLettersIsMalformed) {
    EXPECT_EQ(pidFrom("no pid here\n"), 0);
    EXPECT_EQ(log.lines, std::vector<std::string>{"Malformed .lck file " + lck});
}

TEST_F(LockFile, EmptyFileIsMalformed) {
    EXPECT_EQ(pidFrom(""), 0);
    EXPECT_EQ(log.lines, std::vector<std::string>{"Malformed .lck file " + lck});
}

TEST_F(LockFile, DigitRunWrappingToZeroOrBelowIsNoPid) {
    EXPECT_EQ(pidFrom("4294967295\n"), 0); // low 32 bits: -1
    EXPECT_EQ(pidFrom("4294967296\n"), 0); // low 32 bits: 0
    EXPECT_EQ(pidFrom("2147483648\n"), 0); // INT32_MIN
    EXPECT_EQ(pidFrom("0\n"), 0);
    EXPECT_EQ(log.count("Malformed .lck file " + lck), 4u);
}

TEST_F(LockFile, LongDigitRunKeepsItsLow32Bits) {
    EXPECT_EQ(pidFrom("4294967296000000000000000004711\n"),
              4711); // 2^32 * 10^21 + 4711
}

TEST_F(LockFile, NonAsciiContentIsAReadError) {
    EXPECT_EQ(pidFrom("4711 \xc3\xa4\n"), 0);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].rfind("Error reading " + lck + ": ", 0), 0u) << log.lines[0];
}

TEST_F(LockFile, FifoIsAReadErrorWithoutBlocking) {
    ASSERT_EQ(mkfifo(lck.c_str(), 0600), 0);
    EXPECT_EQ(inst.pidValueFromLockFile(), 0);
    EXPECT_EQ(log.lines, std::vector<std::string>{"Error reading " + lck + ": not a regular file"});
}

TEST_F(LockFile, ALinkAtTheLockFilesPlaceSpeaksForNobody) {
    // Whoever may write the directory may point a link at any file, a pid
    // file of root's among them: a link is never followed, whatever it
    // leads to, and the instance's status is unknown, not stopped.
    ChildProcess live;
    writeLockFile(dir / "real.lck", live.pid());
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    for (const std::string &target : {dir / "real.lck", dir / "fifo", std::string("/dev/zero")}) {
        SCOPED_TRACE(target);
        std::filesystem::remove(lck);
        ASSERT_EQ(symlink(target.c_str(), lck.c_str()), 0);
        EXPECT_EQ(inst.pidValueFromLockFile(), 0);
        inst.refresh();
        EXPECT_EQ(inst.serverStatus(), ServerStatusUnknown);
        EXPECT_EQ(inst.unknownReason(), lck + ": it is a symbolic link");
        EXPECT_EQ(inst.pid(), 0);
        EXPECT_FALSE(inst.shutdown());
        EXPECT_FALSE(inst.startup());
    }
    // Said at each look: the read, the refresh, and the refresh before the
    // stop and the start that were refused.
    EXPECT_EQ(log.count("Error reading " + lck + ": it is a symbolic link"), 12u);
}

TEST_F(LockFile, ALinkOnTheWayToTheLockFileSpeaksForNobody) {
    ChildProcess live;
    std::filesystem::create_directories(dir / "elsewhere");
    writeLockFile(dir / "elsewhere/q.lck", live.pid());
    std::filesystem::create_directory_symlink(dir / "elsewhere", std::string(instDir) + "/run");
    writeFile(instDir + "/quendral.ini", "[database]\nlockfile = run/q.lck\n");
    backdate(instDir + "/quendral.ini", 5);
    ASSERT_TRUE(inst.isValid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusUnknown);
    EXPECT_EQ(inst.unknownReason(), instDir + "/run/q.lck: " + instDir + "/run is a symbolic link");
}

TEST_F(LockFile, ALockFileInASubdirectoryOfTheInstanceSpeaks) {
    ChildProcess live;
    std::filesystem::create_directories(instDir + "/run");
    writeFile(instDir + "/quendral.ini", "[database]\nlockfile = run/q.lck\n");
    backdate(instDir + "/quendral.ini", 5);
    ASSERT_TRUE(inst.isValid());
    writeLockFile(instDir + "/run/q.lck", live.pid());
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusRunning);
    EXPECT_EQ(inst.pid(), live.pid());
}

TEST_F(LockFile, ALockFileWithOtherNamesSpeaksForNobody) {
    // A hard link to someone else's pid file is that file.
    ChildProcess live;
    writeLockFile(dir / "service.pid", live.pid());
    ASSERT_EQ(link((dir / "service.pid").c_str(), lck.c_str()), 0);
    inst.refresh();
    EXPECT_EQ(inst.serverStatus(), ServerStatusUnknown);
    EXPECT_EQ(inst.unknownReason(), lck + ": it has other names (hard links)");
    EXPECT_FALSE(inst.shutdown());
}

TEST_F(LockFile, HugeFileIsReadOnlyAsFarAsNeeded) {
    std::string huge = "  977\n";
    huge += std::string(64 << 20, 'x');
    EXPECT_EQ(pidFrom(huge), 977);
}

TEST_F(LockFile, HugeFileWithoutDigitsNearItsStartIsMalformed) {
    std::string huge(64 << 20, 'x');
    huge += "123";
    EXPECT_EQ(pidFrom(huge), 0);
    EXPECT_EQ(log.lines, std::vector<std::string>{"Malformed .lck file " + lck});
}

TEST_F(LockFile, UnreadableLockFileIsAReadErrorWithTheReason) {
    TempDir shared;
    chmod(shared.path().c_str(), 0777);
    const std::string p = shared / "x";
    std::vector<std::string> lines;
    const int rc = runUnprivileged([&] {
        std::filesystem::create_directories(p);
        writeFile(p + "/quendral.ini", "[database]\n");
        writeLockFile(p + "/quendral.lck", 4711);
        chmod((p + "/quendral.lck").c_str(), 0);
        LogCapture inner;
        QuendralInstance i(p);
        if (!i.isValid()) return 1;
        if (i.pidValueFromLockFile() != 0) return 2;
        if (inner.lines !=
            std::vector<std::string>{"Error reading " + p + "/quendral.lck: Permission denied"})
            return 3;
        // Not a word about the server: unknown, never stopped.
        i.refresh();
        if (i.serverStatus() != ServerStatusUnknown) return 4;
        if (i.startup()) return 5;
        return 0;
    });
    EXPECT_EQ(rc, 0);
}

} // namespace
