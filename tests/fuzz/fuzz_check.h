#pragma once
// A check of a fuzzer itself: a false condition is a finding, reported and aborted on.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                            \
    do {                                                                                            \
        if (!(cond)) {                                                                              \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__);    \
            std::abort();                                                                           \
        }                                                                                           \
    } while (false)

// Whether the `count` bytes from `p` all still hold `fill` (guard bytes, an output left alone).
inline bool holdsOnly(const uint8_t* p, uint64_t count, uint8_t fill) {
    for (uint64_t i = 0; i < count; ++i)
        if (p[i] != fill) return false;
    return true;
}
