// One Quendral server instance on disk: a directory holding "quendral.ini".
// It knows its lock and log files, the pid of its server, the server's
// status, and how to start and stop the server.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

// Server status of an instance.
enum : int32_t {
    ServerStatusUnknown = 0,  // made, never refreshed
    ServerStatusStopped = 1,  // no live server process
    ServerStatusStarting = 2, // launched by us, not yet confirmed by the lock file
    ServerStatusRunning = 3,  // a live process with the instance's pid
    ServerStatusStopping = 4, // SIGTERM sent
};

// Outcome of the last refresh for the instance's place in the manager's list.
enum : int32_t {
    EntryStatusUnchanged = 0,
    EntryStatusNew = 1,
    EntryStatusChanged = 2,
    EntryStatusRemoved = 3, // configuration gone or unusable: the manager drops it
};

class QuendralInstance {
  public:
    explicit QuendralInstance(std::string path);

    // "Default Instance" or "Instance '<display name>'", localised.
    std::string instanceName() const;
    const std::string &directory() const { return _path; }
    std::string displayName() const { return _displayName; }
    bool isDefault() const { return _isDefault; }
    int32_t serverStatus() const { return _serverStatus; }
    int32_t entryStatus() const { return _entryStatus; }
    int32_t pid() const { return _pid; }
    // The lock file's path once the configuration was read, else nullopt.
    const std::optional<std::string> &lockFile() const { return _lckFile; }

    // A configured path made absolute against the instance directory.
    std::string qualify(const std::optional<std::string> &value,
                        const std::string &defaultValue) const;
    // Whether "quendral.ini" is usable; re-reads it when its time changed.
    bool isValid();
    // The error log's path if it exists and is not a directory.
    std::optional<std::string> logFile();
    int32_t pidValueFromLockFile();
    bool isRunning(int32_t pid);
    void setStatus(int32_t status);
    void refresh();

    bool canStart() const;
    std::string findExecutable() const;
    int32_t launchExecutable(const std::string &executable, const std::vector<std::string> &options,
                             const std::string &directory);
    bool startup();
    bool shutdown();

    // Lock files are read only this far: a pid needs a few bytes, and nothing
    // on disk may make a refresh read without bound.
    static constexpr size_t kLockFileReadLimit = 4096;
    // A "quendral.ini" larger than this is not parsed; the default paths apply.
    static constexpr int64_t kConfigSizeLimit = 1 << 20;

  private:
    std::string _path;
    std::optional<std::string> _lckFile;
    std::optional<std::string> _logFile;
    int32_t _pid = 0;
    std::optional<timespec> _cacheTime;
    bool _isDefault = false;
    int32_t _entryStatus = EntryStatusNew;
    int32_t _serverStatus = ServerStatusUnknown;
    std::string _displayName;
};
