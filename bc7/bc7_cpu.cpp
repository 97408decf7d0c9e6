#include "bc7/bc7_cpu.h"

#include "bc7/bc7_fast.h"
#include "bc7/bc7_modes.h"
#include "core/block_loop.h"
#include "core/cpu_views.h"

namespace glyptora_bc7 {

void encodeBC7CPU(const glyptora_internal::CPUViewBase& view, bool fast, bool imageHasAlpha, uint8_t* out,
                  BC7ModeStats* stats) {
    // The fast block encoder for the default qualities, the search over every
    // mode for the slow ones; alpha counts only when the image has some.
    glyptora_internal::forEachTile(view, out, 16, [&](uint32_t tile, uint8_t* block) {
        float texels[64];
        view.fetchFloat(tile, texels, false);
        if (fast)
            encodeBC7BlockFast(texels, view.validRegion(tile), imageHasAlpha, block);
        else
            encodeBC7BlockExhaustive(texels, view.validRegion(tile), imageHasAlpha, block);
    });
    if (stats) accumulateBC7ModeStats(out, view.tileCount, *stats);
}

void encodeBC7CPU(const glyptora_internal::CPUViewBase& view, bool fast, bool imageHasAlpha, uint8_t* out) {
    encodeBC7CPU(view, fast, imageHasAlpha, out, nullptr);
}

}  // namespace glyptora_bc7
