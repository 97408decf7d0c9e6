#include "astc/astc_cpu_input.h"

#include "astc/block_texels.h"
#include "core/cpu_views.h"
#include "core/task_dispatcher.h"

namespace glyptora_astc {

AstcEncoderInput makeAstcEncoderInput(const glyptora_internal::CPUViewBase& view, bool imageHasAlpha, uint8_t* output) {
    AstcEncoderInput in;
    in.view = &view;
    in.blockWidth = view.tileWidth;
    in.blockHeight = view.tileHeight;
    in.blockCount = view.tileCount;
    for (int c = 0; c < 4; ++c) {
        in.weights[c] = view.weights[c];
        in.inverseWeights[c] = 1.0f / view.weights[c];
    }
    in.output = output;
    if (auto* u8 = dynamic_cast<const glyptora_internal::CPUU8View*>(&view)) {
        in.u8Tiles = u8->data;
        for (int c = 0; c < 4; ++c)
            for (int v = 0; v < 256; ++v) {
                const float f = float(v) * 0.003921569f;  // as the view's float fetch
                in.u8Weighted[c][v] = (f < 1.0f ? f : 1.0f) * in.weights[c];
            }
    }
    in.blockInfo.resize(in.blockCount);
    for (uint32_t b = 0; b < in.blockCount; ++b) in.blockInfo[b] = view.validRegion(b);
    if (imageHasAlpha)
        glyptora_internal::parallelFor(int(in.blockCount), [&](uint32_t b) {
            float rgba[kAstcMaxTexels * 4];
            view.fetchFloat(b, rgba, false);
            if (astcTileHasAlpha(rgba, in.blockWidth, view.validRegion(b)))
                in.blockInfo[b] |= AstcEncoderInput::kAstcBlockAlpha;
        });
    return in;
}

void loadAstcBlock(const AstcEncoderInput& input, uint32_t block, AstcBlockTexels& texels) {
    const int bw = input.blockWidth, bh = input.blockHeight;
    if (!input.u8Tiles) {
        float rgba[kAstcMaxTexels * 4];
        input.view->fetchFloat(block, rgba, false);
        astcLoadBlockTexels(rgba, bw, bh, input.validRegion(block), input.weights, input.blockHasAlpha(block), texels);
        return;
    }
    // Unsigned 8-bit tiles: the same texels as astcLoadBlockTexels gives for the view's float
    // fetch, straight from the bytes. Partial tiles wrap around their valid region.
    const uint16_t region = input.validRegion(block);
    const int vw = (region & 0xFF) ? (region & 0xFF) : 1, vh = (region >> 8) ? (region >> 8) : 1;
    const bool hasAlpha = input.blockHasAlpha(block);
    texels.blockWidth = bw;
    texels.blockHeight = bh;
    texels.texels = bw * bh;
    texels.padded = (texels.texels + 3) & ~3;
    texels.hasAlpha = hasAlpha;
    texels.validCount = (region & 0xFF) * (region >> 8);
    texels.validWidth = region & 0xFF;
    texels.validHeight = region >> 8;
    const uint8_t* tile = input.u8Tiles + size_t(block) * size_t(bw * bh) * 4;
    const float opaque = input.weights[3];
    if (vw == bw && vh == bh) {
        for (int i = 0; i < texels.texels; ++i) {
            const uint8_t* p = tile + i * 4;
            texels.channel[0][i] = input.u8Weighted[0][p[0]];
            texels.channel[1][i] = input.u8Weighted[1][p[1]];
            texels.channel[2][i] = input.u8Weighted[2][p[2]];
            texels.channel[3][i] = hasAlpha ? input.u8Weighted[3][p[3]] : opaque;
            texels.valid[i] = 1.0f;
        }
    } else {
        for (int y = 0, i = 0; y < bh; ++y) {
            const uint8_t* row = tile + size_t((y < vh ? y : y % vh) * bw) * 4;
            for (int x = 0; x < bw; ++x, ++i) {
                const uint8_t* p = row + (x < vw ? x : x % vw) * 4;
                texels.channel[0][i] = input.u8Weighted[0][p[0]];
                texels.channel[1][i] = input.u8Weighted[1][p[1]];
                texels.channel[2][i] = input.u8Weighted[2][p[2]];
                texels.channel[3][i] = hasAlpha ? input.u8Weighted[3][p[3]] : opaque;
                texels.valid[i] = (x < int(region & 0xFF) && y < int(region >> 8)) ? 1.0f : 0.0f;
            }
        }
    }
    for (int i = texels.texels; i < texels.padded; ++i) {
        for (int c = 0; c < 4; ++c) texels.channel[c][i] = 0.0f;
        texels.valid[i] = 0.0f;
    }
}

}  // namespace glyptora_astc
