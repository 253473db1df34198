// Prepares the environment every server started later inherits: finds the
// installation, sets QUENDRAL_HOME, puts its bin and lib directories in
// front of PATH and LD_LIBRARY_PATH, points ODBCINI/ODBCINSTINI at its files
// when unset, and gives the installation to the manager as search path.
// Called once, before any server is started.
#pragma once

#include <string>

class QuendralManager;

namespace quendral {

// bundlePath: the application's own directory (see the README); the
// fallback installation is bundlePath + "/Contents/quendral".
// Returns the installation directory, or "" when none was found.
std::string setupGlobalEnvironment(QuendralManager &manager, const std::string &bundlePath);

// The bundle path of this program: the directory above the one holding the
// executable (the installation prefix for /usr/bin/quendral-monitor).
std::string defaultBundlePath();

} // namespace quendral
