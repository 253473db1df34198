// Prepares the environment every server started later inherits: finds the
// installation, sets QUENDRAL_HOME, puts its bin and lib directories in
// front of PATH and LD_LIBRARY_PATH, points ODBCINI/ODBCINSTINI at its files
// when unset, and gives the installation to the manager as search path.
// Called once, before any server is started. It also raises this program's
// descriptor limit (see raiseDescriptorLimit).
#pragma once

#include <optional>
#include <string>
#include <sys/resource.h>

class QuendralManager;

namespace quendral {

// bundlePath: the application's own directory (see the README); the
// fallback installation is bundlePath + "/Contents/quendral".
// Returns the installation directory, or "" when none was found.
std::string setupGlobalEnvironment(QuendralManager &manager, const std::string &bundlePath);

// Raises the soft limit on open descriptors to the hard one. Every server
// the monitor knows is held by a descriptor (a pidfd), and a monitor short of
// descriptors cannot read lock files: it must not run out at 1024 when the
// system allows more. Servers started later get the limit they would have had
// (originalDescriptorLimit), since some still use select().
void raiseDescriptorLimit();
// The limit as this program found it, once raiseDescriptorLimit raised it.
std::optional<rlimit> originalDescriptorLimit();

// The bundle path of this program: the directory above the one holding the
// executable (the installation prefix for /usr/bin/quendral-monitor).
std::string defaultBundlePath();

} // namespace quendral
