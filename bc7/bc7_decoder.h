#pragma once
// The library's own BC7 block decoder, used to measure encoder output (the
// command-line statistics, the tests) and to count where the blocks go.
#include <cstddef>
#include <cstdint>

namespace glyptora_bc7 {

// Header fields of one block. mode is -1 for the reserved all-zero mode byte.
struct BC7BlockInfo {
    int mode = -1;
    int partition = 0;  // modes 0, 1, 2, 3, 7
    int rotation = 0;   // modes 4, 5
    int indexMode = 0;  // mode 4
};

BC7BlockInfo describeBC7Block(const uint8_t block[16]);

// Decodes one block to 16 RGBA8 texels in row order (texel i = 4 * row + column).
// A reserved-mode block decodes to transparent black.
void decodeBC7Block(const uint8_t block[16], uint8_t rgba[64]);

// Where the blocks of an encoded image went.
struct BC7ModeStats {
    uint64_t blocks[8] = {};          // per mode
    uint64_t reserved = 0;            // blocks without a valid mode
    uint64_t mode4IndexMode[2] = {};  // mode 4 split by index mode
    uint64_t mode4Rotation[4] = {};
    uint64_t mode5Rotation[4] = {};
    uint64_t total() const;
};

void accumulateBC7ModeStats(const uint8_t* blocks, size_t blockCount, BC7ModeStats& stats);

}  // namespace glyptora_bc7
