#pragma once
// The small reproducible generator of the block tests (a linear congruential one): their pinned
// outputs depend on its sequence.
#include <cmath>
#include <cstdint>

struct Lcg {
    uint32_t state;
    uint32_t next() { return (state = state * 1664525u + 1013904223u) >> 8; }
    float unit() { return float(next() & 0xFFFF) / 65535.0f; }
    // `v` moved by up to half of `spread` either way, clamped to [0, 1].
    float around(float v, float spread) { return std::fmin(1.0f, std::fmax(0.0f, v + (unit() - 0.5f) * spread)); }
    // A magnitude spread over several binary orders: 2^-12 .. 2^10.
    float magnitude() { return std::ldexp(0.5f + unit(), int(next() % 23) - 12); }
};
