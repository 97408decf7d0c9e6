#include "bc6h/bc6h_decoder.h"

#include "bc6h/bc6h_format.h"
#include "bc7/bc7_tables.h"

namespace glyptora_bc6h {
namespace {

// Endpoint values of every field of the block, at the mode's base precision, before
// unquantisation: deltas sign-extended and added to the base (the sum wraps to the base
// precision), signed-format values sign-extended.
void reconstructEndpoints(const Pattern& pattern, const StoredEndpoints& stored, bool isSigned, int endpoints[4][3]) {
    const int fields = pattern.regions * 2;
    for (int c = 0; c < 3; ++c) {
        const int baseBits = pattern.bits[c][0];
        const int base = stored.field[0][c];
        endpoints[0][c] = isSigned ? signExtend(base, baseBits) : base;
        for (int e = 1; e < fields; ++e) {
            int value = stored.field[e][c];
            if (pattern.transformed) {
                value = (base + signExtend(value, pattern.bits[c][e])) & ((1 << baseBits) - 1);
                if (isSigned) value = signExtend(value, baseBits);
            } else if (isSigned) {
                value = signExtend(value, pattern.bits[c][e]);
            }
            endpoints[e][c] = value;
        }
    }
}

}  // namespace

void decodeBC6HBlock(const uint8_t block[16], bool isSigned, uint16_t texels[16][3]) {
    const Pattern* pattern = patternOfBlock(block);
    if (!pattern) {
        for (int i = 0; i < 16; ++i) texels[i][0] = texels[i][1] = texels[i][2] = 0;
        return;
    }
    int shape = 0;
    StoredEndpoints stored;
    readHeader(*pattern, block, shape, stored);

    int endpoints[4][3];
    reconstructEndpoints(*pattern, stored, isSigned, endpoints);
    for (int e = 0; e < pattern->regions * 2; ++e)
        for (int c = 0; c < 3; ++c) endpoints[e][c] = unquantize(endpoints[e][c], pattern->bits[c][0], isSigned);

    // Indices follow the 82-bit two-region or 65-bit one-region header; each region's anchor
    // texel has its top index bit implied zero.
    const bool twoRegions = pattern->regions == 2;
    const int indexBits = twoRegions ? 3 : 4;
    const int* weights = twoRegions ? kWeights3 : kWeights4;
    BC6HModes::Bits in(block, 128);
    in.setptr(twoRegions ? 82 : 65);
    for (int i = 0; i < 16; ++i) {
        const int region = twoRegions ? glyptora_bc7::partitionSubset(2, shape, i) : 0;
        const bool anchor = twoRegions ? glyptora_bc7::isAnchorTexel(2, shape, i) : i == 0;
        const int weight = weights[in.read(anchor ? indexBits - 1 : indexBits)];
        for (int c = 0; c < 3; ++c) {
            const int value = interpolate(endpoints[region * 2][c], endpoints[region * 2 + 1][c], weight);
            texels[i][c] = finishUnquantize(value, isSigned);
        }
    }
}

}  // namespace glyptora_bc6h
