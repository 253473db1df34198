// Editing entries in memory: setting, adding and deleting keys and sections,
// and storing raw entries.
#include "CfgTestUtil.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

class CfgEdit : public ::testing::Test {
  protected:
    TempDir dir;
    Handle load(std::string_view text) { return loadText(dir, text); }
};

TEST_F(CfgEdit, RejectsNullAndUnloadedHandlesAndNullSection) {
    EXPECT_EQ(TWK_Cfg_write(nullptr, "s", "k", "v"), -1);
    EXPECT_EQ(TWK_Cfg_storeentry(nullptr, "s", "k", "v", nullptr, 1), -1);
    EXPECT_EQ(TWK_Cfg_commit(nullptr), -1);
    EXPECT_EQ(cfg_merge(nullptr, nullptr), -1);
    Handle h = load("[s]\nk=v\n");
    EXPECT_EQ(TWK_Cfg_write(h.get(), nullptr, "k", "v"), -1);
    EXPECT_EQ(h->dirty, 0);

    // A handle whose file vanished and was refreshed is no longer loaded.
    std::filesystem::remove(dir / "t.ini");
    h->flags = 0;
    EXPECT_EQ(TWK_Cfg_write(h.get(), "s", "k", "v"), -1);
    EXPECT_EQ(TWK_Cfg_storeentry(h.get(), "s", nullptr, nullptr, nullptr, 0), -1);
    EXPECT_EQ(TWK_Cfg_commit(h.get()), -1);
}

TEST_F(CfgEdit, SettingAnExistingKeyReplacesItsValueOnly) {
    Handle h = load("[S]\nKey = old ; note\nother = x\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "s", "KEY", "new"), 0);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_EQ(entriesOf(h.get()),
              (std::vector<Entry>{sectionEntry("S"), keyEntry("Key", "new", " note"),
                                  keyEntry("other", "x")}));
    EXPECT_TRUE(h->entries[1].flags & TWK_CFGE_OWNVALUE);
    EXPECT_FALSE(h->entries[1].flags & TWK_CFGE_OWNID);
    // Set again: the owned value is replaced (ASan sees any leak).
    ASSERT_EQ(TWK_Cfg_write(h.get(), "s", "key", "newer"), 0);
    EXPECT_STREQ(h->entries[1].value, "newer");
}

TEST_F(CfgEdit, SettingAKeyInAMissingSectionAppendsBoth) {
    Handle h = load("[a]\nx = 1\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "b", "y", "2"), 0);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_EQ(entriesOf(h.get()), (std::vector<Entry>{sectionEntry("a"), keyEntry("x", "1"),
                                                      sectionEntry("b"), keyEntry("y", "2")}));
    EXPECT_EQ(h->entries[2].flags, TWK_CFGE_OWNSECTION);
    EXPECT_EQ(h->entries[3].flags, TWK_CFGE_OWNID | TWK_CFGE_OWNVALUE);
}

TEST_F(CfgEdit, NewKeyGoesAfterTheSectionsTrailingCommentsRightBeforeTheNextHeader) {
    Handle h = load("[a]\nx = 1\n;; about b\n[b]\nz = 3\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "y", "2"), 0);
    EXPECT_EQ(entriesOf(h.get()),
              (std::vector<Entry>{sectionEntry("a"), keyEntry("x", "1"), commentEntry("; about b"),
                                  keyEntry("y", "2"), sectionEntry("b"), keyEntry("z", "3")}));
    // In the last section the key is appended at the very end.
    ASSERT_EQ(TWK_Cfg_write(h.get(), "B", "w", "4"), 0);
    EXPECT_EQ(entriesOf(h.get()).back(), keyEntry("w", "4"));
}

TEST_F(CfgEdit, DeletingWhatIsNotThereSucceedsAndLeavesDirtyAlone) {
    Handle h = load("[a]\nx = 1\n");
    EXPECT_EQ(TWK_Cfg_write(h.get(), "a", "nokey", nullptr), 0);
    EXPECT_EQ(TWK_Cfg_write(h.get(), "nosection", nullptr, nullptr), 0);
    EXPECT_EQ(TWK_Cfg_write(h.get(), "nosection", "k", nullptr), 0);
    EXPECT_EQ(TWK_Cfg_write(h.get(), "nosection", nullptr, "v"), 0);
    EXPECT_EQ(h->dirty, 0);
    EXPECT_EQ(h->numEntries, 2u);
}

// Comments written ";;", "; " or ";" are dividers that introduce what
// follows; ";text" is a note on what precedes.
TEST_F(CfgEdit, DeletingASectionTakesItsLeadingDividersAndLeavesItsTrailingOnes) {
    Handle h = load("[a]\nx = 1\n;note of a\n;; about b\n;\n[b]\ny = 2\n"
                    ";note of b\n;; about c\n[c]\nz = 3\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "B", nullptr, nullptr), 0);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_EQ(
        entriesOf(h.get()),
        (std::vector<Entry>{sectionEntry("a"), keyEntry("x", "1"), commentEntry("note of a"),
                            commentEntry("; about c"), sectionEntry("c"), keyEntry("z", "3")}));
}

TEST_F(CfgEdit, DeletingTheFirstSectionTakesTheFilesLeadingDividers) {
    Handle h = load(";; top\n[a]\nx = 1\n[b]\ny = 2\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", nullptr, nullptr), 0);
    EXPECT_EQ(entriesOf(h.get()), (std::vector<Entry>{sectionEntry("b"), keyEntry("y", "2")}));
}

