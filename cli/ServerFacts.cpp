#include "ServerFacts.h"

#include "ProcessHandle.h"
#include "SystemIo.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>
#include <netinet/in.h>
#include <set>
#include <string_view>
#include <tuple>
#include <sys/socket.h>
#include <unistd.h>

namespace quendralctl {

bool operator<(const Endpoint &a, const Endpoint &b) {
    return std::tie(a.port, a.proto, a.address) < std::tie(b.port, b.proto, b.address);
}
bool operator==(const Endpoint &a, const Endpoint &b) {
    return std::tie(a.port, a.proto, a.address) == std::tie(b.port, b.proto, b.address);
}

namespace {

bool allDigits(const char *s) {
    if (!*s) return false;
    for (; *s; s++)
        if (*s < '0' || *s > '9') return false;
    return true;
}

// One address of /proc/net/tcp or tcp6: hex words as the kernel stores them
// (in this machine's byte order), then ":" and the port in hex.
bool parseAddress(std::string_view text, bool v6, std::string &address, unsigned &port) {
    const size_t colon = text.find(':');
    const size_t words = v6 ? 4 : 1;
    if (colon != words * 8) return false;
    uint32_t raw[4] = {};
    for (size_t w = 0; w < words; w++) {
        char hex[9] = {};
        std::memcpy(hex, text.data() + w * 8, 8);
        char *end = nullptr;
        raw[w] = static_cast<uint32_t>(std::strtoul(hex, &end, 16));
        if (*end) return false;
    }
    char out[INET6_ADDRSTRLEN];
    if (!inet_ntop(v6 ? AF_INET6 : AF_INET, raw, out, sizeof out)) return false;
    address = out;
    char *end = nullptr;
    const std::string portText(text.substr(colon + 1));
    port = static_cast<unsigned>(std::strtoul(portText.c_str(), &end, 16));
    return end != portText.c_str() && *end == '\0';
}

// Listening TCP sockets (state 0A) and bound UDP sockets (state 07, not
// connected) of one table, by inode.
void readTable(const char *path, const char *proto, bool v6, bool tcp,
               std::unordered_map<uint64_t, Endpoint> &into) {
    const std::optional<std::string> text = quendral::sys::readWhole(path);
    if (!text) return;
    std::string_view rest(*text);
    rest.remove_prefix(std::min(rest.size(), rest.find('\n') + 1)); // the header
    while (!rest.empty()) {
        const size_t eol = rest.find('\n');
        std::string_view line = rest.substr(0, eol);
        rest.remove_prefix(eol == std::string_view::npos ? rest.size() : eol + 1);
        // sl local rem st tx:rx tr:when retrnsmt uid timeout inode ...
        std::string_view field[10];
        size_t count = 0;
        while (count < 10) {
            const size_t start = line.find_first_not_of(' ');
            if (start == std::string_view::npos) break;
            line.remove_prefix(start);
            const size_t end = line.find(' ');
            field[count++] = line.substr(0, end);
            line.remove_prefix(end == std::string_view::npos ? line.size() : end);
        }
        if (count < 10) continue;
        if (field[3] != (tcp ? "0A" : "07")) continue;
        Endpoint e;
        e.proto = proto;
        if (!parseAddress(field[1], v6, e.address, e.port) || e.port == 0) continue;
        const std::string inodeText(field[9]);
        char *end = nullptr;
        const uint64_t inode = std::strtoull(inodeText.c_str(), &end, 10);
        if (*end || inode == 0) continue;
        into.emplace(inode, std::move(e));
    }
}

// The listening TCP sockets of one address family, asked of the kernel's
// socket diagnostics (netlink): it walks only the table of listening
// sockets, where /proc/net/tcp walks every bucket of the established ones,
// which grows with the machine's memory (4 ms a read on a 24 GiB machine).
// False when the kernel does not answer so (no sock_diag): then the caller
// reads /proc.
bool readTcpListeners(int family, std::unordered_map<uint64_t, Endpoint> &into) {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) return false;
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } ask{};
    ask.header.nlmsg_len = sizeof ask;
    ask.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    ask.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    ask.request.sdiag_family = static_cast<uint8_t>(family);
    ask.request.sdiag_protocol = IPPROTO_TCP;
    ask.request.idiag_states = 1u << TCP_LISTEN;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd, &ask, sizeof ask, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof kernel) !=
        static_cast<ssize_t>(sizeof ask)) {
        close(fd);
        return false;
    }
    alignas(nlmsghdr) char buffer[16384];
    bool ok = false;
    for (bool done = false; !done;) {
        const ssize_t n =
            quendral::sys::retryOnInterrupt([&] { return recv(fd, buffer, sizeof buffer, 0); });
        if (n <= 0) break;
        auto *h = reinterpret_cast<nlmsghdr *>(buffer);
        for (int left = static_cast<int>(n); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
            if (h->nlmsg_type == NLMSG_DONE) {
                ok = done = true;
                break;
            }
            if (h->nlmsg_type == NLMSG_ERROR) {
                done = true;
                break;
            }
            if (h->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) continue;
            const auto *m = static_cast<const inet_diag_msg *>(NLMSG_DATA(h));
            if (m->idiag_inode == 0) continue;
            char text[INET6_ADDRSTRLEN];
            if (!inet_ntop(family, m->id.idiag_src, text, sizeof text)) continue;
            Endpoint e;
            e.proto = "tcp";
            e.address = text;
            e.port = ntohs(m->id.idiag_sport);
            if (e.port == 0) continue;
            into.emplace(m->idiag_inode, std::move(e));
        }
    }
    close(fd);
    return ok;
}

