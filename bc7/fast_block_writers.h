#pragma once
// Block writers of the fast BC7 encoder: the layout of each partitioned mode
// and the bit emission of partitioned and rotation (4, 5) blocks, with the
// anchor fix-ups that precede it. Mode 6 writes its block in fast_mode6.h.
#include <cstdint>

#include "bc7/bc7_tables.h"
#include "bc7/bits.h"
#include "bc7/fast_block_load.h"
#include "bc7/fast_endpoint_fit.h"
#include "bc7/fast_rotation_fit.h"
#include "core/assert.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

// ---------------------------------------------------------------------------
// Partitioned modes 0, 1, 2, 3, 7.

struct PartitionedMode {
    int mode;
    int subsets;
    int partitionBits;
    int colourBits;
    int alphaBits;  // 0: no alpha endpoints
    int pkind;
    int indexBits;
    int headerBits;  // bit cursor after endpoints and p-bits
};

GLYPTORA_BC7_TABLE PartitionedMode kMode0{0, 3, 4, 4, 0, kEndpointPBit, 3, 83};
GLYPTORA_BC7_TABLE PartitionedMode kMode1{1, 2, 6, 6, 0, kSharedPBit, 3, 82};
GLYPTORA_BC7_TABLE PartitionedMode kMode2{2, 3, 6, 5, 0, kNoPBit, 2, 99};
GLYPTORA_BC7_TABLE PartitionedMode kMode3{3, 2, 6, 7, 0, kEndpointPBit, 2, 98};
GLYPTORA_BC7_TABLE PartitionedMode kMode7{7, 2, 6, 5, 5, kEndpointPBit, 2, 98};

// Swaps a subset's endpoints wherever its anchor index has the top bit set.
template <int NC, int NS>
GLYPTORA_HD inline void fixAnchors(const Shape<NS>& shape, int levels, Fit<NC, NS>& fit) {
    for (int s = 0; s < NS; ++s) {
        const int anchor = anchorTexel(NS, shape.partition, s);
        if (fit.idx[anchor] < levels / 2) continue;
        const Vec4f tq = fit.q[s][0];
        fit.q[s][0] = fit.q[s][1];
        fit.q[s][1] = tq;
        const Vec4f td = fit.dec[s][0];
        fit.dec[s][0] = fit.dec[s][1];
        fit.dec[s][1] = td;
        const int tp = fit.p[s][0];
        fit.p[s][0] = fit.p[s][1];
        fit.p[s][1] = tp;
        for (int i = 0; i < 16; ++i)
            if (shape.subsetOf[i] == s) fit.idx[i] = levels - 1 - fit.idx[i];
    }
}

// Writes a partitioned block (alpha codes from lane 3 when the mode has alpha endpoints).
template <int NC, int NS>
GLYPTORA_HD inline void writePartitioned(const PartitionedMode& m, const Shape<NS>& shape, const Fit<NC, NS>& fit,
                                         uint8_t out[16]) {
    float q[NS][2][4];
    for (int s = 0; s < NS; ++s)
        for (int e = 0; e < 2; ++e) fit.q[s][e].store(q[s][e]);
    BC7Modes::Bits w(out, BC7Modes::BITSIZE);
    w.write(1 << m.mode, m.mode + 1);
    w.write(shape.partition, m.partitionBits);
    for (int c = 0; c < 3; ++c)
        for (int s = 0; s < NS; ++s)
            for (int e = 0; e < 2; ++e) {
                GLYPTORA_ASSERT(q[s][e][c] >= 0.0f && q[s][e][c] < float(1 << m.colourBits));
                w.write(int(q[s][e][c]), m.colourBits);
            }
    if (m.alphaBits)
        for (int s = 0; s < NS; ++s)
            for (int e = 0; e < 2; ++e) {
                GLYPTORA_ASSERT(q[s][e][3] >= 0.0f && q[s][e][3] < float(1 << m.alphaBits));
                w.write(int(q[s][e][3]), m.alphaBits);
            }
    if (m.pkind == kSharedPBit) {
        for (int s = 0; s < NS; ++s) w.write(fit.p[s][0], 1);
    } else if (m.pkind != kNoPBit) {
        for (int s = 0; s < NS; ++s) {
            w.write(fit.p[s][0], 1);
            w.write(fit.p[s][1], 1);
        }
    }
    GLYPTORA_ASSERT(w.getptr() == m.headerBits);
    for (int i = 0; i < 16; ++i) {
        const bool anchor = isAnchorTexel(NS, shape.partition, i);
        GLYPTORA_ASSERT(!anchor || fit.idx[i] < (1 << (m.indexBits - 1)));
        w.write(fit.idx[i], m.indexBits - (anchor ? 1 : 0));
    }
    GLYPTORA_ASSERT(w.getptr() == BC7Modes::BITSIZE);
}

