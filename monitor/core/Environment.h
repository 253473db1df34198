// Prepares the environment every server started later inherits: finds the
// installation, sets QUENDRAL_HOME, points ODBCINI/ODBCINSTINI at its files
// when unset, and gives the installation to the manager as search path. Its
// bin and lib directories go in front of PATH and LD_LIBRARY_PATH for the
// servers only (serverEnvironment), and only where they pass the rule a
// program must pass (ExecutableTrust.h; one log line for one that fails):
// this program's own PATH stays the user's, since it runs programs too.
// Called once, before any server is started. It also raises this program's
// descriptor limit (see raiseDescriptorLimit).
#pragma once

#include <optional>
#include <string>
#include <vector>
#include <sys/resource.h>

class QuendralManager;

namespace quendral {

// bundlePath: the application's own directory (see the README); the
// fallback installation is bundlePath + "/Contents/quendral".
// Returns the installation directory, or "" when none was found.
std::string setupGlobalEnvironment(QuendralManager &manager, const std::string &bundlePath);

// A variable as a started server gets it: this program's environment with
// the servers' search lists; nullopt for one that is unset.
std::optional<std::string> serverVariable(const std::string &name);
// The whole environment a started server gets, as "NAME=value" entries.
std::vector<std::string> serverEnvironment();

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
