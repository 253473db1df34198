// The tray's texts. Every text a user sees goes through the core's one
// localisation seam (Localization.h), which the tray points at Qt's
// translator; these two helpers are the tray's only way to it, so that each
// English original in the tray's code is a literal marked for the catalogues
// (QT_TRANSLATE_NOOP in context "Quendral").
#pragma once

#include "Localization.h"
#include "Log.h"

#include <QString>

#include <string>

namespace tray {

inline QString text(const char *english) {
    return QString::fromStdString(quendral::localizedString(english));
}

// The localised format with its %@ filled by arg, taken as it is.
inline QString format(const char *english, const std::string &arg) {
    return QString::fromStdString(
        quendral::fillPlaceholders(quendral::localizedString(english), {arg}));
}

} // namespace tray
