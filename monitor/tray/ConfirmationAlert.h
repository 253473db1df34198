// The alert that asks before an instance is started or stopped.
//
// Contract: modal; names and paths are shown as plain text, never read as
// markup; the directory stands on a line of its own; the action button comes
// first and is the default, Cancel is the escape button; the alert is
// brought to the front (the monitor has no window of its own). `shown` is
// called with the alert once it exists and with null once it is gone.
#pragma once

#include "QuendralInstance.h"

#include <functional>

class QMessageBox;

// True when the user chose the action.
bool confirmAction(const QuendralInstance &instance, bool start,
                   const std::function<void(QMessageBox *)> &shown);
