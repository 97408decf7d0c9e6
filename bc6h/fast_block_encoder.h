#pragma once
// The fast BC6H block encoder (the flow described in fast_encoder.h) over the texels and
// measure of fast_texels.h, the fitting of fast_line_fit.h, the exact palettes of
// fast_palette.h and the block assembly of fast_block_writer.h. Host and device code: the
// CPU entry (bc6h_fast.cpp) and the GPU kernels (gpu/bc6h_gpu_stages.h) run these same
// functions, so both write the same blocks.
#include <cfloat>
#include <cstdint>

#include "bc6h/bc6h_format.h"
#include "bc6h/fast_block_writer.h"
#include "bc6h/fast_line_fit.h"
#include "bc6h/fast_palette.h"
#include "bc6h/fast_texels.h"
#include "bc7/bc7_tables.h"
#include "bc7/fast_shape_ranking.h"
#include "core/host_device.h"

namespace glyptora_bc6h {
inline namespace GLYPTORA_SIMD_ABI {
namespace fast {

namespace bc7fast = glyptora_bc7::fastenc;

template <typename T, int N>
GLYPTORA_HD inline void swapRows(T (&a)[N], T (&b)[N]) {
    for (int i = 0; i < N; ++i) {
        const T v = a[i];
        a[i] = b[i];
        b[i] = v;
    }
}

// The single-region error per texel channel from which the two-region pass runs: an RMS
// error of 1/1024, a quarter of an 8-bit step (relative above 1). Below it two regions,
// with their coarser endpoints and 3-bit indices, seldom gain anything visible, and the
// pass costs more than the single-region one.
inline constexpr float kTwoRegionThreshold = 1.0f / (1024.0f * 1024.0f);

// Of the 32 shapes ordered by scatter, how many are ranked by their line fits; more find
// nothing better.
inline constexpr int kShapeCandidates = 4;

// A finished encoding: its mode (index into the pattern table of its region count), shape,
// quantised endpoints [w, x, y, z][channel] (not delta-coded), indices and error.
struct Candidate {
    float error = FLT_MAX;
    int regions = 1;
    int pattern = 0;
    int shape = 0;
    int q[4][3] = {};
    int idx[16] = {};
    float value[3][16];  // the palette value each texel got
};

// Valid columns in the low byte of `validRegion`, valid rows in the high byte, as texel bits.
GLYPTORA_HD inline uint32_t validTexels(uint16_t validRegion) {
    const int w = bc7fast::clampi(validRegion & 0xFF, 1, 4), h = bc7fast::clampi(validRegion >> 8, 1, 4);
    uint32_t mask = 0;
    for (int y = 0; y < h; ++y) mask |= ((1u << w) - 1u) << (4 * y);
    return mask;
}

// ---------------------------------------------------------------------------
// Endpoint quantisation and mode fit.

// The half value a stored endpoint decodes to (signed: minus the magnitude when negative).
GLYPTORA_HD inline int endpointValue(int q, int bits, bool isSigned) {
    const uint16_t h = finishUnquantize(unquantize(q, bits, isSigned), isSigned);
    return (h & 0x8000) ? -int(h & 0x7FFF) : int(h);
}

// Stored steps per half value for a base of `bits` bits: a stored step is about
// 31744 / 2^bits half values (2^(bits - 1) for the magnitude of a signed one).
GLYPTORA_HD inline float unitsPerValue(int bits, bool isSigned) {
    return float(1 << (isSigned ? bits - 1 : bits)) / 31744.0f;
}

// The stored endpoint of `bits` bits whose decoded value is nearest `e`: of the two values
// around the inverse of the (almost linear) unquantisation the nearer, the lower on a tie.
GLYPTORA_HD inline int quantizeEndpoint(float e, int bits, bool isSigned) {
    const bool negative = isSigned && e < 0.0f;
    const float magnitude = negative ? -e : e;
    const int top = (1 << (isSigned ? bits - 1 : bits)) - 1;
    const float units = unitsPerValue(bits, isSigned);
    // Fields of 16 bits are used as they are; shorter ones decode to the middle of their step.
    const float x = magnitude * units - (bits >= 16 ? 0.0f : 0.5f);
    int lo = int(x);  // x > -1: truncation is the floor but for (-1, 0), which clamps to 0 anyway
    lo = lo < 0 ? 0 : (lo > top - 1 ? top - 1 : lo);
    int m;
    // Between the first and last stored values, fields of up to 12 bits decode to within two
    // half values of the middle of their step (the two roundings lose less); well away from
    // the midpoint between two steps that decides alone.
    const float margin = 2.0f * units, f = x - float(lo);
    if (bits <= 12 && lo > 0 && lo + 1 < top && (f < 0.5f - margin || f > 0.5f + margin)) {
        m = f < 0.5f ? lo : lo + 1;
    } else {
        const float dlo = fabsf(magnitude - float(endpointValue(lo, bits, isSigned)));
        const float dhi = fabsf(magnitude - float(endpointValue(lo + 1, bits, isSigned)));
        m = dhi < dlo ? lo + 1 : lo;
    }
    return negative ? -m : m;
}

GLYPTORA_HD inline void quantizeLines(const Line* lines, int regions, int bits, bool isSigned, int (&q)[4][3]) {
    for (int e = 0; e < 2 * regions; ++e)
        for (int c = 0; c < 3; ++c) q[e][c] = quantizeEndpoint(lines[e / 2].e[e % 2][c], bits, isSigned);
}

// Whether the endpoints' spread can fit the pattern's deltas, judged on the float endpoints
// (one stored step of slack for the rounding); a quick test before quantising.
GLYPTORA_HD inline bool spreadMayFit(const Line* lines, int regions, const FastMode& p, bool isSigned) {
    if (!p.transformed) return true;
    const float units = unitsPerValue(p.bits[0][0], isSigned);
    for (int c = 0; c < 3; ++c) {
        const float limit = float(1 << (p.bits[c][1] - 1)) / units;
        const float w = lines[0].e[0][c];
        for (int e = 1; e < 2 * regions; ++e) {
            const float d = lines[e / 2].e[e % 2][c] - w;
            if (d > limit || d < -limit) return false;
        }
    }
    return true;
}

// Whether the quantised endpoints fit the pattern: every delta from w inside its field.
// `symmetric` also excludes the most negative delta, so that swapping the two endpoints of
// a single region still fits.
GLYPTORA_HD inline bool quantizedFits(const int (&q)[4][3], int regions, const FastMode& p, bool symmetric) {
    if (!p.transformed) return true;
    for (int c = 0; c < 3; ++c)
        for (int e = 1; e < 2 * regions; ++e) {
            const int delta = q[e][c] - q[0][c], half = 1 << (p.bits[c][e] - 1);
            if (delta < (symmetric ? 1 - half : -half) || delta >= half) return false;
        }
    return true;
}

GLYPTORA_HD inline Unquantized unquantizeRegion(const int (&q)[4][3], int region, int bits, bool isSigned) {
    Unquantized u;
    for (int e = 0; e < 2; ++e)
        for (int c = 0; c < 3; ++c) u.u[e][c] = unquantize(q[2 * region + e][c], bits, isSigned);
    return u;
}

// Swaps the endpoints of `line` when texel `t`'s projection lies nearer the second, so that
// its index comes out in the lower half, as the anchor rule wants.
GLYPTORA_HD inline void orientLine(const Texels& tx, int t, Line& line) {
    float dot = 0.0f, dd = 0.0f;
    for (int c = 0; c < 3; ++c) {
        const float d = line.e[1][c] - line.e[0][c];
        dot += (tx.fit.px[t][c] - line.e[0][c]) * d;
        dd += d * d;
    }
    if (dot > 0.5f * dd) swapRows(line.e[0], line.e[1]);
}

GLYPTORA_HD inline void swapEndpoints(int (&q)[4][3], int first) { swapRows(q[first], q[first + 1]); }

// ---------------------------------------------------------------------------
// Single region.

GLYPTORA_HD inline Candidate encodeOneRegion(const Texels& t, bool isSigned) {
    const Block& b = t.fit;
    float mean[3], cov[6];
    regionMoments(b, b.valid, mean, cov);
    Line line;
    if (cov[0] + cov[3] + cov[5] > 0.0f) {
        float axis[3];
        principalAxis(cov, axis);
        line = extremesAlong(b, b.valid, mean, axis);
        refitLine<16>(t, b.valid, isSigned, line);
        refitLine<16>(t, b.valid, isSigned, line);
    } else {
        for (int c = 0; c < 3; ++c) line.e[0][c] = line.e[1][c] = mean[c];  // constant block
    }
    clampLine(line, isSigned);
    orientLine(t, 0, line);

    // The mode of most precision whose deltas fit; value 3 (no deltas) always does.
    Candidate cand;
    for (int m = 0; m < 4; ++m) {
        const FastMode& p = kFastModes.one[m];
        if (!spreadMayFit(&line, 1, p, isSigned)) continue;
        quantizeLines(&line, 1, p.bits[0][0], isSigned, cand.q);
        if (!quantizedFits(cand.q, 1, p, true)) continue;
        cand.pattern = m;
        break;
    }
    const Unquantized u[1] = {unquantizeRegion(cand.q, 0, kFastModes.one[cand.pattern].bits[0][0], isSigned)};
    const Vec4f region[1][4] = {{b.valid[0], b.valid[1], b.valid[2], b.valid[3]}};
    cand.error = chooseIndices<1, 16>(t, region, u, isSigned, cand.idx, cand.value);
    for (int i = 0; i < 16; ++i)
        if (!(b.validMask & (1u << i))) cand.idx[i] = 8;
    if (cand.idx[0] > 7) {  // anchor: swapping the endpoints mirrors the (symmetric) weights
        swapEndpoints(cand.q, 0);
        for (int& i : cand.idx) i = 15 - i;
    }
    return cand;
}

// ---------------------------------------------------------------------------
// Two regions.

// The shape whose regions are modelled to fit 8-entry palettes best (the earlier on a tie):
// of the shapes of least scatter (the regions' squared distances from their means) the one
// of least line residual plus spread along the line rounded to 8 entries (the spread
// matters as much as the line: gray and other one-dimensional blocks lie on a line in every
// shape). Returns the shape's slot in `st` and `order`.
GLYPTORA_HD inline int chooseShape(const Block& b, bc7fast::ShapeStats<3, 2, kShapeCandidates>& st,
                                   int (&order)[kShapeCandidates]) {
    bc7fast::RowMoments<3> rm;
    bc7fast::buildRowMoments<3>(b, rm);
    float scatter[64];  // of all 64 BC7 shapes; BC6H has the first 32
    bc7fast::scatterEstimates<3, 2>(b, rm, scatter);
    const int count = bc7fast::selectShapes(scatter, 32, kShapeCandidates, order);
    bc7fast::shapeStats<3, 2, kShapeCandidates>(b, rm, order, count, 0, st);
    float model;
    return bc7fast::bestByMoments<3, 2, kShapeCandidates>(st, count, 8, model);
}

GLYPTORA_HD inline Candidate encodeTwoRegions(const Texels& t, bool isSigned) {
    const Block& b = t.fit;
    bc7fast::ShapeStats<3, 2, kShapeCandidates> st;
    int order[kShapeCandidates];
    const int slot = chooseShape(b, st, order);
    const int shape = order[slot];
    bc7fast::Shape<2> masks;
    bc7fast::makeShape<2>(b, shape, masks);
    const int anchor = glyptora_bc7::kAnchor2[shape];
    Line lines[2];
    for (int s = 0; s < 2; ++s) {
        float mean[3], axis[3];
        for (int c = 0; c < 3; ++c) {
            mean[c] = st.mean[s][c][slot];
            axis[c] = st.axis[s][c][slot];
        }
        lines[s] = extremesAlong(b, masks.sel[s], mean, axis);
        refitLine<8>(t, masks.sel[s], isSigned, lines[s]);
        clampLine(lines[s], isSigned);
    }
    orientLine(t, 0, lines[0]);
    if (b.validMask & (1u << anchor)) orientLine(t, anchor, lines[1]);

    // The mode of most precision whose deltas fit, also after the anchors' swaps; value 30
    // (no deltas) always does.
    Candidate cand;
    cand.regions = 2;
    cand.shape = shape;
    for (int m = 0; m < 10; ++m) {
        const FastMode& p = kFastModes.two[m];
        if (!spreadMayFit(lines, 2, p, isSigned)) continue;
        const int bits = p.bits[0][0];
        quantizeLines(lines, 2, bits, isSigned, cand.q);
        if (!quantizedFits(cand.q, 2, p, false)) continue;
        const Unquantized u[2] = {unquantizeRegion(cand.q, 0, bits, isSigned),
                                  unquantizeRegion(cand.q, 1, bits, isSigned)};
        cand.error = chooseIndices<2, 8>(t, masks.sel, u, isSigned, cand.idx, cand.value);
        for (int i = 0; i < 16; ++i)
            if (!(b.validMask & (1u << i))) cand.idx[i] = 0;
        // Anchors: a region whose anchor index has its top bit set swaps its endpoints.
        bool swapped = false;
        for (int s = 0; s < 2; ++s) {
            if (cand.idx[s ? anchor : 0] < 4) continue;
            swapEndpoints(cand.q, 2 * s);
            for (int i = 0; i < 16; ++i)
                if (masks.subsetOf[i] == s && (b.validMask & (1u << i))) cand.idx[i] = 7 - cand.idx[i];
            swapRows(lines[s].e[0], lines[s].e[1]);
            swapped = true;
        }
        if (swapped && !quantizedFits(cand.q, 2, p, false)) {
            cand.error = FLT_MAX;
            continue;
        }
        cand.pattern = m;
        break;
    }
    return cand;
}

// ---------------------------------------------------------------------------

GLYPTORA_HD inline const FastMode& modeOf(const Candidate& cand) {
    return cand.regions == 1 ? kFastModes.one[cand.pattern] : kFastModes.two[cand.pattern];
}

GLYPTORA_HD inline void writeCandidate(const Candidate& cand, uint8_t out[16]) {
    const bool one = cand.regions == 1;
    const FastMode& p = modeOf(cand);
    StoredEndpoints fields;
    for (int e = 0; e < 4; ++e)
        for (int c = 0; c < 3; ++c)
            fields.field[e][c] = p.transformed && e > 0 ? cand.q[e][c] - cand.q[0][c] : cand.q[e][c];
    writeBlock(p.layout, cand.shape, fields, cand.idx, one ? 4 : 3, one ? 0 : glyptora_bc7::kAnchor2[cand.shape], out);
}

// The whole block: `texels` 16 RGBA floats in row order (alpha ignored), `validMask` the
// valid texels as bits. Writes the block and returns the encoding it holds.
GLYPTORA_HD inline void encodeBlock(const float texels[64], uint32_t validMask, bool isSigned, uint8_t out[16],
                                    Candidate& best) {
    Texels t;
    loadTexels(texels, validMask, isSigned, t);
    best = encodeOneRegion(t, isSigned);
    // Texels on both sides of zero: interpolating across it spends the palette on tiny
    // values (an octave a step), so a second fit treats the side away from the brightest
    // value as near black.
    if (t.mixedSigns) {
        Texels oneSide = t;
        liftOtherSign(oneSide, isSigned);
        const Candidate lifted = encodeOneRegion(oneSide, isSigned);
        if (lifted.error < best.error) best = lifted;
    }
    if (best.error > kTwoRegionThreshold * float(3 * t.fit.validCount)) {
        const Candidate two = encodeTwoRegions(t, isSigned);
        if (two.error < best.error) best = two;
    }
    writeCandidate(best, out);
}

}  // namespace fast
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc6h
