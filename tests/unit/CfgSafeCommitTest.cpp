// A commit never loses the file: the new text replaces the file whole or not
// at all, with real full disks (a file-size limit, a full tmpfs), real links,
// permission bits, owners, readers in another process, and directories the
// user may not write.
#include "CfgTestUtil.h"
#include "Unprivileged.h"
#include "md5.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <new>
#include <grp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

// Six lines in the commit's own layout, and what a commit writes after the
// port of [database] is set to 2222.
const std::string kSixLines = "[database]\n"
                              "lockfile     = q.lck\n"
                              "errorlogfile = q.log\n"
                              "port         = 1112\n"
                              "[http]\n"
                              "port = 8890\n";
const std::string kEdited = "[database]\n"
                            "lockfile     = q.lck\n"
                            "errorlogfile = q.log\n"
                            "port         = 2222\n"
                            "\n"
                            "[http]\n"
                            "port = 8890\n";

// Skipped in a child: the body could not get what it needs (root, a mount
// namespace).
constexpr int kCannot = 99;

// Runs body in a forked child; its result: 0 when every check passed, else
// the number of the check that failed; 128 plus the signal that ended it.
int runInChild(const std::function<int()> &body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) _exit(body() & 0x7f);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct stat statOf(const std::string &path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) throw std::runtime_error("stat " + path);
    return st;
}