TEST_F(CfgEdit, DeletingAKeyTakesItsDividerCommentsButNotItsContinuations) {
    Handle h =
        load("[a]\nfirst = 0\n;note on first\n;; about x\n;\nx = 1\n  more\n  ; inline\ny = 2\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "X", nullptr), 0);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_EQ(entriesOf(h.get()),
              (std::vector<Entry>{sectionEntry("a"), keyEntry("first", "0"),
                                  commentEntry("note on first"), continuationEntry("more"),
                                  commentEntry(" inline"), keyEntry("y", "2")}));
}

TEST_F(CfgEdit, OnlyTheFirstMatchingSectionAndKeyAreTouched) {
    Handle h = load("[a]\nk = 1\nk = 2\n[A]\nk = 3\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "k", "x"), 0);
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "K", nullptr), 0);
    EXPECT_EQ(entriesOf(h.get()), (std::vector<Entry>{sectionEntry("a"), keyEntry("k", "2"),
                                                      sectionEntry("A"), keyEntry("k", "3")}));
}

TEST_F(CfgEdit, DeletingFreesOwnedStringsAndClearsCursorFieldsPointingAtThem) {
    Handle h = load("[a]\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "k", "v"), 0);
    ASSERT_EQ(TWK_Cfg_find(h.get(), "a", "k"), 0);
    ASSERT_STREQ(h->value, "v");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "k", nullptr), 0);
    EXPECT_EQ(h->id, nullptr);
    EXPECT_EQ(h->value, nullptr);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "a", "k"), -1);
}

TEST_F(CfgEdit, StoreEntryWithoutCopyKeepsTheCallersPointers) {
    Handle h = load("[a]\n");
    static const char section[] = "raw", comment[] = "c";
    ASSERT_EQ(TWK_Cfg_storeentry(h.get(), section, nullptr, nullptr, comment, 0), 0);
    const TWK_CfgEntry &e = h->entries[h->numEntries - 1];
    EXPECT_EQ(e.section, section);
    EXPECT_EQ(e.comment, comment);
    EXPECT_EQ(e.flags, 0);
    EXPECT_EQ(h->dirty, 0) << "storing does not make the handle dirty";
}

TEST_F(CfgEdit, StoreEntryWithCopyOwnsCopiesOfTheNonNullFields) {
    Handle h = load("[a]\n");
    std::string id = "k", value = "v";
    ASSERT_EQ(TWK_Cfg_storeentry(h.get(), nullptr, id.c_str(), value.c_str(), nullptr, 1), 0);
    const TWK_CfgEntry &e = h->entries[h->numEntries - 1];
    EXPECT_NE(e.id, id.c_str());
    EXPECT_STREQ(e.id, "k");
    EXPECT_STREQ(e.value, "v");
    EXPECT_EQ(e.section, nullptr);
    EXPECT_EQ(e.comment, nullptr);
    EXPECT_EQ(e.flags, TWK_CFGE_OWNID | TWK_CFGE_OWNVALUE);
    EXPECT_EQ(h->dirty, 0);
}

TEST_F(CfgEdit, EditsGrowTheArrayByTheReadersRule) {
    Handle h = load("[a]\n");
    ASSERT_EQ(h->maxEntries, 103u);
    for (int i = 0; i < 102; i++)
        ASSERT_EQ(TWK_Cfg_storeentry(h.get(), nullptr, nullptr, nullptr, "c", 0), 0);
    EXPECT_EQ(h->maxEntries, 103u);
    ASSERT_EQ(TWK_Cfg_storeentry(h.get(), nullptr, nullptr, nullptr, "c", 0), 0);
    EXPECT_EQ(h->maxEntries, 103u + 51 + 1);
}

TEST_F(CfgEdit, RefreshOfADirtyHandleDropsTheEdits) {
    Handle h = load("[a]\nk = 1\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "k", "2"), 0);
    EXPECT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(h->dirty, 0);
    EXPECT_EQ(entriesOf(h.get()), (std::vector<Entry>{sectionEntry("a"), keyEntry("k", "1")}));
}

} // namespace
