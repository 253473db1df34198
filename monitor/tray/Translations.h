// The tray's texts in the user's language: the translation for the locale
// (LANG, LC_MESSAGES, LC_ALL), and Qt's own for the buttons it draws.
//
// Contract: what is not translated shows in English, never as a key or an
// empty text; the catalogues are made from the texts marked in the code
// (Localization.h).
#pragma once

#include <QLocale>
#include <QString>

class QCoreApplication;

namespace quendral {

// Installs into `app` (which then owns them) the monitor's translation for
// `locale`, from `installed` (translations installed beside the program,
// taking precedence so a corrected one needs no rebuild) or else from those
// built in, and Qt's own where the system has it. A text with no entry in
// the translation stays English. Returns the translation's language, or an
// empty string when none matched (English).
QString installTranslations(QCoreApplication &app, const QLocale &locale, const QString &installed);

} // namespace quendral