bool isLink(const std::string &path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// Names in a directory, sorted: a commit leaves no temporary file behind.
std::vector<std::string> namesIn(const std::string &dir) {
    std::vector<std::string> names;
    for (const auto &e : fs::directory_iterator(dir)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

using Names = std::vector<std::string>;

// Opens path, sets [database] port to 2222 and commits; the child's check
// numbers start at first.
int editAndCommit(const std::string &path, int first, TWK_CfgHandle **out = nullptr) {
    TWK_CfgHandle *h = nullptr;
    if (TWK_Cfg_init(&h, path.c_str()) != 0) return first;
    if (TWK_Cfg_write(h, "database", "port", "2222") != 0) return first + 1;
    if (TWK_Cfg_commit(h) != 0) return first + 2;
    if (out)
        *out = h;
    else
        TWK_Cfg_done(h);
    return 0;
}

// Drops to the unprivileged user in a child that runs as root.
bool dropPrivileges() {
    return setgroups(0, nullptr) == 0 && setgid(kUnprivilegedId) == 0 &&
           setuid(kUnprivilegedId) == 0;
}

// In a child: a mount namespace of its own with a tmpfs of the given size
// (in KiB) on mountPoint, gone with the child. false when the system does not
// allow it (not root, no namespaces).
bool privateTmpfs(const std::string &mountPoint, int kib) {
    if (unshare(CLONE_NEWNS) != 0) return false;
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    const std::string options = "size=" + std::to_string(kib) + "k,mode=0755";
    return mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

// Fills the file system that holds path until it has no room left.
bool fillDisk(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const std::string block(4096, 'x');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    const bool full = errno == ENOSPC;
    close(fd);
    return full;
}

class CfgSafeCommit : public ::testing::Test {
  protected:
    TempDir dir;
    std::string path = dir / "t.ini";
};

TEST_F(CfgSafeCommit, FullDiskLeavesTheFileByteForByteAndTheHandleDirtyUntilThereIsRoom) {
    writeFile(path, kSixLines);
    const int rc = runInChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        TWK_CfgHandle *h = nullptr;
        if (TWK_Cfg_init(&h, path.c_str()) != 0) return 1;
        if (TWK_Cfg_write(h, "database", "port", "2222") != 0) return 2;
        const std::string digest = hex(h->digest);
        const std::vector<Entry> edited = entriesOf(h);

        struct rlimit lifted {};
        if (getrlimit(RLIMIT_FSIZE, &lifted) != 0) return 3;
        const struct rlimit small = {20, lifted.rlim_max};
        if (setrlimit(RLIMIT_FSIZE, &small) != 0) return 4;
        errno = 0;
        if (TWK_Cfg_commit(h) != 0) return 5;
        const int why = errno;
        if (readFile(path) != kSixLines) return 6;
        if (h->dirty != 1) return 7;
        if (hex(h->digest) != digest) return 8;
        if (entriesOf(h) != edited) return 9;
        if (why != EFBIG) return 10;
        if (namesIn(dir.path()) != Names{"t.ini"}) return 11;

        if (setrlimit(RLIMIT_FSIZE, &lifted) != 0) return 12;
        if (TWK_Cfg_commit(h) != 0 || h->dirty != 0) return 13;
        if (readFile(path) != kEdited) return 14;
        if (hex(h->digest) != md5Hex(kEdited)) return 15;
        TWK_Cfg_done(h);
        return 0;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(readFile(path), kEdited);
    EXPECT_EQ(namesIn(dir.path()), Names{"t.ini"});
}

TEST_F(CfgSafeCommit, FullFileSystemLeavesTheFileAsItWas) {
    const std::string mnt = dir / "mnt";
    fs::create_directory(mnt);
    const std::string file = mnt + "/t.ini";
    const std::string filler = mnt + "/filler";
    const int rc = runInChild([&] {
        if (!privateTmpfs(mnt, 256)) return kCannot;
        writeFile(file, kSixLines);
        TWK_CfgHandle *h = nullptr;
        if (TWK_Cfg_init(&h, file.c_str()) != 0) return 1;
        const std::string big(3000, 'b'); // the new text takes a page more
        if (TWK_Cfg_write(h, "database", "notes", big.c_str()) != 0) return 2;
        if (!fillDisk(filler)) return 3;
        errno = 0;
        if (TWK_Cfg_commit(h) != 0) return 4;
        if (errno != ENOSPC) return 5;
        if (readFile(file) != kSixLines) return 6;
        if (h->dirty != 1) return 7;
        if (namesIn(mnt) != Names{"filler", "t.ini"}) return 8;
        if (unlink(filler.c_str()) != 0) return 9;
        if (TWK_Cfg_commit(h) != 0 || h->dirty != 0) return 10;
        if (readFile(file).find(big) == std::string::npos) return 11;
        TWK_Cfg_done(h);
        return 0;
    });
    if (rc == kCannot) GTEST_SKIP() << "needs root and mount namespaces for a small tmpfs";
    EXPECT_EQ(rc, 0);
}

TEST_F(CfgSafeCommit, RelativeLinkStaysALinkAndItsTargetIsReplaced) {
    fs::create_directory(dir / "real");
    const std::string target = dir / "real/t.ini";
    writeFile(target, kSixLines);
    const std::string link = dir / "link.ini";
    ASSERT_EQ(symlink("real/t.ini", link.c_str()), 0);
    const ino_t before = statOf(target).st_ino;

    ASSERT_EQ(editAndCommit(link, 1), 0);
    EXPECT_TRUE(isLink(link));
    EXPECT_EQ(fs::read_symlink(link), "real/t.ini");
    EXPECT_EQ(readFile(target), kEdited);
    EXPECT_NE(statOf(target).st_ino, before) << "a new file was renamed over the target";
    EXPECT_EQ(namesIn(dir.path()), (Names{"link.ini", "real"}));
    EXPECT_EQ(namesIn(dir / "real"), Names{"t.ini"});
}

TEST_F(CfgSafeCommit, ChainOfAbsoluteAndRelativeLinksIsFollowedToTheEnd) {
    fs::create_directories(dir / "a/b");
    const std::string target = dir / "a/b/t.ini";
    writeFile(target, kSixLines);
    const ino_t before = statOf(target).st_ino;
    // first.ini -> (absolute) a/second.ini -> (relative, from a/) b/t.ini
    ASSERT_EQ(symlink("b/t.ini", (dir / "a/second.ini").c_str()), 0);
    ASSERT_EQ(symlink((dir / "a/second.ini").c_str(), (dir / "first.ini").c_str()), 0);

    TWK_CfgHandle *h = nullptr;
    ASSERT_EQ(editAndCommit(dir / "first.ini", 1, &h), 0);
    Handle handle(h);
    EXPECT_EQ(h->dirty, 0);
    EXPECT_TRUE(isLink(dir / "first.ini"));
    EXPECT_TRUE(isLink(dir / "a/second.ini"));
    EXPECT_EQ(readFile(target), kEdited);
    EXPECT_NE(statOf(target).st_ino, before);
    EXPECT_EQ(namesIn(dir / "a/b"), Names{"t.ini"});
    EXPECT_EQ(TWK_Cfg_refresh(h), 0) << "the digest is that of the target's new bytes";
}

TEST_F(CfgSafeCommit, LinkWhoseTargetWasRemovedCreatesTheTargetAndStaysALink) {
    const std::string target = dir / "t-real.ini";
    writeFile(target, kSixLines);
    const std::string link = dir / "link.ini";
    ASSERT_EQ(symlink("t-real.ini", link.c_str()), 0);
    Handle h = openFile(link);
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_write(h.get(), "database", "port", "2222"), 0);
    ASSERT_EQ(unlink(target.c_str()), 0);
    ASSERT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(h->dirty, 0);
    EXPECT_TRUE(isLink(link));
    EXPECT_EQ(readFile(target), kEdited);
}

TEST_F(CfgSafeCommit, LinkCycleIsAFailureThatKeepsTheEdits) {
    writeFile(path, kSixLines);
    Handle h = openFile(path);
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_write(h.get(), "database", "port", "2222"), 0);
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(symlink("u.ini", path.c_str()), 0);
    ASSERT_EQ(symlink("t.ini", (dir / "u.ini").c_str()), 0);
    errno = 0;
    EXPECT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_TRUE(isLink(path) && isLink(dir / "u.ini"));
    EXPECT_EQ(namesIn(dir.path()), (Names{"t.ini", "u.ini"}));
}

class CfgSafeCommitMode : public CfgSafeCommit, public ::testing::WithParamInterface<mode_t> {};

TEST_P(CfgSafeCommitMode, PermissionBitsAreKept) {
    const mode_t mode = GetParam();
    writeFile(path, kSixLines);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    const ino_t before = statOf(path).st_ino;
    const mode_t oldMask = umask(022); // what a new file would get otherwise
    const int rc = editAndCommit(path, 1);
    umask(oldMask);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(statOf(path).st_mode & 07777, mode);
    EXPECT_NE(statOf(path).st_ino, before) << "the file was replaced, not rewritten";
    EXPECT_EQ(readFile(path), kEdited);
}

INSTANTIATE_TEST_SUITE_P(Modes, CfgSafeCommitMode, ::testing::Values(0640, 0600, 0664),
                         [](const auto &info) {
                             char name[8];
                             std::snprintf(name, sizeof name, "m%04o", info.param);
                             return std::string(name);
                         });

TEST_F(CfgSafeCommit, OwnerAndGroupOfAnotherUsersFileAreKept) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may give a file to another user";
    writeFile(path, kSixLines);
    ASSERT_EQ(chown(path.c_str(), kUnprivilegedId, kUnprivilegedId), 0);
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    const ino_t before = statOf(path).st_ino;
    ASSERT_EQ(editAndCommit(path, 1), 0);
    const struct stat after = statOf(path);
    EXPECT_EQ(after.st_uid, kUnprivilegedId);
    EXPECT_EQ(after.st_gid, kUnprivilegedId);
    EXPECT_EQ(after.st_mode & 07777, 0640u);
    EXPECT_NE(after.st_ino, before);
    EXPECT_EQ(readFile(path), kEdited);
}

TEST_F(CfgSafeCommit, HardLinkKeepsTheOldTextAfterACommit) {
    writeFile(path, kSixLines);
    const std::string other = dir / "other.ini";
    ASSERT_EQ(link(path.c_str(), other.c_str()), 0);
    ASSERT_EQ(editAndCommit(path, 1), 0);
    EXPECT_EQ(readFile(path), kEdited);
    EXPECT_EQ(readFile(other), kSixLines) << "the documented cost of replacing the file";
    EXPECT_EQ(statOf(path).st_nlink, 1u);
}

TEST_F(CfgSafeCommit, CommitWithNothingToWriteCreatesAndReplacesNothing) {
    writeFile(path, kSixLines);
    setMtime(path, 1000);
    const ino_t before = statOf(path).st_ino;
    Handle h = openFile(path);
    ASSERT_TRUE(h);
    EXPECT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(statOf(path).st_ino, before);
    EXPECT_EQ(mtimeOf(path), 1000);
    EXPECT_EQ(namesIn(dir.path()), Names{"t.ini"});
}

TEST_F(CfgSafeCommit, FileRemovedAfterLoadingIsCreatedAsANewFileWouldBe) {
    writeFile(path, kSixLines);
    Handle h = openFile(path);
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_write(h.get(), "database", "port", "2222"), 0);
    ASSERT_EQ(unlink(path.c_str()), 0);
    const mode_t oldMask = umask(027);
    EXPECT_EQ(TWK_Cfg_commit(h.get()), 0);
    umask(oldMask);
    EXPECT_EQ(h->dirty, 0);
    EXPECT_EQ(readFile(path), kEdited);
    EXPECT_EQ(statOf(path).st_mode & 07777, 0640u) << "0666 less the umask";
}

