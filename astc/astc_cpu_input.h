#pragma once
// The record every CPU ASTC encoder pass reads: the source view, the footprint, per-block
// facts, the channel weights with their reciprocals, and the output.
#include <cstdint>
#include <vector>

namespace glyptora_internal {
class CPUViewBase;
}

namespace glyptora_astc {

struct AstcEncoderInput {
    const glyptora_internal::CPUViewBase* view = nullptr;
    int blockWidth = 0;
    int blockHeight = 0;
    uint32_t blockCount = 0;
    // Per block: valid width in the low byte, height in the next byte, and kAstcBlockAlpha
    // when the block has alpha.
    std::vector<uint32_t> blockInfo;
    float weights[4] = {1, 1, 1, 1};
    float inverseWeights[4] = {1, 1, 1, 1};
    uint8_t* output = nullptr;  // 16 bytes per block
    // The tile bytes when the view holds unsigned 8-bit tiles: read directly, without the
    // view's per-texel float fetch.
    const uint8_t* u8Tiles = nullptr;
    float u8Weighted[4][256] = {};  // byte value to clamped, weighted channel value

    uint16_t validRegion(uint32_t block) const { return uint16_t(blockInfo[block] & 0xFFFFu); }
    bool blockHasAlpha(uint32_t block) const { return (blockInfo[block] & kAstcBlockAlpha) != 0; }

    static constexpr uint32_t kAstcBlockAlpha = 1u << 16;
};

// Fills the record for `view`; per-block alpha flags are looked for only when the image has
// alpha (one parallel pass over the tiles).
AstcEncoderInput makeAstcEncoderInput(const glyptora_internal::CPUViewBase& view, bool imageHasAlpha, uint8_t* output);

// Fetches block `block` and fills its weighted texels.
struct AstcBlockTexels;
void loadAstcBlock(const AstcEncoderInput& input, uint32_t block, AstcBlockTexels& texels);

}  // namespace glyptora_astc
