// Where the model's messages go: one line each to the system log and to
// stderr, unless a test or the application installs its own sink.
//
// Contract: a message is one line, its text fixed by the code that logs it
// (the formats are part of what users and tests read) with arguments put in
// as they are; the sink is called under a lock, so lines from several
// threads never interleave; logging never fails and never throws.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

namespace quendral {

using LogSink = std::function<void(const std::string &line)>;

// Sets the ident used for the system log ("quendral-monitor", "quendralctl").
void setLogIdent(const char *ident);
// The program's name as the log gives it.
std::string currentLogIdent();

// Replaces where lines go; an empty sink restores the system log + stderr.
// Returns the previous sink.
LogSink setLogSink(LogSink sink);

// Logs one message line.
void logLine(const std::string &line);

// Fills a message format: each "%@" or "%d" takes the next argument in turn,
// "%%" is a literal "%". Arguments are inserted as they are: a "%" in an
// argument is never read as a placeholder.
std::string fillPlaceholders(std::string_view format, std::initializer_list<std::string> args);

// fillPlaceholders, then logLine.
void logMessage(std::string_view format, std::initializer_list<std::string> args = {});

} // namespace quendral