TEST_F(CfgSafeCommit, FifoInPlaceOfTheFileIsAFailureThatNeitherBlocksNorReplacesIt) {
    writeFile(path, kSixLines);
    Handle h = openFile(path);
    ASSERT_TRUE(h);
    ASSERT_EQ(TWK_Cfg_write(h.get(), "database", "port", "2222"), 0);
    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    // Opening a FIFO for writing with no reader would wait for ever; the
    // test would then end by its timeout.
    EXPECT_EQ(TWK_Cfg_commit(h.get()), 0);
    EXPECT_EQ(h->dirty, 1);
    EXPECT_TRUE(S_ISFIFO(statOf(path).st_mode));
    EXPECT_EQ(namesIn(dir.path()), Names{"t.ini"});
}

// What every reader of a file committed over and over must see: one whole
// commit. The file is the header, kKeys keys of one width and a last
// section; each commit changes the first key, the last key and the last
// section's key to the same new generation, and the length never changes.
constexpr int kKeys = 100000;

std::string generationFile(int generation) {
    char g[16];
    std::snprintf(g, sizeof g, "g%06d", generation);
    std::string text = "[s]\n";
    char line[32];
    for (int k = 0; k < kKeys; k++) {
        std::snprintf(line, sizeof line, "k%06d = %s\n", k,
                      k == 0 || k == kKeys - 1 ? g : "g000000");
        text += line;
    }
    return text + "\n[end]\ndone = " + g + "\n";
}

