// The one place user-visible texts are looked up. The English text is the
// key; without a translator (the core and the command-line tool) the key
// itself is the text. The tray installs Qt's translator here.
#pragma once

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
