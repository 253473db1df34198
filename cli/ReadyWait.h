// What `start --wait N --ready` waits for past "running": a server writes its
// lock file before it accepts connections, so a script's next command could
// still be refused. Ready is when the server, or a process it started,
// listens on a TCP port (the addresses `status` shows as Listening).
//
// The kernel reports no socket beginning to listen. So the wait looks at the
// socket tables every kReadyPollMs, which costs a read of /proc/net/tcp and
// tcp6; only when the set of listening sockets has changed are the server's
// own descriptors looked at. A server that ends wakes the wait at once, as
// for --wait (WaitEvents.h).
#pragma once

#include "Commands.h"

#include <chrono>

namespace quendralctl {

constexpr int kReadyPollMs = 1;

// Refreshes the instances until each one listens, is no longer running, or
// the deadline has passed; the ones that listen.
Instances waitUntilListening(const Instances &list, std::chrono::steady_clock::time_point deadline);

} // namespace quendralctl
