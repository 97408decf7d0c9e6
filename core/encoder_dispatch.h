#pragma once
// One entry per block format. Each checks the tile size (and level), routes to the
// GPU or CPU implementation for the buffer's value type, prints the fall-back notice
// when the GPU is requested in a mode that has no GPU path, and writes tile t's block
// at t * block size of the output.
#include <cstdint>

namespace glyptora {
class CPUInputBuffer;
class TimingContext;
}  // namespace glyptora

namespace glyptora_internal {

bool encodeBC1a(const glyptora::CPUInputBuffer& input, bool fast, void* output, bool gpu, bool outputInDeviceMemory,
                glyptora::TimingContext* timing);
bool encodeBC2(const glyptora::CPUInputBuffer& input, bool fast, void* output, bool gpu, bool outputInDeviceMemory,
               glyptora::TimingContext* timing);
bool encodeBC3(const glyptora::CPUInputBuffer& input, bool fast, void* output, bool gpu, bool outputInDeviceMemory,
               glyptora::TimingContext* timing);
bool encodeBC4(const glyptora::CPUInputBuffer& input, bool slow, void* output, bool gpu, bool outputInDeviceMemory,
               glyptora::TimingContext* timing);
bool encodeBC4S(const glyptora::CPUInputBuffer& input, bool slow, void* output, bool gpu, bool outputInDeviceMemory,
                glyptora::TimingContext* timing);
bool encodeBC5(const glyptora::CPUInputBuffer& input, bool slow, void* output, bool gpu, bool outputInDeviceMemory,
               glyptora::TimingContext* timing);
bool encodeBC5S(const glyptora::CPUInputBuffer& input, bool slow, void* output, bool gpu, bool outputInDeviceMemory,
                glyptora::TimingContext* timing);
bool encodeBC6H(const glyptora::CPUInputBuffer& input, bool slow, bool isSigned, void* output, bool gpu,
                bool outputInDeviceMemory, glyptora::TimingContext* timing);
bool encodeBC7(const glyptora::CPUInputBuffer& input, bool slow, bool imageHasAlpha, void* output, bool gpu,
               bool outputInDeviceMemory, glyptora::TimingContext* timing);
bool encodeASTC(const glyptora::CPUInputBuffer& input, int level, bool imageHasAlpha, void* output, bool gpu,
                bool outputInDeviceMemory, glyptora::TimingContext* timing);

// GPU work splitting, shared by every GPU entry.
// Tiles that fit in a quarter of the device memory.
uint64_t gpuTilesPerChunk(uint64_t totalGlobalMem, int tileWidth, int tileHeight, int bytesPerPixel);
uint64_t gpuChunkCount(uint64_t tileCount, uint64_t tilesPerChunk);
// Most tiles one kernel launch may take: clockRate * multiProcessorCount / divisor.
uint64_t gpuLaunchLimit(int clockRate, int multiProcessorCount, int divisor);
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
