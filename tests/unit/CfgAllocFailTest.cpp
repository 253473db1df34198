// Edits when memory runs out: what was done before the failure stays, and the
// handle stays consistent (its ownership bits match what it holds, so it can
// still be committed and released without a leak or a double free).
//
// The library copies strings with strdup; this program provides its own
// strdup, which fails on request.
#include "CfgTestUtil.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace {
int failAfter = -1; // copies still allowed; -1: never fail
}

extern "C" char *strdup(const char *s) {
    if (failAfter == 0) return nullptr;
    if (failAfter > 0) failAfter--;
    const size_t n = std::strlen(s) + 1;
    char *copy = static_cast<char *>(std::malloc(n));
    if (copy) std::memcpy(copy, s, n);
    return copy;
}

using namespace testsupport;

namespace {

class CfgAllocFail : public ::testing::Test {
  protected:
    TempDir dir;
    void TearDown() override { failAfter = -1; }
    // Commits and reloads: the handle is still usable after the failure.
    void expectUsable(TWK_CfgHandle *h) {
        failAfter = -1;
        EXPECT_EQ(TWK_Cfg_commit(h), 0);
        EXPECT_EQ(h->dirty, 0);
    }
};

TEST_F(CfgAllocFail, ReplacingAValueThatCannotBeCopiedLeavesTheKeyWithoutValue) {
    Handle h = loadText(dir, "[a]\nk = old\n");
    ASSERT_EQ(TWK_Cfg_write(h.get(), "a", "k", "owned"), 0);
    failAfter = 0;
    EXPECT_EQ(TWK_Cfg_write(h.get(), "a", "k", "new"), -1);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_STREQ(h->entries[1].id, "k");
    EXPECT_EQ(h->entries[1].value, nullptr);
    EXPECT_FALSE(h->entries[1].flags & TWK_CFGE_OWNVALUE);
    expectUsable(h.get());
    EXPECT_EQ(readFile(dir / "t.ini"), "[a]\n\n");
}

TEST_F(CfgAllocFail, MissingSectionKeepsItsHeaderWhenTheKeyCannotBeCopied) {
    Handle h = loadText(dir, "[a]\nx = 1\n");
    failAfter = 2; // the header and the id, not the value
    EXPECT_EQ(TWK_Cfg_write(h.get(), "b", "k", "v"), -1);
    ASSERT_EQ(h->numEntries, 4u);
    EXPECT_STREQ(h->entries[2].section, "b");
    EXPECT_STREQ(h->entries[3].id, "k");
    EXPECT_EQ(h->entries[3].value, nullptr);
    EXPECT_EQ(h->entries[3].flags, TWK_CFGE_OWNID);
    EXPECT_EQ(h->dirty, 1);
    expectUsable(h.get());
}

TEST_F(CfgAllocFail, HeaderThatCannotBeCopiedChangesNothing) {
    Handle h = loadText(dir, "[a]\nx = 1\n");
    failAfter = 0;
    EXPECT_EQ(TWK_Cfg_write(h.get(), "b", "k", "v"), -1);
    EXPECT_EQ(h->numEntries, 2u);
    EXPECT_EQ(h->dirty, 0);
}

TEST_F(CfgAllocFail, NewKeySlotIsLeftPartlyFilledWithMatchingBits) {
    Handle h = loadText(dir, "[a]\nx = 1\n[b]\n");
    failAfter = 0; // neither id nor value
    EXPECT_EQ(TWK_Cfg_write(h.get(), "a", "k", "v"), -1);
    ASSERT_EQ(h->numEntries, 4u);
    EXPECT_EQ(h->entries[2].id, nullptr);
    EXPECT_EQ(h->entries[2].value, nullptr);
    EXPECT_EQ(h->entries[2].flags, 0);
    EXPECT_EQ(h->dirty, 1);
    expectUsable(h.get());
}

TEST_F(CfgAllocFail, StoredEntryWhoseCopyFailsReportsIt) {
    Handle h = loadText(dir, "[a]\n");
    failAfter = 1;
    EXPECT_EQ(TWK_Cfg_storeentry(h.get(), "s", "i", "v", "c", 1), -1);
    const TWK_CfgEntry &e = h->entries[h->numEntries - 1];
    EXPECT_STREQ(e.section, "s");
    EXPECT_EQ(e.id, nullptr);
    // _cfg_copyent sets the bit whether or not the copy was made; freeing
    // NULL is harmless.
    EXPECT_EQ(e.flags,
              TWK_CFGE_OWNSECTION | TWK_CFGE_OWNID | TWK_CFGE_OWNVALUE | TWK_CFGE_OWNCOMMENT);
    expectUsable(h.get());
}

TEST_F(CfgAllocFail, MergeWhoseCopiesFailStillLeavesAConsistentHandle) {
    Handle dst = loadText(dir, "[a]\nx = 1\n", "dst.ini");
    Handle src = loadText(dir, "[a]\nx = 2\ny = 3\n[b]\nz = 4\n", "src.ini");
    failAfter = 3;
    EXPECT_EQ(cfg_merge(dst.get(), src.get()), 0);
    EXPECT_EQ(dst->dirty, 1);
    expectUsable(dst.get());
}

} // namespace
