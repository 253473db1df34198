// The login-item list over a real autostart directory: order, the entries
// it writes, and how it reads entries other programs wrote.
#include "LoginItems.h"
#include "ModelTestUtil.h"
#include "Unprivileged.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace testsupport;
using quendral::LoginItemList;
namespace fs = std::filesystem;

namespace {

class LoginItems : public ::testing::Test {
  protected:
    TempDir dir;
    std::string autostart = dir / "autostart";
    std::unique_ptr<LoginItemList> list = LoginItemList::create(autostart);

    // A program file at a path with awkward characters.
    std::string program(const std::string &name) {
        const std::string p = dir / name;
        fs::create_directories(fs::path(p).parent_path());
        writeFile(p, "#!/bin/sh\n");
        chmod(p.c_str(), 0755);
        return p;
    }
};

TEST_F(LoginItems, FileUrlsEncodeEveryByteButTheSafeOnes) {
    EXPECT_EQ(quendral::fileUrl("/usr/bin/quendral-monitor"), "file:///usr/bin/quendral-monitor");
    EXPECT_EQ(quendral::fileUrl("/a b/%/ä"), "file:///a%20b/%25/%C3%A4");
    for (const std::string p : {"/x y/\"q\"/$HOME/%u/\\/ä", "/plain"})
        EXPECT_EQ(quendral::pathFromFileUrl(quendral::fileUrl(p)), p);
    EXPECT_FALSE(quendral::pathFromFileUrl("http://x/y"));
    EXPECT_FALSE(quendral::pathFromFileUrl("file:///bad%zz"));
}

TEST_F(LoginItems, MissingDirectoryIsAnEmptyListMadeOnInsert) {
    ASSERT_TRUE(list);
    EXPECT_TRUE(list->snapshot().empty());
    const std::string p = program("bin/quendral-monitor");
    EXPECT_TRUE(list->insertItemURLBeforeFirst(quendral::fileUrl(p)));
    ASSERT_EQ(list->snapshot().size(), 1u);
    EXPECT_EQ(list->resolve(list->snapshot()[0]), quendral::fileUrl(p));
}

TEST_F(LoginItems, InsertedEntryComesFirstWhateverIsThere) {
    fs::create_directories(autostart);
    for (const char *name : {"0.desktop", "00a.desktop", "quendral-monitor.desktop", "a.desktop"})
        writeFile(autostart + "/" + name, "[Desktop Entry]\nExec=/bin/true\n");
    const std::string p = program("bin/quendral-monitor");
    ASSERT_TRUE(list->insertItemURLBeforeFirst(quendral::fileUrl(p)));
    const auto items = list->snapshot();
    ASSERT_EQ(items.size(), 5u);
    EXPECT_EQ(list->resolve(items.front()), quendral::fileUrl(p));
}

TEST_F(LoginItems, ProgramPathsWithSpecialCharactersSurviveTheEntry) {
    for (const std::string name :
         {"with space/quendral-monitor", "quote\"dollar$back\\tick`", "percent%u", "ümlaut"}) {
        const std::string p = program(name);
        fs::remove_all(autostart);
        ASSERT_TRUE(list->insertItemURLBeforeFirst(quendral::fileUrl(p))) << name;
        ASSERT_EQ(list->snapshot().size(), 1u);
        EXPECT_EQ(list->resolve(list->snapshot()[0]), quendral::fileUrl(p)) << name;
        if (std::system("command -v desktop-file-validate >/dev/null") == 0) {
            const std::string cmd =
                "desktop-file-validate '" + list->snapshot()[0].file + "' >/dev/null 2>&1";
            EXPECT_EQ(std::system(cmd.c_str()), 0) << name;
        }
    }
}

TEST_F(LoginItems, EntriesOfOtherProgramsAreReadAsTheDesktopReadsThem) {
    fs::create_directories(autostart);
    const std::string p = program("my prog");
    writeFile(autostart + "/quoted.desktop",
              "# comment\n[Other Group]\nExec=/bin/false\n[Desktop Entry]\n"
              "Exec = \"" +
                  p + "\" --flag %U\r\n");
    writeFile(autostart + "/relative.desktop", "[Desktop Entry]\nExec=true\n");
    writeFile(autostart + "/noexec.desktop", "[Desktop Entry]\nName=x\n");
    writeFile(autostart + "/dir.desktop", "[Desktop Entry]\nExec=/tmp\n");
    writeFile(autostart + "/huge.desktop",
              "[Desktop Entry]\nExec=/bin/true\n" + std::string(200000, '#'));
    writeFile(autostart + "/notes.txt", "[Desktop Entry]\nExec=/bin/true\n");
    const auto items = list->snapshot();
    ASSERT_EQ(items.size(), 5u) << "only .desktop entries";
    std::map<std::string, std::optional<std::string>> resolved;
    for (const auto &item : items) resolved[fs::path(item.file).filename()] = list->resolve(item);
    EXPECT_EQ(resolved["quoted.desktop"], quendral::fileUrl(p));
    EXPECT_FALSE(resolved["relative.desktop"]);
    EXPECT_FALSE(resolved["noexec.desktop"]);
    EXPECT_FALSE(resolved["dir.desktop"]);
    EXPECT_FALSE(resolved["huge.desktop"]);
}

TEST_F(LoginItems, UnreadableDirectoryCannotBeOpened) {
    writeFile(autostart, "file\n");
    EXPECT_FALSE(LoginItemList::create(autostart));
}

TEST_F(LoginItems, ConfigLocationFollowsXdgThenHome) {
    setenv("XDG_CONFIG_HOME", (dir / "xdg").c_str(), 1);
    EXPECT_EQ(LoginItemList::create()->directory(), dir / "xdg/autostart");
    setenv("XDG_CONFIG_HOME", "relative/ignored", 1);
    setenv("HOME", dir.path().c_str(), 1);
    EXPECT_EQ(LoginItemList::create()->directory(), dir / ".config/autostart");
}

TEST_F(LoginItems, AChangeThatCannotBeMadeIsLogged) {
    ScopedEnv xdg("XDG_CONFIG_HOME", dir.path());
    const std::string url = quendral::fileUrl(program("bin/quendral-monitor"));
    LogCapture log;
    // A file where the directory should be: nothing can be listed.
    writeFile(autostart, "file\n");
    quendral::setStartAtLogin(url, true);
    EXPECT_EQ(log.count("cannot change the login items: the autostart directory cannot be read"),
              1u);
    fs::remove(autostart);

    // The entry cannot be written (no room for a single byte).
    fs::create_directories(autostart);
    chmod(dir.path().c_str(), 0755);
    chmod(autostart.c_str(), 0777);
    const int written = runUnprivileged([&] {
        LogCapture inner;
        signal(SIGXFSZ, SIG_IGN);
        const rlimit none{0, 0};
        if (setrlimit(RLIMIT_FSIZE, &none) != 0) return 1;
        quendral::setStartAtLogin(url, true);
        if (inner.count("cannot add the login item to " + autostart + ": File too large") != 1)
            return 2;
        return quendral::willStartAtLogin(url) ? 3 : 0;
    });
    EXPECT_EQ(written, 0);

    // The entry cannot be removed (its directory is not ours to change).
    chmod(autostart.c_str(), 0755);
    quendral::setStartAtLogin(url, true);
    ASSERT_TRUE(quendral::willStartAtLogin(url));
    const int removed = runUnprivileged([&] {
        LogCapture inner;
        quendral::setStartAtLogin(url, false);
        for (const std::string &line : inner.lines)
            if (line.starts_with("cannot remove the login item " + autostart + "/") &&
                line.ends_with(": Permission denied"))
                return quendral::willStartAtLogin(url) ? 0 : 2;
        return 1;
    });
    EXPECT_EQ(removed, 0);
}

} // namespace
