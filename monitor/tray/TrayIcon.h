// The tray icon: the letter Q, drawn for each size a tray may ask for.
#pragma once

#include <QIcon>

namespace quendral {

QIcon makeTrayIcon();

} // namespace quendral
