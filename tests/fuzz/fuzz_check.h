#pragma once
// A check of a fuzzer itself: a false condition is a finding, reported and aborted on.
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                            \
    do {                                                                                            \
        if (!(cond)) {                                                                              \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__);    \
            std::abort();                                                                           \
        }                                                                                           \
    } while (false)
