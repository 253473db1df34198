// The tray icon: the letter Q, drawn for each size a tray may ask for.
//
// Contract: drawn in code (no file is read), the same at every call, legible
// from 16 to 64 pixels and on light and dark panels.
#pragma once

#include <QIcon>

namespace quendral {

QIcon makeTrayIcon();

} // namespace quendral
