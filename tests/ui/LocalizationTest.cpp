// The shipped translations, seen in the menu and the alert, one language at a
// time, each as the program installs it for the user's locale; a text missing
// from a translation shows in English. Each language's menu and alert are
// saved as pictures (ui-screens/ in the build directory) to be looked at.
#include "Translations.h"
#include "UiTestUtil.h"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLocale>
#include <QMessageBox>
#include <QTest>
#include <QTimer>
#include <QTranslator>
#include <QXmlStreamReader>
#include <gtest/gtest.h>

#include <algorithm>

using namespace testsupport;

namespace {

struct Language {
    const char *locale;
    // Written out here, not read from the catalogue: what a speaker of the
    // language must see.
    const char *startDefault;
    const char *quit;
    const char *question; // to start the default instance
    const char *startButton;
};

const Language kLanguages[] = {
    {"de_DE", "Standardinstanz starten", "Quendral Monitor beenden",
     "Möchten Sie die Standardinstanz starten?", "Starten"},
    {"fr_FR", "Démarrer l’instance par défaut", "Quitter Quendral Monitor",
     "Voulez-vous démarrer l’instance par défaut\u00a0?", "Démarrer"},
    {"es_ES", "Iniciar la instancia predeterminada", "Salir de Quendral Monitor",
     "¿Desea iniciar la instancia predeterminada?", "Iniciar"},
    {"ja_JP", "デフォルトインスタンスを起動", "Quendral Monitor を終了",
     "デフォルトインスタンスを起動しますか？", "起動"},
    {"zh_CN", "启动默认实例", "退出 Quendral Monitor", "要启动默认实例吗？", "启动"},
};

void PrintTo(const Language &l, std::ostream *os) {
    *os << l.locale;
}

// Every text the code looks up, as the shipped catalogue lists them (the
// test command checks that the catalogues hold exactly the code's texts).
QStringList catalogueKeys() {
    QFile file(QStringLiteral(QM_CATALOGUE_DIR "/quendral-monitor_de.ts"));
    if (!file.open(QIODevice::ReadOnly)) return {};
    QStringList keys;
    QXmlStreamReader xml(&file);
    while (!xml.atEnd()) {
        if (xml.readNext() == QXmlStreamReader::StartElement &&
            xml.name() == QLatin1String("source"))
            keys << xml.readElementText();
    }
    return keys;
}

QString tr(const char *key) {
    return QCoreApplication::translate("Quendral", key);
}

QString fill(QString format, const QString &value) {
    return format.replace("%@", value);
}

// Removes every translator this process installed.
void removeTranslators() {
    for (QTranslator *t : qApp->findChildren<QTranslator *>()) {
        QCoreApplication::removeTranslator(t);
        delete t;
    }
}

void saveScreen(QWidget *w, const std::string &name) {
    const QString dir = QStringLiteral(QM_SCREENS_DIR);
    QDir().mkpath(dir);
    w->grab().save(dir + "/" + QString::fromStdString(name) + ".png");
}

class Translated : public ::testing::TestWithParam<Language>, public TrayFixture {
  protected:
    void SetUp() override {
        const QString language =
            quendral::installTranslations(*qApp, QLocale(GetParam().locale), "/nonexistent");
        ASSERT_FALSE(language.isEmpty()) << GetParam().locale;
    }
    void TearDown() override { removeTranslators(); }
};

TEST_P(Translated, EveryTextOfTheCatalogueIsTranslated) {
    const QStringList keys = catalogueKeys();
    ASSERT_GE(keys.size(), 20) << "the catalogue could not be read";
    EXPECT_TRUE(keys.contains("Default Instance"));
    // Found in the language's catalogue (a name such as "Tarnwick Quendral"
    // may be the same in every language, but it is there).
    const auto translators = qApp->findChildren<QTranslator *>();
    for (const QString &key : keys) {
        const QByteArray k = key.toUtf8();
        EXPECT_TRUE(std::any_of(translators.begin(), translators.end(), [&](QTranslator *t) {
            return !t->translate("Quendral", k.constData()).isEmpty();
        })) << key.toStdString();
    }
    EXPECT_NE(tr("Default Instance"), "Default Instance");
}

TEST_P(Translated, MenuShowsTheLanguagesTexts) {
    addInstance("database");
    addInstance("my_db");
    addInstance("R&D");
    launch();
    openMenu();
    const QString db = tr("Default Instance");
    EXPECT_EQ(menuTexts(menu()),
              QStringList({fill(tr("Start %@"), fill(tr("Instance '%@'"), "R&D")),
                           fill(tr("Start %@"), db),
                           fill(tr("Start %@"), fill(tr("Instance '%@'"), "my_db")), "-",
                           tr("Open Diagnostic Messages"), tr("Open Quendral Dravinter"),
                           tr("View Online Documentation"), "-",
                           tr("Start Quendral Monitor at Login"), tr("Quit Quendral Monitor")}));
    EXPECT_EQ(menuTexts(menu()).at(1), QString::fromUtf8(GetParam().startDefault));
    EXPECT_EQ(menuTexts(menu()).last(), QString::fromUtf8(GetParam().quit));
    menu()->popup(QPoint(0, 0));
    spinFor(100);
    saveScreen(menu(), std::string("menu_") + GetParam().locale);
}

TEST_P(Translated, EmptyMenuIsTranslated) {
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()).at(0), tr("No Quendral Instances"));
}

TEST_P(Translated, AlertShowsTheLanguagesTexts) {
    const std::string dir = addInstance("database");
    launch();
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
        saveScreen(app->activeAlert(), std::string("alert_") + GetParam().locale);
        QTest::keyClick(app->activeAlert(), Qt::Key_Escape);
    });
    app->confirm(inst, true);
    EXPECT_EQ(text, QString::fromUtf8(GetParam().question));
    EXPECT_EQ(info, fill(tr("This will start up a Quendral instance in directory\n%@."),
                         QString::fromStdString(dir)));
    EXPECT_TRUE(info.contains(QString::fromStdString(dir)));
    EXPECT_EQ(buttons, QStringList({QString::fromUtf8(GetParam().startButton), tr("Cancel")}));
}

INSTANTIATE_TEST_SUITE_P(Languages, Translated, ::testing::ValuesIn(kLanguages),
                         [](const auto &info) { return std::string(info.param.locale); });

// A catalogue that lacks some entries (built for the tests only): what it
// has is shown translated, the rest in English.
class PartialTranslation : public ::testing::Test, public TrayFixture {
  protected:
    void TearDown() override { removeTranslators(); }
};

TEST_F(PartialTranslation, MissingEntriesFallBackToEnglish) {
    auto *t = new QTranslator(qApp);
    ASSERT_TRUE(t->load(":/i18n-test/partial.qm"));
    QCoreApplication::installTranslator(t);
    addInstance("database");
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()),
              QStringList({"Standardinstanz starten", "-", "Open Diagnostic Messages",
                           "Open Quendral Dravinter", "View Online Documentation", "-",
                           "Start Quendral Monitor at Login", "Quendral Monitor beenden"}));
}

TEST_F(PartialTranslation, UnknownLanguageShowsEnglish) {
    EXPECT_TRUE(
        quendral::installTranslations(*qApp, QLocale(QLocale::Swahili), "/nonexistent").isEmpty());
    addInstance("database");
    launch();
    openMenu();
    EXPECT_EQ(menuTexts(menu()).at(0), "Start Default Instance");
}

} // namespace
