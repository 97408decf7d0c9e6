#pragma once
// Decoding of a conversion request's narrow strings, flags and environment into
// a format code, quality level, channel weights, value type and GPU choice.
// All matching is byte-wise and case-sensitive.
#include <cstdint>

namespace glyptora_internal {

enum FormatCode : int32_t {
    kFormatUncompressed = 0,
    kFormatBC1 = 2,
    kFormatBC2 = 3,
    kFormatBC3 = 4,
    kFormatBC4 = 6,
    kFormatBC4S = 7,
    kFormatBC5 = 9,
    kFormatBC5S = 10,
    kFormatBC6HU = 13,
    kFormatBC6HS = 14,
    kFormatBC7 = 15,
    kFormatASTCFirst = 17,  // 4x4; 17..30 follow the footprint order below
    kFormatASTCLast = 30,   // 12x12
    kFormatUnknown = 31,
};

enum RequestFlags : uint32_t {
    kFlagLuminanceAlpha = 0x2,
    kFlagGpu = 0x10,
    kFlagServer = 0x20,
    kFlagGpuFallback = 0x40,
};

struct FormatInfo {
    int blockWidth;
    int blockHeight;
    int bytesPerUnit;  // per pixel for code 0, per block otherwise
};

int32_t decodeFormatCode(const char* destination);
FormatInfo formatInfo(int32_t code);
bool isAstcCode(int32_t code);

// Bytes of a whole level chain; mip counts below 1 give 0. dimension 2 shrinks depth per level.
uint64_t levelChainSize(int32_t code, uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                        uint32_t mipCount);

bool isAcceptedSourceFormat(const char* source);
// 0 = unsigned 8-bit, 1 = signed 8-bit, 2 = float.
int32_t decodeValueType(const char* source);
bool isFloatSourceFormat(const char* source);

int decodeQualityLevel(const char* destination, const char* options);

// Channel weights R, G, B, A.
void decodeChannelWeights(const char* destination, const char* options, int32_t code, uint32_t flags,
                          float weights[4]);

// With the GPU requested and none usable: true (go on, on the CPU) when flag 64 or
// HALVORAN_GLYPTORA_GPU_ENCODING_AUTO=1 allow it. `useGpu` tells where to encode.
bool resolveGpuChoice(uint32_t flags, bool gpuAvailable, bool* useGpu);

}  // namespace glyptora_internal
