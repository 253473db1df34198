#include "UserBus.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

namespace quendral {

namespace {

uint64_t nowUs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000 + static_cast<uint64_t>(t.tv_nsec) / 1000;
}

// Drives the connection until it has authenticated (and, on a bus, said
// hello), for at most timeoutUs. sd-bus would do it at the first call, but
// bounded only by its own handshake limit of 90 s: a bus that accepts and
// never answers would hold the caller that long.
int awaitReady(sd_bus *bus, uint64_t timeoutUs) {
    const uint64_t deadline = nowUs() + timeoutUs;
    for (;;) {
        int r = sd_bus_is_ready(bus);
        if (r != 0) return r < 0 ? r : 0;
        r = sd_bus_process(bus, nullptr);
        if (r < 0) return r;
        if (r > 0) continue;
        const uint64_t now = nowUs();
        if (now >= deadline) return -ETIMEDOUT;
        r = sd_bus_wait(bus, deadline - now);
        if (r < 0 && r != -EINTR) return r;
    }
}

} // namespace

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
    if (r >= 0) r = awaitReady(bus, timeoutUs);
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
            const uint64_t began = nowUs();
            if (r >= 0) r = awaitReady(bus, timeoutUs);
            if (r >= 0) return bus;
            sd_bus_unref(bus);
            // A manager that is there and does not answer: the bus would
            // only take the rest of the time.
            if (r == -ETIMEDOUT) {
                why = "the service manager did not answer in time";
                if (absent) *absent = false;
                return nullptr;
            }
            // A socket left by a manager that has gone: try the bus, in the
            // time that is left.
            timeoutUs -= std::min(timeoutUs, nowUs() - began);
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
