// How the reader turns lines into entries.
#include "CfgTestUtil.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

class CfgParse : public ::testing::Test {
  protected:
    TempDir dir;
    std::vector<Entry> parse(std::string_view text) {
        Handle h = loadText(dir, text);
        if (!h) return {};
        return entriesOf(h.get());
    }
};

TEST_F(CfgParse, EmptyFileOpensWithNoEntriesAndFindsNothing) {
    Handle h = loadText(dir, "");
    ASSERT_TRUE(h);
    EXPECT_EQ(h->numEntries, 0u);
    EXPECT_TRUE(h->flags & TWK_CFG_LOADED);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "database", nullptr), -1);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "", nullptr), -1);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "database", "lockfile"), -1);
    EXPECT_EQ(TWK_Cfg_nextentry(h.get()), -1);
}

TEST_F(CfgParse, SectionNameLosesSurroundingBlanks) {
    EXPECT_EQ(parse("[ db ]\n"), std::vector<Entry>{sectionEntry("db")});
    EXPECT_EQ(parse("[\t my db \f]\n"), std::vector<Entry>{sectionEntry("my db")});
}

TEST_F(CfgParse, EmptyOrUnclosedSectionHeadersProduceNoEntry) {
    EXPECT_EQ(parse("[]\n"), std::vector<Entry>{});
    EXPECT_EQ(parse("[   ]\n"), std::vector<Entry>{});
    EXPECT_EQ(parse("[db\n"), std::vector<Entry>{});
    EXPECT_EQ(parse("[]\n[   ]\n[db\nk=v\n"), std::vector<Entry>{keyEntry("k", "v")});
}

TEST_F(CfgParse, TextAfterSectionHeaderIsDiscarded) {
    EXPECT_EQ(parse("[db] x\n"), std::vector<Entry>{sectionEntry("db")});
    EXPECT_EQ(parse("[db]x;y\n"), std::vector<Entry>{sectionEntry("db")});
}

TEST_F(CfgParse, SemicolonAfterSectionHeaderStartsItsComment) {
    EXPECT_EQ(parse("[db] ;c\n"), std::vector<Entry>{sectionEntry("db", "c")});
    EXPECT_EQ(parse("[db];c d\n"), std::vector<Entry>{sectionEntry("db", "c d")});
}

TEST_F(CfgParse, KeyValueAndCommentAreSplitAtBlankSemicolon) {
    EXPECT_EQ(parse("Key = Value ; note\n"), std::vector<Entry>{keyEntry("Key", "Value", " note")});
}

TEST_F(CfgParse, SemicolonRightAfterACharacterIsPartOfTheValue) {
    EXPECT_EQ(parse("k=a;b\n"), std::vector<Entry>{keyEntry("k", "a;b")});
}

TEST_F(CfgParse, QuotedSemicolonStaysInTheValueWithItsQuotes) {
    EXPECT_EQ(parse("k = 'a ; b' ; c\n"), std::vector<Entry>{keyEntry("k", "'a ; b'", " c")});
    EXPECT_EQ(parse("k = \"a ; b\" ; c\n"), std::vector<Entry>{keyEntry("k", "\"a ; b\"", " c")});
    // A quote is closed only by the same character.
    EXPECT_EQ(parse("k = \"it's ; x\" ; c\n"),
              std::vector<Entry>{keyEntry("k", "\"it's ; x\"", " c")});
}

TEST_F(CfgParse, UnclosedQuoteHidesLaterSemicolons) {
    EXPECT_EQ(parse("k = it's ; not a comment\n"),
              std::vector<Entry>{keyEntry("k", "it's ; not a comment")});
}

TEST_F(CfgParse, SemicolonRightAfterEqualsStartsComment) {
    EXPECT_EQ(parse("k=;c\n"), std::vector<Entry>{keyEntry("k", "", "c")});
}

TEST_F(CfgParse, NothingAfterEqualsGivesEmptyValue) {
    EXPECT_EQ(parse("k =\n"), std::vector<Entry>{keyEntry("k", "")});
    EXPECT_EQ(parse("k =   \n"), std::vector<Entry>{keyEntry("k", "")});
    EXPECT_EQ(parse("k =   "), std::vector<Entry>{keyEntry("k", "")});
}

