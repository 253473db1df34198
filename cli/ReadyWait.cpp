#include "ReadyWait.h"

#include "ServerFacts.h"
#include "WaitEvents.h"

#include <algorithm>
#include <set>

namespace quendralctl {

namespace {

// Whether the server listens, given the sorted inodes of every listening TCP
// socket.
bool listensOnTcp(const QuendralInstance &i, const std::vector<uint64_t> &listeners) {
    if (i.serverStatus() != ServerStatusRunning || i.pid() <= 0) return false;
    // The server's own descriptors first: a server usually listens itself,
    // and that look is cheap. Its descendants (workers it forked) need the
    // whole process table.
    if (const auto own = FactsReader::socketsOf(i.pid()))
        for (const uint64_t inode : *own)
            if (std::binary_search(listeners.begin(), listeners.end(), inode)) return true;
    FactsReader reader;
    const auto listening = reader.listeningOf(i.pid());
    return listening && std::any_of(listening->begin(), listening->end(),
                                    [](const Endpoint &e) { return e.proto == "tcp"; });
}

} // namespace

Instances waitUntilListening(const Instances &list,
                             std::chrono::steady_clock::time_point deadline) {
    using Clock = std::chrono::steady_clock;
    WaitEvents events;
    std::set<const QuendralInstance *> settled;
    Instances listening;
    std::vector<uint64_t> seen;
    bool first = true;
    const auto began = Clock::now();
    for (;;) {
        const auto lookBegan = Clock::now();
        // Taken before the servers are looked at: a socket that begins to
        // listen after this look changes the next one.
        const std::vector<uint64_t> listeners = FactsReader::tcpListenerInodes();
        const bool changed = first || listeners != seen;
        first = false;
        Instances pending;
        for (const auto &i : list) {
            if (settled.count(i.get())) continue;
            events.watch(*i);
            i->refresh();
            if (i->serverStatus() != ServerStatusRunning) {
                settled.insert(i.get());
            } else if (changed && listensOnTcp(*i, listeners)) {
                settled.insert(i.get());
                listening.push_back(i);
            } else {
                pending.push_back(i);
            }
        }
        seen = listeners;
        const auto now = Clock::now();
        if (pending.empty() || now >= deadline) return listening;
        // The look's share of a core stays bounded: the pause is many times
        // what the look cost (a machine with thousands of sockets costs
        // more per look), and grows with the time already waited, so a
        // server slow to listen is seen late by a small fraction of its own
        // time, never at the price of a busy core.
        const auto cost = now - lookBegan;
        const auto pause = std::clamp<Clock::duration>(
            std::max(cost * kReadyCostFactor, (now - began) / kReadyLatenessDivisor),
            std::chrono::milliseconds(kReadyPollMs), std::chrono::milliseconds(kReadyPollMaxMs));
        events.sleep(pending, std::min(deadline, now + pause));
    }
}

} // namespace quendralctl
