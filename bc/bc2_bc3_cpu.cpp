// CPU implementations of the BC2 and BC3 entries: one task per 4x4 tile. The high-quality
// colour fit weighs red, green and blue by the view's channel weights.
#include "bc/bc2_bc3_cpu.h"

#include "bc/alpha_block_bc2_bc3.h"
#include "core/block_loop.h"

namespace glyptora_dxt {

using glyptora_internal::CPUViewBase;
using glyptora_internal::forEachTile;

namespace {

template <typename Fast, typename HighQuality>
void s_EncodeWithColour(const CPUViewBase& view, bool fast, uint8_t* out, Fast encodeFast,
                        HighQuality encodeHighQuality) {
    if (view.tileWidth != 4 || view.tileHeight != 4) return;
    const float metric[3] = {view.weights[0], view.weights[1], view.weights[2]};
    forEachTile(view, out, 16, [&](uint32_t tile, uint8_t* block) {
        uint8_t bgra[64];
        view.fetchBGRA8(tile, bgra);
        if (fast)
            encodeFast(bgra, block);
        else
            encodeHighQuality(bgra, metric, block);
    });
}

}  // namespace

void encodeBC2CPU(const CPUViewBase& view, bool fast, uint8_t* out) {
    s_EncodeWithColour(view, fast, out, encodeBC2BlockFast, encodeBC2BlockHighQuality);
}

void encodeBC3CPU(const CPUViewBase& view, bool fast, uint8_t* out) {
    s_EncodeWithColour(view, fast, out, encodeBC3BlockFast, encodeBC3BlockHighQuality);
}

}  // namespace glyptora_dxt
