#pragma once
// FNV-1a hash of written blocks: the benches print it so that a faster encoder can be shown
// to write the same blocks.
#include <cstddef>
#include <cstdint>

inline uint64_t blockHash(const uint8_t* data, size_t size) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 0x100000001b3ull;
    return h;
}
