// Finds instance directories under its search paths and keeps one
// QuendralInstance per directory between calls, so that an instance's pid
// and status survive from one look to the next.
//
// Contract: each call lists the search paths anew and refreshes every
// instance it returns; an instance whose configuration is gone is dropped in
// that call; a search path that can no longer be listed is dropped. One
// thread; the instances handed out are shared with the caller.
#pragma once

#include "QuendralInstance.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

class QuendralManager {
  public:
    QuendralManager() = default;

    // Adds the path, symlink-resolved, when it is a directory.
    void addSearchPath(const std::string &path);
    static bool isDirectory(const std::string &path);
    // Files a new valid instance for path unless one is known already.
    void watchDirectory(const std::string &path);
    // Scans the search paths, refreshes every instance, drops the removed
    // ones, and returns the rest sorted by directory path.
    std::vector<std::shared_ptr<QuendralInstance>> allInstances();

    const std::vector<std::string> &searchPaths() const { return _searchPaths; }

    // The instance that acts when none is named (the menu's log and
    // Dravinter items, quendralctl without INSTANCE): the last one flagged
    // default in the given order, else the only one, else none.
    static std::shared_ptr<QuendralInstance>
    defaultInstance(const std::vector<std::shared_ptr<QuendralInstance>> &instances);

  private:
    std::vector<std::string> _searchPaths;
    // Keyed by directory path; std::map keeps them in byte order, which is
    // the order every caller shows them in.
    std::map<std::string, std::shared_ptr<QuendralInstance>> _instances;
};
