// Merging another handle's sections into a handle.
#include "CfgTestUtil.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

class CfgMerge : public ::testing::Test {
  protected:
    TempDir dir;
    Handle load(std::string_view text, const std::string &name) {
        return loadText(dir, text, name);
    }
};

TEST_F(CfgMerge, UnknownSectionsAreAppendedWholeAndLinesBeforeTheFirstSectionAreNot) {
    Handle dst = load("[a]\nx = 1\n", "dst.ini");
    Handle src = load("top = 0\n;intro\n[b] ;hb\n;lead\ny = 2\n  more\n", "src.ini");
    ASSERT_EQ(cfg_merge(dst.get(), src.get()), 0);
    EXPECT_EQ(dst->dirty, 1);
    EXPECT_EQ(
        entriesOf(dst.get()),
        (std::vector<Entry>{sectionEntry("a"), keyEntry("x", "1"), sectionEntry("b", "hb"),
                            commentEntry("lead"), keyEntry("y", "2"), continuationEntry("more")}));
    for (uint32_t i = 2; i < dst->numEntries; i++) EXPECT_NE(dst->entries[i].flags, 0) << i;
    // The copies are the destination's own: the source can go.
    src.reset();
    EXPECT_STREQ(dst->entries[4].value, "2");
}

TEST_F(CfgMerge, KnownKeysAreReplacedWithTheirGroupsAndNewOnesGoToTheSectionsEnd) {
    Handle dst = load("[A]\nx = 1\n  old cont\n;old note\nkeep = k\n[z]\nq = 9\n", "dst.ini");
    Handle src = load("[a]\n;not merged\nX = 10\n  new cont\nn = new\n;n note\n", "src.ini");
    ASSERT_EQ(cfg_merge(dst.get(), src.get()), 0);
    EXPECT_EQ(
        entriesOf(dst.get()),
        (std::vector<Entry>{sectionEntry("A"), keyEntry("X", "10"), continuationEntry("new cont"),
                            keyEntry("keep", "k"), keyEntry("n", "new"), commentEntry("n note"),
                            sectionEntry("z"), keyEntry("q", "9")}));
}

TEST_F(CfgMerge, EmptySourceOnlyMarksTheDestinationDirty) {
    Handle dst = load("[a]\nx = 1\n", "dst.ini");
    Handle src = load("", "src.ini");
    ASSERT_EQ(cfg_merge(dst.get(), src.get()), 0);
    EXPECT_EQ(dst->dirty, 1);
    EXPECT_EQ(dst->numEntries, 2u);
}

TEST_F(CfgMerge, NullOrUnloadedDestinationFails) {
    Handle src = load("[a]\n", "src.ini");
    EXPECT_EQ(cfg_merge(nullptr, src.get()), -1);
    Handle dst = load("[a]\n", "dst.ini");
    dst->flags = 0;
    EXPECT_EQ(cfg_merge(dst.get(), src.get()), -1);
}

TEST_F(CfgMerge, GrowthMakesRoomForEveryEntryAdded) {
    std::string big = "[s]\n";
    for (int i = 0; i < 500; i++) big += "k" + std::to_string(i) + " = v\n";
    Handle dst = load("[a]\n", "dst.ini");
    Handle src = load(big, "src.ini");
    ASSERT_EQ(dst->maxEntries, 103u);
    ASSERT_EQ(cfg_merge(dst.get(), src.get()), 0);
    EXPECT_EQ(dst->numEntries, 502u);
    // Grown by half plus the whole section in one step.
    EXPECT_EQ(dst->maxEntries, 103u + 51 + 501);
}

TEST_F(CfgMerge, HandleMergedIntoItselfIsUnchanged) {
    Handle h = load("[a]\nx = 1\n", "h.ini");
    const auto before = entriesOf(h.get());
    ASSERT_EQ(cfg_merge(h.get(), h.get()), 0);
    EXPECT_EQ(entriesOf(h.get()), before);
    EXPECT_EQ(h->dirty, 1);
}

TEST_F(CfgMerge, MergedFileCommitsAsOne) {
    Handle dst = load("[a]\nx = 1\n", "dst.ini");
    Handle src = load("[a]\nx = 2\nlonger = 3\n[b]\ny = 4\n", "src.ini");
    ASSERT_EQ(cfg_merge(dst.get(), src.get()), 0);
    ASSERT_EQ(TWK_Cfg_commit(dst.get()), 0);
    EXPECT_EQ(readFile(dir / "dst.ini"), "[a]\nx      = 2\nlonger = 3\n\n[b]\ny = 4\n");
}

} // namespace
