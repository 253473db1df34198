// What `start --wait N --ready` waits for past "running": a server writes its
// lock file before it accepts connections, so a script's next command could
// still be refused. Ready is when the server, or a process it started,
// listens on a TCP port (the addresses `status` shows as Listening).
//
// The kernel reports no socket beginning to listen. So the wait looks at the
// table of listening sockets (asked of the kernel over netlink); only when
// that set has changed are the server's own descriptors looked at. Between
// looks it pauses kReadyCostFactor times what the last look cost, or a
// kReadyLatenessDivisor-th of the time waited so far if that is longer,
// within kReadyPollMs and kReadyPollMaxMs: at most about 5 % of a core
// however many sockets the machine has, and a server is seen listening
// within about 2 % of its own time to listen. A server that ends wakes the wait at once, as for
// --wait (WaitEvents.h).
#pragma once

#include "Commands.h"

#include <chrono>

namespace quendralctl {

constexpr int kReadyPollMs = 1;
constexpr int kReadyPollMaxMs = 100;
constexpr int kReadyCostFactor = 20;
constexpr int kReadyLatenessDivisor = 50;

// Refreshes the instances until each one listens, is no longer running, or
// the deadline has passed; the ones that listen.
Instances waitUntilListening(const Instances &list, std::chrono::steady_clock::time_point deadline);

} // namespace quendralctl
