#pragma once
// Quantisation of rough endpoint values (half-pattern integers) to a BC6H endpoint field of
// `prec` bits, and the range such a field may hold.
#include <cmath>
#include <cstdint>

#include "core/host_device.h"

namespace BC6HModes {

// Quantised endpoints of one region, per channel R, G, B, at the pattern's base precision.
struct IntEndpoints {
    int A[3] = {};
    int B[3] = {};
};

// Unsigned: q = ((u << prec) + c) / 31744; signed: the magnitude with prec - 1 bits, the sign
// put back. u is x rounded half up. From 11 bits upward the division adds c, half a step
// less one; below 11 bits it truncates (c = 0). Both forms are deliberate and pinned by the
// tests: the fields they give are what the patterns are tried with.
GLYPTORA_HD inline int quantize(float x, int prec, bool isSigned) {
    // Rough endpoints lie within +-31743; the bound only keeps anything else (NaN included)
    // a defined integer.
    const float rounded = std::floor(x + 0.5f);
    const int64_t u = rounded >= -1e9f && rounded <= 1e9f ? int64_t(rounded) : rounded > 0.0f ? int64_t(1e9) : -int64_t(1e9);
    if (!isSigned) {
        const int64_t c = prec >= 11 ? (int64_t(1) << (prec - 1)) - 1 : 0;
        return int((u * (int64_t(1) << prec) + c) / 31744);
    }
    const int64_t c = prec >= 11 ? (int64_t(1) << (prec - 2)) - 1 : 0;
    const int64_t magnitude = u < 0 ? -u : u;
    const int m = int((magnitude * (int64_t(1) << (prec - 1)) + c) / 31744);
    return u < 0 ? -m : m;
}

// The values the endpoint search keeps a field of `prec` bits in: unsigned 0 .. 2^prec - 1,
// signed -(2^(prec-1) - 1) .. 2^(prec-1) - 1 (the most negative code would decode past the
// largest finite half).
GLYPTORA_HD inline int fieldLowest(int prec, bool isSigned) { return isSigned ? 1 - (1 << (prec - 1)) : 0; }
GLYPTORA_HD inline int fieldHighest(int prec, bool isSigned) { return isSigned ? (1 << (prec - 1)) - 1 : (1 << prec) - 1; }

}  // namespace BC6HModes
