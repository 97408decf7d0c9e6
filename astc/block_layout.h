#pragma once
// The content of one ordinary (not void-extent) 2D ASTC block and the rules that place it
// in the 128 bits, shared by the block writer and the block reader.
//
// Layout, least significant bit first: 11-bit block mode, 2-bit partition count - 1, then
// with one partition the 4-bit endpoint mode and the colour values from bit 17; with more
// partitions the 10-bit partition seed, a 6-bit endpoint-mode field and the colour values
// from bit 29. The weights fill the block bit-reversed from the top; below them lie the
// endpoint-mode bits that did not fit the 6-bit field, and below those, for dual-plane
// blocks, the 2-bit component that the second plane drives.
#include <cstdint>

#include "astc/block_mode.h"
#include "astc/endpoint_decoding.h"

namespace glyptora_astc {

struct AstcBlockContent {
    AstcBlockMode mode;
    int partitionCount = 1;         // 1..4
    int partitionSeed = 0;          // 0..1023, multi-partition blocks
    uint8_t cem[4] = {};            // endpoint mode of each partition
    int planeTwoComponent = 0;      // 0..3 (R, G, B, A), dual-plane blocks
    int colourRange = 0;            // range index of the colour values (see astcColourRange)
    uint8_t colourValues[18] = {};  // ISE values, partition after partition
    uint8_t weights[64] = {};       // ISE values in grid order; dual plane: the planes alternate
};

inline constexpr int kAstcMaxColourValues = 18;

// Colour values the partitions' endpoint modes read together.
GLYPTORA_HD inline int astcColourValueCount(int partitionCount, const uint8_t* cems) {
    int n = 0;
    for (int p = 0; p < partitionCount; ++p) n += astcEndpointValueCount(cems[p]);
    return n;
}

// Endpoint-mode bits stored below the weights: none for one partition or when all partitions
// share a mode, else 3 * partitions - 4 (a 2-bit class selector, one class bit and two mode
// bits per partition, of which 6 bits sit in the fixed field).
GLYPTORA_HD inline int astcExtraCemBits(int partitionCount, bool sharedMode) {
    return partitionCount == 1 || sharedMode ? 0 : 3 * partitionCount - 4;
}

// Bits the layout leaves the colour values (negative when the weights take too many).
GLYPTORA_HD inline int astcColourBitsAvailable(int partitionCount, int extraCemBits, bool dualPlane, int weightBits) {
    return 128 - weightBits - (partitionCount == 1 ? 17 : 29) - extraCemBits - (dualPlane ? 2 : 0);
}

// The largest colour range whose sequence of `valueCount` values fits `available` bits; -1
// when there are more than 18 values or not even 6 levels fit.
GLYPTORA_HD inline int astcColourRangeForBits(int available, int valueCount) {
    if (valueCount > kAstcMaxColourValues) return -1;
    for (int r = kAstcRangeCount - 1; r >= 4; --r)
        if (astcSequenceBits(astcRangeFormat(r), valueCount) <= available) return r;
    return -1;
}

// The largest colour range whose sequence of `valueCount` values fits the bits the layout
// leaves; -1 when there are more than 18 values or not even 6 levels fit.
GLYPTORA_HD inline int astcColourRange(int partitionCount, int extraCemBits, bool dualPlane, int weightBits,
                                       int valueCount) {
    return astcColourRangeForBits(astcColourBitsAvailable(partitionCount, extraCemBits, dualPlane, weightBits),
                                  valueCount);
}

// Whether the partitions' endpoint modes can be stored: one shared mode, or modes whose
// classes (mode / 4) lie within two neighbouring classes.
GLYPTORA_HD inline bool astcEndpointModesStorable(int partitionCount, const uint8_t* cems, bool& shared) {
    shared = true;
    int lo = cems[0] >> 2, hi = lo;
    for (int p = 1; p < partitionCount; ++p) {
        shared = shared && cems[p] == cems[0];
        lo = (cems[p] >> 2) < lo ? cems[p] >> 2 : lo;
        hi = (cems[p] >> 2) > hi ? cems[p] >> 2 : hi;
    }
    return shared || hi - lo <= 1;
}

// The colour range of `content` as its layout dictates (-1: the content has no valid layout).
GLYPTORA_HD inline int astcColourRangeOf(const AstcBlockContent& content) {
    bool shared = true;
    if (content.partitionCount < 1 || content.partitionCount > 4 ||
        !astcEndpointModesStorable(content.partitionCount, content.cem, shared))
        return -1;
    if (content.partitionCount == 4 && content.mode.dualPlane) return -1;
    return astcColourRange(content.partitionCount, astcExtraCemBits(content.partitionCount, shared),
                           content.mode.dualPlane, content.mode.weightBits(),
                           astcColourValueCount(content.partitionCount, content.cem));
}

}  // namespace glyptora_astc
