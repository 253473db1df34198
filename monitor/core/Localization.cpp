#include "Localization.h"

namespace quendral {

namespace {
Translator currentTranslator;
}

Translator setTranslator(Translator translator) {
    Translator previous = std::move(currentTranslator);
    currentTranslator = std::move(translator);
    return previous;
}

std::string localizedString(const std::string &key) {
    if (!currentTranslator) return key;
    std::string text = currentTranslator(key);
    return text.empty() ? key : text;
}

} // namespace quendral
