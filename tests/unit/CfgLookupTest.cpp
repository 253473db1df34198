// Opening, closing, walking and looking up a configuration handle.
#include "CfgTestUtil.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;

namespace {

class CfgLookup : public ::testing::Test {
  protected:
    TempDir dir;
};

TEST_F(CfgLookup, OpeningAMissingFileFailsAndStoresNull) {
    TWK_CfgHandle *h = reinterpret_cast<TWK_CfgHandle *>(0x1);
    EXPECT_EQ(TWK_Cfg_init(&h, (dir / "missing.ini").c_str()), -1);
    EXPECT_EQ(h, nullptr);
}

TEST_F(CfgLookup, InitCopiesThePathIntoTheHandle) {
    const std::string path = dir / "a.ini";
    writeFile(path, "[s]\n");
    TWK_CfgHandle *raw = nullptr;
    ASSERT_EQ(TWK_Cfg_init(&raw, path.c_str()), 0);
    Handle h(raw);
    EXPECT_STREQ(h->fileName, path.c_str());
    EXPECT_NE(h->fileName, path.c_str());
    EXPECT_EQ(h->dirty, 0);
    EXPECT_EQ(h->size, 4);
    EXPECT_EQ(h->mtime, mtimeOf(path));
}

TEST_F(CfgLookup, Init2CreatesAMissingFileEmpty) {
    const std::string path = dir / "new.ini";
    TWK_CfgHandle *raw = nullptr;
    ASSERT_EQ(TWK_Cfg_init2(&raw, path.c_str(), 1), 0);
    Handle h(raw);
    EXPECT_EQ(h->numEntries, 0u);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(readFile(path), "");
}

TEST_F(CfgLookup, Init2WithoutCreateFailsOnAMissingFile) {
    const std::string path = dir / "new.ini";
    TWK_CfgHandle *raw = nullptr;
    EXPECT_EQ(TWK_Cfg_init2(&raw, path.c_str(), 0), -1);
    EXPECT_EQ(raw, nullptr);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(CfgLookup, Init2LeavesAnExistingFileAlone) {
    const std::string path = dir / "old.ini";
    writeFile(path, "[s]\nk=v\n");
    TWK_CfgHandle *raw = nullptr;
    ASSERT_EQ(TWK_Cfg_init2(&raw, path.c_str(), 1), 0);
    Handle h(raw);
    EXPECT_EQ(readFile(path), "[s]\nk=v\n");
    EXPECT_EQ(h->numEntries, 2u);
}

TEST_F(CfgLookup, Init2InAnUnwritableDirectoryFails) {
    const std::string path = dir / "no/such/dir/new.ini";
    TWK_CfgHandle *raw = nullptr;
    EXPECT_EQ(TWK_Cfg_init2(&raw, path.c_str(), 1), -1);
    EXPECT_EQ(raw, nullptr);
}

TEST_F(CfgLookup, DoneAcceptsNull) {
    EXPECT_EQ(TWK_Cfg_done(nullptr), 0);
}

TEST_F(CfgLookup, CallsOnANullHandleFail) {
    EXPECT_EQ(TWK_Cfg_refresh(nullptr), -1);
    EXPECT_EQ(_cfg_refresh(nullptr), -1);
    EXPECT_EQ(TWK_Cfg_rewind(nullptr), -1);
    EXPECT_EQ(TWK_Cfg_nextentry(nullptr), -1);
    EXPECT_EQ(TWK_Cfg_find(nullptr, "s", nullptr), -1);
}

TEST_F(CfgLookup, HandleThatIsNotLoadedRefusesLookups) {
    Handle h = loadText(dir, "[s]\nk=v\n");
    ASSERT_TRUE(h);
    h->flags &= static_cast<uint16_t>(~TWK_CFG_LOADED);
    EXPECT_EQ(TWK_Cfg_rewind(h.get()), -1);
    EXPECT_EQ(TWK_Cfg_nextentry(h.get()), -1);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "s", "k"), -1);
}

