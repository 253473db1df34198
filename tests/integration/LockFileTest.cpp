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

TEST_F(LockFile, LinkToAFifoOrDeviceIsAReadError) {
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink((dir / "fifo").c_str(), lck.c_str()), 0);
    EXPECT_EQ(inst.pidValueFromLockFile(), 0);
    std::filesystem::remove(lck);
    ASSERT_EQ(symlink("/dev/zero", lck.c_str()), 0);
    EXPECT_EQ(inst.pidValueFromLockFile(), 0);
    EXPECT_EQ(log.count("Error reading " + lck + ": not a regular file"), 2u);
}

TEST_F(LockFile, LinkToARegularFileIsFollowed) {
    writeLockFile(dir / "real.lck", 31337);
    ASSERT_EQ(symlink((dir / "real.lck").c_str(), lck.c_str()), 0);
    EXPECT_EQ(inst.pidValueFromLockFile(), 31337);
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
        return 0;
    });
    EXPECT_EQ(rc, 0);
}

} // namespace
