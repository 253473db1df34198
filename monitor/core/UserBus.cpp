#include "UserBus.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace quendral {

sd_bus *openUserBus(uint64_t timeoutUs, std::string &why, bool *absent) {
    if (absent) *absent = false;
    std::string address;
    if (const char *env = std::getenv("DBUS_SESSION_BUS_ADDRESS"); env && *env) {
        address = env;
    } else if (const char *runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
        address = std::string("unix:path=") + runtime + "/bus";
    } else {
        why = "no session bus (neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set)";
        if (absent) *absent = true;
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
        if (absent) *absent = r == -ENOENT || r == -ECONNREFUSED;
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

sd_bus *openManagerBus(uint64_t timeoutUs, std::string &why, bool *absent) {
    if (const char *runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime == '/') {
        const std::string socket = std::string(runtime) + "/systemd/private";
        struct stat st;
        if (stat(socket.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
            sd_bus *bus = nullptr;
            int r = sd_bus_new(&bus);
            if (r >= 0) r = sd_bus_set_address(bus, ("unix:path=" + socket).c_str());
            if (r >= 0) r = sd_bus_set_method_call_timeout(bus, timeoutUs);
            if (r >= 0) r = sd_bus_start(bus);
            if (r >= 0) return bus;
            sd_bus_unref(bus);
            // A socket left by a manager that has gone: try the bus.
        }
    }
    return openUserBus(timeoutUs, why, absent);
}

sd_bus_message *newManagerCall(sd_bus *bus, const char *member) {
    sd_bus_message *call = nullptr;
    if (sd_bus_message_new_method_call(bus, &call, "org.freedesktop.systemd1",
                                       "/org/freedesktop/systemd1",
                                       "org.freedesktop.systemd1.Manager", member) < 0)
        return nullptr;
    sd_bus_message_set_auto_start(call, 0);
    return call;
}

bool isNoManager(int result, const sd_bus_error &error) {
    return result == -ENOENT || result == -ECONNREFUSED || result == -EHOSTUNREACH ||
           sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN) ||
           sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER);
}

} // namespace quendral
