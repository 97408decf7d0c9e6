#include "astc/decoder.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "astc/block_reader.h"
#include "astc/infill_taps.h"
#include "astc/partition_hash.h"
#include "astc/quantization_tables.h"

namespace glyptora_astc {

namespace {

// The value v / 65535 cut toward zero to half-float precision (11 significant bits, or the
// fixed subnormal step below 2^-14), then times 255 rounded to nearest. Exact integer form:
// with 2^e <= v / 65535 < 2^(e+1) the half float is m / 2^s, s = 10 - e, m = floor(v 2^s / 65535).
uint8_t halfCutToUnorm8(uint32_t v) {
    if (v == 0) return 0;
    int s = 10;
    while (s < 24 && (uint64_t(v) << (s - 10)) < 65535u) ++s;
    const uint64_t m = (uint64_t(v) << s) / 65535u;
    return uint8_t((2 * m * 255 + (uint64_t(1) << s)) >> (s + 1));
}

const std::array<uint8_t, 65536>& unorm16ToUnorm8Table() {
    static const std::array<uint8_t, 65536> table = [] {
        std::array<uint8_t, 65536> t{};
        for (uint32_t v = 0; v < 65536; ++v) t[v] = halfCutToUnorm8(v);
        return t;
    }();
    return table;
}

// Weight (0..64) of texel (s, t) from the grid; `plane` selects the interleaved plane.
int infillWeight(const int* gridWeights, const AstcBlockMode& mode, int blockWidth, int blockHeight, int s, int t,
                 int plane) {
    const AstcInfillTaps taps = astcInfillTaps(blockWidth, blockHeight, mode.gridWidth, mode.gridHeight, s, t);
    const int planes = mode.dualPlane ? 2 : 1;
    return astcInfillWeight(taps, gridWeights + plane, planes);
}

void fill(uint8_t* rgba, int texels, const uint8_t colour[4]) {
    for (int i = 0; i < texels; ++i) std::memcpy(rgba + 4 * i, colour, 4);
}

}  // namespace

uint8_t astcUnorm16ToUnorm8(uint16_t value) { return unorm16ToUnorm8Table()[value]; }

void decodeAstcBlock(const uint8_t block[16], int blockWidth, int blockHeight, uint8_t* rgba) {
    const int texels = blockWidth * blockHeight;
    AstcBlockContent content;
    uint16_t constant[4];
    const AstcBlockKind kind = readAstcBlock(block, blockWidth, blockHeight, content, constant);
    if (kind == AstcBlockKind::Error) return fill(rgba, texels, kAstcErrorColour);
    if (kind == AstcBlockKind::ConstantColour) {
        uint8_t colour[4];
        for (int c = 0; c < 4; ++c) colour[c] = astcUnorm16ToUnorm8(constant[c]);
        return fill(rgba, texels, colour);
    }

    // Endpoints of each partition, widened to 16 bits by repeating the byte.
    int endpoints[4][2][4];
    const uint8_t* values = content.colourValues;
    for (int p = 0; p < content.partitionCount; ++p) {
        uint8_t unquantised[8] = {}, e0[4] = {}, e1[4] = {};
        const int count = astcEndpointValueCount(content.cem[p]);
        for (int i = 0; i < count; ++i) unquantised[i] = astcColourUnquant(content.colourRange, values[i]);
        values += count;
        const bool ldr = decodeAstcEndpoints(content.cem[p], unquantised, e0, e1);
        for (int c = 0; c < 4; ++c) {
            endpoints[p][0][c] = ldr ? e0[c] * 257 : kAstcHdrEndpointError[c];
            endpoints[p][1][c] = ldr ? e1[c] * 257 : kAstcHdrEndpointError[c];
        }
    }
    int gridWeights[64];
    for (int i = 0; i < content.mode.weightCount(); ++i)
        gridWeights[i] = astcWeightUnquant(content.mode.weightRange, content.weights[i]);

    const bool small = astcIsSmallBlock(blockWidth, blockHeight);
    const std::array<uint8_t, 65536>& to8 = unorm16ToUnorm8Table();
    for (int t = 0; t < blockHeight; ++t)
        for (int s = 0; s < blockWidth; ++s) {
            const int p = astcPartitionOf(content.partitionSeed, content.partitionCount, s, t, small);
            const int w0 = infillWeight(gridWeights, content.mode, blockWidth, blockHeight, s, t, 0);
            const int w1 =
                content.mode.dualPlane ? infillWeight(gridWeights, content.mode, blockWidth, blockHeight, s, t, 1) : w0;
            uint8_t* out = rgba + 4 * (t * blockWidth + s);
            for (int c = 0; c < 4; ++c) {
                const int w = content.mode.dualPlane && c == content.planeTwoComponent ? w1 : w0;
                const int v = (endpoints[p][0][c] * (64 - w) + endpoints[p][1][c] * w + 32) >> 6;
                out[c] = to8[v];
            }
        }
}

void decodeAstcImage(const uint8_t* blocks, uint32_t width, uint32_t height, AstcFootprint footprint,
                     std::vector<uint8_t>& rgba) {
    const uint32_t bw = uint32_t(footprint.width), bh = uint32_t(footprint.height);
    const uint32_t across = (width + bw - 1) / bw, down = (height + bh - 1) / bh;
    rgba.assign(size_t(width) * height * 4, 0);
    std::vector<uint8_t> texels(size_t(bw) * bh * 4);
    for (uint32_t by = 0; by < down; ++by)
        for (uint32_t bx = 0; bx < across; ++bx) {
            decodeAstcBlock(blocks + (size_t(by) * across + bx) * 16, int(bw), int(bh), texels.data());
            const uint32_t rows = std::min(bh, height - by * bh), cols = std::min(bw, width - bx * bw);
            for (uint32_t y = 0; y < rows; ++y)
                std::memcpy(&rgba[((size_t(by) * bh + y) * width + size_t(bx) * bw) * 4], &texels[size_t(y) * bw * 4],
                            size_t(cols) * 4);
        }
}

}  // namespace glyptora_astc
