#include "UiTestUtil.h"

#include <QApplication>
#include <QDesktopServices>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <filesystem>
#include <sys/wait.h>

namespace testsupport {

bool spinUntil(const std::function<bool()> &cond, int ms) {
    QElapsedTimer t;
    t.start();
    while (!cond()) {
        if (t.elapsed() > ms) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QTest::qWait(5);
    }
    return true;
}

void spinFor(int ms) {
    QTest::qWait(ms);
}

QStringList menuTexts(const QMenu *menu) {
    QStringList texts;
    for (const QAction *a : menu->actions())
        texts << (a->isSeparator() ? QStringLiteral("-") : Application::shownText(a));
    return texts;
}

QAction *findItem(const QMenu *menu, const QString &text) {
    for (QAction *a : menu->actions())
        if (!a->isSeparator() && Application::shownText(a) == text) return a;
    return nullptr;
}

void answerNextAlertWith(Application &app, int key) {
    auto *poll = new QTimer();
    QObject::connect(poll, &QTimer::timeout, poll, [&app, key, poll] {
        QMessageBox *box = app.activeAlert();
        if (!box || !box->isVisible()) return;
        poll->stop();
        poll->deleteLater();
        QTest::keyClick(box, static_cast<Qt::Key>(key));
    });
    poll->start(10);
}

UrlCatcher::UrlCatcher() {
    for (const char *scheme : {"http", "https", "file"})
        QDesktopServices::setUrlHandler(QString::fromLatin1(scheme), this, "open");
}

UrlCatcher::~UrlCatcher() {
    for (const char *scheme : {"http", "https", "file"})
        QDesktopServices::unsetUrlHandler(QString::fromLatin1(scheme));
}

TrayFixture::TrayFixture() : home(root / "home"), config(root / "config") {
    std::filesystem::create_directories(home + "/bin");
    std::filesystem::create_directories(config);
    std::filesystem::copy_file(demoServerPath(), home + "/bin/quendral");
    setenv("QUENDRAL_HOME", home.c_str(), 1);
    setenv("XDG_CONFIG_HOME", config.c_str(), 1);
    setenv("QUENDRAL_DEMO_HTTP_PORT", "0", 1);
}

TrayFixture::~TrayFixture() {
    if (app && app->menu() && app->menu()->isVisible()) app->menu()->hide();
    // Servers started by a test are stopped and reaped with it.
    if (app)
        for (const auto &i : app->manager().allInstances())
            if (i->pid() > 0) {
                kill(i->pid(), SIGKILL);
                waitpid(i->pid(), nullptr, 0);
            }
    app.reset();
}

std::string TrayFixture::addInstance(const std::string &name, const std::string &ini) {
    const std::string dir = home + "/" + name;
    std::filesystem::create_directories(dir);
    writeFile(dir + "/quendral.ini", ini);
    return dir;
}

void TrayFixture::launch() {
    app = std::make_unique<Application>(root / "nobundle");
    app->applicationDidFinishLaunching();
}

void TrayFixture::openMenu() {
    app->menu()->popup(QPoint(10, 10));
}

void TrayFixture::closeMenu() {
    app->menu()->hide();
}

} // namespace testsupport
