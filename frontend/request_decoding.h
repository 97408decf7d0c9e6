#pragma once
// A conversion request decoded once from the exported function's strings and integers into
// a typed, checked ConversionRequest, and the rules it is decoded by: format row, quality
// level, channel weights, value type, GPU choice and sizes. Formats come from the format
// table; all matching is byte-wise and case-sensitive.
#include <cstdint>

#include "core/image_record.h"
#include "core/status.h"
#include "dispatch/format_table.h"

namespace glyptora_internal {

enum RequestFlags : uint32_t {
    kFlagLuminanceAlpha = 0x2,
    kFlagGpu = 0x10,
    kFlagServer = 0x20,
    kFlagGpuFallback = 0x40,
};

// Block geometry for the size rule: bytes per block, or per pixel for the uncompressed layout.
struct BlockGeometry {
    int blockWidth;
    int blockHeight;
    int bytesPerUnit;
};
inline constexpr BlockGeometry kUncompressedGeometry{1, 1, 4};
inline BlockGeometry geometryOf(const FormatRow& row) {
    return {row.blockWidth, row.blockHeight, row.blockBytes()};
}

// The destination's format code (31 when unknown).
int32_t decodeFormatCode(const char* destination);

// Bytes of a whole level chain: for each level max(width >> m, 1) x max(height >> m, 1)
// pixels, in blocks, times depth (shrinking as max(depth >> m, 1) when dimension is 2).
// Mip counts below 1 (as signed numbers) give 0.
uint64_t levelChainSize(BlockGeometry geometry, uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                        uint32_t mipCount);

bool isAcceptedSourceFormat(const char* source);
glyptora::ValueType decodeValueType(const char* source);

// Quality level 0-3 from the options, for a destination of `format`.
int decodeQualityLevel(const FormatRow& format, const char* options);

// Channel weights R, G, B, A for a destination of `format`; `named` is the row whose word
// the destination equals exactly (or null), which alone may take the perceptual weights.
void decodeChannelWeights(const FormatRow& format, const FormatRow* named, const char* options, uint32_t flags,
                          float weights[4]);

// With the GPU requested and none usable: true (go on, on the CPU) when flag 64 or
// HALVORAN_GLYPTORA_GPU_ENCODING_AUTO=1 allow it. `useGpu` tells where to encode.
bool resolveGpuChoice(uint32_t flags, bool gpuAvailable, bool* useGpu);

// Extent of one mip level: max(width >> m, 1) x max(height >> m, 1) x depth (volumes:
// max(depth >> m, 1)).
struct LevelExtent {
    uint32_t width, height, depth;
    uint64_t pixels() const { return uint64_t(width) * height * depth; }
};

struct ConversionRequest {
    const FormatRow* format = nullptr;  // the row the destination decodes to
    bool oneBitAlpha = false;           // BC1: alpha forced to one bit before encoding
    bool luminanceAlpha = false;        // ASTC with flag 2: (l, a) becomes (l, l, l, a)
    int quality = 1;                    // 0-3
    int modeArgument = 0;               // what the encoder entry takes: fast flag, slow flag or level
    float weights[4] = {1, 1, 1, 1};
    glyptora::ValueType valueType = glyptora::kValueU8;
    bool useGpu = false;                // the entry's GPU argument
    uint32_t flags = 0;
    uint32_t dimension = 0, width = 0, height = 0, depth = 0;
    int levelCount = 0;
    uint64_t totalPixels = 0;     // every level's pixels
    uint64_t totalTiles = 0;      // every level's blocks
    uint64_t sourceBytes = 0;     // what the caller's source holds

    LevelExtent level(int m) const;
    uint64_t bytesPerPixel() const { return valueType == glyptora::kValueF32 ? 16 : 4; }
};

// Decodes and checks a request. Anything other than Ok has printed its reason as one line.
Status decodeConversionRequest(const char* destination, const char* source, const char* options, uint32_t flags,
                               uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                               uint32_t mipCount, ConversionRequest& request);

}  // namespace glyptora_internal
