// The status menu: its items, titles, enabled and check states in each
// situation, and the refresh timer while it is open.
#include "UiTestUtil.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTimer>
#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

using namespace testsupport;

namespace {

const QStringList kGeneral = {
    "-", "Open Diagnostic Messages",        "Open Quendral Dravinter", "View Online Documentation",
    "-", "Start Quendral Monitor at Login", "Quit Quendral Monitor"};

bool enabled(const QMenu *menu, const char *text) {
    QAction *a = findItem(menu, QString::fromUtf8(text));
    EXPECT_NE(a, nullptr) << text;
    return a && a->isEnabled();
}

class Menu : public ::testing::Test, public TrayFixture {};

TEST_F(Menu, NoInstancesGivesTheFixedMenuAndNoTimer) {
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()), QStringList{"No Quendral Instances"} + kGeneral);
    EXPECT_FALSE(enabled(menu(), "No Quendral Instances"));
    EXPECT_FALSE(enabled(menu(), "Open Diagnostic Messages"));
    EXPECT_FALSE(enabled(menu(), "Open Quendral Dravinter"));
    EXPECT_TRUE(enabled(menu(), "View Online Documentation"));
    EXPECT_TRUE(enabled(menu(), "Start Quendral Monitor at Login"));
    EXPECT_TRUE(enabled(menu(), "Quit Quendral Monitor"));
    EXPECT_FALSE(app->menuUpdateTimer()->isActive());
    EXPECT_EQ(findItem(menu(), "Quit Quendral Monitor")->shortcut(),
              QKeySequence(Qt::CTRL | Qt::Key_Q));
}

TEST_F(Menu, TrayIconIsTheLetterWithItsToolTip) {
    launch();
    EXPECT_EQ(app->statusItem()->toolTip(), "Tarnwick Quendral");
    EXPECT_FALSE(app->statusItem()->icon().isNull());
    EXPECT_EQ(app->statusItem()->contextMenu(), menu());
    // Filled before it was handed to the tray host.
    EXPECT_FALSE(menu()->actions().isEmpty());
}

TEST_F(Menu, OneInstanceNotFlaggedDefaultBecomesTheDefault) {
    const std::string dir = addInstance("other");
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()), QStringList{"Start Instance 'other'"} + kGeneral);
    EXPECT_EQ(app->defaultInstance()->directory(), dir);
    EXPECT_FALSE(enabled(menu(), "Open Diagnostic Messages")) << "no log file yet";
    EXPECT_FALSE(enabled(menu(), "Open Quendral Dravinter")) << "not running";
    closeMenu();

    writeFile(dir + "/quendral.log", "started\n");
    ChildProcess server;
    writeLockFile(dir + "/quendral.lck", server.pid());
    openMenu();
    EXPECT_EQ(menuTexts(menu()), QStringList{"Stop Instance 'other'"} + kGeneral);
    EXPECT_TRUE(enabled(menu(), "Open Diagnostic Messages"));
    EXPECT_TRUE(enabled(menu(), "Open Quendral Dravinter"));
}

TEST_F(Menu, TwoInstancesNeitherDefaultLeaveLogAndDravinterDisabled) {
    for (const char *name : {"alpha", "beta"}) {
        const std::string dir = addInstance(name);
        writeFile(dir + "/quendral.log", "x\n");
    }
    ChildProcess server;
    writeLockFile(home + "/alpha/quendral.lck", server.pid());
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()),
              QStringList({"Stop Instance 'alpha'", "Start Instance 'beta'"}) + kGeneral);
    EXPECT_EQ(app->defaultInstance(), nullptr);
    EXPECT_FALSE(enabled(menu(), "Open Diagnostic Messages"));
    EXPECT_FALSE(enabled(menu(), "Open Quendral Dravinter"));
}

