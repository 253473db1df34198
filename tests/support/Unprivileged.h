// Runs a piece of a test as an ordinary user. The suite runs as root on CI,
// where permission checks do not apply; cases that need them run in a forked
// child that drops to "nobody" first.
#pragma once

#include <functional>

namespace testsupport {

// The uid and gid the child drops to when the test runs as root.
constexpr unsigned kUnprivilegedId = 65534;

// Forks, drops privileges in the child when running as root, runs body there
// and returns its result (0 for success; any other value names the check that
// failed). Returns -1 if the child could not be run or died.
int runUnprivileged(const std::function<int()> &body);

} // namespace testsupport
