#pragma once
// FNV-1a, the 64-bit hash by which the tests pin outputs.
#include <cstddef>
#include <cstdint>

inline constexpr uint64_t kFnv1aStart = 0xcbf29ce484222325ull;

inline uint64_t fnv1a(uint64_t h, const uint8_t* data, size_t size) {
    for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 0x100000001b3ull;
    return h;
}