TEST_F(CfgParse, LineWithoutEqualsIsDropped) {
    EXPECT_EQ(parse("novalue\n"), std::vector<Entry>{});
}

TEST_F(CfgParse, EqualsAtLineStartGivesEmptyKey) {
    EXPECT_EQ(parse("=v\n"), std::vector<Entry>{keyEntry("", "v")});
}

TEST_F(CfgParse, EqualsIsFoundBeforeCommentsAreRecognised) {
    EXPECT_EQ(parse("a ; b = c\n"), std::vector<Entry>{keyEntry("a ; b", "c")});
}

TEST_F(CfgParse, KeyLosesTrailingWhiteSpace) {
    EXPECT_EQ(parse("key\t \v= v\n"), std::vector<Entry>{keyEntry("key", "v")});
}

TEST_F(CfgParse, IndentedLineAfterKeyIsContinuation) {
    Handle h = loadText(dir, "[s]\nk = v\n  more\n");
    ASSERT_TRUE(h);
    EXPECT_EQ(entriesOf(h.get()), (std::vector<Entry>{sectionEntry("s"), keyEntry("k", "v"),
                                                      continuationEntry("more")}));
    ASSERT_EQ(TWK_Cfg_find(h.get(), "s", "k"), 0);
    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_EQ(h->flags & TWK_CFG_TYPEMASK, TWK_CFG_CONTINUATION);
    EXPECT_EQ(h->id, nullptr);
    EXPECT_STREQ(h->value, "more");
}

TEST_F(CfgParse, FindPassesOverContinuationLines) {
    Handle h = loadText(dir, "[s]\n  more\nk = v\n");
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_find(h.get(), "s", "k"), 0);
    EXPECT_STREQ(h->id, "k");
    EXPECT_STREQ(h->value, "v");
    EXPECT_EQ(TWK_Cfg_find(h.get(), "s", "more"), -1);
}

TEST_F(CfgParse, ContinuationCarriesItsOwnComment) {
    EXPECT_EQ(parse("k = v\n\tnext ; c\n"),
              (std::vector<Entry>{keyEntry("k", "v"), continuationEntry("next", " c")}));
}

TEST_F(CfgParse, IndentedHeaderAndIndentedCommentKeepTheirKind) {
    EXPECT_EQ(parse("  [s]\n  ; x\n"), (std::vector<Entry>{sectionEntry("s"), commentEntry(" x")}));
}

TEST_F(CfgParse, CommentLineKeepsEverythingAfterSemicolon) {
    EXPECT_EQ(
        parse(";; two\n;\n; a = b\n"),
        (std::vector<Entry>{commentEntry("; two"), commentEntry(""), commentEntry(" a = b")}));
}

TEST_F(CfgParse, UnterminatedLastLineKeepsTrailingBlanks) {
    EXPECT_EQ(parse("k = v   "), std::vector<Entry>{keyEntry("k", "v   ")});
}

TEST_F(CfgParse, TerminatedLastLineLosesTrailingBlanks) {
    EXPECT_EQ(parse("k = v   \n"), std::vector<Entry>{keyEntry("k", "v")});
    EXPECT_EQ(parse("k = v \t\f\r\n"), std::vector<Entry>{keyEntry("k", "v")});
}

TEST_F(CfgParse, CrLfLoneCrAndCtrlZAllEndLines) {
    const std::vector<Entry> expected{sectionEntry("s"), keyEntry("a", "1"), keyEntry("b", "2"),
                                      keyEntry("c", "3")};
    EXPECT_EQ(parse("[s]\r\na=1\r\nb=2\r\nc=3\r\n"), expected);
    EXPECT_EQ(parse("[s]\ra=1\rb=2\rc=3\r"), expected);
    EXPECT_EQ(parse("[s]\x1a"
                    "a=1\x1a"
                    "b=2\x1a"
                    "c=3\x1a"),
              expected);
    EXPECT_EQ(parse("[s]\r\n\r\n\n\x1a\r"
                    "a=1\n\n\nb=2\r\r\rc=3"),
              expected);
}

