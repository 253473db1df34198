// When a handle re-reads and re-parses its file, and what it keeps when it
// cannot.
#include "CfgTestUtil.h"
#include "Unprivileged.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;

namespace {

class CfgRefresh : public ::testing::Test {
  protected:
    TempDir dir;
    std::string path = dir / "c.ini";

    Handle open(std::string_view text, long mtime = 1000000000) {
        writeFile(path, text);
        setMtime(path, mtime);
        TWK_CfgHandle *h = nullptr;
        EXPECT_EQ(TWK_Cfg_init(&h, path.c_str()), 0);
        return Handle(h);
    }
    std::string valueOf(TWK_CfgHandle *h, const char *key) {
        if (TWK_Cfg_find(h, "s", key) != 0) return "<missing>";
        return h->value;
    }
};

TEST_F(CfgRefresh, UnchangedSizeAndTimeMeansTheFileIsNotRead) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    // Same size, same time, other bytes: a refresh must not look at them.
    writeFile(path, "[s]\nk=bbbb\n");
    setMtime(path, 1000000000);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 0);
    EXPECT_EQ(valueOf(h.get(), "k"), "aaaa");
}

TEST_F(CfgRefresh, TouchedFileWithSameBytesGivesZeroEachTimeAndIsReadEachTime) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    const char *before = h->entries[1].value;
    setMtime(path, 1000000100);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 0);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 0);
    // Entries were kept, not rebuilt.
    EXPECT_EQ(h->entries[1].value, before);
    // The stored time is still the old one, so the next refresh reads the file
    // again: new bytes under the touched time are found at once.
    EXPECT_EQ(h->mtime, 1000000000);
    writeFile(path, "[s]\nk=bbbb\n");
    setMtime(path, 1000000100);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(valueOf(h.get(), "k"), "bbbb");
    EXPECT_EQ(h->mtime, 1000000100);
}

TEST_F(CfgRefresh, ChangedBytesReloadWithNewEntries) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    writeFile(path, "[s]\nk=changed\nnew=1\n");
    setMtime(path, 1000000200);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(valueOf(h.get(), "k"), "changed");
    EXPECT_EQ(valueOf(h.get(), "new"), "1");
    EXPECT_EQ(h->size, static_cast<int64_t>(std::strlen("[s]\nk=changed\nnew=1\n")));
    EXPECT_EQ(h->mtime, 1000000200);
    EXPECT_TRUE(h->flags & TWK_CFG_LOADED);
}

TEST_F(CfgRefresh, DigestIsTheMd5OfTheFile) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    TWK_MD5Context ctx;
    unsigned char expected[16];
    TWK_MD5Init(&ctx);
    TWK_MD5Update(&ctx, "[s]\nk=aaaa\n", 11);
    TWK_MD5Final(expected, &ctx);
    EXPECT_EQ(std::memcmp(h->digest, expected, 16), 0);
}

TEST_F(CfgRefresh, DirtyHandleDropsItsEditsAndReloads) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    static char edited[] = "edited";
    h->entries[1].value = edited;
    h->dirty = 1;
    // The file did not change, yet the edits are dropped and the file loaded.
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(h->dirty, 0);
    EXPECT_EQ(valueOf(h.get(), "k"), "aaaa");
}

TEST_F(CfgRefresh, DirtyHandleWhoseFileIsNoLongerReadableIsLeftNotLoaded) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    h->dirty = 1;
    // Replace the file by a FIFO: stat works, reading is refused.
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), -1);
    EXPECT_FALSE(h->flags & TWK_CFG_LOADED);
    EXPECT_EQ(h->numEntries, 0u);
    EXPECT_EQ(h->dirty, 0);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "s", "k"), -1);
    // Once the file is back the handle loads again.
    ASSERT_EQ(unlink(path.c_str()), 0);
    writeFile(path, "[s]\nk=back\n");
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(valueOf(h.get(), "k"), "back");
}

TEST_F(CfgRefresh, FailedStatLeavesTheHandleUnchanged) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    h->dirty = 1;
    const uint32_t entries = h->numEntries;
    const char *text = h->text;
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), -1);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_EQ(h->numEntries, entries);
    EXPECT_EQ(h->text, text);
    EXPECT_TRUE(h->flags & TWK_CFG_LOADED);
    EXPECT_EQ(valueOf(h.get(), "k"), "aaaa");
}

