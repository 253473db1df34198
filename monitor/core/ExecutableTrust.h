// Whether a program file may be started on the user's behalf. A server
// executable is found by looking in places (the instance directory, the
// "bin" beside it, QUENDRAL_BINARY, PATH) that on a shared machine another
// user may be able to write to; starting a file from such a place would run
// that user's program as ours. So a program is started only if nobody but us
// or root can have put it there or changed it: the file (links followed) and
// the directory holding it must be owned by us or root and not writable by
// group or others. A sticky directory (like /tmp) may be writable by others,
// since they cannot replace a file they do not own. This is the rule ssh
// applies to its keys.
#pragma once

#include <optional>
#include <string>

namespace quendral {

// Why the program at `path` must not be started, in a few words naming the
// offending file or directory; nullopt when it may be.
std::optional<std::string> whyUntrusted(const std::string &path);

// The first file named `name` along `searchPath` (a PATH value) that exists,
// is executable, is not a directory and may be started; untrusted ones are
// skipped, each with one log line. Relative entries (an empty one means ".")
// are taken against `workingDirectory`, where the program will run, as
// execvp there would take them. nullopt when there is none.
std::optional<std::string> findTrustedOnPath(const std::string &name, const std::string &searchPath,
                                             const std::string &workingDirectory);

// Logs the line for a candidate that is skipped: "<path> is not started:
// <reason>".
void logUntrusted(const std::string &path, const std::string &reason);

} // namespace quendral
