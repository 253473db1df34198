// Helpers for tests of the instance model: captured log lines, instance
// directories on disk, and real child processes.
#pragma once

#include "Log.h"
#include "QuendralInstance.h"
#include "TempDir.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace testsupport {

// Collects every log line while it lives.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines;
    size_t count(const std::string &line) const;
    // The lines but those saying that a started server has no unit of its
    // own (there is no service manager where the tests run).
    std::vector<std::string> linesButUnitNotices() const;
    void clear() { lines.clear(); }

  private:
    quendral::LogSink previous_;
};

// Makes dir/name with a quendral.ini holding text; returns its path.
std::string makeInstanceDir(const TempDir &dir, const std::string &name,
                            const std::string &ini = "[database]\n");

// A child running "sleep 1000" (or the given command); killed and reaped by
// the destructor unless it already ended.
class ChildProcess {
  public:
    explicit ChildProcess(std::vector<std::string> argv = {"sleep", "1000"});
    ~ChildProcess();
    pid_t pid() const { return pid_; }
    void killAndReap();

  private:
    pid_t pid_ = -1;
};

// The parent pid of a live process, or 0.
pid_t parentOf(pid_t pid);

// Polls cond every 10 ms until it holds or the time runs out.
bool waitFor(const std::function<bool()> &cond,
             std::chrono::milliseconds limit = std::chrono::seconds(10));

// Sets an environment variable for the life of the object.
class ScopedEnv {
  public:
    ScopedEnv(const char *name, const std::string &value) : name_(name) {
        if (const char *old = std::getenv(name)) old_ = old;
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (old_)
            setenv(name_, old_->c_str(), 1);
        else
            unsetenv(name_);
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

  private:
    const char *name_;
    std::optional<std::string> old_;
};

// Writes a lock file naming pid.
void writeLockFile(const std::string &path, long pid);

// Sets a file's modification time to `seconds` before now.
void backdate(const std::string &path, long seconds);

// A lock file left by a server that ended long ago, whose pid the system has
// since given to an unrelated process: it names a live process (a "sleep"
// started here) and was last written two days before that process began.
class ReusedPidLockFile {
  public:
    explicit ReusedPidLockFile(const std::string &path);
    pid_t pid() const { return unrelated_.pid(); }
    bool unrelatedAlive() const;

  private:
    ChildProcess unrelated_;
};

// One valid instance directory "x" in a temporary directory, its lock file
// path and the instance, with log lines captured.
class InstanceFixture {
  protected:
    TempDir dir;
    LogCapture log;
    std::string instDir = makeInstanceDir(dir, "x");
    std::string lck = instDir + "/quendral.lck";
    QuendralInstance inst{instDir};
};

// An installation whose bin/quendral is the demo server (serving no web
// page) with one instance "db" whose configuration has been read, for tests
// that start real servers. QUENDRAL_BINARY is unset while it lives.
class DemoInstallationFixture {
  protected:
    DemoInstallationFixture();
    TempDir home;
    LogCapture log;
    ScopedEnv noBinary{"QUENDRAL_BINARY", ""};
    ScopedEnv noHttp{"QUENDRAL_DEMO_HTTP_PORT", "0"};
    std::string instDir;
    std::string lck; // the instance's lock file
    std::unique_ptr<QuendralInstance> inst;
};

// How many descriptors this process has open.
int openDescriptors();

// The demo server built with this project.
std::string demoServerPath();

// A TCP port on the loopback that nobody listens on right now: the system
// picks one, and it is let go for a server to take. 0 when none was had.
int freeLoopbackPort();

// Whether a connection to the loopback port is taken.
bool connectsToLoopback(int port);

} // namespace testsupport
