// For generated files: load, commit, load again gives the same entries, and
// a second commit writes the same bytes.
#include "CfgTestUtil.h"

#include <gtest/gtest.h>

#include <random>

using namespace testsupport;

namespace {

// Random text of the file format: sections, keys, continuations, comments,
// quotes, blanks and blank lines, and line ends of every kind.
class FileGenerator {
  public:
    explicit FileGenerator(uint32_t seed) : rng_(seed) {}

    std::string file() {
        std::string out;
        const int lines = pick(0, 60);
        for (int i = 0; i < lines; i++) {
            switch (pick(0, 9)) {
            case 0:
            case 1:
                out +=
                    blanks() + "[" + blanks() + word() + blanks() + "]" + blanks() + maybeComment();
                break;
            case 2:
            case 3:
            case 4:
                out += word() + blanks() + "=" + blanks() + value() + maybeComment();
                break;
            case 5:
                out += " " + blanks() + value() + maybeComment();
                break;
            case 6:
                out += blanks() + ";" + text();
                break;
            case 7:
                out += blanks();
                break;
            default:
                out += word() + "=" + quoted() + maybeComment();
                break;
            }
            out += lineEnd();
        }
        return out;
    }

  private:
    std::mt19937 rng_;
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    std::string blanks() {
        static const char b[] = {' ', '\t', '\f'};
        std::string s;
        for (int n = pick(0, 2); n > 0; n--) s += b[pick(0, 2)];
        return s;
    }
    std::string word() {
        static const char c[] = "abcdefghijKLMNOP0123456789_.-";
        std::string s;
        for (int n = pick(1, 12); n > 0; n--) s += c[pick(0, sizeof c - 2)];
        return s;
    }
    std::string text() {
        static const char c[] = "abc XYZ;=[]\"'#\t-";
        std::string s;
        for (int n = pick(0, 20); n > 0; n--) s += c[pick(0, sizeof c - 2)];
        return s;
    }
    std::string value() {
        std::string s = word();
        for (int n = pick(0, 3); n > 0; n--) s += (pick(0, 1) ? " " : "=") + word();
        return pick(0, 4) ? s : std::string();
    }
    std::string quoted() { return "\"" + word() + " ; " + word() + "\""; }
    std::string maybeComment() { return pick(0, 2) ? std::string() : " ;" + text(); }
    std::string lineEnd() {
        static const char *ends[] = {"\n", "\r\n", "\r", "\n\n", "\x1a"};
        return ends[pick(0, 4)];
    }
};

class CfgRoundTrip : public ::testing::TestWithParam<uint32_t> {
  protected:
    TempDir dir;
};

TEST_P(CfgRoundTrip, LoadCommitLoadKeepsTheEntriesAndASecondCommitTheBytes) {
    FileGenerator gen(GetParam());
    for (int round = 0; round < 50; round++) {
        const std::string text = gen.file();
        Handle h = loadText(dir, text);
        ASSERT_TRUE(h);
        const std::vector<Entry> loaded = entriesOf(h.get());
        h->dirty = 1;
        ASSERT_EQ(TWK_Cfg_commit(h.get()), 0);
        const std::string first = readFile(dir / "t.ini");

        Handle again = loadText(dir, first, "again.ini");
        ASSERT_TRUE(again);
        EXPECT_EQ(entriesOf(again.get()), loaded) << "from:\n" << text << "\nwritten:\n" << first;
        again->dirty = 1;
        ASSERT_EQ(TWK_Cfg_commit(again.get()), 0);
        EXPECT_EQ(readFile(dir / "again.ini"), first);
        if (HasFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, CfgRoundTrip, ::testing::Range(1u, 21u));

} // namespace
