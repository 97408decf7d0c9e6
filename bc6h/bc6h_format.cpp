#include "bc6h/bc6h_format.h"

#include "bc6h/half_float.h"

namespace glyptora_bc6h {

// Layout strings list the header fields from the last header bit back to the first; a range
// [a:b] is stored starting with bit b, so the one-region modes' "[10:15]" high bits are stored
// most significant first, as the format lays them out.
const Pattern kTwoRegionPatterns[10] = {
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

const Pattern kOneRegionPatterns[4] = {
    {1, {{16, 4, 0, 0}, {16, 4, 0, 0}, {16, 4, 0, 0}}, true, 15, 5,
     "bw[10:15],bx[3:0],gw[10:15],gx[3:0],rw[10:15],rx[3:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {1, {{12, 8, 0, 0}, {12, 8, 0, 0}, {12, 8, 0, 0}}, true, 11, 5,
     "bw[10:11],bx[7:0],gw[10:11],gx[7:0],rw[10:11],rx[7:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {1, {{11, 9, 0, 0}, {11, 9, 0, 0}, {11, 9, 0, 0}}, true, 7, 5,
     "bw[10],bx[8:0],gw[10],gx[8:0],rw[10],rx[8:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
    {1, {{10, 10, 0, 0}, {10, 10, 0, 0}, {10, 10, 0, 0}}, false, 3, 5,
     "bx[9:0],gx[9:0],rx[9:0],bw[9:0],gw[9:0],rw[9:0],m[4:0]"},
};

namespace {

// Reads the decimal number that ends just before `end`, moving `end` to its first digit.
int numberBefore(const char* layout, int& end) {
    int value = 0;
    for (int scale = 1; end > 0 && layout[end - 1] >= '0' && layout[end - 1] <= '9'; scale *= 10) {
        --end;
        value += (layout[end] - '0') * scale;
    }
    return value;
}

// Calls visit(name0, name1, bit) for every header bit in storage order: the layout is walked
// from its end (the first stored field) back to its start, each range from its right-hand
// bit number to its left-hand one. name1 is 0 for the one-letter fields m and d.
template <typename Visit>
void forEachHeaderBit(const char* layout, Visit&& visit) {
    int end = 0;
    while (layout[end]) ++end;
    while (end > 0) {
        --end;  // ']'
        const int right = numberBefore(layout, end);
        int left = right;
        if (layout[end - 1] == ':') {
            --end;
            left = numberBefore(layout, end);
        }
        --end;  // '['
        int start = end;
        while (start > 0 && layout[start - 1] != ',') --start;
        const char name0 = layout[start];
        const char name1 = end - start > 1 ? layout[start + 1] : 0;
        const int step = left >= right ? 1 : -1;
        for (int bit = right;; bit += step) {
            visit(name0, name1, bit);
            if (bit == left) break;
        }
        end = start > 0 ? start - 1 : 0;  // skip the ','
    }
}

int channelOf(char name) { return name == 'r' ? 0 : name == 'g' ? 1 : 2; }
int endpointOf(char name) { return name - 'w'; }

}  // namespace

const Pattern* patternOfBlock(const uint8_t block[16]) {
    const int twoBitMode = block[0] & 3;
    for (const Pattern& p : kTwoRegionPatterns)
        if (p.modeBits == 2 && p.modeValue == twoBitMode) return &p;
    const int mode = block[0] & 31;
    for (const Pattern& p : kTwoRegionPatterns)
        if (p.modeBits == 5 && p.modeValue == mode) return &p;
    for (const Pattern& p : kOneRegionPatterns)
        if (p.modeValue == mode) return &p;
    return nullptr;  // 10011, 10111, 11011, 11111
}

void writeHeader(const Pattern& pattern, int shape, const StoredEndpoints& endpoints, BC6HModes::Bits& out) {
    forEachHeaderBit(pattern.layout, [&](char name0, char name1, int bit) {
        int value;
        if (name0 == 'm')
            value = pattern.modeValue;
        else if (name0 == 'd')
            value = shape;
        else
            value = endpoints.field[endpointOf(name1)][channelOf(name0)];
        out.write((value >> bit) & 1, 1);
    });
}

void readHeader(const Pattern& pattern, const uint8_t block[16], int& shape, StoredEndpoints& endpoints) {
    BC6HModes::Bits in(block, 128);
    shape = 0;
    endpoints = StoredEndpoints{};
    forEachHeaderBit(pattern.layout, [&](char name0, char name1, int bit) {
        const int value = in.read(1) << bit;
        if (name0 == 'd')
            shape |= value;
        else if (name0 != 'm')
            endpoints.field[endpointOf(name1)][channelOf(name0)] |= value;
    });
}

int texelValue(float value, bool isSigned) {
    const int h = floatToHalf(value);
    if (isSigned) {
        const int magnitude = h & 0x7FFF;
        const int clamped = magnitude > 31743 ? 31743 : magnitude;
        return h & 0x8000 ? -clamped : clamped;
    }
    if (h >= 32768) return 0;  // negative, -0 included
    return h >= 31744 ? 31743 : h;
}

int unquantize(int value, int bits, bool isSigned) {
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

uint16_t finishUnquantize(int value, bool isSigned) {
    if (!isSigned) return uint16_t((value * 31) >> 6);
    // Scale the magnitude by 31/32 so 0x7FFF maps to the largest finite half; a negative value
    // that scales to zero becomes +0, never -0.
    const int magnitude = ((value < 0 ? -value : value) * 31) >> 5;
    return uint16_t(value < 0 && magnitude ? 0x8000 | magnitude : magnitude);
}

}  // namespace glyptora_bc6h
