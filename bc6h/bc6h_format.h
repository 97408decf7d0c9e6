#pragma once
// What the BC6H encoders and the decoder share about the published format: the fourteen
// modes (ten two-region, four one-region) with their field widths and header layouts, the
// texel preparation, endpoint unquantisation, interpolation and final scaling.
#include <cstdint>

#include "bc6h/bits.h"
#include "core/host_device.h"

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
// 22, 26, 1, 30) and one-region modes (15, 11, 7, 3). Host tables: device code reads the
// modes through the fast block writer's compile-time copy (fast_block_writer.h).
// Layout strings list the header fields from the last header bit back to the first; a range
// [a:b] is stored starting with bit b, so the one-region modes' "[10:15]" high bits are stored
// most significant first, as the format lays them out.
inline constexpr Pattern kTwoRegionPatterns[10] = {
    {2, {{11, 5, 5, 5}, {11, 4, 4, 4}, {11, 4, 4, 4}}, true, 2, 5,
     "d[4:0],bz[3],rz[4:0],bz[2],ry[4:0],by[3:0],bz[1],bw[10],bx[3:0],gz[3:0],bz[0],gw[10],gx[3:0],gy[3:0],rw[10],"
     "rx[4:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {2, {{11, 4, 4, 4}, {11, 5, 5, 5}, {11, 4, 4, 4}}, true, 6, 5,
     "d[4:0],bz[3],gy[4],rz[3:0],bz[2],bz[0],ry[3:0],by[3:0],bz[1],bw[10],bx[3:0],gz[3:0],gw[10],gx[4:0],gy[3:0],"
     "gz[4],rw[10],rx[3:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {2, {{11, 4, 4, 4}, {11, 4, 4, 4}, {11, 5, 5, 5}}, true, 10, 5,
     "d[4:0],bz[3],bz[4],rz[3:0],bz[2],bz[1],ry[3:0],by[3:0],bw[10],bx[4:0],gz[3:0],bz[0],gw[10],gx[3:0],gy[3:0],"
     "by[4],rw[10],rx[3:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {2, {{10, 5, 5, 5}, {10, 5, 5, 5}, {10, 5, 5, 5}}, true, 0, 2,
     "d[4:0],bz[3],rz[4:0],bz[2],ry[4:0],by[3:0],bz[1],bx[4:0],gz[3:0],bz[0],gx[4:0],gy[3:0],gz[4],rx[4:0],bw[9:0],"
     "gw[9:0],rw[9:0],bz[4],by[4],gy[4],m[1:0]"},
    {2, {{9, 5, 5, 5}, {9, 5, 5, 5}, {9, 5, 5, 5}}, true, 14, 5,
     "d[4:0],bz[3],rz[4:0],bz[2],ry[4:0],by[3:0],bz[1],bx[4:0],gz[3:0],bz[0],gx[4:0],gy[3:0],gz[4],rx[4:0],bz[4],"
     "bw[8:0],gy[4],gw[8:0],by[4],rw[8:0],m[4:0]"},
    {2, {{8, 6, 6, 6}, {8, 5, 5, 5}, {8, 5, 5, 5}}, true, 18, 5,
     "d[4:0],rz[5:0],ry[5:0],by[3:0],bz[1],bx[4:0],gz[3:0],bz[0],gx[4:0],gy[3:0],rx[5:0],bz[4],bz[3],bw[7:0],gy[4],"
     "bz[2],gw[7:0],by[4],gz[4],rw[7:0],m[4:0]"},
    {2, {{8, 5, 5, 5}, {8, 6, 6, 6}, {8, 5, 5, 5}}, true, 22, 5,
     "d[4:0],bz[3],rz[4:0],bz[2],ry[4:0],by[3:0],bz[1],bx[4:0],gz[3:0],gx[5:0],gy[3:0],gz[4],rx[4:0],bz[4],gz[5],"
     "bw[7:0],gy[4],gy[5],gw[7:0],by[4],bz[0],rw[7:0],m[4:0]"},
    {2, {{8, 5, 5, 5}, {8, 5, 5, 5}, {8, 6, 6, 6}}, true, 26, 5,
     "d[4:0],bz[3],rz[4:0],bz[2],ry[4:0],by[3:0],bx[5:0],gz[3:0],bz[0],gx[4:0],gy[3:0],gz[4],rx[4:0],bz[4],bz[5],"
     "bw[7:0],gy[4],by[5],gw[7:0],by[4],bz[1],rw[7:0],m[4:0]"},
    {2, {{7, 6, 6, 6}, {7, 6, 6, 6}, {7, 6, 6, 6}}, true, 1, 2,
     "d[4:0],rz[5:0],ry[5:0],by[3:0],bx[5:0],gz[3:0],gx[5:0],gy[3:0],rx[5:0],bz[4],bz[5],bz[3],bw[6:0],gy[4],bz[2],"
     "by[5],gw[6:0],by[4],bz[1],bz[0],rw[6:0],gz[5],gz[4],gy[5],m[1:0]"},
    {2, {{6, 6, 6, 6}, {6, 6, 6, 6}, {6, 6, 6, 6}}, false, 30, 5,
     "d[4:0],rz[5:0],ry[5:0],by[3:0],bx[5:0],gz[3:0],gx[5:0],gy[3:0],rx[5:0],bz[4],bz[5],bz[3],gz[5],bw[5:0],gy[4],"
     "bz[2],by[5],gy[5],gw[5:0],by[4],bz[1],bz[0],gz[4],rw[5:0],m[4:0]"},
};

