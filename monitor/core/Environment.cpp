#include "Environment.h"
#include "SystemIo.h"

#include "Log.h"
#include "PathUtil.h"
#include "QuendralManager.h"
#include "ExecutableTrust.h"

#include <cstdlib>
#include <climits>
#include <map>
#include <string_view>
#include <unistd.h>

extern char **environ;

namespace quendral {

namespace {

std::optional<rlimit> foundLimit;

// What servers get in place of this program's own values (PATH,
// LD_LIBRARY_PATH): this program's environment keeps the user's, since it
// runs programs of its own (xdg-open) that no installation may replace.
std::map<std::string, std::string> serverOverrides;

// dir in front of the variable's old value. An empty entry in a search list
// means the current directory, and a server runs in its instance directory:
// so the list never gains one, neither from an empty old value (which would
// leave "dir:") nor by keeping the old value's empty entries.
void prependForServers(const char *name, const std::string &dir) {
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
    serverOverrides[name] = value;
}

// The installation's bin/ or lib/, for the servers' search lists, where
// nobody but us or root can have put a program or library there.
void addTrustedDirectory(const char *variable, const std::string &dir) {
    if (!path::isDirectory(dir)) return;
    if (const auto why = whyUntrusted(dir)) {
        logMessage("%@ is not put in %@: %@", {dir, variable, *why});
        return;
    }
    prependForServers(variable, dir);
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
    serverOverrides.clear();
    addTrustedDirectory("PATH", path::append(home, "bin"));
    addTrustedDirectory("LD_LIBRARY_PATH", path::append(home, "lib"));
    setIfUnsetAndFileExists("ODBCINI", path::append(home, "bin/odbc.ini"));
    setIfUnsetAndFileExists("ODBCINSTINI", path::append(home, "bin/odbcinst.ini"));
    manager.addSearchPath(home);
    return home;
}

std::optional<std::string> serverVariable(const std::string &name) {
    if (const auto o = serverOverrides.find(name); o != serverOverrides.end()) return o->second;
    if (const char *v = std::getenv(name.c_str())) return std::string(v);
    return std::nullopt;
}

std::vector<std::string> serverEnvironment() {
    std::vector<std::string> env;
    for (char **e = environ; *e; e++) {
        const std::string_view entry = *e;
        const size_t eq = entry.find('=');
        if (eq != std::string_view::npos &&
            serverOverrides.count(std::string(entry.substr(0, eq))) != 0)
            continue;
        env.emplace_back(entry);
    }
    for (const auto &[name, value] : serverOverrides) {
        std::string entry = name;
        entry += '=';
        entry += value;
        env.push_back(std::move(entry));
    }
    return env;
}

std::string defaultBundlePath() {
    // The program lives in the bundle's bin/; the bundle is the directory above.
    const std::string exe = sys::ownExecutablePath();
    if (exe.empty()) return "/";
    return sys::parentDirectory(sys::parentDirectory(exe));
}

} // namespace quendral
