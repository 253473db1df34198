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
#include <utility>

namespace quendral {

class InstanceConfig {
  public:
    explicit InstanceConfig(std::string directory) : directory_(std::move(directory)) {}

    // `value` (or `defaultValue` when there is none) as an absolute path: an
    // absolute one as it stands, a relative one appended to the directory
    // and standardised ("~" expanded, "." and ".." and repeated slashes
    // resolved).
    std::string qualify(const std::optional<std::string> &value,
                        const std::string &defaultValue) const;

    // Whether the configuration file is there and a regular file; reads it
    // again when it changed (see the contract).
    bool check();

    // The paths from the last read; nullopt before the first.
    const std::optional<std::string> &lockFile() const { return lockFile_; }
    const std::optional<std::string> &logFile() const { return logFile_; }

    // A "quendral.ini" larger than this is not parsed; the default paths apply.
    static constexpr int64_t kSizeLimit = 1 << 20;

  private:
    std::string directory_;
    std::optional<std::string> lockFile_;
    std::optional<std::string> logFile_;
    std::optional<timespec> readAt_; // modification time of the last parse
};

} // namespace quendral
