// Counts heap allocations made by this process while counting is on. It
// replaces malloc, calloc and realloc for the whole benchmark program.
#pragma once

#include <cstddef>

namespace bench {

void startCountingAllocations();
// Stops counting and returns the number of malloc, calloc and realloc calls.
std::size_t stopCountingAllocations();

} // namespace bench
