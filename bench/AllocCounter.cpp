#include "AllocCounter.h"

#include <atomic>

extern "C" {
void *__libc_malloc(std::size_t);
void *__libc_calloc(std::size_t, std::size_t);
void *__libc_realloc(void *, std::size_t);
}

namespace {
std::atomic<bool> counting{false};
std::atomic<std::size_t> allocations{0};
inline void note() {
    if (counting.load(std::memory_order_relaxed))
        allocations.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

extern "C" void *malloc(std::size_t n) {
    note();
    return __libc_malloc(n);
}
extern "C" void *calloc(std::size_t n, std::size_t m) {
    note();
    return __libc_calloc(n, m);
}
extern "C" void *realloc(void *p, std::size_t n) {
    note();
    return __libc_realloc(p, n);
}

namespace bench {

void startCountingAllocations() {
    allocations = 0;
    counting = true;
}

std::size_t stopCountingAllocations() {
    counting = false;
    return allocations.load();
}

} // namespace bench
