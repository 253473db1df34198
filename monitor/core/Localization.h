// The one place user-visible texts are looked up. The English text is the
// key; without a translator (the core and the command-line tool) the key
// itself is the text. The tray installs Qt's translator here.
//
// Contract: every English text that is looked up is written once in the
// code, marked QM_TRANSLATE_NOOP("Quendral", "..."); the catalogues
// (packaging/translations/*.ts) are made from those marks by lupdate
// (scripts/update-translations), and the test command fails when the code
// and the catalogues do not hold the same texts.
#pragma once

// Marks an English text for the catalogues; it is the text itself. lupdate
// reads it as Qt's QT_TRANSLATE_NOOP, the core stays free of Qt.
#define QM_TRANSLATE_NOOP(context, english) english

#include <functional>
#include <string>

namespace quendral {

using Translator = std::function<std::string(const std::string &key)>;

// Installs a translator; an empty one restores the identity. Returns the
// previous one.
Translator setTranslator(Translator translator);

// The localised text for key, or key itself when there is no translation.
std::string localizedString(const std::string &key);

} // namespace quendral
