#include "bc/bc1_encoder.h"

// This file is where the library compiles the block encoders, whatever the SIMD backend.
#define GLYPTORA_COLOUR_BLOCK_INLINE 1
#include "bc/colour_block.h"
#include "core/block_loop.h"
#include "core/cpu_views.h"

namespace glyptora_dxt {

void encodeBC1aBlock(const uint8_t bgra[64], bool fast, const float metric[3], uint8_t out[8]) {
    if (fast) encodeBC1aBlockFast(bgra, out);
    else encodeBC1aBlockHighQuality(bgra, metric, out);
}

void encodeColourBlock(const uint8_t bgra[64], bool fast, const float metric[3], uint8_t out[8]) {
    if (fast) encodeColourBlockFast(bgra, out);
    else encodeColourBlockHighQuality(bgra, metric, out);
}

// One task per 4x4 tile; block t is written at t * 8.
void encodeBC1aCPU(const glyptora_internal::CPUViewBase& view, bool fast, uint8_t* out) {
    if (view.tileWidth != 4 || view.tileHeight != 4) return;
    const float metric[3] = {view.weights[0], view.weights[1], view.weights[2]};
    glyptora_internal::forEachTile(view, out, 8, [&](uint32_t tile, uint8_t* block) {
        uint8_t bgra[64];
        view.fetchBGRA8(tile, bgra);
        if (fast) encodeBC1aBlockFast(bgra, block);
        else encodeBC1aBlockHighQuality(bgra, metric, block);
    });
}

}  // namespace glyptora_dxt
