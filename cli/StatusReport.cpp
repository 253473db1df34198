#include "StatusReport.h"

#include "InstanceJson.h"
#include "LogTail.h"
#include "Output.h"
#include "ServerAtLogin.h"

#include <cstdio>
#include <unistd.h>

namespace quendralctl {

namespace {

// "    Label: " with the colons of every label in one column.
std::string label(const char *name) {
    constexpr size_t kWidth = 13; // "    Directory"
    const std::string text = name;
    return std::string(kWidth - text.size(), ' ') + text + ": ";
}

std::string shown(const std::string &text) {
    return shownOn(STDOUT_FILENO, text);
}

} // namespace

bool hasLiveServer(const QuendralInstance &i) {
    const int32_t s = i.serverStatus();
    return i.pid() > 0 &&
           (s == ServerStatusRunning || s == ServerStatusStarting || s == ServerStatusStopping);
}

std::string durationText(time_t seconds) {
    if (seconds < 0) seconds = 0;
    const time_t days = seconds / 86400, hours = seconds / 3600 % 24, minutes = seconds / 60 % 60,
                 secs = seconds % 60;
    // The two largest units, the second left out when it is zero.
    auto two = [](time_t first, const char *firstUnit, time_t second, const char *secondUnit) {
        std::string text = std::to_string(static_cast<long long>(first));
        text += firstUnit;
        if (second > 0) {
            text += ' ';
            text += std::to_string(static_cast<long long>(second));
            text += secondUnit;
        }
        return text;
    };
    if (days > 0) return two(days, days == 1 ? " day" : " days", hours, "h");
    if (hours > 0) return two(hours, "h", minutes, "min");
    if (minutes > 0) return two(minutes, "min", secs, "s");
    return two(secs, "s", 0, "");
}

std::string sinceText(const timespec &since, time_t now) {
    struct tm tm {};
    char text[64];
    if (!localtime_r(&since.tv_sec, &tm) ||
        std::strftime(text, sizeof text, "%a %Y-%m-%d %H:%M:%S %Z", &tm) == 0)
        return "-";
    return std::string(text) + "; " + durationText(now - since.tv_sec) + " ago";
}

std::string isoTime(const timespec &t) {
    struct tm tm {};
    char text[64];
    if (!localtime_r(&t.tv_sec, &tm) ||
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &tm) == 0)
        return "";
    // strftime's offset is "+0200"; ISO 8601's extended form wants "+02:00".
    const std::string iso = text;
    return iso.size() < 5 ? iso : iso.substr(0, iso.size() - 2) + ":" + iso.substr(iso.size() - 2);
}

std::string memoryText(uint64_t bytes) {
    static const char units[] = "KMGTPE";
    if (bytes < 1024) return std::to_string(bytes) + "B";
    double v = static_cast<double>(bytes) / 1024;
    size_t u = 0;
    while (v >= 1024 && u + 1 < sizeof units - 1) {
        v /= 1024;
        u++;
    }
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.1f%c", v, units[u]);
    return text;
}

std::string endpointText(const Endpoint &e) {
    const bool v6 = e.address.find(':') != std::string::npos;
    return e.proto + " " + (v6 ? "[" + e.address + "]" : e.address) + ":" + std::to_string(e.port);
}

std::string portsText(const std::optional<std::vector<Endpoint>> &listening) {
    if (!listening) return "-";
    if (listening->empty()) return "none";
    std::string out;
    const Endpoint *last = nullptr;
    for (const Endpoint &e : *listening) {
        // The same port on IPv4 and IPv6 once.
        if (last && last->port == e.port && last->proto == e.proto) continue;
        last = &e;
        if (!out.empty()) out += ',';
        out += std::to_string(e.port);
        if (e.proto != "tcp") out += "/" + e.proto;
    }
    return out;
}

std::string statusReport(QuendralInstance &i, FactsReader &reader, size_t lines) {
    // As `systemctl status` opens with its unit: with several instances in
    // one terminal, each block says whose it is.
    std::string out = shown(i.displayName()) + " " + statusWord(i.serverStatus()) + "\n";
    out += label("Directory") + shown(i.directory()) + "\n";
    if (!i.unknownReason().empty()) out += label("Unknown") + shown(i.unknownReason()) + "\n";
    out +=
        label("Enabled") + (quendral::isEnabledAtLogin(i.directory()) ? "at login" : "no") + "\n";
    if (hasLiveServer(i)) {
        const std::string unit = serverUnit(i);
        const ServerFacts facts = reader.factsOf(i.pid(), unit);
        out += label("Server") + std::to_string(i.pid()) + " " +
               (facts.program ? shown(*facts.program) : "-") + "\n";
        out += label("Since") + (facts.since ? sinceText(*facts.since, time(nullptr)) : "-") + "\n";
        out += label("Memory") + (facts.memoryBytes ? memoryText(*facts.memoryBytes) : "-") + "\n";
        out += label("Listening");
        if (!facts.listening) {
            out += "-\n";
        } else if (facts.listening->empty()) {
            out += "none\n";
        } else {
            bool first = true;
            for (const Endpoint &e : *facts.listening) {
                out += (first ? "" : std::string(label("").size(), ' ')) + endpointText(e) + "\n";
                first = false;
            }
        }
        if (!unit.empty()) out += label("Unit") + shown(unit) + "\n";
    } else if (i.serverStatus() == ServerStatusStopped) {
        // No server, but what a server left running in its directory (a
        // worker that did not pass the stop on) still holds its ports:
        // said, so that "stopped" never hides a listener.
        bool first = true;
        for (const pid_t pid : FactsReader::processesWorkingIn(i.directory())) {
            const ServerFacts facts = reader.factsOf(pid, "");
            std::string ports;
            if (facts.listening)
                for (const Endpoint &e : *facts.listening)
                    ports += (ports.empty() ? ", listening on " : " ") + endpointText(e);
            out += (first ? label("Left behind") : std::string(label("").size(), ' ')) +
                   std::to_string(pid) + " " + (facts.program ? shown(*facts.program) : "-") +
                   ports + "\n";
            first = false;
        }
    }
    const auto log = i.logFile();
    out += label("Log") + (log ? shown(*log) : "-");
    if (log && lines > 0) {
        // As `log` reads it: the tail only, and a FIFO or device never
        // opened for reading.
        const LogTail tail = readLogTail(*log, lines);
        if (!tail.ok) {
            out += " (cannot be read)\n";
        } else if (!tail.text.empty()) {
            out += "\n\n" + linesShownOn(STDOUT_FILENO, tail.text);
        } else {
            out += "\n";
        }
    } else {
        out += "\n";
    }
    return out;
}

} // namespace quendralctl
