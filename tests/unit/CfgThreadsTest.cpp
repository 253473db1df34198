// One handle shared by several threads: the handle's own mutex serialises
// the calls; reading the current-entry fields is the caller's to guard.
#include "CfgTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

using namespace testsupport;

namespace {

// Rewrites the file with a new value by rename, so readers never see it
// half written, and with a new time so a refresh notices.
void rewrite(const TempDir &dir, const std::string &path, int generation) {
    const std::string tmp = dir / "next.ini";
    writeFile(tmp, "[s]\nk = v" + std::to_string(generation) + "\n; pad\n[t]\nj=1\n");
    setMtime(tmp, 1000000000 + generation);
    ASSERT_EQ(std::rename(tmp.c_str(), path.c_str()), 0);
}

TEST(CfgThreads, ConcurrentRefreshAndLookupStayConsistent) {
    TempDir dir;
    const std::string path = dir / "c.ini";
    rewrite(dir, path, 0);
    Handle h = openFile(path);
    ASSERT_TRUE(h);

    std::atomic<bool> stop{false};
    std::atomic<int> badFind{0}, badRefresh{0}, reloads{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; t++) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                const int r = TWK_Cfg_refresh(h.get());
                if (r == 1) reloads++;
                if (r < 0) badRefresh++;
                if (TWK_Cfg_find(h.get(), "s", "k") != 0) badFind++;
                if (TWK_Cfg_find(h.get(), "t", nullptr) != 0) badFind++;
                if (TWK_Cfg_rewind(h.get()) != 0) badFind++;
                while (TWK_Cfg_nextentry(h.get()) == 0) {
                }
            }
        });
    }
    for (int g = 1; g <= 300; g++) rewrite(dir, path, g);
    stop = true;
    for (auto &t : readers) t.join();

    EXPECT_EQ(badFind.load(), 0);
    EXPECT_EQ(badRefresh.load(), 0);
    EXPECT_GT(reloads.load(), 0);
    ASSERT_EQ(TWK_Cfg_refresh(h.get()) >= 0, true);
    ASSERT_EQ(TWK_Cfg_find(h.get(), "s", "k"), 0);
    EXPECT_STREQ(h->value, "v300");
}

// Handles of their own in several threads, each loading and letting go of
// large files over and over: the blocks a load leaves for the next one pass
// between threads, and each load still holds its own file's entries.
TEST(CfgThreads, LargeLoadsInSeveralThreadsEachGetTheirOwnFile) {
    TempDir dir;
    std::vector<std::string> paths, digests;
    std::vector<uint32_t> counts;
    for (int t = 0; t < 4; t++) {
        std::string text;
        // Sizes apart, so that blocks of every size change hands.
        for (int i = 0; text.size() < (size_t{1} << 20) + (size_t(t) << 19); i++)
            text += "[s" + std::to_string(i) + "]\nk = " + std::to_string(t * 1000000 + i) +
                    " ; note\n";
        paths.push_back(dir / ("f" + std::to_string(t) + ".ini"));
        writeFile(paths.back(), text);
        digests.push_back(md5Hex(text));
        Handle h = openFile(paths.back());
        ASSERT_TRUE(h);
        counts.push_back(h->numEntries);
    }
    std::atomic<int> wrong{0};
    std::vector<std::thread> loaders;
    for (int t = 0; t < 4; t++) {
        loaders.emplace_back([&, t] {
            for (int round = 0; round < 12; round++) {
                TWK_CfgHandle *h = nullptr;
                if (TWK_Cfg_init(&h, paths[size_t(t)].c_str()) != 0) {
                    wrong++;
                    continue;
                }
                if (hex(h->digest) != digests[size_t(t)] || h->numEntries != counts[size_t(t)] ||
                    TWK_Cfg_find(h, "s7", "k") != 0 ||
                    std::string(h->value) != std::to_string(t * 1000000 + 7))
                    wrong++;
                TWK_Cfg_done(h);
            }
        });
    }
    for (auto &t : loaders) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(CfgThreads, CallersGuardingFieldReadsSeeWholeValues) {
    TempDir dir;
    const std::string path = dir / "c.ini";
    rewrite(dir, path, 0);
    Handle h = openFile(path);
    ASSERT_TRUE(h);

    std::mutex callerLock;
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([&] {
            while (!stop.load()) {
                std::lock_guard<std::mutex> guard(callerLock);
                TWK_Cfg_refresh(h.get());
                if (TWK_Cfg_find(h.get(), "s", "k") != 0) {
                    bad++;
                    continue;
                }
                const std::string v = h->value;
                if (v.size() < 2 || v[0] != 'v' ||
                    v.find_first_not_of("0123456789", 1) != std::string::npos)
                    bad++;
            }
        });
    }
    for (int g = 1; g <= 200; g++) rewrite(dir, path, g);
    stop = true;
    for (auto &t : threads) t.join();
    EXPECT_EQ(bad.load(), 0);
}

