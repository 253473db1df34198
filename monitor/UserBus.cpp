#include "UserBus.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace quendral {

sd_bus *openUserBus(uint64_t timeoutUs, std::string &why) {
    std::string address;
    if (const char *env = std::getenv("DBUS_SESSION_BUS_ADDRESS"); env && *env) {
        address = env;
    } else if (const char *runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
        address = std::string("unix:path=") + runtime + "/bus";
    } else {
        why = "no session bus (neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set)";
        return nullptr;
    }
    sd_bus *bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0) r = sd_bus_set_trusted(bus, 1);
    if (r >= 0) r = sd_bus_set_method_call_timeout(bus, timeoutUs);
    if (r >= 0) r = sd_bus_start(bus);
    if (r < 0) {
        why = "cannot reach the session bus: " + std::string(std::strerror(-r));
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

} // namespace quendral
