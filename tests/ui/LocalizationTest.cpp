// The German translation shipped with the tray, seen in the menu and alert.
#include "UiTestUtil.h"

#include <QCoreApplication>
#include <QLocale>
#include <QAbstractButton>
#include <QMessageBox>
#include <QTest>
#include <QTimer>
#include <QTranslator>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

class German : public ::testing::Test, public TrayFixture {
  protected:
    QTranslator translator;
    void SetUp() override {
        ASSERT_TRUE(translator.load(QLocale(QLocale::German, QLocale::Germany), "quendral-monitor",
                                    "_", ":/i18n"));
        QCoreApplication::installTranslator(&translator);
    }
    void TearDown() override { QCoreApplication::removeTranslator(&translator); }
};

TEST_F(German, MenuTextsAreTranslated) {
    addInstance("database");
    addInstance("demo");
    launch();
    openMenu();
    EXPECT_EQ(
        menuTexts(menu()),
        QStringList({"Standardinstanz starten", "Instanz 'demo' starten", "-",
                     "Diagnosemeldungen öffnen", "Quendral Dravinter öffnen",
                     "Online-Dokumentation anzeigen", "-",
                     "Quendral Monitor bei der Anmeldung starten", "Quendral Monitor beenden"}));
}

TEST_F(German, EmptyMenuAndAlertAreTranslated) {
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()).at(0), "Keine Quendral-Instanzen");
    closeMenu();
    const std::string dir = addInstance("database");
    openMenu();
    const auto inst = qobject_cast<InstanceAction *>(menu()->actions().at(0))->representedObject();
    closeMenu();
    QString text, info;
    QStringList buttons;
    QTimer::singleShot(0, [&] {
        spinUntil([&] { return app->activeAlert() && app->activeAlert()->isVisible(); });
        text = app->activeAlert()->text();
        info = app->activeAlert()->informativeText();
        for (auto *b : app->activeAlert()->buttons()) buttons << b->text();
        QTest::keyClick(app->activeAlert(), Qt::Key_Escape);
    });
    app->confirm(inst, true);
    EXPECT_EQ(text, "Möchten Sie die Standardinstanz starten?");
    EXPECT_EQ(info, QString::fromStdString("Dies startet eine Quendral-Instanz im Verzeichnis\n" +
                                           dir + "."));
    EXPECT_EQ(buttons, QStringList({"Starten", "Abbrechen"}));
}

} // namespace
