#include "ServerUnit.h"
#include "SystemIo.h"

#include "UserBus.h"
#include "Utf8.h"

#include <systemd/sd-bus.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <thread>
#include <unistd.h>

namespace quendral {

namespace {

using Clock = std::chrono::steady_clock;

std::string randomPart() {
    std::random_device device;
    std::uniform_int_distribution<unsigned long long> any;
    char hex[32];
    (void)std::snprintf(hex, sizeof hex, "%016llx", any(device));
    return hex;
}

} // namespace

std::string escapeUnitNamePart(const std::string &part) {
    std::string out;
    for (size_t i = 0; i < part.size(); i++) {
        const unsigned char c = static_cast<unsigned char>(part[i]);
        if (std::isalnum(c) || c == '_' || c == ':' || (c == '.' && i > 0)) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            (void)std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

std::string unifiedCgroupOf(pid_t pid) {
    char path[48];
    (void)std::snprintf(path, sizeof path, "/proc/%d/cgroup", static_cast<int>(pid));
    char buf[4096];
    if (!sys::readWholeSmall(path, buf, sizeof buf)) return "";
    // The unified hierarchy's line: "0::PATH".
    const char *line = std::strncmp(buf, "0::", 3) == 0 ? buf : std::strstr(buf, "\n0::");
    if (!line) return "";
    line += line == buf ? 3 : 4;
    const char *end = std::strchr(line, '\n');
    return std::string(line, end ? static_cast<size_t>(end - line) : std::strlen(line));
}

std::string unitOfProcess(pid_t pid) {
    char path[48];
    (void)std::snprintf(path, sizeof path, "/proc/%d/cgroup", static_cast<int>(pid));
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    char buf[4096];
    const ssize_t n = sys::retryOnInterrupt([&] { return read(fd, buf, sizeof buf - 1); });
    close(fd);
    if (n <= 0) return "";
    buf[n] = '\0';
    // "ID:CONTROLLERS:PATH" per hierarchy. systemd keeps its tree in the
    // unified one ("0::") or, on hybrid systems, in "name=systemd".
    std::string found;
    for (char *line = buf; line && *line;) {
        char *end = std::strchr(line, '\n');
        if (end) *end = '\0';
        const char *first = std::strchr(line, ':');
        const char *second = first ? std::strchr(first + 1, ':') : nullptr;
        if (second) {
            const std::string controllers(first + 1, second);
            const std::string cgroup(second + 1);
            if (controllers.empty() || controllers == "name=systemd") {
                const std::string last = cgroup.substr(cgroup.rfind('/') + 1);
                const bool unit = last.ends_with(".scope") || last.ends_with(".service");
                if (unit && (found.empty() || controllers == "name=systemd")) found = last;
            }
        }
        line = end ? end + 1 : nullptr;
    }
    return found;
}

UnitMove moveIntoOwnScope(pid_t pid, const std::string &instanceDirectory,
                          const std::string &launcher) {
    UnitMove result;
    const auto deadline = Clock::now() + std::chrono::milliseconds(kReplyLimitMs);
    sd_bus *bus =
        openManagerBus(static_cast<uint64_t>(kReplyLimitMs) * 1000, result.why, &result.noManager);
    if (!bus) return result;

    const std::string name =
        "app-" + escapeUnitNamePart(launcher) + "-quendral-" + randomPart() + ".scope";
    // One line of UTF-8, as the bus carries strings: a directory whose name
    // is not UTF-8 still gets its scope, described with visible escapes.
    const std::string description = "Quendral server of " + visibleText(instanceDirectory);
    sd_bus_message *call = nullptr;
    sd_bus_message *reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    call = newManagerCall(bus, "StartTransientUnit");
    int r = call ? 0 : -ENOMEM;
    if (r >= 0) r = sd_bus_message_append(call, "ss", name.c_str(), "fail");
    if (r >= 0) r = sd_bus_message_open_container(call, 'a', "(sv)");
    if (r >= 0) r = sd_bus_message_append(call, "(sv)", "Description", "s", description.c_str());
    if (r >= 0)
        r = sd_bus_message_append(call, "(sv)", "PIDs", "au", 1, static_cast<uint32_t>(pid));
    // Gone from the manager's list once the server has ended, whether it
    // ended well or not.
    if (r >= 0) r = sd_bus_message_append(call, "(sv)", "CollectMode", "s", "inactive-or-failed");
    if (r >= 0)
        r = sd_bus_message_append(call, "(sv)", "TimeoutStopUSec", "t",
                                  static_cast<uint64_t>(kStopTimeoutSeconds) * 1000000);
    if (r >= 0) r = sd_bus_message_close_container(call);
    if (r >= 0) r = sd_bus_message_append(call, "a(sa(sv))", 0);
    // Whatever is left of the bound after connecting: the whole exchange
    // takes at most kReplyLimitMs.
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    if (r >= 0 && left <= 0) r = -ETIMEDOUT;
    if (r >= 0) r = sd_bus_call(bus, call, static_cast<uint64_t>(left), &error, &reply);
    if (r < 0 && isNoManager(r, error)) {
        result.why = "no service manager on the session bus";
        result.noManager = true;
    } else if (r == -ETIMEDOUT) {
        result.why = "the service manager did not answer in time";
    } else if (r < 0) {
        result.why = std::string("the service manager refused a scope: ") +
                     (error.message ? error.message : std::strerror(-r));
    } else {
        // The manager moves the process when it runs the scope's start job,
        // just after answering: the child goes on only once it is there.
        while (unitOfProcess(pid) != name && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        if (unitOfProcess(pid) == name) {
            result.moved = true;
            result.unit = name;
        } else {
            result.why = "the service manager did not move it into " + name + " in time";
        }
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    sd_bus_flush_close_unref(bus);
    return result;
}

} // namespace quendral
