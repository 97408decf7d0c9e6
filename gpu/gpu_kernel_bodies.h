#pragma once
// What one GPU thread does: encode one 4x4 tile of a device view into its block, or convert
// one channel value. The kernels (dxt_kernels.cu, image_kernels.cu) are thin wrappers around
// these functions, and the host test suite runs the same functions on the CPU, so the work
// the kernels do is covered without a GPU. The block arithmetic is the encoders' own
// (bc/alpha_block_bc2_bc3.h, bc/alpha_block_formats.h, bc/colour_block.h); nothing is
// re-implemented here.
//
// Qualities: the GPU runs BC1 to BC3 only where the CPU runs the high-quality colour fit,
// and BC4/BC5 only where the CPU runs the fast encoders, so these are the blocks encoded.
#include <cstddef>
#include <cstdint>

#include "bc/alpha_block_bc2_bc3.h"
#include "bc/alpha_block_formats.h"
#include "bc/colour_block.h"
#include "core/host_device.h"
#include "gpu/gpu_views.h"

namespace glyptora_internal::gpu_blocks {

// Output is addressed in 8-byte units: unit b of an 8-byte format, units 2b and 2b + 1 of a
// 16-byte format. Units are stored whole (little-endian).
GLYPTORA_HD inline void storeUnit(uint64_t* out, size_t unit, const uint8_t bytes[8]) {
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = (value << 8) | bytes[i];
    out[unit] = value;
}

GLYPTORA_HD inline void channelMetric(const GPUU8View& view, float metric[3]) {
    metric[0] = view.weights[0];
    metric[1] = view.weights[1];
    metric[2] = view.weights[2];
}

// BC1 with punch-through alpha, weighted cluster fit.
GLYPTORA_HD inline void compressDXT1a(const GPUU8View& view, uint32_t tile, uint64_t* out) {
    uint8_t bgra[64];
    fetchTile4x4BGRA(view, tile, bgra);
    float metric[3];
    channelMetric(view, metric);
    uint8_t block[8];
    glyptora_dxt::encodeBC1aBlockHighQuality(bgra, metric, block);
    storeUnit(out, tile, block);
}

// BC2: explicit alpha, then the cluster-fit colour half.
GLYPTORA_HD inline void compressDXT3(const GPUU8View& view, uint32_t tile, uint64_t* out) {
    uint8_t bgra[64];
    fetchTile4x4BGRA(view, tile, bgra);
    float metric[3];
    channelMetric(view, metric);
    uint8_t block[16];
    glyptora_dxt::encodeBC2BlockHighQuality(bgra, metric, block);
    storeUnit(out, 2 * size_t(tile), block);
    storeUnit(out, 2 * size_t(tile) + 1, block + 8);
}

// BC3 alpha half (unit 2b): what encodeBC3BlockHighQuality writes into its first 8 bytes.
GLYPTORA_HD inline void compressDXT5Alpha(const GPUU8View& view, uint32_t tile, uint64_t* out) {
    uint8_t bgra[64];
    fetchTile4x4BGRA(view, tile, bgra);
    uint8_t alpha[16];
    glyptora_dxt::extractChannel(bgra, 3, alpha);
    uint8_t block[8];
    glyptora_dxt::encodeInterpolatedBlockFast(alpha, block);
    storeUnit(out, 2 * size_t(tile), block);
}

// BC3 colour half (unit 2b + 1): what encodeBC3BlockHighQuality writes into its last 8 bytes.
GLYPTORA_HD inline void compressDXT5Color(const GPUU8View& view, uint32_t tile, uint64_t* out) {
    uint8_t bgra[64];
    fetchTile4x4BGRA(view, tile, bgra);
    float metric[3];
    channelMetric(view, metric);
    uint8_t block[8];
    glyptora_dxt::encodeColourBlockHighQuality(bgra, metric, block);
    storeUnit(out, 2 * size_t(tile) + 1, block);
}

GLYPTORA_HD inline void compressBC4(const GPUU8View& view, uint32_t tile, uint64_t* out) {
    uint8_t bgra[64];
    fetchTile4x4BGRA(view, tile, bgra);
    uint8_t block[8];
    glyptora_dxt::encodeBC4BlockFast(bgra, block);
    storeUnit(out, tile, block);
}

GLYPTORA_HD inline void compressBC4S(const GPUS8View& view, uint32_t tile, uint64_t* out) {
    int8_t bgra[64];
    fetchTile4x4BGRA(view, tile, bgra);
    uint8_t block[8];
    glyptora_dxt::encodeBC4SBlockFast(bgra, block);
    storeUnit(out, tile, block);
}

GLYPTORA_HD inline void compressBC5(const GPUU8View& view, uint32_t tile, uint64_t* out) {
    uint8_t bgra[64];
    fetchTile4x4BGRA(view, tile, bgra);
    uint8_t block[16];
    glyptora_dxt::encodeBC5BlockFast(bgra, block);
    storeUnit(out, 2 * size_t(tile), block);
    storeUnit(out, 2 * size_t(tile) + 1, block + 8);
}

GLYPTORA_HD inline void compressBC5S(const GPUS8View& view, uint32_t tile, uint64_t* out) {
    int8_t bgra[64];
    fetchTile4x4BGRA(view, tile, bgra);
    uint8_t block[16];
    glyptora_dxt::encodeBC5SBlockFast(bgra, block);
    storeUnit(out, 2 * size_t(tile), block);
    storeUnit(out, 2 * size_t(tile) + 1, block + 8);
}

// Element conversions: value i of the source's tile data into value i of the target's, with
// the conversions of the CPU views (core/cpu_views.h).
GLYPTORA_HD inline void convertF32ToU8(const GPUF32View& source, const GPUU8View& target, uint64_t i) {
    target.data[i] = floatToUnorm8(source.data[i]);
}
GLYPTORA_HD inline void convertS8ToU8(const GPUS8View& source, const GPUU8View& target, uint64_t i) {
    target.data[i] = snorm8ToUnorm8(source.data[i]);
}
GLYPTORA_HD inline void convertF32ToS8(const GPUF32View& source, const GPUS8View& target, uint64_t i) {
    target.data[i] = floatToSnorm8(source.data[i]);
}
GLYPTORA_HD inline void convertU8ToS8(const GPUU8View& source, const GPUS8View& target, uint64_t i) {
    target.data[i] = unorm8ToSnorm8(source.data[i]);
}

}  // namespace glyptora_internal::gpu_blocks
