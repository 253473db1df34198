// The real tray application, on Qt's offscreen platform, asked as a user
// asks it: the menu opens, "Start Default Instance" is chosen and the alert
// answered with Return. It exits 0 once the server runs, and leaves it
// running: the test around it checks where that server lives.
#include "Application.h"
#include "Log.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QMessageBox>
#include <QTest>
#include <QTimer>

#include <cstdio>

int main(int argc, char **argv) {
    quendral::setLogIdent("quendral-monitor");
    QApplication app(argc, argv);
    app.setQuitOnLastWindowClosed(false);
    Application delegate("/nonexistent");
    delegate.applicationDidFinishLaunching();
    delegate.menu()->popup(QPoint(10, 10));
    QAction *start = nullptr;
    for (QAction *a : delegate.menu()->actions())
        if (Application::shownText(a) == "Start Default Instance") start = a;
    delegate.menu()->hide();
    if (!start) {
        std::fprintf(stderr, "no \"Start Default Instance\" in the menu\n");
        return 1;
    }
    QTimer answer;
    QObject::connect(&answer, &QTimer::timeout, [&] {
        if (QMessageBox *box = delegate.activeAlert(); box && box->isVisible()) {
            answer.stop();
            QTest::keyClick(box, Qt::Key_Return);
        }
    });
    answer.start(10);
    start->trigger();
    for (int i = 0; i < 1000; i++) {
        const auto instance = delegate.defaultInstance();
        if (instance) instance->refresh();
        if (instance && instance->serverStatus() == ServerStatusRunning) return 0;
        QTest::qWait(10);
    }
    std::fprintf(stderr, "the server did not come up\n");
    return 1;
}
