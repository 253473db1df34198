// Loading files large enough to be digested beside the parser: the entries
// are those of the bytes read, wherever a line falls against the digest's
// chunks; the digest is the MD5 of exactly those bytes; and a file that is
// truncated, grown or replaced between or during loads gives one content's
// entries with that content's digest, or the read failure, never a mix.
#include "CfgTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <unistd.h>

using namespace testsupport;

namespace {

// Lines of every kind, of lengths from 1 to about 300 bytes, so that line
// ends fall at every offset of the 64 KiB pieces the digest goes by: keys,
// blank-padded keys, quoted values holding ';', inline comments, comment
// lines, section headers, continuation lines, blank lines and CRLF ends.
std::string mixedText(size_t atLeast, unsigned seed) {
    std::mt19937 gen(seed);
    auto pick = [&](int n) { return static_cast<int>(gen() % static_cast<unsigned>(n)); };
    auto word = [&](int longest) {
        std::string w(static_cast<size_t>(1 + pick(longest)), 'x');
        for (char &c : w) c = static_cast<char>('a' + pick(26));
        return w;
    };
    std::string out;
    int n = 0;
    while (out.size() < atLeast) {
        const std::string eol = pick(10) == 0 ? "\r\n" : "\n";
        switch (pick(9)) {
        case 0:
            out += "[" + word(40) + "_" + std::to_string(n) + "]" + eol;
            break;
        case 1:
            out += ";" + word(250) + eol;
            break;
        case 2:
            out += "k" + std::to_string(n) + " = " + word(200) + " ; " + word(60) + eol;
            break;
        case 3:
            out += "k" + std::to_string(n) + "=\"" + word(30) + " ; " + word(30) + "\"" + eol;
            break;
        case 4:
            out += "    " + word(120) + eol;
            break;
        case 5:
            out += eol;
            break;
        case 6:
            out += "k" + std::to_string(n) + "   =   " + word(280) + "   \t" + eol;
            break;
        case 7:
            out += "[ " + word(10) + " ] ; " + word(20) + eol;
            break;
        default:
            out += "k" + std::to_string(n) + "=" + std::to_string(n) + eol;
            break;
        }
        n++;
    }
    return out;
}

// The entries of text loaded in pieces smaller than the size from which a
// load digests beside the parser, cut at line ends: the format is read line
// by line, so these are the entries the whole must give.
std::vector<Entry> entriesInPieces(const TempDir &dir, const std::string &text) {
    constexpr size_t kPiece = 256 * 1024;
    std::vector<Entry> all;
    size_t at = 0;
    while (at < text.size()) {
        size_t cut = std::min(text.size(), at + kPiece);
        if (cut < text.size()) cut = text.rfind('\n', cut) + 1;
        Handle h = loadText(dir, std::string_view(text).substr(at, cut - at), "piece.ini");
        if (!h) return {};
        const std::vector<Entry> piece = entriesOf(h.get());
        all.insert(all.end(), piece.begin(), piece.end());
        at = cut;
    }
    return all;
}

TEST(CfgLargeFile, EntriesAreThoseOfItsPiecesLoadedAlone) {
    TempDir dir;
    for (unsigned seed : {1u, 2u, 3u}) {
        const std::string text = mixedText(size_t{3} << 20, seed);
        Handle h = loadText(dir, text, "large.ini");
        ASSERT_TRUE(h);
        const std::vector<Entry> expected = entriesInPieces(dir, text);
        ASSERT_GT(expected.size(), 10000u);
        EXPECT_EQ(entriesOf(h.get()), expected) << "seed " << seed;
    }
}

TEST(CfgLargeFile, ALastLineWithoutItsEndKeepsItsBlanksAsInASmallFile) {
    TempDir dir;
    std::string text = mixedText(size_t{2} << 20, 7);
    text += "last = value   ";
    Handle h = loadText(dir, text, "large.ini");
    ASSERT_TRUE(h);
    const TWK_CfgEntry &last = h->entries[h->numEntries - 1];
    ASSERT_NE(last.id, nullptr);
    EXPECT_STREQ(last.id, "last");
    EXPECT_STREQ(last.value, "value   ");
}

TEST(CfgLargeFile, DigestIsTheMd5OfTheBytesRead) {
    TempDir dir;
    for (size_t size : {size_t{1} << 20, (size_t{1} << 20) + 1, size_t{5} << 20}) {
        std::string text = mixedText(size, static_cast<unsigned>(size));
        text.resize(size);
        Handle h = loadText(dir, text, "large.ini");
        ASSERT_TRUE(h);
        EXPECT_EQ(hex(h->digest), md5Hex(text)) << size << " bytes";
        EXPECT_EQ(h->size, static_cast<int64_t>(size));
    }
}

// Between loads: a refresh gives the new content's entries and digest.
TEST(CfgLargeFile, TruncatedGrownAndReplacedBetweenLoads) {
    TempDir dir;
    const std::string path = dir / "large.ini";
    const std::string a = mixedText(size_t{2} << 20, 11), b = mixedText(size_t{3} << 20, 12);
    writeFile(path, a);
    Handle h = openFile(path);
    ASSERT_TRUE(h);
    const std::vector<Entry> entriesA = entriesOf(h.get());

    // Replaced by rename.
    writeFile(dir / "next.ini", b);
    ASSERT_EQ(std::rename((dir / "next.ini").c_str(), path.c_str()), 0);
    ASSERT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(hex(h->digest), md5Hex(b));
    EXPECT_EQ(entriesOf(h.get()), entriesInPieces(dir, b));

    // Truncated to nothing.
    ASSERT_EQ(truncate(path.c_str(), 0), 0);
    setMtime(path, 1000000000);
    ASSERT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(h->numEntries, 0u);
    EXPECT_EQ(hex(h->digest), md5Hex(""));

    // Grown back, larger than any buffer of the last load.
    writeFile(path, a + b);
    ASSERT_EQ(TWK_Cfg_refresh(h.get()), 1);
    EXPECT_EQ(hex(h->digest), md5Hex(a + b));
    std::vector<Entry> both = entriesA;
    const std::vector<Entry> entriesB = entriesInPieces(dir, b);
    both.insert(both.end(), entriesB.begin(), entriesB.end());
    EXPECT_EQ(entriesOf(h.get()), both);
}

// During loads: another thread replaces the file by rename, truncates it to
// nothing and grows it (with NUL bytes, which end lines) while loads run.
// Every load that succeeds gives the entries of one of those contents with
// that content's digest.
TEST(CfgLargeFile, ChangedDuringLoadsGivesOneContentWithItsDigest) {
    TempDir dir;
    const std::string path = dir / "large.ini";
    const std::string a = mixedText(size_t{2} << 20, 21), b = mixedText((size_t{3} << 20) / 2, 22);
    const std::string aGrown = a + std::string(size_t{100} << 10, '\0');
    std::map<std::string, std::vector<Entry>> known; // digest -> entries
    for (const std::string *text : {&a, &b, &aGrown}) {
        Handle h = loadText(dir, *text, "known.ini");
        ASSERT_TRUE(h);
        known[hex(h->digest)] = entriesOf(h.get());
    }
    known[md5Hex("")] = {};
    writeFile(path, a);

    std::atomic<bool> stop{false};
    std::thread writer([&] {
        int round = 0;
        while (!stop) {
            const std::string next = dir / ("next" + std::to_string(round++ % 2) + ".ini");
            switch (round % 4) {
            case 0:
                writeFile(next, a);
                std::rename(next.c_str(), path.c_str());
                break;
            case 1:
                (void)truncate(path.c_str(), static_cast<off_t>(aGrown.size()));
                break;
            case 2:
                writeFile(next, b);
                std::rename(next.c_str(), path.c_str());
                break;
            default:
                (void)truncate(path.c_str(), 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    int loads = 0, failures = 0;
    std::map<std::string, int> seen;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (std::chrono::steady_clock::now() < until) {
        TWK_CfgHandle *raw = nullptr;
        if (TWK_Cfg_init(&raw, path.c_str()) != 0) {
            failures++;
            continue;
        }
        Handle h(raw);
        loads++;
        const std::string digest = hex(h->digest);
        const auto it = known.find(digest);
        if (it == known.end()) {
            ADD_FAILURE() << "a load gave a digest of no content the file held: " << digest << ", "
                          << h->numEntries << " entries";
            break;
        }
        seen[digest]++;
        // Comparing every entry of every load would take most of the time:
        // the count, and the whole of a few.
        ASSERT_EQ(h->numEntries, it->second.size());
        if (loads % 16 == 0) {
            ASSERT_EQ(entriesOf(h.get()), it->second);
        }
    }
    stop = true;
    writer.join();
    std::printf("%d loads, %d failed reads, %zu contents seen\n", loads, failures, seen.size());
    EXPECT_GT(loads, 0);
}

} // namespace