// Writers, deleters, mergers, committers and readers on one handle: every
// call runs whole under the handle's lock, so the entries never tear and the
// file always holds what one commit wrote.
TEST(CfgThreads, ConcurrentEditsAndCommitsAreSerialised) {
    TempDir dir;
    const std::string path = dir / "e.ini";
    writeFile(path, "[s]\nk = 0\n");
    writeFile(dir / "src.ini", "[m]\nx = 1\n[s]\nk = merged\n");
    Handle h = openFile(path), src = openFile(dir / "src.ini");
    ASSERT_TRUE(h && src);

    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; i++) {
                const std::string key = "k" + std::to_string(t) + "_" + std::to_string(i % 7);
                const std::string value = std::to_string(i);
                if (TWK_Cfg_write(h.get(), "s", key.c_str(), value.c_str()) != 0) failures++;
                if (i % 3 == 0 && TWK_Cfg_write(h.get(), "s", key.c_str(), nullptr) != 0)
                    failures++;
                if (i % 50 == 0 && TWK_Cfg_write(h.get(), "gone", "a", "b") != 0) failures++;
                if (i % 50 == 25 && TWK_Cfg_write(h.get(), "gone", nullptr, nullptr) != 0)
                    failures++;
                if (t == 0 && i % 40 == 0 && cfg_merge(h.get(), src.get()) != 0) failures++;
                if (i % 20 == 0 && TWK_Cfg_commit(h.get()) != 0) failures++;
                if (TWK_Cfg_find(h.get(), "s", nullptr) != 0) failures++;
            }
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);

    ASSERT_EQ(TWK_Cfg_write(h.get(), "s", "final", "yes"), 0);
    ASSERT_EQ(TWK_Cfg_commit(h.get()), 0);
    Handle check = openFile(path);
    ASSERT_TRUE(check);
    EXPECT_EQ(entriesOf(check.get()), entriesOf(h.get()));
}

// Two handles on one file, committing from two threads while a third reads
// the file: each commit replaces the file whole, so every read loads a file
// that one of them wrote, and no temporary file is left behind.
TEST(CfgThreads, CommitsOfTwoHandlesToOneFileAlwaysLeaveAWholeFile) {
    TempDir dir;
    const std::string path = dir / "shared.ini";
    writeFile(path, "[s]\nowner = none\n[t]\nlast = yes\n");
    Handle a = openFile(path), b = openFile(path);
    ASSERT_TRUE(a && b);

    std::atomic<bool> stop{false};
    std::atomic<int> torn{0}, reads{0}, notSaved{0};
    std::thread reader([&] {
        while (!stop.load()) {
            TWK_CfgHandle *r = nullptr;
            if (TWK_Cfg_init(&r, path.c_str()) != 0 || TWK_Cfg_find(r, "s", "owner") != 0 ||
                TWK_Cfg_find(r, "t", "last") != 0)
                torn++;
            TWK_Cfg_done(r);
            reads++;
        }
    });
    std::vector<std::thread> writers;
    for (TWK_CfgHandle *h : {a.get(), b.get()}) {
        writers.emplace_back([&, h] {
            for (int i = 0; i < 200; i++) {
                const std::string v = std::to_string(reinterpret_cast<uintptr_t>(h)) + "-" +
                                      std::to_string(i) + std::string(i % 50, 'x');
                if (TWK_Cfg_write(h, "s", "owner", v.c_str()) != 0 || TWK_Cfg_commit(h) != 0 ||
                    h->dirty)
                    notSaved++;
            }
        });
    }
    for (auto &t : writers) t.join();
    stop = true;
    reader.join();

    EXPECT_EQ(notSaved.load(), 0);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_GT(reads.load(), 0);
    size_t files = 0;
    for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator(dir.path())) files++;
    EXPECT_EQ(files, 1u) << "no temporary file is left behind";
}

} // namespace
