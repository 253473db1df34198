// The tray and quendralctl agree on a start in progress, whichever of them
// made it: the real tray on Qt's offscreen platform, the real quendralctl
// binary, and a slow demo server.
#include "CtlRunner.h"
#include "UiTestUtil.h"

#include <gtest/gtest.h>

using namespace testsupport;

namespace {

class StartAcrossFrontEnds : public ::testing::Test, public TrayFixture {
  protected:
    std::string env() const {
        return "QUENDRAL_HOME=" + shellQuote(home) + " QUENDRAL_DEMO_HTTP_PORT=0";
    }
    void TearDown() override { unsetenv("QUENDRAL_DEMO_START_DELAY_MS"); }
};

TEST_F(StartAcrossFrontEnds, TheMenuShowsAStartMadeByQuendralctlAndOffersNoStart) {
    addInstance("database");
    launch();
    ASSERT_EQ(runCtl("start", env() + " QUENDRAL_DEMO_START_DELAY_MS=3000").status, 0);
    openMenu();
    const QStringList texts = menuTexts(menu());
    EXPECT_EQ(texts.at(0), "Default Instance: Starting");
    EXPECT_FALSE(menu()->actions().at(0)->isEnabled());
    EXPECT_FALSE(texts.contains("Start Default Instance"));
    // The menu follows that start to its end while open.
    EXPECT_TRUE(
        spinUntil([&] { return menuTexts(menu()).at(0) == "Stop Default Instance"; }, 10000))
        << menuTexts(menu()).join(" | ").toStdString();
    closeMenu();
}

TEST_F(StartAcrossFrontEnds, AStartChosenInTheTrayIsStartingForQuendralctl) {
    addInstance("database");
    launch();
    setenv("QUENDRAL_DEMO_START_DELAY_MS", "3000", 1);
    openMenu();
    QAction *item = menu()->actions().at(0);
    ASSERT_EQ(Application::shownText(item), "Start Default Instance");
    closeMenu();
    answerNextAlertWith(*app, Qt::Key_Return);
    item->trigger();
    ASSERT_EQ(app->defaultInstance()->serverStatus(), ServerStatusStarting);

    const CtlResult status = runCtl("status", env());
    EXPECT_EQ(shownStatus(status.out), "starting\n");
    EXPECT_EQ(status.status, 3);
    const CtlResult start = runCtl("start", env());
    EXPECT_EQ(start.status, 0) << "the tray's start is joined: " << start.err;
    EXPECT_EQ(start.out, "database already starting\n");
    EXPECT_EQ(processesIn(app->defaultInstance()->directory()).size(), 1u);
}

} // namespace
