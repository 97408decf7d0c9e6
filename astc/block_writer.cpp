#include "astc/block_writer.h"

#include <cstring>

#include "astc/block_bits.h"

namespace glyptora_astc {

bool writeAstcBlock(const AstcBlockContent& content, uint8_t out[16]) {
    const int modeBits = encodeAstcBlockMode(content.mode);
    const int colourRange = astcColourRangeOf(content);
    if (modeBits < 0 || colourRange < 0 || colourRange != content.colourRange) return false;

    const int partitions = content.partitionCount;
    bool shared = true;
    astcEndpointModesStorable(partitions, content.cem, shared);
    const int extraBits = astcExtraCemBits(partitions, shared);
    const int weightBits = content.mode.weightBits();

    uint8_t block[16] = {};
    int pos = 0;
    writeBlockBits(block, pos, uint32_t(modeBits), 11);
    writeBlockBits(block, pos, uint32_t(partitions - 1), 2);
    if (partitions == 1) {
        writeBlockBits(block, pos, content.cem[0], 4);
    } else {
        writeBlockBits(block, pos, uint32_t(content.partitionSeed), 10);
        if (shared) {
            writeBlockBits(block, pos, uint32_t(content.cem[0]) << 2, 6);  // selector 0: one mode for all
        } else {
            // Selector = base class + 1, then a class bit per partition (base or base + 1),
            // then the two low mode bits per partition.
            int base = 3;
            for (int p = 0; p < partitions; ++p) base = (content.cem[p] >> 2) < base ? content.cem[p] >> 2 : base;
            if (base > 2) base = 2;
            uint32_t field = uint32_t(base + 1);
            for (int p = 0; p < partitions; ++p) {
                field |= uint32_t((content.cem[p] >> 2) - base) << (2 + p);
                field |= uint32_t(content.cem[p] & 3) << (2 + partitions + 2 * p);
            }
            writeBlockBits(block, pos, field & 0x3Fu, 6);
            int extraPos = 128 - weightBits - extraBits;
            writeBlockBits(block, extraPos, field >> 6, extraBits);
        }
    }
    s_WriteIntegers(block, astcRangeFormat(colourRange), content.colourValues,
                    astcColourValueCount(partitions, content.cem), pos);
    if (content.mode.dualPlane) {
        int ccsPos = 128 - weightBits - extraBits - 2;
        writeBlockBits(block, ccsPos, uint32_t(content.planeTwoComponent), 2);
    }
    int weightPos = -1;  // from the top of the block downward
    s_WriteIntegers(block, astcRangeFormat(content.mode.weightRange), content.weights, content.mode.weightCount(),
                    weightPos);
    std::memcpy(out, block, 16);
    return true;
}

}  // namespace glyptora_astc
