#include "astc/const_block.h"

#include "astc/block_bits.h"
#include "astc/encoder_assert.h"

namespace glyptora_astc {

void writeConstBlock(const uint16_t rgba[4], uint8_t out[16]) {
    int cur = 0;
    writeBlockBits(out, cur, kAstcVoidExtentHeader, 12);
    for (int i = 0; i < 4; ++i) writeBlockBits(out, cur, kAstcNoExtent, 13);
    for (int c = 0; c < 4; ++c) writeBlockBits(out, cur, rgba[c], 16);
    GLYPTORA_ASTC_ASSERT("glyptora_astc::writeConstBlock", cur == 128);
}

}  // namespace glyptora_astc