TEST_F(CfgRefresh, CleanHandleWhoseFileCannotBeOpenedKeepsItsEntries) {
    // Permissions only bind an ordinary user.
    TempDir shared;
    chmod(shared.path().c_str(), 0777);
    const std::string p = shared / "c.ini";
    const int rc = runUnprivileged([&] {
        writeFile(p, "[s]\nk=aaaa\n");
        TWK_CfgHandle *h = nullptr;
        if (TWK_Cfg_init(&h, p.c_str()) != 0) return 1;
        if (chmod(p.c_str(), 0) != 0) return 2;
        setMtime(p, 1000000300);
        if (TWK_Cfg_refresh(h) != -1) return 3;
        if (!(h->flags & TWK_CFG_LOADED)) return 4;
        if (TWK_Cfg_find(h, "s", "k") != 0 || std::strcmp(h->value, "aaaa") != 0) return 5;
        TWK_Cfg_done(h);
        TWK_CfgHandle *again = nullptr;
        if (TWK_Cfg_init(&again, p.c_str()) != -1 || again != nullptr) return 6;
        return 0;
    });
    EXPECT_EQ(rc, 0);
}

TEST_F(CfgRefresh, FileTruncatedToEmptyReloadsWithNoEntries) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    writeFile(path, "");
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(h->numEntries, 0u);
    EXPECT_TRUE(h->flags & TWK_CFG_LOADED);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "s", nullptr), -1);
}

TEST_F(CfgRefresh, ReloadResetsTheCursor) {
    Handle h = open("[s]\nk=aaaa\n");
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_find(h.get(), "s", "k"), 0);
    writeFile(path, "[t]\nj=1\n");
    setMtime(path, 1000000400);
    ASSERT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(h->cursor, 0u);
    EXPECT_EQ(h->section, nullptr);
    EXPECT_EQ(h->id, nullptr);
    EXPECT_EQ(h->flags, TWK_CFG_LOADED);
}

// Large files are digested on a helper thread while they are parsed; the
// outcomes must be those of the small-file path.
TEST_F(CfgRefresh, LargeFileKeepsEntriesWhenTouchedAndReloadsWhenChanged) {
    std::string text = "[s]\nk=aaaa\n";
    while (text.size() < (size_t{3} << 20)) text += "; padding line to make the file large\n";
    Handle h = open(text);
    ASSERT_TRUE(h);
    const char *before = h->text;
    unsigned char expected[16];
    TWK_MD5Context ctx;
    TWK_MD5Init(&ctx);
    TWK_MD5Update(&ctx, text.data(), static_cast<uint32_t>(text.size()));
    TWK_MD5Final(expected, &ctx);
    EXPECT_EQ(std::memcmp(h->digest, expected, 16), 0);

    setMtime(path, 1000000100);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 0);
    EXPECT_EQ(h->text, before);
    EXPECT_EQ(valueOf(h.get(), "k"), "aaaa");

    text[6] = 'b';
    writeFile(path, text);
    setMtime(path, 1000000200);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(valueOf(h.get(), "k"), "baaa");
    EXPECT_EQ(h->mtime, 1000000200);
}

// A file of 4 GiB or more is digested only over its first size mod 2^32
// bytes. The file is sparse, so this costs memory but little disk.
TEST_F(CfgRefresh, DigestOfAFileOver4GiBCoversOnlySizeModulo4GiB) {
    const std::string big = dir / "big.ini";
    const off_t size = (off_t{1} << 32) + 10;
    {
        int fd = ::open(big.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, "[s]\nk=v\n\n\n", 10, 0), 10);
        const int ok = ftruncate(fd, size);
        close(fd);
        if (ok != 0) GTEST_SKIP() << "file system cannot hold a sparse 4 GiB file";
    }
    TWK_CfgHandle *raw = nullptr;
    ASSERT_EQ(TWK_Cfg_init(&raw, big.c_str()), 0);
    Handle h(raw);
    EXPECT_EQ(h->size, static_cast<int64_t>(size));
    unsigned char expected[16];
    TWK_MD5Context ctx;
    TWK_MD5Init(&ctx);
    TWK_MD5Update(&ctx, "[s]\nk=v\n\n\n", 10);
    TWK_MD5Final(expected, &ctx);
    EXPECT_EQ(std::memcmp(h->digest, expected, 16), 0);
    EXPECT_EQ(valueOf(h.get(), "k"), "v");
}

} // namespace