TEST_F(CfgLookup, NextEntryVisitsHeadersKeysAndContinuationsButNotComments) {
    Handle h = loadText(dir, "; top\n[a] ; c\nk = 1 ; kc\n  cont\n; mid\n[b]\nj=2\n");
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_rewind(h.get()), 0);
    EXPECT_EQ(h->flags, TWK_CFG_LOADED);

    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_EQ(h->flags, TWK_CFG_LOADED | TWK_CFG_SECTION);
    EXPECT_STREQ(h->section, "a");
    EXPECT_EQ(h->id, nullptr);
    EXPECT_EQ(h->value, nullptr);

    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_EQ(h->flags, TWK_CFG_LOADED | TWK_CFG_KEY);
    EXPECT_STREQ(h->section, "a");
    EXPECT_STREQ(h->id, "k");
    EXPECT_STREQ(h->value, "1");

    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_EQ(h->flags, TWK_CFG_LOADED | TWK_CFG_CONTINUATION);
    EXPECT_EQ(h->id, nullptr);
    EXPECT_STREQ(h->value, "cont");

    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_EQ(h->flags & TWK_CFG_TYPEMASK, TWK_CFG_SECTION);
    EXPECT_STREQ(h->section, "b");

    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_STREQ(h->id, "j");
    EXPECT_STREQ(h->section, "b");
    EXPECT_EQ(h->comment, nullptr);

    EXPECT_EQ(TWK_Cfg_nextentry(h.get()), -1);
    EXPECT_EQ(h->flags, TWK_CFG_LOADED | TWK_CFG_ATEND);
    EXPECT_EQ(h->id, nullptr);
    EXPECT_EQ(h->value, nullptr);
}

TEST_F(CfgLookup, PastTheEndStaysAtEndUntilRewind) {
    Handle h = loadText(dir, "[a]\n");
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_EQ(TWK_Cfg_nextentry(h.get()), -1);
    EXPECT_EQ(TWK_Cfg_nextentry(h.get()), -1);
    EXPECT_TRUE(h->flags & TWK_CFG_ATEND);
    ASSERT_EQ(TWK_Cfg_rewind(h.get()), 0);
    EXPECT_EQ(h->cursor, 0u);
    EXPECT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_STREQ(h->section, "a");
}

TEST_F(CfgLookup, FindOfSectionLeavesCursorJustAfterHeader) {
    Handle h = loadText(dir, "[a]\nx=1\n[b]\ny=2\nz=3\n");
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_find(h.get(), "B", nullptr), 0);
    EXPECT_EQ(h->flags, TWK_CFG_LOADED | TWK_CFG_SECTION);
    EXPECT_STREQ(h->section, "b");
    EXPECT_EQ(h->cursor, 3u);
    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_STREQ(h->id, "y");
}

TEST_F(CfgLookup, FindStopsAtTheNextSectionHeader) {
    Handle h = loadText(dir, "[a]\nx=1\n[b]\ny=2\n");
    ASSERT_TRUE(h);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "a", "y"), -1);
    EXPECT_EQ(h->flags & TWK_CFG_TYPEMASK, TWK_CFG_SECTION);
    EXPECT_STREQ(h->section, "b");
}

TEST_F(CfgLookup, FindRunningOffTheEndSetsAtEnd) {
    Handle h = loadText(dir, "[a]\nx=1\n");
    ASSERT_TRUE(h);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "a", "nope"), -1);
    EXPECT_TRUE(h->flags & TWK_CFG_ATEND);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "missing", nullptr), -1);
    EXPECT_TRUE(h->flags & TWK_CFG_ATEND);
    // A find starts over from the top every time.
    EXPECT_EQ(TWK_Cfg_find(h.get(), "a", "x"), 0);
}

TEST_F(CfgLookup, FindWithNullSectionFails) {
    Handle h = loadText(dir, "[a]\n");
    ASSERT_TRUE(h);
    EXPECT_EQ(TWK_Cfg_find(h.get(), nullptr, nullptr), -1);
}

