#include "bc7/bc7_cpu.h"

#include "bc7/bc7_fast.h"
#include "core/block_loop.h"
#include "core/cpu_views.h"

namespace glyptora_bc7 {

void encodeBC7CPU(const glyptora_internal::CPUViewBase& view, bool fast, bool imageHasAlpha, uint8_t* out,
                  BC7ModeStats* stats) {
    // The exhaustive mode search is not built in this library yet, so the slow
    // qualities use the fast block encoder as well.
    (void)fast;
    glyptora_internal::forEachTile(view, out, 16, [&](uint32_t tile, uint8_t* block) {
        float texels[64];
        view.fetchFloat(tile, texels, false);
        encodeBC7BlockFast(texels, view.validRegion(tile), imageHasAlpha, block);
    });
    if (stats) accumulateBC7ModeStats(out, view.tileCount, *stats);
}

void encodeBC7CPU(const glyptora_internal::CPUViewBase& view, bool fast, bool imageHasAlpha, uint8_t* out) {
    encodeBC7CPU(view, fast, imageHasAlpha, out, nullptr);
}

}  // namespace glyptora_bc7