TEST_F(Menu, OfTwoInstancesFlaggedDefaultTheLaterIsTheDefault) {
    // The installation itself is named "database" and so is its subdirectory.
    const std::string outer = root / "database";
    std::filesystem::create_directories(outer + "/database");
    writeFile(outer + "/quendral.ini", "[database]\n");
    writeFile(outer + "/database/quendral.ini", "[database]\n");
    writeFile(outer + "/database/quendral.log", "x\n");
    setenv("QUENDRAL_HOME", outer.c_str(), 1);
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()),
              QStringList({"Start Default Instance", "Start Default Instance"}) + kGeneral);
    EXPECT_EQ(app->defaultInstance()->directory(), outer + "/database");
    EXPECT_TRUE(enabled(menu(), "Open Diagnostic Messages"));
}

TEST_F(Menu, TitlesFollowTheServerStatus) {
    const std::string dir = addInstance("demo");
    launch();
    openMenu();
    auto *item = qobject_cast<InstanceAction *>(menu()->actions().at(0));
    ASSERT_NE(item, nullptr);
    QuendralInstance &inst = *item->representedObject();
    const struct {
        ServerStatus status;
        const char *title;
        bool enabled;
    } rows[] = {{ServerStatusStopped, "Start Instance 'demo'", true},
                {ServerStatusStarting, "Instance 'demo': Starting", false},
                {ServerStatusRunning, "Stop Instance 'demo'", true},
                {ServerStatusStopping, "Instance 'demo': Stopping", false},
                {ServerStatusUnknown, "Instance 'demo': Unknown", false},
                {static_cast<ServerStatus>(5), "Instance 'demo': Unknown", false},
                {static_cast<ServerStatus>(-1), "Instance 'demo': Unknown", false}};
    for (const auto &row : rows) {
        inst.setStatus(row.status);
        app->updateMenuItem(item, inst);
        EXPECT_EQ(Application::shownText(item), row.title) << row.status;
        EXPECT_EQ(item->isEnabled(), row.enabled) << row.status;
    }
}

TEST_F(Menu, DisplayNamesAreShownAsTheyAre) {
    addInstance("R&D <b>x<i> %@ %d");
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()).at(0), "Start Instance 'R&D <b>x<i> %@ %d'");
}

TEST_F(Menu, TabInANameDoesNotSplitTheTitle) {
    addInstance("a\tb");
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()).at(0), "Start Instance 'a b'");
    EXPECT_FALSE(menu()->actions().at(0)->text().contains('\t'));
}

TEST_F(Menu, OpeningTwiceDoesNotAccumulateItems) {
    addInstance("database");
    addInstance("sales");
    launch();
    openMenu();
    const QStringList first = menuTexts(menu());
    closeMenu();
    openMenu();
    EXPECT_EQ(menuTexts(menu()), first);
    // Even when a host reports two openings without a close in between.
    app->menuWillOpen();
    EXPECT_EQ(menuTexts(menu()), first);
    EXPECT_EQ(first.size(), 9);
}

// Whether the first item follows a server started on disk within a second.
bool followsAServerStart(testsupport::TrayFixture &t, const std::string &dir) {
    ChildProcess server;
    writeLockFile(dir + "/quendral.lck", server.pid());
    const bool followed =
        spinUntil([&] { return menuTexts(t.menu()).at(0) == "Stop Default Instance"; }, 1000);
    std::filesystem::remove(dir + "/quendral.lck");
    server.killAndReap();
    return followed;
}

TEST_F(Menu, RefreshRunsOnlyWhileTheMenuIsOpen) {
    const std::string dir = addInstance("database");
    launch();
    openMenu();
    EXPECT_EQ(app->menuUpdateTimer()->interval(), 500);
    EXPECT_TRUE(followsAServerStart(*this, dir)) << "the open menu follows the server";
    closeMenu();
    openMenu();
    ASSERT_EQ(menuTexts(menu()).at(0), "Start Default Instance");
    closeMenu();
    EXPECT_FALSE(followsAServerStart(*this, dir)) << "the closed menu was refreshed";
    EXPECT_FALSE(app->menuUpdateTimer()->isActive());
}

TEST_F(Menu, RefreshStopsWhenTheMenuIsGoneWithoutAClose) {
    addInstance("database");
    launch();
    // As a host that opened the menu but never reports its closing.
    app->menuWillOpen();
    EXPECT_TRUE(app->menuUpdateTimer()->isActive());
    EXPECT_TRUE(spinUntil([&] { return !app->menuUpdateTimer()->isActive(); }, 2000));
}

