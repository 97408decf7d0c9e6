#pragma once
// What the BC6H encoders and the decoder share about the published format: the fourteen
// modes (ten two-region, four one-region) with their field widths and header layouts, the
// texel preparation, endpoint unquantisation, interpolation and final scaling.
#include <cstdint>

#include "bc6h/bits.h"

namespace glyptora_bc6h {

// One BC6H mode ("pattern"). Field widths per channel R, G, B of the four endpoint fields
// w, x, y, z (region 0 first and second endpoint, region 1 first and second endpoint; the
// one-region modes use w and x only).
struct Pattern {
    int regions;           // 1 or 2
    int bits[3][4];        // field widths [channel][w, x, y, z]
    bool transformed;      // endpoints after w are stored as signed deltas from w
    int modeValue;         // value of the mode field
    int modeBits;          // 2 or 5
    const char* layout;    // header fields from the last bit to the first, e.g. "d[4:0],bz[3],...,m[4:0]"
};

// In the order the search tries them: two-region modes (mode values 2, 6, 10, 0, 14, 18,
// 22, 26, 1, 30) and one-region modes (15, 11, 7, 3).
extern const Pattern kTwoRegionPatterns[10];
extern const Pattern kOneRegionPatterns[4];

// The pattern a block's mode field names, or nullptr for the reserved mode values.
const Pattern* patternOfBlock(const uint8_t block[16]);

// Endpoint fields as stored (after the delta transform, masked to their widths), indexed
// [w, x, y, z][channel].
struct StoredEndpoints {
    int field[4][3];
};

// Writes the header of `pattern` (mode, shape for two-region modes, endpoint fields) by
// walking its layout string from the end backwards, and reads it back the same way.
void writeHeader(const Pattern& pattern, int shape, const StoredEndpoints& endpoints, BC6HModes::Bits& out);
void readHeader(const Pattern& pattern, const uint8_t block[16], int& shape, StoredEndpoints& endpoints);

// Texel preparation: the value of one colour channel as the integer of its half-float bit
// pattern (unsigned: negatives 0, infinity and NaN 31743; signed: sign and magnitude, the
// magnitude clamped to 31743).
int texelValue(float value, bool isSigned);

// The published unquantisation of an endpoint of `bits` bits, the final scaling of an
// interpolated value to a half bit pattern (sign and magnitude in signed form), and the
// interpolation with 6-bit weights.
int unquantize(int value, int bits, bool isSigned);
uint16_t finishUnquantize(int value, bool isSigned);
inline int interpolate(int a, int b, int weight) { return (a * (64 - weight) + b * weight + 32) >> 6; }

// Two's-complement value of the low `bits` bits of `value` (deltas and signed endpoints).
inline int signExtend(int value, int bits) {
    const int sign = 1 << (bits - 1);
    return (value & (sign - 1)) - (value & sign);
}

inline constexpr int kWeights3[8] = {0, 9, 18, 27, 37, 46, 55, 64};
inline constexpr int kWeights4[16] = {0, 4, 9, 13, 17, 21, 26, 30, 34, 38, 43, 47, 51, 55, 60, 64};

}  // namespace glyptora_bc6h
