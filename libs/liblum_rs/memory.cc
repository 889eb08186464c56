// Memory: the lum_malloc wrapper with its failure countdown for tests, and
// the small block helpers the library takes from the runtime.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "rs_internal.h"

namespace {

// Calls of lum_malloc left until the scheduled failure (1: the next call
// fails); 0 when none is scheduled. Only the count matters, so relaxed
// order is enough.
constinit std::atomic<uint32_t> calls_until_failure{0};

// Counts one call down; true for the call that is to fail.
bool scheduled_failure_due() {
    uint32_t left = calls_until_failure.load(std::memory_order_relaxed);
    while (left != 0 &&
           !calls_until_failure.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
    }
    return left == 1;
}

} // namespace

extern "C" {

LUM_RS_API void *lum_malloc(size_t size) {
    if (scheduled_failure_due())
        return nullptr;
    // malloc(0) may give null; a null result here always means failure.
    return std::malloc(size ? size : 1);
}

LUM_RS_API void lum_free(void *block) {
    std::free(block);
}

LUM_RS_API void lum_bzero(void *block, size_t size) {
    if (size)
        std::memset(block, 0, size);
}

LUM_RS_API void lum_qsort(void *base, size_t count, size_t size,
                          int (*compare)(const void *, const void *, void *), void *context) {
    if (count > 1 && size && compare)
        qsort_r(base, count, size, compare, context);
}

LUM_RS_API void lum_malloc_fail_at(uint32_t n) {
    calls_until_failure.store(n, std::memory_order_relaxed);
}

} // extern "C"