// Whether text is what one commit wrote: the right length, and the same
// generation at the start, before the last section and at the end.
bool isWholeCommit(const std::string &text, size_t length) {
    if (text.size() != length) return false;
    const std::string first = text.substr(std::strlen("[s]\nk000000 = "), 7);
    const size_t tail = text.size() - std::strlen("g000000\n\n[end]\ndone = g000000\n");
    return text.compare(0, 4, "[s]\n") == 0 && text.compare(tail, 7, first) == 0 &&
           text.compare(text.size() - 8, 7, first) == 0 &&
           text.compare(text.size() - 22, 14, "\n[end]\ndone = ") == 0;
}

std::string readWhole(const std::string &path, bool &ok) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ok = fd >= 0;
    if (!ok) return text;
    char buf[1 << 16];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        text.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

TEST_F(CfgSafeCommit, ReaderInAnotherProcessNeverSeesAPartialFile) {
    const std::string first = generationFile(0);
    ASSERT_TRUE(isWholeCommit(first, first.size()));
    ASSERT_FALSE(isWholeCommit(first.substr(0, first.size() / 2), first.size()));
    writeFile(path, first);

    struct Shared {
        std::atomic<int> stop, reads, partial, unreadable;
        char sample[64];
    };
    void *mem =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    Shared *shared = new (mem) Shared{};

    std::fflush(nullptr);
    const pid_t reader = fork();
    ASSERT_GE(reader, 0);
    if (reader == 0) {
        while (!shared->stop.load()) {
            bool ok = false;
            const std::string text = readWhole(path, ok);
            if (!ok) {
                shared->unreadable++;
            } else if (!isWholeCommit(text, first.size())) {
                if (shared->partial++ == 0)
                    std::snprintf(shared->sample, sizeof shared->sample, "%zu bytes", text.size());
            }
            shared->reads++;
        }
        _exit(0);
    }

    Handle h = openFile(path);
    ASSERT_TRUE(h);
    int notSaved = 0;
    const int readsBefore = shared->reads.load();
    char g[16];
    for (int generation = 1; generation <= 40; generation++) {
        std::snprintf(g, sizeof g, "g%06d", generation);
        char last[16];
        std::snprintf(last, sizeof last, "k%06d", kKeys - 1);
        ASSERT_EQ(TWK_Cfg_write(h.get(), "s", "k000000", g), 0);
        ASSERT_EQ(TWK_Cfg_write(h.get(), "s", last, g), 0);
        ASSERT_EQ(TWK_Cfg_write(h.get(), "end", "done", g), 0);
        ASSERT_EQ(TWK_Cfg_commit(h.get()), 0);
        if (h->dirty) notSaved++;
    }
    const int readsDuring = shared->reads.load() - readsBefore;
    shared->stop = true;
    int status = 0;
    ASSERT_EQ(waitpid(reader, &status, 0), reader);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    EXPECT_EQ(notSaved, 0);
    EXPECT_EQ(shared->partial.load(), 0) << "first partial read: " << shared->sample;
    EXPECT_EQ(shared->unreadable.load(), 0) << "the file always exists";
    EXPECT_GE(readsDuring, 40) << "the reader read while the commits ran";
    EXPECT_EQ(readFile(path), generationFile(40));
    EXPECT_EQ(namesIn(dir.path()), Names{"t.ini"});
    munmap(mem, sizeof(Shared));
}

