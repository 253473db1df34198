#include "TempDir.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <dirent.h>
#include <thread>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/time.h>

namespace testsupport {

char processState(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return 0;
    const size_t paren = line.rfind(')');
    return paren != std::string::npos && paren + 2 < line.size() ? line[paren + 2] : 0;
}

std::vector<pid_t> processesIn(const std::string &dir) {
    std::vector<pid_t> found;
    std::error_code ec;
    std::string root = std::filesystem::canonical(dir, ec).string();
    if (ec) root = dir;
    DIR *proc = opendir("/proc");
    if (!proc) return found;
    while (const dirent *e = readdir(proc)) {
        char *end = nullptr;
        const long pid = std::strtol(e->d_name, &end, 10);
        if (*end || pid <= 0) continue;
        char target[4096];
        const std::string link = std::string("/proc/") + e->d_name + "/cwd";
        const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        if (n <= 0) continue;
        std::string cwd(target, static_cast<size_t>(n));
        // A directory removed since shows as "PATH (deleted)".
        const std::string deleted = " (deleted)";
        if (cwd.size() > deleted.size() && cwd.ends_with(deleted))
            cwd.resize(cwd.size() - deleted.size());
        if (cwd != root && !cwd.starts_with(root + "/")) continue;
        const char state = processState(static_cast<pid_t>(pid));
        if (state != 0 && state != 'Z') found.push_back(static_cast<pid_t>(pid));
    }
    closedir(proc);
    return found;
}

void killProcessesIn(const std::string &dir) {
    for (int round = 0; round < 3; round++) {
        const auto pids = processesIn(dir);
        if (pids.empty()) return;
        for (pid_t p : pids) kill(p, SIGKILL);
        for (int i = 0; i < 500; i++) {
            if (std::all_of(pids.begin(), pids.end(), [](pid_t p) {
                    const char state = processState(p);
                    return state == 0 || state == 'Z';
                }))
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

TempDir::TempDir() {
    const char *base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/qmtest.XXXXXX";
    if (mkdtemp(tmpl.data()) == nullptr)
        throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
    path_ = tmpl;
}

TempDir::~TempDir() {
    killProcessesIn(path_);
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
