#include "bc6h/bc6h_format.h"

#include "bc6h/half_float.h"
#include "bc6h/header_walk.h"

namespace glyptora_bc6h {

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

}  // namespace glyptora_bc6h