// Every listening TCP socket, by inode: netlink, else /proc.
void readTcpListeners(std::unordered_map<uint64_t, Endpoint> &into) {
    std::unordered_map<uint64_t, Endpoint> found;
    if (readTcpListeners(AF_INET, found) && readTcpListeners(AF_INET6, found)) {
        into.merge(found);
        return;
    }
    readTable("/proc/net/tcp", "tcp", false, true, into);
    readTable("/proc/net/tcp6", "tcp", true, true, into);
}

} // namespace

void FactsReader::readSocketTables() {
    if (socketsRead_) return;
    socketsRead_ = true;
    readTcpListeners(listening_);
    readTable("/proc/net/udp", "udp", false, false, listening_);
    readTable("/proc/net/udp6", "udp", true, false, listening_);
}

std::vector<uint64_t> FactsReader::tcpListenerInodes() {
    std::unordered_map<uint64_t, Endpoint> found;
    readTcpListeners(found);
    std::vector<uint64_t> inodes;
    inodes.reserve(found.size());
    for (const auto &[inode, endpoint] : found) inodes.push_back(inode);
    std::sort(inodes.begin(), inodes.end());
    return inodes;
}

std::vector<pid_t> FactsReader::treeOf(pid_t pid) {
    // Every process's parent, read once: /proc/PID/task/TID/children would
    // be shorter, but exists only on kernels built with it, and lists a
    // child under the thread that forked it.
    if (!processesRead_) {
        processesRead_ = true;
        if (DIR *d = opendir("/proc")) {
            while (const dirent *e = readdir(d)) {
                if (!allDigits(e->d_name)) continue;
                const auto child = static_cast<pid_t>(std::strtol(e->d_name, nullptr, 10));
                const auto stat = quendral::readProcessStat(child);
                if (stat && stat->parent > 0) children_[stat->parent].push_back(child);
            }
            closedir(d);
        }
    }
    std::vector<pid_t> tree{pid};
    for (size_t k = 0; k < tree.size() && tree.size() < 100000; k++) {
        const auto found = children_.find(tree[k]);
        if (found != children_.end())
            tree.insert(tree.end(), found->second.begin(), found->second.end());
    }
    return tree;
}

std::optional<std::vector<Endpoint>> FactsReader::listeningOf(pid_t pid) {
    return listeningOf(treeOf(pid));
}

std::optional<std::set<uint64_t>> FactsReader::socketsOf(pid_t pid) {
    std::set<uint64_t> inodes;
    char path[48];
    (void)std::snprintf(path, sizeof path, "/proc/%d/fd", static_cast<int>(pid));
    DIR *d = opendir(path);
    if (!d) {
        // Gone since it was found: it holds nothing any more. Anything else
        // (another user's process) cannot be told.
        if (errno == ENOENT || errno == ESRCH) return inodes;
        return std::nullopt;
    }
    while (const dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        char link[64];
        const ssize_t n = readlinkat(dirfd(d), e->d_name, link, sizeof link - 1);
        if (n <= 0) continue;
        link[n] = '\0';
        constexpr std::string_view kSocket = "socket:[";
        if (std::string_view(link).starts_with(kSocket)) {
            char *end = nullptr;
            const unsigned long long inode = std::strtoull(link + kSocket.size(), &end, 10);
            if (*end == ']') inodes.insert(inode);
        }
    }
    closedir(d);
    return inodes;
}