inline constexpr Pattern kOneRegionPatterns[4] = {
    {1, {{16, 4, 0, 0}, {16, 4, 0, 0}, {16, 4, 0, 0}}, true, 15, 5,
     "bw[10:15],bx[3:0],gw[10:15],gx[3:0],rw[10:15],rx[3:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {1, {{12, 8, 0, 0}, {12, 8, 0, 0}, {12, 8, 0, 0}}, true, 11, 5,
     "bw[10:11],bx[7:0],gw[10:11],gx[7:0],rw[10:11],rx[7:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {1, {{11, 9, 0, 0}, {11, 9, 0, 0}, {11, 9, 0, 0}}, true, 7, 5,
     "bw[10],bx[8:0],gw[10],gx[8:0],rw[10],rx[8:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {1, {{10, 10, 0, 0}, {10, 10, 0, 0}, {10, 10, 0, 0}}, false, 3, 5,
     "bx[9:0],gx[9:0],rx[9:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
};

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
GLYPTORA_HD inline int unquantize(int value, int bits, bool isSigned) {
    if (!isSigned) {
        if (bits >= 15 || value == 0) return value;
        if (value == (1 << bits) - 1) return 0xFFFF;
        return ((value << 16) + 0x8000) >> bits;
    }
    if (bits >= 16) return value;
    const bool negative = value < 0;
    const int magnitude = negative ? -value : value;
    int result;
    if (magnitude == 0)
        result = 0;
    else if (magnitude >= (1 << (bits - 1)) - 1)
        result = 0x7FFF;
    else
        result = ((magnitude << 15) + 0x4000) >> (bits - 1);
    return negative ? -result : result;
}

GLYPTORA_HD inline uint16_t finishUnquantize(int value, bool isSigned) {
    if (!isSigned) return uint16_t((value * 31) >> 6);
    // Scale the magnitude by 31/32 so 0x7FFF maps to the largest finite half; a negative value
    // that scales to zero becomes +0, never -0.
    const int magnitude = ((value < 0 ? -value : value) * 31) >> 5;
    return uint16_t(value < 0 && magnitude ? 0x8000 | magnitude : magnitude);
}
GLYPTORA_HD inline int interpolate(int a, int b, int weight) { return (a * (64 - weight) + b * weight + 32) >> 6; }

// Two's-complement value of the low `bits` bits of `value` (deltas and signed endpoints).
GLYPTORA_HD inline int signExtend(int value, int bits) {
    const int sign = 1 << (bits - 1);
    return (value & (sign - 1)) - (value & sign);
}

inline constexpr int kWeights3[8] = {0, 9, 18, 27, 37, 46, 55, 64};
inline constexpr int kWeights4[16] = {0, 4, 9, 13, 17, 21, 26, 30, 34, 38, 43, 47, 51, 55, 60, 64};

}  // namespace glyptora_bc6h
