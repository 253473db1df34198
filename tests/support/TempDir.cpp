#include "TempDir.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/time.h>

namespace testsupport {

TempDir::TempDir() {
    const char *base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/qmtest.XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr)
        throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests may leave directories without permissions behind; give them back
    // so the tree can be removed.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                         std::filesystem::perm_options::add, ec);
    }
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(path_, ec);
}

std::string TempDir::operator/(std::string_view name) const {
    return path_ + "/" + std::string(name);
}

void writeFile(const std::string &path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void setMtime(const std::string &path, long seconds) {
    struct timeval tv[2] = {{seconds, 0}, {seconds, 0}};
    if (utimes(path.c_str(), tv) != 0)
        throw std::runtime_error("utimes " + path + ": " + std::strerror(errno));
}

long mtimeOf(const std::string &path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) throw std::runtime_error("stat " + path);
    return static_cast<long>(st.st_mtime);
}

} // namespace testsupport