std::optional<std::vector<Endpoint>> FactsReader::listeningOf(const std::vector<pid_t> &tree) {
    std::set<uint64_t> inodes;
    for (const pid_t p : tree) {
        const auto own = socketsOf(p);
        if (!own) return std::nullopt;
        inodes.insert(own->begin(), own->end());
    }
    std::vector<Endpoint> found;
    // A server without sockets costs no look at the tables.
    if (!inodes.empty()) {
        readSocketTables();
        for (const uint64_t inode : inodes)
            if (const auto e = listening_.find(inode); e != listening_.end())
                found.push_back(e->second);
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

std::optional<uint64_t> FactsReader::memoryOf(pid_t pid, const std::vector<pid_t> &tree,
                                              const std::string &unit) {
    char path[4200];
    // The unit's own counter, where the unit holds the server alone: it
    // counts what resident sizes do not (the page cache the server caused,
    // kernel memory), and shared pages once. A unit holding other processes
    // too (the terminal's scope a server was started from) would count
    // theirs, so then the resident sizes are summed instead.
    if (!unit.empty()) {
        (void)std::snprintf(path, sizeof path, "/proc/%d/cgroup", static_cast<int>(pid));
        const std::optional<std::string> cgroups = quendral::sys::readWhole(path);
        const size_t at = cgroups ? cgroups->find("0::/") : std::string::npos;
        if (at != std::string::npos && (at == 0 || (*cgroups)[at - 1] == '\n')) {
            std::string group = cgroups->substr(at + 3);
            if (const size_t end = group.find('\n'); end != std::string::npos) group.resize(end);
            if (group.size() > unit.size() && group.ends_with("/" + unit)) {
                for (const char *root : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
                    (void)std::snprintf(path, sizeof path, "%s%s/cgroup.procs", root,
                                        group.c_str());
                    const std::optional<std::string> procs = quendral::sys::readWhole(path);
                    if (!procs) continue;
                    bool alone = true;
                    for (const char *p = procs->c_str(); *p && alone;) {
                        char *end = nullptr;
                        const long member = std::strtol(p, &end, 10);
                        if (end == p) break;
                        alone = std::find(tree.begin(), tree.end(), member) != tree.end();
                        p = end;
                    }
                    (void)std::snprintf(path, sizeof path, "%s%s/memory.current", root,
                                        group.c_str());
                    const std::optional<std::string> current =
                        alone ? quendral::sys::readWhole(path) : std::nullopt;
                    if (current && !current->empty())
                        return std::strtoull(current->c_str(), nullptr, 10);
                    break;
                }
            }
        }
    }
    const long page = sysconf(_SC_PAGESIZE);
    uint64_t sum = 0;
    for (const pid_t p : tree) {
        (void)std::snprintf(path, sizeof path, "/proc/%d/statm", static_cast<int>(p));
        const std::optional<std::string> statm = quendral::sys::readWhole(path);
        // "size resident shared ...", in pages.
        char *end = nullptr;
        unsigned long long resident = 0;
        if (statm) {
            (void)std::strtoull(statm->c_str(), &end, 10);
            const char *second = end;
            resident = std::strtoull(second, &end, 10);
            if (end == second) end = nullptr;
        }
        if (!statm || !end) {
            if (p == pid) return std::nullopt;
            continue; // a descendant that has just ended
        }
        sum += resident * static_cast<uint64_t>(page > 0 ? page : 4096);
    }
    return sum;
}

ServerFacts FactsReader::factsOf(pid_t pid, const std::string &unit) {
    ServerFacts facts;
    if (pid <= 0) return facts;
    char path[48];
    (void)std::snprintf(path, sizeof path, "/proc/%d/exe", static_cast<int>(pid));
    char exe[4096];
    const ssize_t n = readlink(path, exe, sizeof exe - 1);
    if (n > 0) facts.program = std::string(exe, static_cast<size_t>(n));
    facts.since = quendral::processStartTime(pid);
    const std::vector<pid_t> tree = treeOf(pid);
    facts.memoryBytes = memoryOf(pid, tree, unit);
    facts.listening = listeningOf(tree);
    return facts;
}

std::vector<pid_t> FactsReader::processesWorkingIn(const std::string &directory) {
    std::vector<pid_t> found;
    const std::string real = quendral::sys::realPath(directory);
    if (real.empty()) return found;
    DIR *proc = opendir("/proc");
    if (!proc) return found;
    while (const dirent *e = readdir(proc)) {
        char *end = nullptr;
        const long pid = std::strtol(e->d_name, &end, 10);
        if (pid <= 0 || *end != '\0' || pid == getpid()) continue;
        char link[64], target[4096];
        (void)std::snprintf(link, sizeof link, "/proc/%ld/cwd", pid);
        const ssize_t n = readlink(link, target, sizeof target);
        if (n <= 0 || static_cast<size_t>(n) == sizeof target) continue;
        if (std::string_view(target, static_cast<size_t>(n)) != real) continue;
        const auto stat = quendral::readProcessStat(static_cast<pid_t>(pid));
        if (stat && !quendral::hasEnded(stat->state)) found.push_back(static_cast<pid_t>(pid));
    }
    closedir(proc);
    std::sort(found.begin(), found.end());
    return found;
}

} // namespace quendralctl