TEST_F(Menu, OpeningWithNothingChangedChangesNoItem) {
    // A host that draws the menu is sent every change of an item; at an
    // opening that finds everything as it was, there must be none.
    addInstance("database");
    addInstance("sales");
    launch();
    openMenu();
    closeMenu();
    int changes = 0;
    for (QAction *a : menu()->actions()) QObject::connect(a, &QAction::changed, [&] { changes++; });
    const QList<QAction *> before = menu()->actions();
    openMenu();
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(menu()->actions(), before);
    // A new instance adds its item and changes nothing else.
    closeMenu();
    addInstance("zeta");
    openMenu();
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(menu()->actions().size(), before.size() + 1);
    EXPECT_EQ(menuTexts(menu()).at(2), "Start Instance 'zeta'");
}

TEST_F(Menu, StatusChangeShowsWhileOpenButGeneralItemsKeepTheirState) {
    const std::string dir = addInstance("database");
    launch();
    openMenu();
    ASSERT_EQ(menuTexts(menu()).at(0), "Start Default Instance");
    EXPECT_FALSE(enabled(menu(), "Open Quendral Dravinter"));

    ChildProcess server;
    writeLockFile(dir + "/quendral.lck", server.pid());
    // The very next tick of the half-second timer shows the change.
    QStringList afterTick;
    QObject::connect(
        app->menuUpdateTimer(), &QTimer::timeout, menu(),
        [&] {
            if (afterTick.isEmpty()) afterTick = menuTexts(menu());
        },
        Qt::QueuedConnection);
    EXPECT_TRUE(spinUntil([&] { return !afterTick.isEmpty(); }));
    EXPECT_EQ(afterTick.at(0), "Stop Default Instance");
    EXPECT_TRUE(menu()->isVisible());
    EXPECT_FALSE(enabled(menu(), "Open Quendral Dravinter")) << "decided at opening only";

    // A new instance on disk shows only at the next opening.
    addInstance("sales");
    spinFor(700);
    EXPECT_EQ(menuTexts(menu()).size(), 8);
    closeMenu();
    openMenu();
    EXPECT_EQ(menuTexts(menu()).size(), 9);
    EXPECT_TRUE(enabled(menu(), "Open Quendral Dravinter"));
}

TEST_F(Menu, NoInstallationLogsOnceAndShowsNoInstances) {
    setenv("QUENDRAL_HOME", (root / "missing").c_str(), 1);
    launch();
    openMenu();
    EXPECT_EQ(log.count("Quendral installation not found"), 1u);
    EXPECT_EQ(menuTexts(menu()).at(0), "No Quendral Instances");
}

TEST_F(Menu, QuitEndsTheEventLoopWithStatusZero) {
    addInstance("database");
    launch();
    openMenu();
    QAction *quit = findItem(menu(), "Quit Quendral Monitor");
    QTimer::singleShot(0, quit, &QAction::trigger);
    EXPECT_EQ(qApp->exec(), 0);
}

// Runs as an ordinary user (see the test list): a directory the user may not
// write shows its item disabled, for stopping as well as starting.
TEST_F(Menu, ReadOnlyInstanceDirectoryDisablesItsItem) {
    if (geteuid() == 0) GTEST_SKIP() << "runs again as an ordinary user";
    const std::string dir = addInstance("database");
    chmod(dir.c_str(), 0555);
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()).at(0), "Start Default Instance");
    EXPECT_FALSE(menu()->actions().at(0)->isEnabled());
    closeMenu();
    ChildProcess server;
    chmod(dir.c_str(), 0755);
    writeLockFile(dir + "/quendral.lck", server.pid());
    chmod(dir.c_str(), 0555);
    openMenu();
    EXPECT_EQ(menuTexts(menu()).at(0), "Stop Default Instance");
    EXPECT_FALSE(menu()->actions().at(0)->isEnabled());
    chmod(dir.c_str(), 0755);
}

} // namespace