TEST_F(CfgParse, UnterminatedBlankLastLineIsEmptyContinuation) {
    Handle h = loadText(dir, "[s]\nk=v\n  \t ");
    ASSERT_TRUE(h);
    EXPECT_EQ(entriesOf(h.get()),
              (std::vector<Entry>{sectionEntry("s"), keyEntry("k", "v"), continuationEntry("")}));
    ASSERT_EQ(TWK_Cfg_find(h.get(), "s", "k"), 0);
    ASSERT_EQ(TWK_Cfg_nextentry(h.get()), 0);
    EXPECT_EQ(h->flags & TWK_CFG_TYPEMASK, TWK_CFG_CONTINUATION);
    EXPECT_STREQ(h->value, "");
}

TEST_F(CfgParse, TerminatedBlankLastLineProducesNothing) {
    EXPECT_EQ(parse("[s]\nk=v\n  \t \n"),
              (std::vector<Entry>{sectionEntry("s"), keyEntry("k", "v")}));
}

TEST_F(CfgParse, KeysOfDuplicateSectionsAreFoundOnlyInTheFirst) {
    Handle h = loadText(dir, "[db]\na=1\n[other]\nb=2\n[DB]\nb=3\na=4\n");
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_find(h.get(), "db", "a"), 0);
    EXPECT_STREQ(h->value, "1");
    EXPECT_EQ(TWK_Cfg_find(h.get(), "db", "b"), -1);
}

TEST_F(CfgParse, FirstOfDuplicateKeysWins) {
    Handle h = loadText(dir, "[db]\nk=first\nK=second\n");
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_find(h.get(), "db", "k"), 0);
    EXPECT_STREQ(h->value, "first");
}

TEST_F(CfgParse, ByteOrderMarkTurnsHeaderIntoDroppedKeyLine) {
    Handle h = loadText(dir, "\xEF\xBB\xBF[database]\nlockfile=x.lck\n");
    ASSERT_TRUE(h);
    EXPECT_EQ(entriesOf(h.get()), std::vector<Entry>{keyEntry("lockfile", "x.lck")});
    EXPECT_EQ(TWK_Cfg_find(h.get(), "database", nullptr), -1);
    EXPECT_EQ(TWK_Cfg_find(h.get(), "database", "lockfile"), -1);
}

TEST_F(CfgParse, SectionAndKeyMatchingIgnoresCase) {
    Handle h = loadText(dir, "[DATABASE]\nLockFile = a.lck\n");
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_find(h.get(), "database", "lockfile"), 0);
    EXPECT_STREQ(h->id, "LockFile");
    EXPECT_STREQ(h->value, "a.lck");
    EXPECT_EQ(TWK_Cfg_find(h.get(), "Database", "LOCKFILE"), 0);
}

TEST_F(CfgParse, Utf8BytesPassThroughUntouched) {
    EXPECT_EQ(
        parse("[Größe]\nname = Ünïcødé ; Kommentär\n"),
        (std::vector<Entry>{sectionEntry("Größe"), keyEntry("name", "Ünïcødé", " Kommentär")}));
}

TEST_F(CfgParse, NulByteEndsItsLineAndTheRestStillLoads) {
    using namespace std::string_literals;
    Handle h = loadText(dir, "[s]\na=1\0b=2\n\0\0c=3\0"s);
    ASSERT_TRUE(h);
    EXPECT_EQ(entriesOf(h.get()), (std::vector<Entry>{sectionEntry("s"), keyEntry("a", "1"),
                                                      keyEntry("b", "2"), keyEntry("c", "3")}));
}

TEST_F(CfgParse, FileOfOnlyNulBytesLoadsEmpty) {
    Handle h = loadText(dir, std::string(4096, '\0'));
    ASSERT_TRUE(h);
    EXPECT_EQ(h->numEntries, 0u);
    EXPECT_EQ(h->size, 4096);
}

TEST_F(CfgParse, VeryLongLineIsOneEntry) {
    const std::string value(3 * 1024 * 1024, 'x');
    EXPECT_EQ(parse("k = " + value + "\n"), std::vector<Entry>{keyEntry("k", value)});
}

} // namespace
