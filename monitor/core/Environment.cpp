#include "Environment.h"
#include "SystemIo.h"

#include "Log.h"
#include "PathUtil.h"
#include "QuendralManager.h"

#include <cstdlib>
#include <climits>
#include <string_view>
#include <unistd.h>

namespace quendral {

namespace {

std::optional<rlimit> foundLimit;

// dir in front of the variable's old value. An empty entry in a search list
// means the current directory, and a server runs in its instance directory:
// so the list never gains one, neither from an empty old value (which would
// leave "dir:") nor by keeping the old value's empty entries.
void prependToVariable(const char *name, const std::string &dir) {
    std::string value = dir;
    if (const char *old = std::getenv(name)) {
        std::string_view rest = old;
        while (!rest.empty()) {
            const size_t colon = rest.find(':');
            const std::string_view entry = rest.substr(0, colon);
            if (!entry.empty()) {
                value += ':';
                value += entry;
            }
            if (colon == std::string_view::npos) break;
            rest.remove_prefix(colon + 1);
        }
    }
    setenv(name, value.c_str(), 1);
}

void setIfUnsetAndFileExists(const char *name, const std::string &file) {
    if (std::getenv(name) != nullptr) return; // set, even to "", stays
    if (path::existsNotDirectory(file)) setenv(name, file.c_str(), 1);
}

} // namespace

void raiseDescriptorLimit() {
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return;
    if (!foundLimit) foundLimit = rl;
    if (rl.rlim_cur >= rl.rlim_max) return;
    rl.rlim_cur = rl.rlim_max;
    setrlimit(RLIMIT_NOFILE, &rl);
}

std::optional<rlimit> originalDescriptorLimit() {
    return foundLimit;
}

std::string setupGlobalEnvironment(QuendralManager &manager, const std::string &bundlePath) {
    raiseDescriptorLimit();
    std::string home;
    if (const char *env = std::getenv("QUENDRAL_HOME"); env && *env) {
        const std::string resolved = path::resolveSymlinks(env);
        if (path::isDirectory(resolved)) home = resolved;
    }
    if (home.empty()) {
        const std::string bundled = path::append(bundlePath, "Contents/quendral");
        if (path::isDirectory(bundled)) home = bundled;
    }
    if (home.empty()) {
        logMessage("Quendral installation not found");
        return "";
    }

    setenv("QUENDRAL_HOME", home.c_str(), 1);
    if (const std::string bin = path::append(home, "bin"); path::isDirectory(bin))
        prependToVariable("PATH", bin);
    if (const std::string lib = path::append(home, "lib"); path::isDirectory(lib))
        prependToVariable("LD_LIBRARY_PATH", lib);
    setIfUnsetAndFileExists("ODBCINI", path::append(home, "bin/odbc.ini"));
    setIfUnsetAndFileExists("ODBCINSTINI", path::append(home, "bin/odbcinst.ini"));
    manager.addSearchPath(home);
    return home;
}

std::string defaultBundlePath() {
    // The program lives in the bundle's bin/; the bundle is the directory above.
    const std::string exe = sys::ownExecutablePath();
    if (exe.empty()) return "/";
    return sys::parentDirectory(sys::parentDirectory(exe));
}

} // namespace quendral
