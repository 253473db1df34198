// "Start Quendral Monitor at Login" against a temporary XDG config
// directory: the check mark, adding at the head, removing one entry.
#include "LoginItems.h"
#include "UiTestUtil.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace testsupport;
namespace fs = std::filesystem;

namespace {

class Login : public ::testing::Test, public TrayFixture {
  protected:
    std::string autostart() const { return config + "/autostart"; }
    QAction *loginItem() { return findItem(menu(), "Start Quendral Monitor at Login"); }
    // Opens the menu, reads the mark, and optionally chooses the item.
    bool markAtOpening(bool choose = false) {
        openMenu();
        QAction *item = loginItem();
        const bool checked = item->isCheckable() && item->isChecked();
        closeMenu();
        if (choose) item->trigger();
        return checked;
    }
    std::vector<std::string> entries() {
        std::vector<std::string> names;
        if (auto list = quendral::LoginItemList::create(autostart()))
            for (const auto &item : list->snapshot())
                names.push_back(fs::path(item.file).filename());
        return names;
    }
    void writeEntry(const std::string &name, const std::string &exec,
                    const std::string &extra = "") {
        fs::create_directories(autostart());
        writeFile(autostart() + "/" + name,
                  "[Desktop Entry]\nType=Application\nName=x\nExec=" + exec + "\n" + extra);
    }
};

TEST_F(Login, AbsentMeansNoMarkAndChoosingAddsItAtTheHead) {
    writeEntry("aaa.desktop", "/bin/sh -c true");
    writeEntry("0early.desktop", "/bin/true");
    launch();
    EXPECT_FALSE(markAtOpening(true));
    const auto names = entries();
    ASSERT_EQ(names.size(), 3u);
    auto list = quendral::LoginItemList::create(autostart());
    EXPECT_EQ(list->resolve(list->snapshot().front()), Application::applicationUrl())
        << "the monitor is the first login item";
    EXPECT_TRUE(markAtOpening());
}

TEST_F(Login, PresentMeansAMarkAndChoosingRemovesIt) {
    launch();
    Application::setStartAtLogin(Application::applicationUrl(), true);
    writeEntry("zzz.desktop", "/bin/true");
    EXPECT_TRUE(markAtOpening(true));
    EXPECT_EQ(entries(), std::vector<std::string>{"zzz.desktop"});
    EXPECT_FALSE(markAtOpening());
}

TEST_F(Login, ListedTwiceOneChoiceRemovesOnlyTheFirst) {
    const std::string self = quendral::applicationPath();
    writeEntry("a.desktop", self);
    writeEntry("b.desktop", self + " --extra");
    launch();
    EXPECT_TRUE(markAtOpening(true));
    EXPECT_EQ(entries(), std::vector<std::string>{"b.desktop"});
    EXPECT_TRUE(markAtOpening());
}

TEST_F(Login, UnresolvableEntriesAreNeitherCountedNorRemoved) {
    const std::string self = quendral::applicationPath();
    writeEntry("hidden.desktop", self, "Hidden=true\n");
    writeEntry("missing.desktop", root / "gone/quendral-monitor");
    fs::create_directories(autostart() + "/dir.desktop");
    mkfifo((autostart() + "/fifo.desktop").c_str(), 0600);
    launch();
    EXPECT_FALSE(markAtOpening(true));
    EXPECT_TRUE(markAtOpening(true)) << "added once";
    EXPECT_FALSE(markAtOpening());
    const auto names = entries();
    for (const char *kept : {"hidden.desktop", "missing.desktop", "dir.desktop", "fifo.desktop"})
        EXPECT_NE(std::find(names.begin(), names.end(), kept), names.end()) << kept;
}

TEST_F(Login, MatchingIsStrict) {
    const std::string self = quendral::applicationPath();
    fs::create_symlink(self, root / "link-to-self");
    writeEntry("link.desktop", root / "link-to-self");
    writeEntry("slash.desktop", "/" + self);
    launch();
    EXPECT_FALSE(markAtOpening()) << "another spelling of the same program does not match";
}

TEST_F(Login, ListThatCannotBeOpenedReadsAsOffAndChangesNothing) {
    writeFile(autostart(), "a file where the directory should be\n");
    launch();
    EXPECT_FALSE(markAtOpening(true));
    EXPECT_EQ(readFile(autostart()), "a file where the directory should be\n");
    EXPECT_FALSE(markAtOpening());
}

TEST_F(Login, MissingAutostartDirectoryIsMadeOnTheFirstChoice) {
    launch();
    EXPECT_FALSE(fs::exists(autostart()));
    EXPECT_FALSE(markAtOpening(true));
    EXPECT_TRUE(markAtOpening());
    EXPECT_EQ(entries(), std::vector<std::string>{"quendral-monitor.desktop"});
}

} // namespace