TEST_F(CfgLookup, ReadingASectionStopsAtTheNextHeader) {
    Handle h = loadText(dir, "[other]\nlockfile=no\n[database]\nlockfile=a\n  c\nerrorlogfile=b\n"
                             "[x]\nlockfile=no2\n");
    ASSERT_TRUE(h);
    std::vector<std::pair<std::string, std::string>> keys;
    ASSERT_EQ(TWK_Cfg_find(h.get(), "database", nullptr), 0);
    while (TWK_Cfg_nextentry(h.get()) == 0) {
        const int type = h->flags & TWK_CFG_TYPEMASK;
        if (type == TWK_CFG_SECTION) break;
        if (type == TWK_CFG_KEY) keys.emplace_back(h->id, h->value);
    }
    EXPECT_EQ(keys, (std::vector<std::pair<std::string, std::string>>{{"lockfile", "a"},
                                                                      {"errorlogfile", "b"}}));
}

TEST_F(CfgLookup, EntriesArrayGrowsFrom103ByHalfPlusOne) {
    std::string text;
    for (int i = 0; i < 103; i++) text += "k" + std::to_string(i) + "=v\n";
    Handle h = loadText(dir, text);
    ASSERT_TRUE(h);
    EXPECT_EQ(h->numEntries, 103u);
    EXPECT_EQ(h->maxEntries, 103u);

    h = loadText(dir, text + "one=more\n", "b.ini");
    ASSERT_TRUE(h);
    EXPECT_EQ(h->numEntries, 104u);
    EXPECT_EQ(h->maxEntries, 103u + 51u + 1u);

    std::string more = text;
    for (int i = 0; i < 53; i++) more += "x" + std::to_string(i) + "=v\n";
    h = loadText(dir, more, "c.ini");
    ASSERT_TRUE(h);
    EXPECT_EQ(h->numEntries, 156u);
    EXPECT_EQ(h->maxEntries, 155u + 77u + 1u);
}

TEST_F(CfgLookup, ParsedEntriesPointIntoTheTextAndOwnNothing) {
    Handle h = loadText(dir, "[s] ;c\nk = v ; n\n  w\n; x\n");
    ASSERT_TRUE(h);
    const char *begin = h->text, *end = h->text + h->size;
    for (uint32_t i = 0; i < h->numEntries; i++) {
        const TWK_CfgEntry &e = h->entries[i];
        EXPECT_EQ(e.flags, 0);
        for (const char *s : {e.section, e.id, e.value, e.comment}) {
            if (s) {
                EXPECT_TRUE(s >= begin && s <= end);
            }
        }
    }
}

TEST_F(CfgLookup, DirectoryCannotBeOpened) {
    TWK_CfgHandle *h = nullptr;
    EXPECT_EQ(TWK_Cfg_init(&h, dir.path().c_str()), -1);
    EXPECT_EQ(h, nullptr);
}

TEST_F(CfgLookup, FifoIsRefusedWithoutBlocking) {
    const std::string path = dir / "fifo.ini";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    TWK_CfgHandle *h = nullptr;
    EXPECT_EQ(TWK_Cfg_init(&h, path.c_str()), -1);
    EXPECT_EQ(h, nullptr);
}

TEST_F(CfgLookup, DeviceIsRefused) {
    TWK_CfgHandle *h = nullptr;
    EXPECT_EQ(TWK_Cfg_init(&h, "/dev/zero"), -1);
    EXPECT_EQ(TWK_Cfg_init(&h, "/dev/null"), -1);
    EXPECT_EQ(h, nullptr);
}

TEST_F(CfgLookup, SymbolicLinkToARegularFileIsFollowed) {
    writeFile(dir / "real.ini", "[s]\nk=v\n");
    ASSERT_EQ(symlink("real.ini", (dir / "link.ini").c_str()), 0);
    TWK_CfgHandle *raw = nullptr;
    ASSERT_EQ(TWK_Cfg_init(&raw, (dir / "link.ini").c_str()), 0);
    Handle h(raw);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "s", "k"), 0);
}

TEST_F(CfgLookup, SymbolicLinkToAFifoIsRefused) {
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink("fifo", (dir / "link.ini").c_str()), 0);
    TWK_CfgHandle *h = nullptr;
    EXPECT_EQ(TWK_Cfg_init(&h, (dir / "link.ini").c_str()), -1);
}

} // namespace
