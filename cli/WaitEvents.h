// What `start --wait` and `stop --wait` sleep on between two looks at their
// instances. The kernel says when what they wait for happens: inotify when a
// lock file is written, moved into place or removed (its directory is
// watched), a pidfd when the server ends. So the tool sleeps in poll(2) until
// one of those, and looks again at once.
//
// A slow fallback poll covers what the kernel does not report: a lock file
// on a network file system (written by another machine's view of it), a
// directory that cannot be watched, a kernel without pidfds, a server of
// another user. It is the only wake-up of an idle wait, never a busy loop.
//
// Two environment variables exist for tests and benchmarks:
//   QUENDRALCTL_TEST_FALLBACK_POLL_MS=N  the fallback interval (default 1000)
//   QUENDRALCTL_TEST_NO_EVENTS=1         no inotify, no pidfd: the fallback
//                                        alone (with N=50, the polling this
//                                        tool did before it listened)
#pragma once

#include "QuendralInstance.h"

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace quendralctl {

class WaitEvents {
  public:
    using Clock = std::chrono::steady_clock;

    WaitEvents();
    ~WaitEvents();
    WaitEvents(const WaitEvents &) = delete;
    WaitEvents &operator=(const WaitEvents &) = delete;

    // Watches the directory of the instance's lock file, once its path is
    // known; call again after a refresh may have read the configuration.
    // Watching before looking means nothing written in between is missed.
    void watch(const QuendralInstance &instance);

    // Sleeps until a watched lock file changes, one of the servers of
    // `pending` ends, the fallback interval has passed or `deadline` comes.
    // The servers' descriptors are taken from the instances as they are
    // now, so call it right after refreshing them.
    void sleep(const std::vector<std::shared_ptr<QuendralInstance>> &pending,
               Clock::time_point deadline);

  private:
    // Reads what inotify has queued; true when an event concerns a watched
    // lock file (or events were lost, or a watch went away).
    bool drainNotifications();

    int inotify_ = -1;
    bool inotifyTried_ = false;
    bool events_ = true;
    std::chrono::milliseconds fallback_{1000};
    std::set<std::string> watchedLockFiles_;
    // Watch descriptor -> the lock files' names in that directory.
    std::map<int, std::set<std::string>> lockNames_;
};

} // namespace quendralctl
