#include "astc/block_reader.h"

#include "astc/block_bits.h"

namespace glyptora_astc {

namespace {

AstcBlockKind readVoidExtent(const uint8_t block[16], uint16_t constant[4]) {
    // Bit 9 marks HDR (half-float) colours; bits 10 and 11 must be set in a 2D block.
    if (readBlockBits(block, 9, 3) != 6u) return AstcBlockKind::Error;
    const uint32_t minS = readBlockBits(block, 12, 13), maxS = readBlockBits(block, 25, 13);
    const uint32_t minT = readBlockBits(block, 38, 13), maxT = readBlockBits(block, 51, 13);
    const bool noExtent = minS == 0x1FFF && maxS == 0x1FFF && minT == 0x1FFF && maxT == 0x1FFF;
    if (!noExtent && (minS >= maxS || minT >= maxT)) return AstcBlockKind::Error;
    for (int c = 0; c < 4; ++c) constant[c] = uint16_t(readBlockBits(block, 64 + 16 * c, 16));
    return AstcBlockKind::ConstantColour;
}

}  // namespace

AstcBlockKind readAstcBlock(const uint8_t block[16], int blockWidth, int blockHeight, AstcBlockContent& content,
                            uint16_t constant[4]) {
    const uint32_t modeBits = readBlockBits(block, 0, 11);
    if ((modeBits & 0x1FFu) == 0x1FCu) return readVoidExtent(block, constant);

    content = AstcBlockContent{};
    AstcBlockMode& mode = content.mode;
    if (!decodeAstcBlockMode(modeBits, mode) || !astcBlockModeFits(mode, blockWidth, blockHeight))
        return AstcBlockKind::Error;
    const int partitions = int(readBlockBits(block, 11, 2)) + 1;
    if (partitions == 4 && mode.dualPlane) return AstcBlockKind::Error;
    content.partitionCount = partitions;
    const int weightBits = mode.weightBits();

    int extraBits = 0, colourStart = 17;
    if (partitions == 1) {
        content.cem[0] = uint8_t(readBlockBits(block, 13, 4));
    } else {
        content.partitionSeed = int(readBlockBits(block, 13, 10));
        colourStart = 29;
        const uint32_t low = readBlockBits(block, 23, 6);
        if ((low & 3u) == 0) {
            for (int p = 0; p < partitions; ++p) content.cem[p] = uint8_t(low >> 2);
        } else {
            extraBits = astcExtraCemBits(partitions, false);
            const uint32_t field = low | (readBlockBits(block, 128 - weightBits - extraBits, extraBits) << 6);
            const int base = int(field & 3u) - 1;
            for (int p = 0; p < partitions; ++p) {
                const int cls = base + int((field >> (2 + p)) & 1u);
                content.cem[p] = uint8_t((cls << 2) | int((field >> (2 + partitions + 2 * p)) & 3u));
            }
        }
    }
    const int valueCount = astcColourValueCount(partitions, content.cem);
    content.colourRange = astcColourRange(partitions, extraBits, mode.dualPlane, weightBits, valueCount);
    if (content.colourRange < 0) return AstcBlockKind::Error;
    readIntegers(block, colourStart, astcRangeFormat(content.colourRange), valueCount, content.colourValues);
    if (mode.dualPlane) content.planeTwoComponent = int(readBlockBits(block, 128 - weightBits - extraBits - 2, 2));

    uint8_t reversed[16];
    reverseBlockBits(block, reversed);
    readIntegers(reversed, 0, astcRangeFormat(mode.weightRange), mode.weightCount(), content.weights);
    return AstcBlockKind::Ordinary;
}

}  // namespace glyptora_astc
