// quendral-monitor: the tray application. Arguments are not looked at; the
// exit status is always 0.
#include "Application.h"
#include "Environment.h"
#include "Log.h"
#include "Translations.h"
#include "TrayIcon.h"

#include <QApplication>
#include <QIcon>
#include <QLocale>

int main(int argc, char **argv) {
    quendral::setLogIdent("quendral-monitor");
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("quendral-monitor"));
    app.setApplicationDisplayName(QStringLiteral("Quendral Monitor"));
    // The alert is the only window; closing it must not end the monitor.
    app.setQuitOnLastWindowClosed(false);
    // So that the alert carries the monitor's identity: desktops take the
    // window's icon, task bar entry and name from these.
    QGuiApplication::setDesktopFileName(QStringLiteral("quendral-monitor"));
    QApplication::setWindowIcon(
        QIcon::fromTheme(QStringLiteral("quendral-monitor"), quendral::makeTrayIcon()));

    const std::string bundle = quendral::defaultBundlePath();
    quendral::installTranslations(
        app, QLocale(), QString::fromStdString(bundle + "/share/quendral-monitor/translations"));

    {
        Application delegate(bundle);
        // Called once the event loop runs, as a platform reports the end of
        // launching.
        QMetaObject::invokeMethod(&delegate, "applicationDidFinishLaunching", Qt::QueuedConnection);
        app.exec();
    }
    return 0;
}
