#include "InstanceConfig.h"

#include "Log.h"
#include "PathUtil.h"
#include "ncfg.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <sys/stat.h>

namespace quendral {

std::string InstanceConfig::qualify(const std::string &directory,
                                    const std::optional<std::string> &value,
                                    const std::string &defaultValue) {
    const std::string &v = value ? *value : defaultValue;
    if (path::isAbsolute(v)) return v;
    return path::standardize(path::append(directory, v));
}

bool InstanceConfig::check(const std::string &directory) {
    // lstat follows links in every component but the last, so the file it
    // sees under the path as given is the one under the resolved path. The
    // resolved form is built only for the message, which names it; this
    // check runs for every instance at every scan.
    const std::string ini = path::append(directory, "quendral.ini");
    struct stat st;
    if (lstat(ini.c_str(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) {
        logMessage("%@ is not a regular file - skipped",
                   {path::append(path::resolveSymlinks(directory), "quendral.ini")});
        return false;
    }
    if (_cacheTime && _cacheTime->tv_sec == st.st_mtim.tv_sec &&
        _cacheTime->tv_nsec == st.st_mtim.tv_nsec)
        return true;

    // The time is recorded before parsing, so a file that cannot be parsed is
    // not tried again until it changes.
    _cacheTime = st.st_mtim;
    std::map<std::string, std::string> values;
    TWK_CfgHandle *h = nullptr;
    if (st.st_size <= kSizeLimit && TWK_Cfg_init(&h, ini.c_str()) == 0) {
        if (TWK_Cfg_find(h, "database", nullptr) == 0 && TWK_Cfg_nextentry(h) == 0) {
            do {
                const int type = h->flags & TWK_CFG_TYPEMASK;
                if (type == TWK_CFG_SECTION) break;
                if (type == TWK_CFG_KEY) {
                    std::string key = h->id;
                    std::transform(key.begin(), key.end(), key.begin(),
                                   [](unsigned char c) { return std::tolower(c); });
                    values[key] = h->value;
                }
            } while (TWK_Cfg_nextentry(h) == 0);
        }
        TWK_Cfg_done(h);
    }
    auto get = [&](const char *key) -> std::optional<std::string> {
        auto it = values.find(key);
        return it == values.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
    _lckFile = qualify(directory, get("lockfile"), "quendral.lck");
    _logFile = qualify(directory, get("errorlogfile"), "quendral.log");
    return true;
}

} // namespace quendral
