#include "Translations.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QTranslator>

namespace quendral {

QString installTranslations(QCoreApplication &app, const QLocale &locale,
                            const QString &installed) {
    QString language;
    auto *translator = new QTranslator(&app);
    for (const QString &dir : {installed, QStringLiteral(":/i18n")}) {
        if (translator->load(locale, QStringLiteral("quendral-monitor"), QStringLiteral("_"),
                             dir)) {
            QCoreApplication::installTranslator(translator);
            language = translator->language();
            break;
        }
    }
    if (language.isEmpty()) delete translator;
    // Both translators belong to the application (their parent) once made.
    auto *qt = new QTranslator(&app); // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
    if (qt->load(locale, QStringLiteral("qtbase"), QStringLiteral("_"),
                 QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        QCoreApplication::installTranslator(qt);
    else
        delete qt;
    return language;
}

} // namespace quendral
