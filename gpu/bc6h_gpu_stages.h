#pragma once
// What one GPU thread does in the BC6H launch sequence (gpu/bc6h_gpu_encode.cpp): convert one
// texel of the view into the float scratch, or encode one block with the
// fast BC6H encoder's own block flow (bc6h/fast_block_encoder.h). The kernels
// (gpu/bc6h_kernels.cu) and the stand-in driver of the host tests run these same functions,
// so the blocks are the CPU fast encoder's for every source type.
#include <cstdint>

#include "bc6h/fast_block_encoder.h"
#include "core/cpu_views.h"
#include "core/host_device.h"
#include "gpu/gpu_views.h"

namespace glyptora_bc6h {

// The half-float arithmetic of one signedness, chosen at compile time by the encoders.
struct UnsignedFuncs {
    static constexpr bool kSigned = false;
};
struct SignedFuncs {
    static constexpr bool kSigned = true;
};

// The encoding launch's one argument record, passed by value.
struct bc6h_gpu {
    float* texels;     // n x 64: per block 16 texels of R, G, B and a validity flag (below)
    uint32_t count;    // n
    uint8_t* out;      // 16 bytes a block
    float* error;      // n: the error of the block written, FLT_MAX before
};

namespace gpu_stages {

// Texel values as the CPU views fetch them for BC6H: 8-bit values on the unit scale, floats
// as they are.
GLYPTORA_HD inline float texelFloat(uint8_t v) { return float(v) * 0.003921569f; }
GLYPTORA_HD inline float texelFloat(int8_t v) { return glyptora_internal::snorm8ToFloat(v); }
GLYPTORA_HD inline float texelFloat(float v) { return v; }

// Conversion element i: texel i % 16 of tile i / 16 (partial tiles wrapped as the CPU views
// wrap them). The encoder ignores alpha, so its slot carries whether the texel lies inside
// the tile's valid region (1) or not (0): the encoding launch needs nothing but the scratch.
template <typename T>
GLYPTORA_HD inline void convertTexel(const glyptora_internal::TGPUView<T>& view, float* texels, uint64_t i) {
    const uint32_t tile = uint32_t(i >> 4);
    const int texel = int(i & 15);
    const T* p = glyptora_internal::tilePixel(view, tile, texel & 3, texel >> 2);
    float* o = texels + i * 4;
    for (int c = 0; c < 3; ++c) o[c] = texelFloat(p[c]);
    const glyptora_internal::TileValidRegion r = view.regions[tile];
    const uint32_t valid = fast::validTexels(uint16_t(r.width | (r.height << 8)));
    o[3] = (valid >> texel) & 1u ? 1.0f : 0.0f;
}

// Block `block`: the fast encoder's block over its converted texels, written with its error.
template <typename Funcs>
GLYPTORA_HD inline void encodeBlock(const bc6h_gpu& a, uint32_t block) {
    const float* texels = a.texels + size_t(block) * 64;
    uint32_t validMask = 0;
    for (int i = 0; i < 16; ++i)
        if (texels[4 * i + 3] != 0.0f) validMask |= 1u << i;
    fast::Candidate best;
    uint8_t bytes[16];
    fast::encodeBlock(texels, validMask, Funcs::kSigned, bytes, best);
    uint8_t* out = a.out + 16 * size_t(block);
    for (int i = 0; i < 16; ++i) out[i] = bytes[i];
    a.error[block] = best.error;
}

}  // namespace gpu_stages
}  // namespace glyptora_bc6h
