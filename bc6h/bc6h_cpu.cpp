#include "bc6h/bc6h_cpu.h"

#include "core/block_loop.h"
#include "core/cpu_views.h"

namespace glyptora_bc6h {

void encodeBC6HCPU(const glyptora_internal::CPUViewBase& view, bool fast, bool isSigned, uint8_t* out) {
    // Every source type reaches the encoders as floats: 8-bit sources through the view's
    // 1/255 scale, float sources as they are (the block encoders take the half conversion).
    glyptora_internal::forEachTile(view, out, 16, [&](uint32_t tile, uint8_t* block) {
        float texels[64];
        view.fetchFloat(tile, texels, false);
        if (fast)
            encodeBC6HBlockFast(texels, view.validRegion(tile), isSigned, block);
        else
            encodeBC6HBlockSearch(texels, view.validRegion(tile), isSigned, block);
    });
}

}  // namespace glyptora_bc6h
