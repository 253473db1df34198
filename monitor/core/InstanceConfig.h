// An instance's configuration: where its lock file and its log file lie.
//
// Contract:
//   - The file is "quendral.ini" in the instance directory, section
//     "database", keys "lockfile" and "errorlogfile" (case-insensitive),
//     defaults "quendral.lck" and "quendral.log"; a relative value is taken
//     against the directory (as given, links not resolved) and standardised.
//   - The file counts only when it is a regular file, looked at without
//     following a link in its own name; anything else standing there is
//     logged "%@ is not a regular file - skipped" and is not a configuration.
//   - It is parsed again only when its modification time changed; one that
//     cannot be parsed, or is over kSizeLimit, leaves the defaults in force
//     and still counts. So a refresh never reads a big file twice.
//   - One thread; no locks.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace quendral {

class InstanceConfig {
  public:
    // `value` (or `defaultValue` when there is none) as an absolute path: an
    // absolute one as it stands, a relative one appended to `directory` and
    // standardised ("~" expanded, "." and ".." and repeated slashes
    // resolved).
    static std::string qualify(const std::string &directory,
                               const std::optional<std::string> &value,
                               const std::string &defaultValue);

    // Whether the configuration file of the instance in `directory` (always
    // the same one) is there and a regular file; reads it again when it
    // changed (see the contract).
    bool check(const std::string &directory);

    // The paths from the last read; nullopt before the first.
    const std::optional<std::string> &lockFile() const { return _lckFile; }
    const std::optional<std::string> &logFile() const { return _logFile; }

    // A "quendral.ini" larger than this is not parsed; the default paths apply.
    static constexpr int64_t kSizeLimit = 1 << 20;

  private:
    std::optional<std::string> _lckFile;
    std::optional<std::string> _logFile;
    std::optional<timespec> _cacheTime; // modification time of the last parse
};

} // namespace quendral
