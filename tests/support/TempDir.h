// Temporary directories and files for tests: real files on the real file
// system, removed when the test ends.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace testsupport {

class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    // path() joined with a relative name.
    std::string operator/(std::string_view name) const;

  private:
    std::string path_;
};

// Writes bytes to a file, replacing it.
void writeFile(const std::string &path, std::string_view bytes);
std::string readFile(const std::string &path);

// Sets a file's modification time to whole seconds (nanoseconds zero).
void setMtime(const std::string &path, long seconds);
long mtimeOf(const std::string &path);

} // namespace testsupport
