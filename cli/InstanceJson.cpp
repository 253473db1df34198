#include "InstanceJson.h"

namespace quendralctl {

const char *statusWord(int32_t status) {
    switch (status) {
    case ServerStatusStopped:
        return "stopped";
    case ServerStatusStarting:
        return "starting";
    case ServerStatusRunning:
        return "running";
    case ServerStatusStopping:
        return "stopping";
    default:
        return "unknown";
    }
}

nlohmann::ordered_json instanceJson(QuendralInstance &i) {
    const auto log = i.logFile();
    return {
        {"name", i.instanceName()},
        {"displayName", i.displayName()},
        {"directory", i.directory()},
        {"isDefault", i.isDefault()},
        {"serverStatus", statusWord(i.serverStatus())},
        {"pid", i.pid()},
        {"lockFile", i.lockFile() ? nlohmann::ordered_json(*i.lockFile()) : nullptr},
        {"logFile", log ? nlohmann::ordered_json(*log) : nullptr},
        {"canStart", i.canStart()},
    };
}

std::string dumpJson(const nlohmann::ordered_json &j) {
    return j.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace quendralctl
