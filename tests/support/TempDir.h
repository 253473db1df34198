// Temporary directories and files for tests: real files on the real file
// system, removed when the test ends.
#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>
#include <string_view>

namespace testsupport {

class TempDir {
  public:
    TempDir();
    // Kills whatever still runs inside the tree (a server a test started and
    // could not stop), then removes the tree.
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    // path() joined with a relative name.
    std::string operator/(std::string_view name) const;

  private:
    std::string path_;
};

// Process state letter from /proc (R, S, Z, ...), or 0 when gone.
char processState(pid_t pid);

// The processes still running (zombies left out) whose working directory is
// `dir` or lies under it: the servers started there, whoever started them.
std::vector<pid_t> processesIn(const std::string &dir);

// Kills (SIGKILL) every process processesIn(dir) finds, so that no server a
// test started outlives it, and waits until they have ended.
void killProcessesIn(const std::string &dir);

// Writes bytes to a file, replacing it.
void writeFile(const std::string &path, std::string_view bytes);
std::string readFile(const std::string &path);

// Sets a file's modification time to whole seconds (nanoseconds zero).
void setMtime(const std::string &path, long seconds);
long mtimeOf(const std::string &path);

} // namespace testsupport
