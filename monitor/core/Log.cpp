#include "Log.h"

#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace quendral {

namespace {
std::mutex sinkMutex;
LogSink currentSink;
const char *logIdent = "quendral-monitor";
bool syslogOpen = false;

void defaultSink(const std::string &line) {
    if (!syslogOpen) {
        openlog(logIdent, LOG_PID, LOG_USER);
        syslogOpen = true;
    }
    syslog(LOG_NOTICE, "%s", line.c_str());
    (void)std::fprintf(stderr, "%s: %s\n", logIdent, line.c_str()); // best effort
}
} // namespace

void setLogIdent(const char *ident) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    logIdent = ident;
    if (syslogOpen) {
        closelog();
        syslogOpen = false;
    }
}

std::string currentLogIdent() {
    std::lock_guard<std::mutex> lock(sinkMutex);
    return logIdent;
}

LogSink setLogSink(LogSink sink) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    LogSink previous = std::move(currentSink);
    currentSink = std::move(sink);
    return previous;
}

void logLine(const std::string &line) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    if (currentSink)
        currentSink(line);
    else
        defaultSink(line);
}

std::string fillPlaceholders(std::string_view format, std::initializer_list<std::string> args) {
    std::string out;
    out.reserve(format.size() + 32);
    auto next = args.begin();
    for (size_t i = 0; i < format.size(); i++) {
        const char c = format[i];
        if (c == '%' && i + 1 < format.size()) {
            const char spec = format[i + 1];
            if (spec == '%') {
                out += '%';
                i++;
                continue;
            }
            if ((spec == '@' || spec == 'd') && next != args.end()) {
                out += *next++;
                i++;
                continue;
            }
        }
        out += c;
    }
    return out;
}

void logMessage(std::string_view format, std::initializer_list<std::string> args) {
    logLine(fillPlaceholders(format, args));
}

} // namespace quendral
