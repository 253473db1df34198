// Writing entries back: the file's layout byte for byte, the digest of the
// bytes written, and the refresh that follows a commit.
#include "CfgTestUtil.h"
#include "md5.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <sys/stat.h>

using namespace testsupport;

namespace {

std::string dataFile(const std::string &name) {
    std::ifstream in(std::string(QM_TEST_DATA_DIR) + "/commit/" + name, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class CfgCommit : public ::testing::Test {
  protected:
    TempDir dir;
    std::string path = dir / "t.ini";
    Handle load(std::string_view text) { return loadText(dir, text); }
    // Marks the handle changed and commits it; returns the file's bytes.
    std::string commitAll(TWK_CfgHandle *h) {
        h->dirty = 1;
        EXPECT_EQ(TWK_Cfg_commit(h), 0);
        return readFile(path);
    }
};

TEST_F(CfgCommit, LayoutOfAWholeFileMatchesTheExpectedBytes) {
    Handle h = load(dataFile("input.ini"));
    EXPECT_EQ(commitAll(h.get()), dataFile("expected.ini"));
}

TEST_F(CfgCommit, KeysAreAlignedInOneColumnPerSection) {
    Handle h = load("[db]\na=1\nlongkey=2\n[x]\nk = v\n");
    EXPECT_EQ(commitAll(h.get()), "[db]\na       = 1\nlongkey = 2\n\n[x]\nk = v\n");
}

TEST_F(CfgCommit, CommentsContinuationsAndKeysBeforeAnySection) {
    Handle h = load("top = 1 ; c\n  cont ;cc\n[s] ; head\nk = v\n;plain\n");
    EXPECT_EQ(commitAll(h.get()), "top = 1\t; c\n  cont\t;cc\n[s]\t; head\nk = v\n;plain\n");
}

// A continuation trimmed to nothing (a vertical tab is white space but not a
// blank) keeps its comment; the layout writes it as "  \t;c", which the reader
// then takes for a comment line: such a file is not carried through unchanged.
TEST_F(CfgCommit, ContinuationTrimmedToNothingIsWrittenAsTwoSpacesAndItsComment) {
    Handle h = load("[a]\n  \v\t;c\n");
    ASSERT_EQ(h->numEntries, 2u);
    EXPECT_STREQ(h->entries[1].value, "");
    EXPECT_STREQ(h->entries[1].comment, "c");
    EXPECT_EQ(commitAll(h.get()), "[a]\n  \t;c\n");
    Handle back = load(readFile(path));
    ASSERT_EQ(back->numEntries, 2u);
    EXPECT_EQ(back->entries[1].value, nullptr);
    EXPECT_STREQ(back->entries[1].comment, "c");
}

TEST_F(CfgCommit, BlankLineGoesBeforeTheCommentBlockThatIntroducesTheNextSection) {
    Handle h =
        load("[a]\nx = 1\n;note of a\n;; about b\n; more about b\n[b]\ny = 2\n;; trailing\n");
    EXPECT_EQ(commitAll(h.get()),
              "[a]\nx = 1\n;note of a\n\n;; about b\n; more about b\n[b]\ny = 2\n;; trailing\n");
}

TEST_F(CfgCommit, SettingAKeyInAMissingSectionShowsABlankLineBeforeTheNewHeader) {
    Handle h = load("[a]\nx = 1\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "b", "y", "2"), 0);
    ASSERT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(readFile(path), "[a]\nx = 1\n\n[b]\ny = 2\n");
}

TEST_F(CfgCommit, EntriesWithNothingToWriteGiveEmptyLines) {
    Handle h = load("[a]\n");
    ASSERT_EQ(TWK_Cfg_storeentry(h.get(), nullptr, "idonly", nullptr, nullptr, 1), 0);
    ASSERT_EQ(TWK_Cfg_storeentry(h.get(), nullptr, "idc", nullptr, "c", 1), 0);
    ASSERT_EQ(TWK_Cfg_storeentry(h.get(), nullptr, nullptr, nullptr, nullptr, 1), 0);
    EXPECT_EQ(commitAll(h.get()), "[a]\n\n;c\n\n");
}

TEST_F(CfgCommit, UnchangedHandleWritesNothing) {
    Handle h = load("[a]\nx=1\n");
    setMtime(path, 1000);
    EXPECT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(readFile(path), "[a]\nx=1\n");
    EXPECT_EQ(mtimeOf(path), 1000);
}

TEST_F(CfgCommit, StoredEntriesAloneWriteNothing) {
    Handle h = load("[a]\nx=1\n");
    ASSERT_EQ(TWK_Cfg_storeentry(h.get(), nullptr, "y", "2", nullptr, 1), 0);
    EXPECT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(readFile(path), "[a]\nx=1\n");
    // They reach the file with the next commit made for another reason.
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "x", "3"), 0);
    ASSERT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(readFile(path), "[a]\nx = 3\ny = 2\n");
}

TEST_F(CfgCommit, DigestIsTheMd5OfTheBytesWrittenAndRefreshKeepsTheEdits) {
    Handle h = load("[a]\nx=1\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "y", "2"), 0);
    ASSERT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(h->dirty, 0);
    EXPECT_EQ(hex(h->digest), md5Hex(readFile(path)));
    const std::vector<Entry> edited = entriesOf(h.get());
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 0);
    EXPECT_EQ(entriesOf(h.get()), edited);
    EXPECT_TRUE(h->entries[2].flags & TWK_CFGE_OWNVALUE) << "the edited entries themselves stay";
}

TEST_F(CfgCommit, FileThatCannotBeOpenedKeepsTheEditsAndDirty) {
    Handle h = load("[a]\nx=1\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "x", "2"), 0);
    std::filesystem::remove(path);
    std::filesystem::create_directory(path); // fopen(..., "w") fails on a directory
    EXPECT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_STREQ(h->entries[1].value, "2");
}

TEST_F(CfgCommit, PieceOfExactly4095BytesIsWritten) {
    Handle h = load("[a]\n");
    const std::string value(4095 - 4, 'v'); // "k = " + value
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "k", value.c_str()), 0);
    ASSERT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(readFile(path), "[a]\nk = " + value + "\n");
}

using CfgCommitDeathTest = CfgCommit;

TEST_F(CfgCommitDeathTest, OverlongPieceEndsTheProcessWithoutTouchingTheFile) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string before = "[a]\nk = v\n";
    Handle h = load(before);
    const std::string value(4095 - 3, 'v'); // one byte too many
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "k", value.c_str()), 0);
    EXPECT_DEATH(TWK_Cfg_commit(h.get()), "");
    EXPECT_EQ(readFile(path), before) << "the file was not truncated";

    Handle c = load("[a]\n");
    ASSERT_EQ(
        TWK_Cfg_storeentry(c.get(), nullptr, nullptr, nullptr, std::string(4095, 'c').c_str(), 1),
        0);
    ASSERT_EQ(TWK_Cfg_write(c.get(), "a", "k", "v"), 0);
    EXPECT_DEATH(TWK_Cfg_commit(c.get()), "");
}

TEST_F(CfgCommit, CommentLineOf4094BytesFits) {
    Handle h = load("[a]\n");
    const std::string comment(4094, 'c'); // ";" + comment = 4095
    ASSERT_EQ(TWK_Cfg_storeentry(h.get(), nullptr, nullptr, nullptr, comment.c_str(), 1), 0);
    EXPECT_EQ(commitAll(h.get()), "[a]\n;" + comment + "\n");
}

} // namespace
