// The menu over lock files left by servers that ended: it never offers to
// stop a process that is not the server, and a start that meets such a file
// shows "Starting" until the new server's own lock file is there.
#include "UiTestUtil.h"

#include <QTimer>
#include <gtest/gtest.h>

#include <sys/wait.h>

using namespace testsupport;

namespace {

class StaleLockMenu : public ::testing::Test, public TrayFixture {
  protected:
    void TearDown() override {
        unsetenv("QUENDRAL_DEMO_START_DELAY_MS");
        if (app && app->defaultInstance() &&
            app->defaultInstance()->serverStatus() == ServerStatusRunning)
            app->defaultInstance()->shutdown();
    }
    // Starts the default instance as the user does (Start, then Return), with
    // the menu open afterwards, and collects the first item's title after
    // every refresh tick until it offers to stop.
    QStringList titlesDuringStart() {
        setenv("QUENDRAL_DEMO_START_DELAY_MS", "1200", 1);
        openMenu();
        QAction *item = menu()->actions().at(0);
        EXPECT_EQ(Application::shownText(item), "Start Default Instance");
        closeMenu();
        answerNextAlertWith(*app, Qt::Key_Return);
        item->trigger();
        openMenu();
        QStringList titles{menuTexts(menu()).at(0)};
        QObject::connect(
            app->menuUpdateTimer(), &QTimer::timeout, menu(),
            [&] {
                const QString t = menuTexts(menu()).at(0);
                if (titles.last() != t) titles << t;
            },
            Qt::QueuedConnection);
        EXPECT_TRUE(spinUntil([&] { return titles.last() == "Stop Default Instance"; }, 10000))
            << titles.join(" | ").toStdString();
        closeMenu();
        return titles;
    }
};

TEST_F(StaleLockMenu, OldLockFileNamingAnUnrelatedProcessOffersStartAndNoDravinter) {
    const std::string dir = addInstance("database");
    ReusedPidLockFile stranger(dir + "/quendral.lck");
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()).at(0), "Start Default Instance");
    QAction *dravinter = findItem(menu(), "Open Quendral Dravinter");
    ASSERT_NE(dravinter, nullptr);
    EXPECT_FALSE(dravinter->isEnabled());
    EXPECT_GE(log.count("stale .lck file detected: " + dir + "/quendral.lck"), 1u);
    closeMenu();
    EXPECT_TRUE(stranger.unrelatedAlive());
}

TEST_F(StaleLockMenu, SlowStartOverALockFileNamingADeadPidShowsStartingThroughout) {
    const std::string dir = addInstance("database");
    ChildProcess gone({"true"});
    waitpid(gone.pid(), nullptr, 0);
    writeLockFile(dir + "/quendral.lck", gone.pid());
    launch();
    EXPECT_EQ(titlesDuringStart(),
              QStringList({"Default Instance: Starting", "Stop Default Instance"}));
}

TEST_F(StaleLockMenu, SlowStartOverALockFileNamingAReusedPidShowsStartingThroughout) {
    const std::string dir = addInstance("database");
    ReusedPidLockFile stranger(dir + "/quendral.lck");
    launch();
    EXPECT_EQ(titlesDuringStart(),
              QStringList({"Default Instance: Starting", "Stop Default Instance"}));
    EXPECT_TRUE(stranger.unrelatedAlive());
}

} // namespace
