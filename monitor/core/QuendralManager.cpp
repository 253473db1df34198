#include "QuendralManager.h"

#include "Log.h"
#include "PathUtil.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>

using quendral::logMessage;

std::shared_ptr<QuendralInstance>
QuendralManager::defaultInstance(const std::vector<std::shared_ptr<QuendralInstance>> &instances) {
    std::shared_ptr<QuendralInstance> found;
    for (const auto &instance : instances)
        if (instance->isDefault()) found = instance;
    if (!found && instances.size() == 1) found = instances.front();
    return found;
}

void QuendralManager::addSearchPath(const std::string &path) {
    const std::string resolved = quendral::path::resolveSymlinks(path);
    if (isDirectory(resolved)) _searchPaths.push_back(resolved);
}

bool QuendralManager::isDirectory(const std::string &path) {
    return quendral::path::isDirectory(path);
}

void QuendralManager::watchDirectory(const std::string &path) {
    if (!isDirectory(path)) return;
    if (_instances.count(path)) return;
    auto instance = std::make_shared<QuendralInstance>(path);
    if (instance->isValid()) _instances.emplace(path, std::move(instance));
}

namespace {

// The names in a directory but "." and "..", in the file system's order.
bool listDirectory(const std::string &path, std::vector<std::string> &names, std::string &error) {
    DIR *d = opendir(path.c_str());
    if (!d) {
        error = std::strerror(errno);
        return false;
    }
    errno = 0;
    while (const dirent *e = readdir(d)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            names.emplace_back(e->d_name);
    }
    const int err = errno;
    closedir(d);
    if (err) {
        error = std::strerror(err);
        return false;
    }
    return true;
}

} // namespace

std::vector<std::shared_ptr<QuendralInstance>> QuendralManager::allInstances() {
    // Walk a copy, so dropping a failed path leaves the rest of this walk
    // intact; a path added twice and dropped at its first copy is not tried
    // (and reported) again at its second.
    const std::vector<std::string> paths = _searchPaths;
    for (const std::string &searchPath : paths) {
        if (std::find(_searchPaths.begin(), _searchPaths.end(), searchPath) == _searchPaths.end())
            continue;
        std::vector<std::string> names;
        std::string error;
        if (!listDirectory(searchPath, names, error)) {
            logMessage("Invalid directory %@: %@", {searchPath, error});
            std::erase(_searchPaths, searchPath);
            continue;
        }
        watchDirectory(searchPath);
        for (const std::string &name : names)
            watchDirectory(quendral::path::append(searchPath, name));
    }

    std::vector<std::shared_ptr<QuendralInstance>> snapshot;
    snapshot.reserve(_instances.size());
    for (const auto &[path, instance] : _instances) snapshot.push_back(instance);

    std::vector<std::shared_ptr<QuendralInstance>> result;
    result.reserve(snapshot.size());
    for (const auto &instance : snapshot) {
        instance->refresh();
        if (instance->entryStatus() == EntryStatusRemoved)
            _instances.erase(instance->directory());
        else
            result.push_back(instance);
    }
    return result;
}
