// The instance actions behind the menu: the confirmation, answered by key
// presses, and what is opened on the desktop.
#include "UiTestUtil.h"

#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <gtest/gtest.h>

#include <filesystem>

using namespace testsupport;

namespace {

class Actions : public ::testing::Test, public TrayFixture {
  protected:
    // Chooses the first (instance) item of a freshly opened menu.
    void chooseFirstItem() {
        openMenu();
        QAction *item = menu()->actions().at(0);
        ASSERT_TRUE(item->isEnabled());
        closeMenu();
        item->trigger();
    }
    bool lockFileExists(const std::string &dir) {
        return std::filesystem::exists(dir + "/quendral.lck");
    }
};

TEST_F(Actions, ReturnInTheAlertStartsAndStopsTheServer) {
    const std::string dir = addInstance("database");
    launch();
    answerNextAlertWith(*app, Qt::Key_Return);
    chooseFirstItem();
    EXPECT_FALSE(app->inModalDialog());
    EXPECT_TRUE(spinUntil([&] { return lockFileExists(dir); }));
    openMenu();
    EXPECT_TRUE(spinUntil([&] { return menuTexts(menu()).at(0) == "Stop Default Instance"; }));
    closeMenu();

    answerNextAlertWith(*app, Qt::Key_Return);
    chooseFirstItem();
    EXPECT_TRUE(spinUntil([&] { return !lockFileExists(dir); }));
}

TEST_F(Actions, EscapeCancelsAndNothingStarts) {
    const std::string dir = addInstance("database");
    launch();
    answerNextAlertWith(*app, Qt::Key_Escape);
    chooseFirstItem();
    EXPECT_FALSE(app->inModalDialog());
    spinFor(300);
    EXPECT_FALSE(lockFileExists(dir));
    EXPECT_EQ(app->defaultInstance()->serverStatus(), ServerStatusStopped);
}

TEST_F(Actions, ClosingTheAlertWindowCancels) {
    const std::string dir = addInstance("database");
    launch();
    auto instance =
        (openMenu(), qobject_cast<InstanceAction *>(menu()->actions().at(0)))->representedObject();
    closeMenu();
    QTimer::singleShot(0, [&] {
        spinUntil([&] { return app->activeAlert() && app->activeAlert()->isVisible(); });
        app->activeAlert()->close();
    });
    EXPECT_FALSE(app->confirm(instance, true));
    EXPECT_FALSE(app->inModalDialog());
}

TEST_F(Actions, AlertTextsButtonsAndDefaultForStartAndStop) {
    addInstance("database");
    const std::string demo = addInstance("demo");
    launch();
    openMenu();
    const auto def = qobject_cast<InstanceAction *>(menu()->actions().at(0))->representedObject();
    const auto other = qobject_cast<InstanceAction *>(menu()->actions().at(1))->representedObject();
    closeMenu();

    struct Seen {
        QString text, info;
        QStringList buttons;
        bool actionIsDefault = false, actionLeftOfCancel = false, modalFlag = false,
             infoUnwrapped = false;
    };
    auto inspect = [&](Seen &seen) {
        QTimer::singleShot(0, [&] {
            spinUntil([&] { return app->activeAlert() && app->activeAlert()->isVisible(); });
            QMessageBox *box = app->activeAlert();
            seen.text = box->text();
            seen.info = box->informativeText();
            seen.modalFlag = app->inModalDialog();
            auto *infoLabel = box->findChild<QLabel *>("qt_msgbox_informativelabel");
            seen.infoUnwrapped = infoLabel && !infoLabel->wordWrap();
            const auto buttons = box->buttons();
            QPushButton *action = nullptr, *cancel = nullptr;
            for (QAbstractButton *b : buttons) {
                if (b->text() == "Cancel")
                    cancel = qobject_cast<QPushButton *>(b);
                else
                    action = qobject_cast<QPushButton *>(b);
            }
            for (QAbstractButton *b : buttons) seen.buttons << b->text();
            seen.actionIsDefault = action && box->defaultButton() == action;
            seen.actionLeftOfCancel = action && cancel && action->x() < cancel->x();
            QTest::keyClick(box, Qt::Key_Escape);
        });
    };

    Seen start;
    inspect(start);
    EXPECT_FALSE(app->confirm(def, true));
    EXPECT_EQ(start.text, "Do you want to start the Default Instance?");
    EXPECT_EQ(start.info, QString::fromStdString("This will start up a Quendral instance in "
                                                 "directory\n" +
                                                 home + "/database."));
    EXPECT_EQ(start.buttons, QStringList({"Start", "Cancel"}));
    EXPECT_TRUE(start.actionIsDefault);
    EXPECT_TRUE(start.actionLeftOfCancel);
    EXPECT_TRUE(start.modalFlag);
    EXPECT_TRUE(start.infoUnwrapped) << "the directory keeps a line of its own";

    Seen stop;
    inspect(stop);
    EXPECT_FALSE(app->confirm(other, false));
    EXPECT_EQ(stop.text, "Do you want to stop the Instance 'demo'?");
    EXPECT_EQ(stop.info, QString::fromStdString("This will stop the Quendral instance in "
                                                "directory\n" +
                                                demo + "."));
    EXPECT_EQ(stop.buttons, QStringList({"Stop", "Cancel"}));
    EXPECT_TRUE(stop.actionIsDefault);
}

TEST_F(Actions, MarkupInANameIsShownAsText) {
    addInstance("<b>bold<i>");
    launch();
    openMenu();
    const auto inst = qobject_cast<InstanceAction *>(menu()->actions().at(0))->representedObject();
    closeMenu();
    QString shown;
    QTimer::singleShot(0, [&] {
        spinUntil([&] { return app->activeAlert() && app->activeAlert()->isVisible(); });
        EXPECT_EQ(app->activeAlert()->textFormat(), Qt::PlainText);
        shown = app->activeAlert()->text();
        QTest::keyClick(app->activeAlert(), Qt::Key_Escape);
    });
    app->confirm(inst, true);
    EXPECT_EQ(shown, "Do you want to start the Instance '<b>bold<i>'?");
}

TEST_F(Actions, OpeningTheMenuDuringTheAlertLeavesItAlone) {
    addInstance("database");
    launch();
    openMenu();
    const QList<QAction *> before = menu()->actions();
    closeMenu();
    bool sameItems = false, timerStarted = true;
    QTimer::singleShot(0, [&] {
        spinUntil([&] { return app->activeAlert() && app->activeAlert()->isVisible(); });
        addInstance("sales");
        app->menuWillOpen();
        sameItems = menu()->actions() == before;
        timerStarted = app->menuUpdateTimer()->isActive();
        QTest::keyClick(app->activeAlert(), Qt::Key_Escape);
    });
    before.at(0)->trigger();
    EXPECT_TRUE(sameItems);
    EXPECT_FALSE(timerStarted);
}

TEST_F(Actions, ServerStartedElsewhereWhileTheAlertIsUpIsLeftAsItIs) {
    const std::string dir = addInstance("database");
    launch();
    ChildProcess server;
    QTimer::singleShot(0, [&] {
        spinUntil([&] { return app->activeAlert() && app->activeAlert()->isVisible(); });
        writeLockFile(dir + "/quendral.lck", server.pid());
        QTest::keyClick(app->activeAlert(), Qt::Key_Return);
    });
    chooseFirstItem();
    EXPECT_EQ(app->defaultInstance()->serverStatus(), ServerStatusRunning);
    EXPECT_EQ(app->defaultInstance()->pid(), server.pid()) << "no second server launched";
}

TEST_F(Actions, DravinterOpensTheFixedLocalPortWhateverTheConfiguration) {
    const std::string dir = addInstance("database", "[database]\nhttpport = 9999\n");
    ChildProcess server;
    writeLockFile(dir + "/quendral.lck", server.pid());
    UrlCatcher urls;
    launch();
    openMenu();
    QAction *item = findItem(menu(), "Open Quendral Dravinter");
    ASSERT_TRUE(item->isEnabled());
    closeMenu();
    item->trigger();
    ASSERT_EQ(urls.urls.size(), 1);
    EXPECT_EQ(urls.urls.at(0).toString(), "http://localhost:8890/dravinter/");
}

TEST_F(Actions, DocumentationOpensTheMakersSite) {
    UrlCatcher urls;
    launch();
    openMenu();
    QAction *item = findItem(menu(), "View Online Documentation");
    closeMenu();
    item->trigger();
    ASSERT_EQ(urls.urls.size(), 1);
    EXPECT_EQ(urls.urls.at(0).scheme(), "http");
    EXPECT_EQ(urls.urls.at(0).path(), "/quendral/");
}

TEST_F(Actions, LogItemOpensTheDefaultInstancesLogFile) {
    const std::string dir = addInstance("database", "[database]\nerrorlogfile = logs/diag.log\n");
    std::filesystem::create_directories(dir + "/logs");
    writeFile(dir + "/logs/diag.log", "x\n");
    UrlCatcher urls;
    launch();
    openMenu();
    QAction *item = findItem(menu(), "Open Diagnostic Messages");
    ASSERT_TRUE(item->isEnabled());
    closeMenu();
    item->trigger();
    ASSERT_EQ(urls.urls.size(), 1);
    EXPECT_EQ(urls.urls.at(0), QUrl::fromLocalFile(QString::fromStdString(dir + "/logs/diag.log")));
}

TEST_F(Actions, UrlThatIsNotAUrlOpensNothingAndSaysSo) {
    UrlCatcher urls;
    launch();
    app->openUrl("http://exa mple.com/%zz");
    EXPECT_TRUE(urls.urls.isEmpty());
    EXPECT_EQ(log.count("cannot open http://exa mple.com/%zz: not a valid URL"), 1u);
}

} // namespace