// ---------------------------------------------------------------------------
// Modes 4 and 5.

// Writes lane `lane` of the fits as a mode 4 or 5 block of the given rotation,
// after clearing the top bit of each anchor index (texel 0 of both index sets).
GLYPTORA_HD inline void writeRotationBlock(const RotationVariant& v, int rotation, int lane, const LaneFit<3>& colour,
                                           const LaneFit<1>& alpha, uint8_t out[16]) {
    int cq[2][3], aq[2], cidx[16], aidx[16];
    for (int e = 0; e < 2; ++e) {
        for (int k = 0; k < 3; ++k) cq[e][k] = int(colour.q[e][k][lane]);
        aq[e] = int(alpha.q[e][0][lane]);
    }
    for (int i = 0; i < 16; ++i) {
        cidx[i] = int(colour.idx[i][lane]);
        aidx[i] = int(alpha.idx[i][lane]);
    }
    if (cidx[0] >= v.colourLevels / 2) {
        for (int k = 0; k < 3; ++k) {
            const int t = cq[0][k];
            cq[0][k] = cq[1][k];
            cq[1][k] = t;
        }
        for (int i = 0; i < 16; ++i) cidx[i] = v.colourLevels - 1 - cidx[i];
    }
    if (aidx[0] >= v.alphaLevels / 2) {
        const int t = aq[0];
        aq[0] = aq[1];
        aq[1] = t;
        for (int i = 0; i < 16; ++i) aidx[i] = v.alphaLevels - 1 - aidx[i];
    }
    BC7Modes::Bits w(out, BC7Modes::BITSIZE);
    w.write(1 << v.mode, v.mode + 1);
    w.write(rotation, 2);
    if (v.mode == 4) w.write(v.indexMode, 1);
    for (int k = 0; k < 3; ++k) {
        w.write(cq[0][k], v.colourBits);
        w.write(cq[1][k], v.colourBits);
    }
    w.write(aq[0], v.alphaBits);
    w.write(aq[1], v.alphaBits);
    GLYPTORA_ASSERT(w.getptr() == (v.mode == 4 ? 50 : 66));
    // The 2-bit set comes first: colour's unless mode 4 gives colour the 3-bit indices.
    const bool colourFirst = !(v.mode == 4 && v.indexMode == 1);
    const int* first = colourFirst ? cidx : aidx;
    const int* second = colourFirst ? aidx : cidx;
    const int secondBits = v.mode == 4 ? 3 : 2;
    GLYPTORA_ASSERT(first[0] < 2 && second[0] < (1 << (secondBits - 1)));
    for (int i = 0; i < 16; ++i) w.write(first[i], i == 0 ? 1 : 2);
    for (int i = 0; i < 16; ++i) w.write(second[i], i == 0 ? secondBits - 1 : secondBits);
    GLYPTORA_ASSERT(w.getptr() == BC7Modes::BITSIZE);
}

}  // namespace fastenc
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
