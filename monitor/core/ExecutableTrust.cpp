#include "ExecutableTrust.h"
#include "SystemIo.h"

#include "Log.h"
#include "PathUtil.h"

#include <climits>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace quendral {

namespace {

bool ownedByUsOrRoot(const struct stat &st) {
    return st.st_uid == geteuid() || st.st_uid == 0;
}

bool writableByOthers(const struct stat &st) {
    return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

using sys::parentDirectory;
using sys::realPath;

// The directory that holds a trusted file: ours or root's, and writable by
// no one else unless sticky.
std::optional<std::string> whyDirectoryUntrusted(const std::string &dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) return "its directory " + dir + " cannot be examined";
    if (!ownedByUsOrRoot(st)) return "its directory " + dir + " belongs to another user";
    if (writableByOthers(st) && !(st.st_mode & S_ISVTX))
        return "its directory " + dir + " is writable by group or others";
    return std::nullopt;
}

} // namespace

std::optional<std::string> whyUntrusted(const std::string &path) {
    const std::string real = realPath(path);
    if (real.empty()) return std::string("it cannot be resolved");
    struct stat st;
    if (stat(real.c_str(), &st) != 0) return std::string("it cannot be examined");
    if (!ownedByUsOrRoot(st)) return std::string("it belongs to another user");
    if (writableByOthers(st)) return std::string("it is writable by group or others");
    if (auto why = whyDirectoryUntrusted(parentDirectory(real))) return why;
    // A link is only as safe as the directory it stands in: whoever may
    // write there may point it elsewhere.
    const std::string linkDir = realPath(parentDirectory(path));
    if (!linkDir.empty() && linkDir != parentDirectory(real)) return whyDirectoryUntrusted(linkDir);
    return std::nullopt;
}

void logUntrusted(const std::string &path, const std::string &reason) {
    logMessage("%@ is not started: %@", {path, reason});
}

std::optional<std::string> findTrustedOnPath(const std::string &name, const std::string &searchPath,
                                             const std::string &workingDirectory) {
    size_t from = 0;
    for (;;) {
        const size_t colon = searchPath.find(':', from);
        const std::string dir =
            searchPath.substr(from, colon == std::string::npos ? std::string::npos : colon - from);
        const std::string base =
            path::isAbsolute(dir) ? dir : path::append(workingDirectory, dir.empty() ? "." : dir);
        const std::string candidate = path::append(base, name);
        // As execvp does, a file we may not execute is passed over silently.
        if (path::existsNotDirectory(candidate) && access(candidate.c_str(), X_OK) == 0) {
            const auto why = whyUntrusted(candidate);
            if (!why) return candidate;
            logUntrusted(candidate, *why);
        }
        if (colon == std::string::npos) return std::nullopt;
        from = colon + 1;
    }
}

} // namespace quendral
