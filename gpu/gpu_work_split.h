#pragma once
// Splitting of GPU work: memory chunks of at most a quarter of the device memory, and
// kernel launches bounded by the device's clock rate times its multiprocessor count.
#include <cstdint>

namespace glyptora_internal {

// Tiles that fit in a quarter of the device memory.
inline uint64_t gpuTilesPerChunk(uint64_t totalGlobalMem, int tileWidth, int tileHeight, int bytesPerPixel) {
    const uint64_t tileBytes = uint64_t(tileWidth) * uint64_t(tileHeight) * uint64_t(bytesPerPixel);
    return tileBytes ? (totalGlobalMem / 4) / tileBytes : 0;
}

inline uint64_t gpuChunkCount(uint64_t tileCount, uint64_t tilesPerChunk) {
    return tilesPerChunk ? (tileCount + tilesPerChunk - 1) / tilesPerChunk : 0;
}

// Most tiles one kernel launch may take: clockRate * multiProcessorCount / divisor.
inline uint64_t gpuLaunchLimit(int clockRate, int multiProcessorCount, int divisor) {
    return divisor > 0 ? uint64_t(clockRate) * uint64_t(multiProcessorCount) / uint64_t(divisor) : 0;
}

struct TileRange {
    uint64_t first;
    uint64_t end;
};

// Splits `count` tiles into `parts` ranges, each taking ceil(remaining / remaining parts).
template <typename Visit>
void forEachEvenSplit(uint64_t count, uint64_t parts, Visit&& visit) {
    uint64_t first = 0;
    for (uint64_t remainingParts = parts; remainingParts > 0 && first < count; --remainingParts) {
        const uint64_t take = (count - first + remainingParts - 1) / remainingParts;
        visit(TileRange{first, first + take});
        first += take;
    }
}

}  // namespace glyptora_internal
