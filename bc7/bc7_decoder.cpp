#include "bc7/bc7_decoder.h"

#include "bc7/bc7_tables.h"
#include "bc7/bits.h"

namespace glyptora_bc7 {

namespace {

struct ModeLayout {
    int subsets;
    int partitionBits;
    int rotationBits;
    int indexModeBits;
    int colourBits;
    int alphaBits;        // 0: alpha is 255
    int endpointPBits;    // one p-bit per endpoint
    int sharedPBits;      // one p-bit per subset
    int indexBits;        // primary index set
    int secondIndexBits;  // modes 4 and 5: the second index set
};

constexpr ModeLayout kLayouts[8] = {
    {3, 4, 0, 0, 4, 0, 1, 0, 3, 0}, {2, 6, 0, 0, 6, 0, 0, 1, 3, 0}, {3, 6, 0, 0, 5, 0, 0, 0, 2, 0},
    {2, 6, 0, 0, 7, 0, 1, 0, 2, 0}, {1, 0, 2, 1, 5, 6, 0, 0, 2, 3}, {1, 0, 2, 0, 7, 8, 0, 0, 2, 2},
    {1, 0, 0, 0, 7, 7, 1, 0, 4, 0}, {2, 6, 0, 0, 5, 5, 1, 0, 2, 0},
};

int modeOf(const uint8_t block[16]) {
    for (int m = 0; m < 8; ++m)
        if (block[0] & (1 << m)) return m;
    return -1;
}

int expandTo8(int value, int bits) {
    value <<= 8 - bits;
    return value | (value >> bits);
}

int weightOf(int index, int bits) {
    if (bits == 2) return kWeights2[index];
    if (bits == 3) return kWeights3[index];
    return kWeights4[index];
}

}  // namespace

BC7BlockInfo describeBC7Block(const uint8_t block[16]) {
    BC7BlockInfo info;
    info.mode = modeOf(block);
    if (info.mode < 0) return info;
    const ModeLayout& l = kLayouts[info.mode];
    BC7Modes::Bits in(block, BC7Modes::BITSIZE);
    in.read(info.mode + 1);
    info.partition = in.read(l.partitionBits);
    info.rotation = in.read(l.rotationBits);
    info.indexMode = in.read(l.indexModeBits);
    return info;
}

void decodeBC7Block(const uint8_t block[16], uint8_t rgba[64]) {
    const BC7BlockInfo info = describeBC7Block(block);
    if (info.mode < 0) {
        for (int i = 0; i < 64; ++i) rgba[i] = 0;
        return;
    }
    const ModeLayout& l = kLayouts[info.mode];
    BC7Modes::Bits in(block, BC7Modes::BITSIZE);
    in.setptr(info.mode + 1 + l.partitionBits + l.rotationBits + l.indexModeBits);

    // Endpoints: channel by channel, within a channel subset by subset, endpoint 0 then 1.
    int endpoints[3][2][4] = {};
    const int channels = l.alphaBits ? 4 : 3;
    for (int c = 0; c < channels; ++c)
        for (int s = 0; s < l.subsets; ++s)
            for (int e = 0; e < 2; ++e) endpoints[s][e][c] = in.read(c < 3 ? l.colourBits : l.alphaBits);
    int pbits[3][2] = {};
    for (int s = 0; s < l.subsets; ++s) {
        if (l.endpointPBits) {
            pbits[s][0] = in.read(1);
            pbits[s][1] = in.read(1);
        } else if (l.sharedPBits) {
            pbits[s][0] = pbits[s][1] = in.read(1);
        }
    }
    const bool hasPBits = l.endpointPBits || l.sharedPBits;
    for (int s = 0; s < l.subsets; ++s)
        for (int e = 0; e < 2; ++e)
            for (int c = 0; c < 4; ++c) {
                if (c == 3 && !l.alphaBits) {
                    endpoints[s][e][c] = 255;
                    continue;
                }
                int bits = c < 3 ? l.colourBits : l.alphaBits;
                int v = endpoints[s][e][c];
                if (hasPBits) {
                    v = (v << 1) | pbits[s][e];
                    ++bits;
                }
                endpoints[s][e][c] = expandTo8(v, bits);
            }

    int primary[16], secondary[16] = {};
    for (int i = 0; i < 16; ++i) {
        const bool anchor = isAnchorTexel(l.subsets, info.partition, i);
        primary[i] = in.read(l.indexBits - (anchor ? 1 : 0));
    }
    if (l.secondIndexBits)
        for (int i = 0; i < 16; ++i) secondary[i] = in.read(l.secondIndexBits - (i == 0 ? 1 : 0));

    for (int i = 0; i < 16; ++i) {
        const int s = partitionSubset(l.subsets, info.partition, i);
        int colourIndex = primary[i], colourBits = l.indexBits;
        int alphaIndex = primary[i], alphaBits = l.indexBits;
        if (l.secondIndexBits) {
            if (info.indexMode == 0) {
                alphaIndex = secondary[i];
                alphaBits = l.secondIndexBits;
            } else {
                colourIndex = secondary[i];
                colourBits = l.secondIndexBits;
                alphaIndex = primary[i];
                alphaBits = l.indexBits;
            }
        }
        const int wc = weightOf(colourIndex, colourBits);
        const int wa = weightOf(alphaIndex, alphaBits);
        int texel[4];
        for (int c = 0; c < 4; ++c) {
            const int w = c < 3 ? wc : wa;
            texel[c] = (endpoints[s][0][c] * (64 - w) + endpoints[s][1][c] * w + 32) >> 6;
        }
        if (info.rotation) {
            const int other = info.rotation - 1;
            const int t = texel[3];
            texel[3] = texel[other];
            texel[other] = t;
        }
        for (int c = 0; c < 4; ++c) rgba[i * 4 + c] = uint8_t(texel[c]);
    }
}

uint64_t BC7ModeStats::total() const {
    uint64_t n = reserved;
    for (uint64_t b : blocks) n += b;
    return n;
}

void accumulateBC7ModeStats(const uint8_t* blocks, size_t blockCount, BC7ModeStats& stats) {
    for (size_t b = 0; b < blockCount; ++b) {
        const BC7BlockInfo info = describeBC7Block(blocks + 16 * b);
        if (info.mode < 0) {
            ++stats.reserved;
            continue;
        }
        ++stats.blocks[info.mode];
        if (info.mode == 4) {
            ++stats.mode4IndexMode[info.indexMode];
            ++stats.mode4Rotation[info.rotation];
        } else if (info.mode == 5) {
            ++stats.mode5Rotation[info.rotation];
        }
    }
}

}  // namespace glyptora_bc7
