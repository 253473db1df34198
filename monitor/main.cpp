// quendral-monitor: the tray application. Arguments are not looked at; the
// exit status is always 0.
#include "Application.h"
#include "Environment.h"
#include "Log.h"

#include <QApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

int main(int argc, char **argv) {
    quendral::setLogIdent("quendral-monitor");
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("quendral-monitor"));
    app.setApplicationDisplayName(QStringLiteral("Quendral Monitor"));
    // The alert is the only window; closing it must not end the monitor.
    app.setQuitOnLastWindowClosed(false);

    // Translations installed beside the program take precedence over the
    // ones built in, so a new or corrected one needs no rebuild.
    const std::string bundle = quendral::defaultBundlePath();
    QTranslator translator;
    for (const QString &dir :
         {QString::fromStdString(bundle + "/share/quendral-monitor/translations"),
          QStringLiteral(":/i18n")}) {
        if (translator.load(QLocale(), QStringLiteral("quendral-monitor"), QStringLiteral("_"),
                            dir)) {
            app.installTranslator(&translator);
            break;
        }
    }
    QTranslator qtTranslator; // Qt's own texts in the alert, where shipped
    if (qtTranslator.load(QLocale(), QStringLiteral("qtbase"), QStringLiteral("_"),
                          QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        app.installTranslator(&qtTranslator);

    {
        Application delegate(bundle);
        // Called once the event loop runs, as a platform reports the end of
        // launching.
        QMetaObject::invokeMethod(&delegate, "applicationDidFinishLaunching", Qt::QueuedConnection);
        app.exec();
    }
    return 0;
}
