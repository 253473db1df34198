#include "ModelTestUtil.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdexcept>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace testsupport {

LogCapture::LogCapture() {
    previous_ = quendral::setLogSink([this](const std::string &l) { lines.push_back(l); });
}
LogCapture::~LogCapture() {
    quendral::setLogSink(previous_);
}

size_t LogCapture::count(const std::string &line) const {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

std::string makeInstanceDir(const TempDir &dir, const std::string &name, const std::string &ini) {
    const std::string path = dir / name;
    std::filesystem::create_directories(path);
    writeFile(path + "/quendral.ini", ini);
    return path;
}

ChildProcess::ChildProcess(std::vector<std::string> argv) {
    std::vector<char *> args;
    for (auto &a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        execvp(args[0], args.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    killAndReap();
}

void ChildProcess::killAndReap() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    // It may have been reaped by the model already; then this fails, which
    // is fine.
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::vector<std::string> LogCapture::linesButUnitNotices() const {
    std::vector<std::string> kept;
    for (const std::string &l : lines)
        if (l.find(" has no unit of its own: ") == std::string::npos) kept.push_back(l);
    return kept;
}

pid_t parentOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return 0;
    const size_t paren = line.rfind(')');
    if (paren == std::string::npos) return 0;
    char state = 0;
    long ppid = 0;
    if (std::sscanf(line.c_str() + paren + 1, " %c %ld", &state, &ppid) != 2) return 0;
    return static_cast<pid_t>(ppid);
}

bool waitFor(const std::function<bool()> &cond, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void writeLockFile(const std::string &path, long pid) {
    writeFile(path, std::to_string(pid) + "\n");
}

void backdate(const std::string &path, long seconds) {
    timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= seconds;
    times[1] = times[0];
    if (utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
        throw std::runtime_error("cannot set the time of " + path);
}

ReusedPidLockFile::ReusedPidLockFile(const std::string &path) {
    writeLockFile(path, unrelated_.pid());
    backdate(path, 2 * 24 * 3600);
}

bool ReusedPidLockFile::unrelatedAlive() const {
    const char state = processState(unrelated_.pid());
    return state != 0 && state != 'Z';
}

DemoInstallationFixture::DemoInstallationFixture() {
    unsetenv("QUENDRAL_BINARY");
    std::filesystem::create_directories(home / "bin");
    std::filesystem::copy_file(demoServerPath(), home / "bin/quendral");
    instDir = makeInstanceDir(home, "db");
    lck = instDir + "/quendral.lck";
    inst = std::make_unique<QuendralInstance>(instDir);
    if (!inst->isValid()) throw std::runtime_error("the instance's configuration is unusable");
}

std::string demoServerPath() {
    return QUENDRAL_DEMO_PATH;
}

int openDescriptors() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (const dirent *e = readdir(d))
            if (e->d_name[0] != '.') n++;
        closedir(d);
    }
    return n - 1; // the directory stream itself
}

int freeLoopbackPort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    const bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
                    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0;
    if (fd >= 0) close(fd);
    return ok ? ntohs(addr.sin_port) : 0;
}

bool connectsToLoopback(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    if (fd >= 0) close(fd);
    return ok;
}

} // namespace testsupport
