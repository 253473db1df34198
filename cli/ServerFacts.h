// What the system can tell about a live server beyond its pid: the program it
// runs, when it began, the memory it and its descendants take, and the
// addresses on which they listen. Read from /proc and the kernel's socket
// tables of this network namespace (/proc/net/tcp, tcp6, udp, udp6), never
// through a helper program.
//
// A server is the process and its descendants: a database that serves from
// forked workers listens and spends its memory there. What cannot be read
// (another user's process hides its descriptors; /proc mounted to hide
// processes) is nullopt, never an error: the caller shows "-".
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace quendralctl {

struct Endpoint {
    std::string proto;   // "tcp" or "udp"
    std::string address; // "127.0.0.1", "::", "::1"
    unsigned port = 0;
};
bool operator<(const Endpoint &a, const Endpoint &b);
bool operator==(const Endpoint &a, const Endpoint &b);

struct ServerFacts {
    std::optional<std::string> program;             // the executable's path
    std::optional<timespec> since;                  // when the server began, wall clock
    std::optional<uint64_t> memoryBytes;            // the server and its descendants
    std::optional<std::vector<Endpoint>> listening; // sorted, each once
};

// Reads facts of servers. The process table and the socket tables are each
// read at most once per reader, and only when asked for: a listing of
// stopped instances reads neither, one of many running servers reads each
// once.
class FactsReader {
  public:
    // Every fact of the server `pid`; `unit` is the unit of the user's
    // service manager holding it ("" for none), whose memory counter is the
    // server's own when the unit holds nothing else.
    ServerFacts factsOf(pid_t pid, const std::string &unit);
    // The addresses on which the server `pid` and its descendants listen:
    // TCP sockets in the listening state, UDP sockets bound to a port.
    std::optional<std::vector<Endpoint>> listeningOf(pid_t pid);

    // The inodes of every TCP socket of this network namespace in the
    // listening state, sorted, from the kernel's socket tables alone: cheap
    // enough to look at often, and what changes when anyone begins to
    // listen.
    static std::vector<uint64_t> tcpListenerInodes();
    // The inodes of the sockets the process `pid` holds; empty when it has
    // gone, nullopt when its descriptors cannot be read.
    static std::optional<std::set<uint64_t>> socketsOf(pid_t pid);

    // Live processes (this one aside) whose working directory is
    // `directory`, links resolved: a server runs in its instance directory,
    // and so do workers it forked and left running when it ended. Sorted.
    static std::vector<pid_t> processesWorkingIn(const std::string &directory);

  private:
    // `pid` first, then its descendants.
    std::vector<pid_t> treeOf(pid_t pid);
    std::optional<uint64_t> memoryOf(pid_t pid, const std::vector<pid_t> &tree,
                                     const std::string &unit);
    std::optional<std::vector<Endpoint>> listeningOf(const std::vector<pid_t> &tree);
    void readSocketTables();

    bool processesRead_ = false;
    std::unordered_map<pid_t, std::vector<pid_t>> children_;
    bool socketsRead_ = false;
    // Socket inode -> where that socket listens.
    std::unordered_map<uint64_t, Endpoint> listening_;
};

} // namespace quendralctl
