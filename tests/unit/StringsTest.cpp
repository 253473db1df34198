// rtrim and stricmp.
#include "util.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Rtrim, NullAndEmptyGiveNull) {
    EXPECT_EQ(rtrim(nullptr), nullptr);
    char empty[] = "";
    EXPECT_EQ(rtrim(empty), nullptr);
}

TEST(Rtrim, ReturnsTheLastRemainingCharacter) {
    char s[] = "abc \t\n\v\f\r";
    char *last = rtrim(s);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last, s + 2);
    EXPECT_STREQ(s, "abc");
}

TEST(Rtrim, LeavesStringWithoutTrailingSpaceAlone) {
    char s[] = "  a b";
    EXPECT_EQ(rtrim(s), s + 4);
    EXPECT_STREQ(s, "  a b");
}

TEST(Rtrim, AllWhiteSpaceBecomesEmptyAndGivesNull) {
    char s[] = " \t \n";
    EXPECT_EQ(rtrim(s), nullptr);
    EXPECT_STREQ(s, "");
}

TEST(Stricmp, EqualIgnoringCaseIsZero) {
    EXPECT_EQ(stricmp("Database", "dATABASE"), 0);
    EXPECT_EQ(stricmp("", ""), 0);
    EXPECT_EQ(stricmp("lock_file-1", "LOCK_FILE-1"), 0);
}

TEST(Stricmp, FirstDifferenceOfUpperCasedBytes) {
    EXPECT_EQ(stricmp("abc", "abd"), 'C' - 'D');
    EXPECT_EQ(stricmp("b", "A"), 'B' - 'A');
    EXPECT_EQ(stricmp("a[", "A_"), '[' - '_');
}

TEST(Stricmp, ShorterFirstArgumentIsMinusOne) {
    EXPECT_EQ(stricmp("ab", "abcdef"), -1);
    EXPECT_EQ(stricmp("", "x"), -1);
}

TEST(Stricmp, LongerFirstArgumentIsPositive) {
    EXPECT_EQ(stricmp("abc", "ab"), 'C');
    EXPECT_GT(stricmp("x", ""), 0);
}

TEST(Stricmp, BytesAbove127CompareAsUnsigned) {
    EXPECT_EQ(stricmp("\xC3\xA4", "\xC3\xA4"), 0);
    EXPECT_GT(stricmp("\xC3", "a"), 0);
}

} // namespace