// Directories the user may not write. As root the suite drops to "nobody" in
// a child, whose files these are; as an ordinary user the user's own files
// and directories serve.
class CfgSafeCommitUnprivileged : public CfgSafeCommit {
  protected:
    void SetUp() override { ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0); }
    void giveAway(const std::string &p) {
        if (geteuid() == 0) {
            ASSERT_EQ(chown(p.c_str(), kUnprivilegedId, kUnprivilegedId), 0);
        }
    }
};

TEST_F(CfgSafeCommitUnprivileged, FileInADirectoryTheUserMayNotWriteIsWrittenInPlace) {
    const std::string locked = dir / "locked";
    fs::create_directory(locked);
    const std::string file = locked + "/t.ini";
    writeFile(file, kSixLines);
    giveAway(file);
    ASSERT_EQ(chmod(locked.c_str(), 0555), 0);
    const ino_t before = statOf(file).st_ino;

    const int rc = runUnprivileged([&] {
        if (access(locked.c_str(), W_OK) == 0) return 1; // the premise
        TWK_CfgHandle *h = nullptr;
        if (const int r = editAndCommit(file, 2, &h)) return r;
        if (h->dirty != 0) return 5;
        if (readFile(file) != kEdited) return 6;
        if (hex(h->digest) != md5Hex(kEdited)) return 7;
        if (TWK_Cfg_refresh(h) != 0) return 8;
        TWK_Cfg_done(h);
        return 0;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(readFile(file), kEdited);
    EXPECT_EQ(statOf(file).st_ino, before) << "written in place";
    EXPECT_EQ(namesIn(locked), Names{"t.ini"});
}

TEST_F(CfgSafeCommitUnprivileged, ReadOnlyFileInAWritableDirectoryIsNotReplaced) {
    const std::string open = dir / "open";
    fs::create_directory(open);
    giveAway(open);
    const std::string file = open + "/t.ini";
    writeFile(file, kSixLines);
    giveAway(file);
    ASSERT_EQ(chmod(file.c_str(), 0444), 0);

    const int rc = runUnprivileged([&] {
        TWK_CfgHandle *h = nullptr;
        if (TWK_Cfg_init(&h, file.c_str()) != 0) return 1;
        if (TWK_Cfg_write(h, "database", "port", "2222") != 0) return 2;
        errno = 0;
        if (TWK_Cfg_commit(h) != 0) return 3;
        if (errno != EACCES) return 4;
        if (h->dirty != 1) return 5;
        TWK_Cfg_done(h);
        return 0;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(readFile(file), kSixLines);
    EXPECT_EQ(statOf(file).st_mode & 07777, 0444u);
    EXPECT_EQ(namesIn(open), Names{"t.ini"});
}

TEST_F(CfgSafeCommitUnprivileged, LinkInADirectoryTheUserMayNotWriteStillReplacesItsTarget) {
    const std::string locked = dir / "locked", open = dir / "open";
    fs::create_directory(locked);
    fs::create_directory(open);
    giveAway(open);
    const std::string target = open + "/t.ini", link = locked + "/t.ini";
    writeFile(target, kSixLines);
    giveAway(target);
    ASSERT_EQ(symlink("../open/t.ini", link.c_str()), 0);
    ASSERT_EQ(chmod(locked.c_str(), 0555), 0);
    const ino_t before = statOf(target).st_ino;

    const int rc = runUnprivileged([&] { return editAndCommit(link, 1); });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(isLink(link));
    EXPECT_EQ(readFile(target), kEdited);
    EXPECT_NE(statOf(target).st_ino, before) << "the temporary file went beside the target";
    EXPECT_EQ(namesIn(open), Names{"t.ini"});
}

TEST_F(CfgSafeCommitUnprivileged, InPlaceOnAFullFileSystemFailsBeforeTouchingTheFile) {
    const std::string mnt = dir / "mnt";
    fs::create_directory(mnt);
    const std::string locked = mnt + "/locked", spare = mnt + "/spare";
    const std::string file = locked + "/t.ini", filler = spare + "/filler";
    const int rc = runInChild([&] {
        if (geteuid() != 0 || !privateTmpfs(mnt, 256)) return kCannot;
        if (mkdir(locked.c_str(), 0755) != 0 || mkdir(spare.c_str(), 0777) != 0 ||
            chmod(spare.c_str(), 0777) != 0)
            return 1;
        writeFile(file, kSixLines);
        if (chown(file.c_str(), kUnprivilegedId, kUnprivilegedId) != 0) return 2;
        if (!fillDisk(filler)) return 3;
        if (!dropPrivileges()) return 4;

        TWK_CfgHandle *h = nullptr;
        if (TWK_Cfg_init(&h, file.c_str()) != 0) return 5;
        // Two pages of text where the file has one, and the disk none.
        const std::string big(3000, 'b');
        if (TWK_Cfg_write(h, "database", "notes", big.c_str()) != 0 ||
            TWK_Cfg_write(h, "database", "more", big.c_str()) != 0)
            return 6;
        errno = 0;
        if (TWK_Cfg_commit(h) != 0) return 7;
        if (errno != ENOSPC) return 8;
        if (h->dirty != 1) return 9;
        if (readFile(file) != kSixLines) return 10;
        if (unlink(filler.c_str()) != 0) return 11;
        struct stat st {};
        if (stat(file.c_str(), &st) != 0) return 12;
        if (TWK_Cfg_commit(h) != 0 || h->dirty != 0) return 13;
        struct stat after {};
        if (stat(file.c_str(), &after) != 0 || after.st_ino != st.st_ino) return 14;
        const std::string written = readFile(file);
        if (written.find(big) == std::string::npos) return 15;
        if (hex(h->digest) != md5Hex(written)) return 16;
        TWK_Cfg_done(h);
        return 0;
    });
    if (rc == kCannot) GTEST_SKIP() << "needs root and mount namespaces for a small tmpfs";
    EXPECT_EQ(rc, 0);
}

TEST_F(CfgSafeCommit, BindMountedFileIsWrittenInPlace) {
    const std::string source = dir / "source.ini";
    writeFile(source, kSixLines);
    writeFile(path, "");
    const int rc = runInChild([&] {
        if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0)
            return kCannot;
        if (const int r = editAndCommit(path, 1)) return r;
        if (readFile(path) != kEdited) return 4;
        return 0;
    });
    if (rc == kCannot) GTEST_SKIP() << "needs root and mount namespaces for a bind mount";
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(readFile(source), kEdited) << "the mounted file itself was written";
    EXPECT_EQ(namesIn(dir.path()), (Names{"source.ini", "t.ini"}));
}

} // namespace
