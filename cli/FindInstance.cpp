#include "FindInstance.h"
#include "SystemIo.h"

#include "PathUtil.h"

#include <climits>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace quendralctl {

namespace {

bool identify(const std::string &path, dev_t &dev, ino_t &ino) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    dev = st.st_dev;
    ino = st.st_ino;
    return true;
}

using quendral::sys::realPath;

// The path as written, made absolute and tidied without looking at the
// file system ("." and "//" dropped, ".." taken back): links stay as they are.
std::string asWritten(const std::string &path) {
    if (quendral::path::isAbsolute(path)) return quendral::path::standardize(path);
    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof cwd)) return "";
    return quendral::path::standardize(quendral::path::append(cwd, path));
}

Found found(const InstancePtr &i) {
    return {i, Ok, ""};
}

Found noSuch(const std::string &named) {
    return {nullptr, NoInstance, "no such instance: " + named};
}

Found ambiguous(const std::string &named, const Instances &matches, const std::string &how) {
    std::string dirs;
    for (const auto &i : matches) dirs += (dirs.empty() ? "" : ", ") + i->directory();
    return {nullptr, NoInstance,
            named + " " + how + " more than one instance (" + dirs +
                "); name one by its directory"};
}

} // namespace

Found findInstance(const Instances &all, const std::string &named) {
    Instances byName;
    for (const auto &i : all)
        if (i->displayName() == named) byName.push_back(i);
    if (byName.size() == 1) return found(byName.front());
    // An installation that is an instance itself has one of its own name
    // below it; picking either would act on a server the user may not mean.
    if (byName.size() > 1) return ambiguous(named, byName, "names");

    for (const auto &i : all)
        if (i->directory() == named) return found(i);
    dev_t dev;
    ino_t ino;
    if (!identify(named, dev, ino)) return noSuch(named);
    Instances same;
    for (const auto &i : all) {
        dev_t d;
        ino_t n;
        if (identify(i->directory(), d, n) && d == dev && n == ino) same.push_back(i);
    }
    // One directory that two instance paths reach (a link inside the
    // installation): the instance of the path as written, else the one whose
    // path has no link in it.
    if (same.size() > 1) {
        for (const std::string &path : {asWritten(named), realPath(named)})
            for (const auto &i : same)
                if (i->directory() == path) return found(i);
        return ambiguous(named, same, "leads to");
    }
    return same.empty() ? noSuch(named) : found(same.front());
}

} // namespace quendralctl
