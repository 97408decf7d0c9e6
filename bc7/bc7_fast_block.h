#pragma once
// Implementation of the fast BC7 block encoder (included by bc7_fast.h).
//
// Texels are kept in lanes of four (texel 4g + lane is lane `lane` of group g)
// on a 0..255 scale; the error is plain squared RGBA error.
//
// Mode 6 follows its fixed fit. The two-subset modes 1, 3 (and 7 on opaque
// blocks) rank all 64 shapes by the sum of their subsets' scatters; the 16
// best are fitted (four at once, one per lane: endpoints at the extremes of
// each subset's principal-axis projection) and their error modelled with the
// projections rounded to 8 evenly spaced levels; the best of them serves all
// three modes, mode 1 refining it by least squares on the chosen indices, with
// p-bits chosen per endpoint. The three-subset modes rank shapes by scatter,
// model the candidates' error from their line fits' moments and fit the best.
// A mode whose best modelled error is well above the block's best error so far
// is not fitted. Modes 4 and 5 fit their four rotations
// together, rotation r in lane r. Indices are chosen by projection onto the
// decoded segment followed by an exact comparison of the two palette entries
// around it (the rotations take the nearer level of the projection).
#include <cmath>
#include <cstdint>

#include "bc7/bc7_fast.h"
#include "bc7/bc7_simd.h"
#include "bc7/bc7_tables.h"
#include "bc7/bits.h"
#include "core/assert.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

using glyptora_simd::Vec4f;
using glyptora_simd::Vec4i;

constexpr float kNoBlock = 3.4028235e38f;  // FLT_MAX: no block chosen yet
constexpr float kBig = 1.0e30f;

// Search effort: power iterations of the shape statistics; least-squares
// rounds of the chosen shape of mode 1, of mode 3 (modes 3 and 7 share mode
// 1's shape), of the three-subset modes and of the rotations; whether those
// rounds try every p-bit combination; rounds of the mode 6 blend factors.
constexpr int kPowerIterations = 0;
constexpr int kRefineIterations = 1;
constexpr int kRefineIterationsMode3 = 0;
constexpr int kRefineIterations3 = 0;
constexpr int kRotationRefineIterations = 0;
constexpr bool kJointPBits = false;
constexpr int kBlendRounds = 1;
// A partitioned mode's best candidate is fitted only when its modelled error
// is below kRejectRatio times the block's best error so far (mode 7 on an
// opaque block, which rarely beats mode 3: below the best error itself).
constexpr float kRejectRatio = 2.0f;
constexpr float kRejectRatioMode7 = 1.0f;

// ---------------------------------------------------------------------------
// Shape masks and small tables, derived from the format tables at compile time.

struct ShapeBits {
    uint16_t second[64];  // texels of subset 1
    uint16_t third[64];   // texels of subset 2 (three-subset shapes only)
};

constexpr ShapeBits makeShapeBits(int subsets) {
    ShapeBits s{};
    for (int p = 0; p < 64; ++p) {
        uint16_t a = 0, b = 0;
        for (int i = 0; i < 16; ++i) {
            const int subset = subsets == 2 ? kPartitions2[p][i] : kPartitions3[p][i];
            if (subset == 1) a = uint16_t(a | (1u << i));
            if (subset == 2) b = uint16_t(b | (1u << i));
        }
        s.second[p] = a;
        s.third[p] = b;
    }
    return s;
}

GLYPTORA_BC7_TABLE ShapeBits kShapeBits2 = makeShapeBits(2);
GLYPTORA_BC7_TABLE ShapeBits kShapeBits3 = makeShapeBits(3);

// Where the row moments of each subset's texels are (see RowMoments): for
// subset 1 and 2 of every shape and each row, the float offset 256 row +
// 16 (column subset of the row).
struct ShapeRowOffsets {
    uint16_t at[64][2][4];
};

constexpr ShapeRowOffsets makeShapeRowOffsets(const ShapeBits& bits) {
    ShapeRowOffsets o{};
    for (int p = 0; p < 64; ++p)
        for (int r = 0; r < 4; ++r) {
            o.at[p][0][r] = uint16_t(256 * r + 16 * ((bits.second[p] >> (4 * r)) & 15));
            o.at[p][1][r] = uint16_t(256 * r + 16 * ((bits.third[p] >> (4 * r)) & 15));
        }
    return o;
}

GLYPTORA_BC7_TABLE ShapeRowOffsets kShapeRows2 = makeShapeRowOffsets(kShapeBits2);
GLYPTORA_BC7_TABLE ShapeRowOffsets kShapeRows3 = makeShapeRowOffsets(kShapeBits3);

GLYPTORA_HD inline float clampf(float v, float lo, float hi) { return v < lo ? lo : (v > hi ? hi : v); }
GLYPTORA_HD inline int clampi(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }
// NaN reads as 0.
GLYPTORA_HD inline float saturate(float v) { return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f; }

// ---------------------------------------------------------------------------
// The block.

struct Block {
    Vec4f ch[4][4];     // [channel][group], 0..255
    Vec4f uch[4][4];    // the same on the 0..1 scale
    Vec4f valid[4];     // lane masks of the valid texels
    float px[16][4];    // 0..255
    float unit[16][4];  // 0..1
    uint32_t validMask;
    int validCount;
    bool opaque;
};

GLYPTORA_HD inline void loadBlock(const float texels[64], uint16_t validRegion, bool imageHasAlpha, Block& b) {
    const int w = clampi(validRegion & 0xFF, 1, 4);
    const int h = clampi(validRegion >> 8, 1, 4);
    b.validMask = 0;
    b.validCount = 0;
    b.opaque = true;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int i = y * 4 + x;
            b.validMask |= 1u << i;
            ++b.validCount;
            if (imageHasAlpha && texels[i * 4 + 3] < 1.0f) b.opaque = false;
        }
    for (int i = 0; i < 16; ++i)
        for (int c = 0; c < 4; ++c) {
            float v = saturate(texels[i * 4 + c]);
            if (c == 3 && b.opaque) v = 1.0f;
            b.unit[i][c] = v;
            b.px[i][c] = v * 255.0f;
        }
    for (int g = 0; g < 4; ++g) {
        for (int c = 0; c < 4; ++c) {
            b.ch[c][g] = Vec4f(b.px[4 * g][c], b.px[4 * g + 1][c], b.px[4 * g + 2][c], b.px[4 * g + 3][c]);
            b.uch[c][g] = Vec4f(b.unit[4 * g][c], b.unit[4 * g + 1][c], b.unit[4 * g + 2][c], b.unit[4 * g + 3][c]);
        }
        b.valid[g] = lanes::laneMask(int(b.validMask >> (4 * g)) & 15);
    }
}

// ---------------------------------------------------------------------------
// Shapes: lane masks of each subset (valid texels only) and per-texel subsets.

template <int NS>
struct Shape {
    int partition;
    Vec4f sel[NS][4];
    int8_t subsetOf[16];
};

template <int NS>
GLYPTORA_HD inline void makeShape(const Block& b, int partition, Shape<NS>& s) {
    s.partition = partition;
    uint32_t second = 0, third = 0;
    if (NS == 2) second = kShapeBits2.second[partition];
    if (NS == 3) {
        second = kShapeBits3.second[partition];
        third = kShapeBits3.third[partition];
    }
    for (int g = 0; g < 4; ++g) {
        Vec4f rest = b.valid[g];
        if (NS >= 2) {
            s.sel[1 % NS][g] = lanes::maskAnd(lanes::laneMask(int(second >> (4 * g)) & 15), b.valid[g]);
            rest = lanes::maskAndNot(rest, s.sel[1 % NS][g]);
        }
        if (NS >= 3) {
            s.sel[2 % NS][g] = lanes::maskAnd(lanes::laneMask(int(third >> (4 * g)) & 15), b.valid[g]);
            rest = lanes::maskAndNot(rest, s.sel[2 % NS][g]);
        }
        s.sel[0][g] = rest;
    }
    for (int i = 0; i < 16; ++i) s.subsetOf[i] = int8_t(((second >> i) & 1) ? 1 : (((third >> i) & 1) ? 2 : 0));
}

// ---------------------------------------------------------------------------
// Index choice and error of a set of decoded endpoints (channels 0..NC-1;
// endpoints hold one channel per lane).
//
// For every texel: project onto its subset's segment, take the two palette
// entries around the projection and keep the one of smaller exact error (the
// lower index on a tie). err[s] receives each subset's squared error.

template <int NC, int NS>
GLYPTORA_HD inline float evaluate(const Block& b, const Vec4f (&sel)[NS][4], const Vec4f (&dec)[NS][2], int levels,
                                  float (&err)[NS], int (&idx)[16]) {
    const float stepW = 64.0f / float(levels - 1);
    const Vec4f maxLo(float(levels - 2));
    float e0[NS][4], ed[NS][4], D[NS][4], O[NS];
    for (int s = 0; s < NS; ++s) {
        const Vec4f delta = dec[s][1] - dec[s][0];
        const float dd = NC == 3 ? glyptora_simd::dot3(delta, delta) : glyptora_simd::dot4(delta, delta);
        const float scale = dd > 0.0f ? float(levels - 1) / dd : 0.0f;
        const Vec4f Dv = delta * Vec4f(scale);
        O[s] = -(NC == 3 ? glyptora_simd::dot3(dec[s][0], Dv) : glyptora_simd::dot4(dec[s][0], Dv));
        dec[s][0].store(e0[s]);
        delta.store(ed[s]);
        Dv.store(D[s]);
    }
    Vec4f acc[NS];
    for (int s = 0; s < NS; ++s) acc[s] = Vec4f(0.0f);
    for (int g = 0; g < 4; ++g) {
        Vec4f Dk[NC], base[NC], Ed[NC], Ok(O[0]);
        for (int k = 0; k < NC; ++k) {
            Dk[k] = Vec4f(D[0][k]);
            base[k] = Vec4f(e0[0][k] * 64.0f + 32.0f);
            Ed[k] = Vec4f(ed[0][k]);
        }
        for (int s = 1; s < NS; ++s) {
            Ok = glyptora_simd::select(sel[s][g], Vec4f(O[s]), Ok);
            for (int k = 0; k < NC; ++k) {
                Dk[k] = glyptora_simd::select(sel[s][g], Vec4f(D[s][k]), Dk[k]);
                base[k] = glyptora_simd::select(sel[s][g], Vec4f(e0[s][k] * 64.0f + 32.0f), base[k]);
                Ed[k] = glyptora_simd::select(sel[s][g], Vec4f(ed[s][k]), Ed[k]);
            }
        }
        Vec4f t = Ok;
        for (int k = 0; k < NC; ++k) t = t + b.ch[k][g] * Dk[k];
        const Vec4f lo = glyptora_simd::min(glyptora_simd::max(glyptora_simd::floor(t), Vec4f(0.0f)), maxLo);
        const Vec4f wlo = lanes::roundHalfUp(lo * Vec4f(stepW));
        const Vec4f whi = lanes::roundHalfUp((lo + Vec4f(1.0f)) * Vec4f(stepW));
        Vec4f elo(0.0f), ehi(0.0f);
        for (int k = 0; k < NC; ++k) {
            const Vec4f plo = glyptora_simd::floor((base[k] + Ed[k] * wlo) * Vec4f(0.015625f));
            const Vec4f phi = glyptora_simd::floor((base[k] + Ed[k] * whi) * Vec4f(0.015625f));
            const Vec4f dl = b.ch[k][g] - plo, dh = b.ch[k][g] - phi;
            elo = elo + dl * dl;
            ehi = ehi + dh * dh;
        }
        const Vec4f useHi = glyptora_simd::cmpLess(ehi, elo);
        const Vec4f e = glyptora_simd::select(useHi, ehi, elo);
        glyptora_simd::truncateToInt(lo + lanes::keep(useHi, Vec4f(1.0f))).store(&idx[4 * g]);
        for (int s = 0; s < NS; ++s) acc[s] = acc[s] + lanes::keep(sel[s][g], e);
    }
    float total = 0.0f;
    for (int s = 0; s < NS; ++s) {
        err[s] = lanes::hsum(acc[s]);
        total += err[s];
    }
    return total;
}

// Least-squares endpoints for given indices (per subset); subsets whose indices
// do not determine two endpoints keep theirs, as do the lanes from NC on.
template <int NC, int NS>
GLYPTORA_HD inline void leastSquares(const Block& b, const Vec4f (&sel)[NS][4], const int (&idx)[16], int levels,
                                     Vec4f (&f)[NS][2]) {
    const float stepW = 64.0f / float(levels - 1);
    Vec4f aa[NS], ab[NS], bb[NS], ax[NS][NC], bx[NS][NC];
    for (int s = 0; s < NS; ++s) {
        aa[s] = ab[s] = bb[s] = Vec4f(0.0f);
        for (int k = 0; k < NC; ++k) ax[s][k] = bx[s][k] = Vec4f(0.0f);
    }
    for (int g = 0; g < 4; ++g) {
        const Vec4f iv = glyptora_simd::toFloat(Vec4i::load(&idx[4 * g]));
        const Vec4f w = lanes::roundHalfUp(iv * Vec4f(stepW)) * Vec4f(0.015625f);
        const Vec4f a = Vec4f(1.0f) - w;
        for (int s = 0; s < NS; ++s) {
            const Vec4f wa = lanes::keep(sel[s][g], a);
            const Vec4f wb = lanes::keep(sel[s][g], w);
            aa[s] = aa[s] + wa * a;
            ab[s] = ab[s] + wa * w;
            bb[s] = bb[s] + wb * w;
            for (int k = 0; k < NC; ++k) {
                ax[s][k] = ax[s][k] + wa * b.ch[k][g];
                bx[s][k] = bx[s][k] + wb * b.ch[k][g];
            }
        }
    }
    for (int s = 0; s < NS; ++s) {
        const float A = lanes::hsum(aa[s]), B = lanes::hsum(ab[s]), C = lanes::hsum(bb[s]);
        const float det = A * C - B * B;
        if (!(det > 1e-3f * A * C) || !(det > 1e-8f)) continue;
        float X[4], Y[4];
        f[s][0].store(X);  // lanes from NC on stay as they are
        f[s][1].store(Y);
        for (int k = 0; k < NC; ++k) {
            X[k] = lanes::hsum(ax[s][k]);
            Y[k] = lanes::hsum(bx[s][k]);
        }
        const Vec4f Xv = Vec4f::load(X), Yv = Vec4f::load(Y);
        const Vec4f inv(1.0f / det);
        const Vec4f n0 = glyptora_simd::clamp((Vec4f(C) * Xv - Vec4f(B) * Yv) * inv, Vec4f(0.0f), Vec4f(255.0f));
        const Vec4f n1 = glyptora_simd::clamp((Vec4f(A) * Yv - Vec4f(B) * Xv) * inv, Vec4f(0.0f), Vec4f(255.0f));
        const Vec4f fitted = lanes::laneMask(NC == 3 ? 7 : 15);
        f[s][0] = glyptora_simd::select(fitted, n0, f[s][0]);
        f[s][1] = glyptora_simd::select(fitted, n1, f[s][1]);
    }
}

// ---------------------------------------------------------------------------
// Endpoint quantisation, one channel per lane.

enum PBitKind { kNoPBit = 0, kEndpointPBit = 1, kSharedPBit = 2, kPBitOne = 3 };

// Codes of `bits` bits per channel (colour lanes 0..2, alpha lane 3), with or
// without a p-bit appended below them.
struct EndpointFormat {
    Vec4f top;      // 2^n - 1, n = code bits including the p-bit
    Vec4f mulHigh;  // decoded = v * 2^(8-n) + floor(v * 2^(8-2n)), v = code (with p-bit)
    Vec4f mulLow;
    bool pbit;
};

GLYPTORA_HD inline EndpointFormat endpointFormat(int colourBits, int alphaBits, bool pbit) {
    if (alphaBits == 0) alphaBits = colourBits;
    const int nc = colourBits + (pbit ? 1 : 0), na = alphaBits + (pbit ? 1 : 0);
    EndpointFormat f;
    f.top = Vec4f(float((1 << nc) - 1), float((1 << nc) - 1), float((1 << nc) - 1), float((1 << na) - 1));
    const float hc = float(1 << (8 - nc)), ha = float(1 << (8 - na));
    f.mulHigh = Vec4f(hc, hc, hc, ha);
    const float lc = 1.0f / float(1 << (2 * nc - 8)), la = 1.0f / float(1 << (2 * na - 8));
    f.mulLow = Vec4f(lc, lc, lc, la);
    f.pbit = pbit;
    return f;
}

// The channel quantiser of this encoder on a 0..255 value v of b bits:
// u = floor(v + 0.5), q = (u (2^b - 1) + 127) div 255. `top` is 2^b - 1.
// (n + 0.5) / 255 keeps the integer division exact in float: n < 2^16.
GLYPTORA_HD inline Vec4f quantizeChannels(Vec4f v, Vec4f top) {
    const Vec4f u = lanes::roundHalfUp(glyptora_simd::clamp(v, Vec4f(0.0f), Vec4f(255.0f)));
    return glyptora_simd::floor((u * top + Vec4f(127.5f)) * Vec4f(1.0f / 255.0f));
}

// Codes of an endpoint without p-bits, by the channel quantiser. Returns the
// codes and sets the decoded values and the squared error.
template <int NC>
GLYPTORA_HD inline Vec4f quantizeEndpoint(const EndpointFormat& fmt, Vec4f f, Vec4f& dec, float& err) {
    const Vec4f v = quantizeChannels(f, fmt.top);
    dec = v * fmt.mulHigh + glyptora_simd::floor(v * fmt.mulLow);
    const Vec4f d = f - dec;
    err = NC == 3 ? glyptora_simd::dot3(d, d) : glyptora_simd::dot4(d, d);
    return v;
}

// Both p-bit versions of an endpoint: the channel quantiser's code where its
// lowest bit is already p, otherwise the neighbouring code (one step up or
// down) that decodes nearer. Stored codes exclude the p-bit.
struct PBitPair {
    Vec4f q[2];
    Vec4f dec[2];
    float err[2];
};

template <int NC>
GLYPTORA_HD inline void quantizeWithPBits(const EndpointFormat& fmt, Vec4f f, PBitPair& out) {
    const Vec4f v = quantizeChannels(f, fmt.top);
    const Vec4f down = v - Vec4f(1.0f), up = v + Vec4f(1.0f);
    const Vec4f decV = v * fmt.mulHigh + glyptora_simd::floor(v * fmt.mulLow);
    const Vec4f decDown = down * fmt.mulHigh + glyptora_simd::floor(down * fmt.mulLow);
    const Vec4f decUp = up * fmt.mulHigh + glyptora_simd::floor(up * fmt.mulLow);
    const Vec4f upNearer = glyptora_simd::cmpLess(glyptora_simd::abs(decUp - f), glyptora_simd::abs(decDown - f));
    const Vec4f downMissing = glyptora_simd::cmpLess(down, Vec4f(0.0f));
    const Vec4f preferUp = lanes::maskAnd(glyptora_simd::cmpLessEqual(up, fmt.top),
                                          glyptora_simd::select(downMissing, downMissing, upNearer));
    const Vec4f other = glyptora_simd::select(preferUp, up, down);
    const Vec4f decOther = glyptora_simd::select(preferUp, decUp, decDown);
    const Vec4f odd = glyptora_simd::cmpGreater(v - Vec4f(2.0f) * glyptora_simd::floor(v * Vec4f(0.5f)), Vec4f(0.5f));
    // p-bit 0 keeps the even codes, p-bit 1 the odd ones.
    out.q[0] = glyptora_simd::floor(glyptora_simd::select(odd, other, v) * Vec4f(0.5f));
    out.dec[0] = glyptora_simd::select(odd, decOther, decV);
    out.q[1] = glyptora_simd::floor(glyptora_simd::select(odd, v, other) * Vec4f(0.5f));
    out.dec[1] = glyptora_simd::select(odd, decV, decOther);
    for (int p = 0; p < 2; ++p) {
        const Vec4f d = f - out.dec[p];
        out.err[p] = NC == 3 ? glyptora_simd::dot3(d, d) : glyptora_simd::dot4(d, d);
    }
}

// Working state of one shape of a partitioned mode.
template <int NC, int NS>
struct Fit {
    Vec4f f[NS][2];    // float endpoints
    Vec4f q[NS][2];    // stored codes
    Vec4f dec[NS][2];  // decoded endpoints
    int p[NS][2];      // p-bits
    float err[NS];
    float total;
    int idx[16];
};

// Quantises all endpoints; combo < 0 picks each p-bit by the endpoint's own
// quantisation error, otherwise bit 0 / bit 1 of combo give the p-bits of
// endpoint 0 / 1 (a shared p-bit takes bit 0).
template <int NC, int NS>
GLYPTORA_HD inline void quantizeFit(Fit<NC, NS>& fit, const EndpointFormat& fmt, int pkind, int combo) {
    for (int s = 0; s < NS; ++s) {
        if (pkind == kNoPBit || pkind == kPBitOne) {
            // kPBitOne (mode 7 on an opaque block): p-bit 1 throughout, so that the
            // alpha lane (255) takes code 31 and decodes to 255.
            for (int e = 0; e < 2; ++e) {
                fit.p[s][e] = pkind == kNoPBit ? 0 : 1;
                if (pkind == kNoPBit) {
                    float err;
                    fit.q[s][e] = quantizeEndpoint<NC>(fmt, fit.f[s][e], fit.dec[s][e], err);
                } else {
                    PBitPair pair;
                    quantizeWithPBits<NC>(fmt, fit.f[s][e], pair);
                    fit.q[s][e] = pair.q[1];
                    fit.dec[s][e] = pair.dec[1];
                }
            }
            continue;
        }
        PBitPair pair[2];
        quantizeWithPBits<NC>(fmt, fit.f[s][0], pair[0]);
        quantizeWithPBits<NC>(fmt, fit.f[s][1], pair[1]);
        int p[2];
        if (pkind == kEndpointPBit) {
            for (int e = 0; e < 2; ++e)
                p[e] = combo >= 0 ? (combo >> e) & 1 : (pair[e].err[1] < pair[e].err[0] ? 1 : 0);
        } else {  // shared
            p[0] = combo >= 0 ? combo & 1
                              : ((pair[0].err[1] + pair[1].err[1]) < (pair[0].err[0] + pair[1].err[0]) ? 1 : 0);
            p[1] = p[0];
        }
        for (int e = 0; e < 2; ++e) {
            fit.p[s][e] = p[e];
            fit.q[s][e] = pair[e].q[p[e]];
            fit.dec[s][e] = pair[e].dec[p[e]];
        }
    }
}

GLYPTORA_HD inline int pbitCombos(int pkind) { return pkind == kEndpointPBit ? 4 : (pkind == kSharedPBit ? 2 : 1); }

// Least squares on the current indices, then the new endpoints quantised with
// every p-bit combination (jointPBits) or with each p-bit chosen by the
// endpoint's own rounding error; each subset keeps whichever of its versions
// has the least error.
template <int NC, int NS>
GLYPTORA_HD inline void refineFit(const Block& b, const Shape<NS>& shape, const EndpointFormat& fmt, int pkind,
                                  int levels, int iterations, bool jointPBits, Fit<NC, NS>& fit) {
    for (int it = 0; it < iterations && fit.total > 0.0f; ++it) {
        Fit<NC, NS> trial;
        for (int s = 0; s < NS; ++s)
            for (int e = 0; e < 2; ++e) trial.f[s][e] = fit.f[s][e];
        leastSquares<NC, NS>(b, shape.sel, fit.idx, levels, trial.f);
        bool improved = false;
        const int combos = jointPBits ? pbitCombos(pkind) : 1;
        for (int c = 0; c < combos; ++c) {
            quantizeFit<NC, NS>(trial, fmt, pkind, combos == 1 ? -1 : c);
            trial.total = evaluate<NC, NS>(b, shape.sel, trial.dec, levels, trial.err, trial.idx);
            for (int s = 0; s < NS; ++s) {
                if (!(trial.err[s] < fit.err[s])) continue;
                improved = true;
                fit.err[s] = trial.err[s];
                fit.p[s][0] = trial.p[s][0];
                fit.p[s][1] = trial.p[s][1];
                for (int e = 0; e < 2; ++e) {
                    fit.f[s][e] = trial.f[s][e];
                    fit.q[s][e] = trial.q[s][e];
                    fit.dec[s][e] = trial.dec[s][e];
                }
                for (int i = 0; i < 16; ++i)
                    if (shape.subsetOf[i] == s) fit.idx[i] = trial.idx[i];
            }
        }
        float total = 0.0f;
        for (int s = 0; s < NS; ++s) total += fit.err[s];
        fit.total = total;
        if (!improved) break;
    }
}

// ---------------------------------------------------------------------------
// Shape ranking: the principal-axis residual of every subset of every shape.
//
// Moments over the valid texels of each row are tabulated for all 16 column
// subsets of the row, so a subset's moments cost four look-ups. Four shapes
// are then processed at once, one per lane.

// Record layout: n, the sums of the NC channels, the NC squares, then the
// NC (NC - 1) / 2 cross products (01, 02, 12 / 01, 02, 03, 12, 13, 23). For
// three channels the first two quads (n, sums, squares) give the scatter.
template <int NC>
GLYPTORA_HD constexpr int momentSlot(int k, int l) {
    // k <= l
    return k == l ? 1 + NC + k
                  : 1 + 2 * NC + (NC == 3 ? (k == 0 ? l - 1 : 2) : (k == 0 ? l - 1 : (k == 1 ? l + 1 : 5)));
}

// Record quads holding data: 10 values for three channels, 15 for four.
template <int NC>
GLYPTORA_HD constexpr int momentQuads() {
    return NC == 3 ? 3 : 4;
}

template <int NC>
struct RowMoments {
    float mu[NC];           // block mean (moments are taken about it)
    float sums[4][16][16];  // [row][column subset][record] (filled before use, not zeroed)
    Vec4f total[4];
    GLYPTORA_HD Vec4f quad(int row, int subset, int q) const { return Vec4f::load(&sums[row][subset][4 * q]); }
    // The sum of a subset's quad q over the four rows (offsets from ShapeRowOffsets).
    GLYPTORA_HD Vec4f subsetQuad(const uint16_t (&at)[4], int q) const {
        const float* base = &sums[0][0][4 * q];
        return (Vec4f::load(base + at[0]) + Vec4f::load(base + at[1])) +
               (Vec4f::load(base + at[2]) + Vec4f::load(base + at[3]));
    }
};

template <int NC>
GLYPTORA_HD inline void buildRowMoments(const Block& b, RowMoments<NC>& rm) {
    for (int k = 0; k < NC; ++k) {
        Vec4f s(0.0f);
        for (int g = 0; g < 4; ++g) s = s + lanes::keep(b.valid[g], b.ch[k][g]);
        rm.mu[k] = lanes::hsum(s) / float(b.validCount);
    }
    for (int r = 0; r < 4; ++r) {
        Vec4f rec[4][4];
        for (int j = 0; j < 4; ++j) {
            const int i = r * 4 + j;
            float v[16] = {};
            if (b.validMask & (1u << i)) {
                float y[NC];
                for (int k = 0; k < NC; ++k) y[k] = b.px[i][k] - rm.mu[k];
                v[0] = 1.0f;
                for (int k = 0; k < NC; ++k) v[1 + k] = y[k];
                for (int k = 0; k < NC; ++k)
                    for (int l = k; l < NC; ++l) v[momentSlot<NC>(k, l)] = y[k] * y[l];
            }
            for (int q = 0; q < 4; ++q) rec[j][q] = Vec4f::load(v + 4 * q);
        }
        for (int q = 0; q < momentQuads<NC>(); ++q) Vec4f(0.0f).store(&rm.sums[r][0][4 * q]);
        for (int m = 1; m < 16; ++m) {
            const int low = m & -m;
            const int bit = low == 1 ? 0 : (low == 2 ? 1 : (low == 4 ? 2 : 3));
            for (int q = 0; q < momentQuads<NC>(); ++q)
                (Vec4f::load(&rm.sums[r][m ^ low][4 * q]) + rec[bit][q]).store(&rm.sums[r][m][4 * q]);
        }
    }
    for (int q = 0; q < momentQuads<NC>(); ++q)
        rm.total[q] = rm.quad(0, 15, q) + rm.quad(1, 15, q) + rm.quad(2, 15, q) + rm.quad(3, 15, q);
}

// Residual of the best line through each of four subsets (one per lane) in
// sum-of-squares units, with the subsets' total scatter, means and axes.
template <int NC>
GLYPTORA_HD inline void subsetStats(const Vec4f (&V)[16], const float (&mu)[NC], int iterations, Vec4f& residual,
                                    Vec4f& scatter, Vec4f (&mean)[NC], Vec4f (&axis)[NC]) {
    const Vec4f invn = Vec4f(1.0f) / glyptora_simd::max(V[0], Vec4f(1.0f));
    Vec4f C[NC][NC];
    for (int k = 0; k < NC; ++k)
        for (int l = k; l < NC; ++l) {
            C[k][l] = V[momentSlot<NC>(k, l)] - V[1 + k] * V[1 + l] * invn;
            C[l][k] = C[k][l];
        }
    Vec4f trace = C[0][0];
    for (int k = 1; k < NC; ++k) trace = trace + C[k][k];
    trace = glyptora_simd::max(trace, Vec4f(0.0f));
    // Power iteration from the column of the largest diagonal entry, scaled by
    // that entry (so |v| <= 1; a couple of iterations cannot overflow).
    Vec4f v[NC];
    Vec4f bestDiag = C[0][0];
    for (int k = 0; k < NC; ++k) v[k] = C[k][0];
    for (int j = 1; j < NC; ++j) {
        const Vec4f larger = glyptora_simd::cmpGreater(C[j][j], bestDiag);
        bestDiag = glyptora_simd::select(larger, C[j][j], bestDiag);
        for (int k = 0; k < NC; ++k) v[k] = glyptora_simd::select(larger, C[k][j], v[k]);
    }
    const Vec4f invDiag = Vec4f(1.0f) / glyptora_simd::max(bestDiag, Vec4f(1e-20f));
    for (int k = 0; k < NC; ++k) v[k] = v[k] * invDiag;
    Vec4f w[NC];
    for (int k = 0; k < NC; ++k) w[k] = v[k];
    for (int it = 0; it < iterations; ++it) {
        for (int k = 0; k < NC; ++k) {
            Vec4f acc = C[k][0] * v[0];
            for (int l = 1; l < NC; ++l) acc = acc + C[k][l] * v[l];
            w[k] = acc;
        }
        if (it + 1 < iterations)
            for (int k = 0; k < NC; ++k) v[k] = w[k] * invDiag;
    }
    Vec4f vw = v[0] * w[0], vv = v[0] * v[0], ww = w[0] * w[0];
    for (int k = 1; k < NC; ++k) {
        vw = vw + v[k] * w[k];
        vv = vv + v[k] * v[k];
        ww = ww + w[k] * w[k];
    }
    // Variance along the axis, at least the largest diagonal entry: the Rayleigh
    // quotient of v, or without iterations |C e_k|^2 / C_kk for the column k.
    Vec4f lambda = iterations > 0 ? vw / glyptora_simd::max(vv, Vec4f(1e-30f)) : vv * bestDiag;
    lambda = glyptora_simd::min(glyptora_simd::max(lambda, bestDiag), trace);
    residual = trace - lambda;
    scatter = trace;
    const Vec4f hasAxis = glyptora_simd::cmpGreater(ww, Vec4f(1e-30f));
    const Vec4f invLen = Vec4f(1.0f) / glyptora_simd::sqrt(glyptora_simd::max(ww, Vec4f(1e-30f)));
    for (int k = 0; k < NC; ++k) {
        axis[k] = lanes::keep(hasAxis, w[k] * invLen);
        mean[k] = Vec4f(mu[k]) + V[1 + k] * invn;
    }
}

// Statistics of shapes held in slots (the shape index itself when all 64
// are kept, or the rank of a chosen candidate): per subset the line residual,
// the scatter (sum of squared distances from the mean), the mean and the
// principal axis; `est` is the sum of the residuals.
template <int NC, int NS, int N>
struct ShapeStats {
    float est[N];
    float residual[NS][N];
    float scatter[NS][N];
    float mean[NS][NC][N];
    float axis[NS][NC][N];
};

GLYPTORA_HD inline const ShapeBits& shapeBits(int subsets) { return subsets == 2 ? kShapeBits2 : kShapeBits3; }

// Moments of the subsets of four shapes (one per lane): V[s][slot].
template <int NC, int NS>
GLYPTORA_HD inline void gatherMoments(const Block& b, const RowMoments<NC>& rm, const int (&shapes)[4], int quads,
                                      Vec4f (&V)[NS][16]) {
    // Texels outside the valid region have zero records: no masking needed.
    const ShapeRowOffsets& rows = NS == 2 ? kShapeRows2 : kShapeRows3;
    // Shape j's record quad q goes to V[s][4q + j]; each 4x4 block is then transposed.
    for (int j = 0; j < 4; ++j) {
        const int p = shapes[j];
        for (int q = 0; q < quads; ++q) {
            const Vec4f s1 = rm.subsetQuad(rows.at[p][0], q);
            V[1 % NS][4 * q + j] = s1;
            Vec4f s0 = rm.total[q] - s1;
            if (NS == 3) {
                const Vec4f s2 = rm.subsetQuad(rows.at[p][1], q);
                V[2 % NS][4 * q + j] = s2;
                s0 = s0 - s2;
            }
            V[0][4 * q + j] = s0;
        }
    }
    for (int s = 0; s < NS; ++s)
        for (int q = 0; q < quads; ++q)
            lanes::transpose(V[s][4 * q + 0], V[s][4 * q + 1], V[s][4 * q + 2], V[s][4 * q + 3]);
}

// Statistics of `count` shapes (N >= count rounded up to four) into slots 0..count-1.
template <int NC, int NS, int N>
GLYPTORA_HD inline void shapeStats(const Block& b, const RowMoments<NC>& rm, const int* shapes, int count,
                                   int iterations, ShapeStats<NC, NS, N>& st) {
    for (int g0 = 0; g0 < count; g0 += 4) {
        int p[4];
        for (int j = 0; j < 4; ++j) p[j] = shapes[g0 + j < count ? g0 + j : count - 1];
        Vec4f V[NS][16];
        gatherMoments<NC, NS>(b, rm, p, momentQuads<NC>(), V);
        Vec4f est(0.0f);
        for (int s = 0; s < NS; ++s) {
            Vec4f residual, scatter, mean[NC], axis[NC];
            subsetStats<NC>(V[s], rm.mu, iterations, residual, scatter, mean, axis);
            est = est + residual;
            residual.store(&st.residual[s][g0]);
            scatter.store(&st.scatter[s][g0]);
            for (int k = 0; k < NC; ++k) {
                mean[k].store(&st.mean[s][k][g0]);
                axis[k].store(&st.axis[s][k][g0]);
            }
        }
        est.store(&st.est[g0]);
    }
}

// Cheaper estimate of all 64 shapes: the sum of their subsets' scatters. With
// moments about the block mean that is the block's total sum of squares less
// each subset's |sum|^2 / n, so only the counts and sums are gathered.
template <int NC, int NS>
GLYPTORA_HD inline void scatterEstimates(const Block& b, const RowMoments<NC>& rm, float (&est)[64]) {
    float squares = 0.0f;
    {
        float t[8];
        rm.total[0].store(t);
        rm.total[1].store(t + 4);
        for (int k = 0; k < NC; ++k) squares += t[1 + NC + k];
    }
    const Vec4f total(squares);
    for (int p0 = 0; p0 < 64; p0 += 4) {
        const int p[4] = {p0, p0 + 1, p0 + 2, p0 + 3};
        Vec4f V[NS][16];
        gatherMoments<NC, NS>(b, rm, p, 1, V);
        Vec4f explained(0.0f);
        for (int s = 0; s < NS; ++s) {
            Vec4f sums = V[s][1] * V[s][1];
            for (int k = 1; k < NC; ++k) sums = sums + V[s][1 + k] * V[s][1 + k];
            explained = explained + sums / glyptora_simd::max(V[s][0], Vec4f(1.0f));
        }
        glyptora_simd::max(total - explained, Vec4f(0.0f)).store(&est[p0]);
    }
}

// The `keep` (at most 16) smallest estimates among the first `limit` shapes,
// ascending. Estimates are not negative, so their bit patterns order like
// them; the key is the pattern with its lowest six bits replaced by the shape
// index (estimates equal to 17 significant bits keep shape order). Selected
// by a quickselect, then sorted.
template <int K>
GLYPTORA_HD inline int selectShapes(const float* est, int limit, int keep, int (&order)[K]) {
    if (keep > K) keep = K;
    if (keep > limit) keep = limit;
    uint32_t keys[64];
    for (int p = 0; p < limit; ++p) {
        union {
            float f;
            uint32_t u;
        } bits;
        bits.f = est[p];
        keys[p] = (bits.u & ~63u) | uint32_t(p);
    }
    int lo = 0, hi = limit - 1;
    while (lo < hi) {
        const uint32_t pivot = keys[(lo + hi) >> 1];
        int i = lo, j = hi;
        while (i <= j) {
            while (keys[i] < pivot) ++i;
            while (keys[j] > pivot) --j;
            if (i <= j) {
                const uint32_t t = keys[i];
                keys[i] = keys[j];
                keys[j] = t;
                ++i;
                --j;
            }
        }
        if (keep - 1 <= j)
            hi = j;
        else if (keep - 1 >= i)
            lo = i;
        else
            break;
    }
    for (int c = 0; c < keep; ++c) order[c] = int(keys[c] & 63u);
    return keep;
}

// A candidate shape after its fit: endpoints at the extremes of each subset's
// projection onto its axis, and the modelled error of the fit for two index
// counts (perpendicular scatter plus the error of rounding each projection to
// one of `levels` evenly spaced points between the extremes).
template <int NS>
struct ShapeFit {
    int partition;
    int slot;      // where its statistics are
    float lo[NS];  // extremes of the projections, about each subset's mean
    float hi[NS];
    float model[2];
    float f[NS][2][4];  // endpoints (0..255), set by setEndpoints()
};

// Endpoints at the extremes of each subset's projection onto its axis.
template <int NC, int NS, int N>
GLYPTORA_HD inline void setEndpoints(const ShapeStats<NC, NS, N>& st, ShapeFit<NS>& fit) {
    for (int s = 0; s < NS; ++s)
        for (int k = 0; k < 4; ++k) {
            if (k < NC) {
                const float m = st.mean[s][k][fit.slot], a = st.axis[s][k][fit.slot];
                fit.f[s][0][k] = clampf(m + a * fit.lo[s], 0.0f, 255.0f);
                fit.f[s][1][k] = clampf(m + a * fit.hi[s], 0.0f, 255.0f);
            } else {
                fit.f[s][0][k] = fit.f[s][1][k] = 255.0f;
            }
        }
}

// `slots` locate the candidates' statistics, `shapes` are their shape indices.
template <int NC, int NS, int N>
GLYPTORA_HD inline void fitCandidates(const Block& b, const ShapeStats<NC, NS, N>& st, const int* slots,
                                      const int* shapes, int count, int levelsA, int levelsB, ShapeFit<NS>* out) {
    const ShapeBits& bits = shapeBits(NS);
    for (int g0 = 0; g0 < count; g0 += 4) {
        int p[4], q[4];
        for (int j = 0; j < 4; ++j) {
            p[j] = shapes[g0 + j < count ? g0 + j : count - 1];
            q[j] = slots[g0 + j < count ? g0 + j : count - 1];
        }
        // Per subset and lane: axis, offset (mean . axis) and scatter.
        Vec4f axis[NS][NC], offset[NS], scatter(0.0f);
        for (int s = 0; s < NS; ++s) {
            offset[s] = Vec4f(0.0f);
            for (int k = 0; k < NC; ++k) {
                axis[s][k] = Vec4f(st.axis[s][k][q[0]], st.axis[s][k][q[1]], st.axis[s][k][q[2]], st.axis[s][k][q[3]]);
                const Vec4f mean(st.mean[s][k][q[0]], st.mean[s][k][q[1]], st.mean[s][k][q[2]], st.mean[s][k][q[3]]);
                offset[s] = offset[s] + mean * axis[s][k];
            }
            scatter =
                scatter + Vec4f(st.scatter[s][q[0]], st.scatter[s][q[1]], st.scatter[s][q[2]], st.scatter[s][q[3]]);
        }
        const Vec4i second(int(bits.second[p[0]]), int(bits.second[p[1]]), int(bits.second[p[2]]),
                           int(bits.second[p[3]]));
        const Vec4i third(int(bits.third[p[0]]), int(bits.third[p[1]]), int(bits.third[p[2]]), int(bits.third[p[3]]));
        // Pass 1: projections (about the subset mean) and their extremes per subset.
        Vec4f tv[16], in1[16], in2[16];
        Vec4f tmin[NS], tmax[NS];
        for (int s = 0; s < NS; ++s) {
            tmin[s] = Vec4f(kBig);
            tmax[s] = Vec4f(-kBig);
        }
        Vec4f sumT2(0.0f);
        for (int i = 0; i < 16; ++i) {
            if (!(b.validMask & (1u << i))) continue;
            in1[i] = lanes::bitLane(second, i);
            Vec4f t = -glyptora_simd::select(in1[i], offset[1 % NS], offset[0]);
            if (NS == 3) {
                in2[i] = lanes::bitLane(third, i);
                t = glyptora_simd::select(in2[i], -offset[2 % NS], t);
            }
            for (int k = 0; k < NC; ++k) {
                Vec4f a = glyptora_simd::select(in1[i], axis[1 % NS][k], axis[0][k]);
                if (NS == 3) a = glyptora_simd::select(in2[i], axis[2 % NS][k], a);
                t = t + Vec4f(b.px[i][k]) * a;
            }
            tv[i] = t;
            sumT2 = sumT2 + t * t;
            if (NS == 2) {
                const Vec4f t0 = glyptora_simd::select(in1[i], tmin[0], t),
                            t1 = glyptora_simd::select(in1[i], t, tmin[1]);
                tmin[0] = glyptora_simd::min(tmin[0], t0);
                tmin[1 % NS] = glyptora_simd::min(tmin[1 % NS], t1);
                const Vec4f u0 = glyptora_simd::select(in1[i], tmax[0], t),
                            u1 = glyptora_simd::select(in1[i], t, tmax[1 % NS]);
                tmax[0] = glyptora_simd::max(tmax[0], u0);
                tmax[1 % NS] = glyptora_simd::max(tmax[1 % NS], u1);
            } else {
                const Vec4f other = glyptora_simd::select(in2[i], in2[i], in1[i]);
                tmin[0] = glyptora_simd::min(tmin[0], glyptora_simd::select(other, tmin[0], t));
                tmax[0] = glyptora_simd::max(tmax[0], glyptora_simd::select(other, tmax[0], t));
                tmin[1 % NS] = glyptora_simd::min(tmin[1 % NS], glyptora_simd::select(in1[i], t, tmin[1 % NS]));
                tmax[1 % NS] = glyptora_simd::max(tmax[1 % NS], glyptora_simd::select(in1[i], t, tmax[1 % NS]));
                tmin[2 % NS] = glyptora_simd::min(tmin[2 % NS], glyptora_simd::select(in2[i], t, tmin[2 % NS]));
                tmax[2 % NS] = glyptora_simd::max(tmax[2 % NS], glyptora_simd::select(in2[i], t, tmax[2 % NS]));
            }
        }
        for (int s = 0; s < NS; ++s) {  // empty subsets: both endpoints at the mean
            const Vec4f empty = glyptora_simd::cmpGreater(tmin[s], tmax[s]);
            tmin[s] = glyptora_simd::select(empty, Vec4f(0.0f), tmin[s]);
            tmax[s] = glyptora_simd::select(empty, Vec4f(0.0f), tmax[s]);
        }
        // Pass 2: rounding error along the axis for each index count, in units of the step.
        float model[2][4] = {};
        for (int pass = 0; pass < 2; ++pass) {
            const int levels = pass == 0 ? levelsA : levelsB;
            if (levels <= 0) continue;
            Vec4f scale[NS], shift[NS], step2[NS];
            for (int s = 0; s < NS; ++s) {
                const Vec4f range = tmax[s] - tmin[s];
                scale[s] = Vec4f(float(levels - 1)) / glyptora_simd::max(range, Vec4f(1e-6f));
                shift[s] = tmin[s] * scale[s] - Vec4f(0.5f);
                const Vec4f step = range * Vec4f(1.0f / float(levels - 1));
                step2[s] = step * step;
            }
            Vec4f err(0.0f);
            const Vec4f top(float(levels - 1));
            for (int i = 0; i < 16; ++i) {
                if (!(b.validMask & (1u << i))) continue;
                Vec4f sc = glyptora_simd::select(in1[i], scale[1 % NS], scale[0]);
                Vec4f sh = glyptora_simd::select(in1[i], shift[1 % NS], shift[0]);
                Vec4f st = glyptora_simd::select(in1[i], step2[1 % NS], step2[0]);
                if (NS == 3) {
                    sc = glyptora_simd::select(in2[i], scale[2 % NS], sc);
                    sh = glyptora_simd::select(in2[i], shift[2 % NS], sh);
                    st = glyptora_simd::select(in2[i], step2[2 % NS], st);
                }
                // u + 0.5 = (t - tmin) * scale + 0.5; the rounded level is floor(u + 0.5).
                const Vec4f u = tv[i] * sc - sh;
                const Vec4f d = u - glyptora_simd::min(glyptora_simd::floor(u), top) - Vec4f(0.5f);
                err = err + d * d * st;
            }
            (glyptora_simd::max(scatter - sumT2, Vec4f(0.0f)) + err).store(model[pass]);
        }
        float lo[NS][4], hi[NS][4];
        for (int s = 0; s < NS; ++s) {
            tmin[s].store(lo[s]);
            tmax[s].store(hi[s]);
        }
        for (int j = 0; j < 4 && g0 + j < count; ++j) {
            ShapeFit<NS>& o = out[g0 + j];
            o.partition = p[j];
            o.slot = q[j];
            o.model[0] = model[0][j];
            o.model[1] = model[1][j];
            for (int s = 0; s < NS; ++s) {
                o.lo[s] = lo[s][j];
                o.hi[s] = hi[s][j];
            }
        }
    }
}

// Endpoints of one shape: the extremes of each subset's projection onto its
// axis (the texels in lanes, one subset at a time).
template <int NC, int NS, int N>
GLYPTORA_HD inline void fitShape(const Block& b, const ShapeStats<NC, NS, N>& st, int slot, int partition,
                                 ShapeFit<NS>& out) {
    Shape<NS> shape;
    makeShape<NS>(b, partition, shape);
    out.partition = partition;
    out.slot = slot;
    out.model[0] = out.model[1] = 0.0f;
    for (int s = 0; s < NS; ++s) {
        Vec4f a[NC];
        float offset = 0.0f;
        for (int k = 0; k < NC; ++k) {
            a[k] = Vec4f(st.axis[s][k][slot]);
            offset += st.mean[s][k][slot] * st.axis[s][k][slot];
        }
        Vec4f tmin(kBig), tmax(-kBig);
        for (int g = 0; g < 4; ++g) {
            Vec4f t = b.ch[0][g] * a[0];
            for (int k = 1; k < NC; ++k) t = t + b.ch[k][g] * a[k];
            tmin = glyptora_simd::min(tmin, glyptora_simd::select(shape.sel[s][g], t, Vec4f(kBig)));
            tmax = glyptora_simd::max(tmax, glyptora_simd::select(shape.sel[s][g], t, Vec4f(-kBig)));
        }
        float lo = lanes::hmin(tmin) - offset, hi = lanes::hmax(tmax) - offset;
        if (lo > hi) lo = hi = 0.0f;  // empty subset: both endpoints at the mean
        out.lo[s] = lo;
        out.hi[s] = hi;
    }
    setEndpoints<NC, NS, N>(st, out);
}

// Modelled error of candidates from their moments alone: each subset's line
// residual plus the rounding error of its spread along the axis onto `levels`
// evenly spaced points, taking the texels as evenly spread (variance / (levels - 1)^2).
// Returns the candidate of least modelled error (the earlier one on a tie).
template <int NC, int NS, int N>
GLYPTORA_HD inline int bestByMoments(const ShapeStats<NC, NS, N>& st, int count, int levels, float& bestModel) {
    const float k = 1.0f / float((levels - 1) * (levels - 1));
    int best = 0;
    bestModel = kNoBlock;
    for (int c = 0; c < count; ++c) {
        float model = 0.0f;
        for (int s = 0; s < NS; ++s) model += st.residual[s][c] + (st.scatter[s][c] - st.residual[s][c]) * k;
        if (model < bestModel) {
            bestModel = model;
            best = c;
        }
    }
    return best;
}

// The candidate of least modelled error (the earlier one on a tie).
template <int NS>
GLYPTORA_HD inline int bestCandidate(const ShapeFit<NS>* fits, int count, int which) {
    int best = 0;
    for (int c = 1; c < count; ++c)
        if (fits[c].model[which] < fits[best].model[which]) best = c;
    return best;
}

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

constexpr PartitionedMode kMode0{0, 3, 4, 4, 0, kEndpointPBit, 3, 83};
constexpr PartitionedMode kMode1{1, 2, 6, 6, 0, kSharedPBit, 3, 82};
constexpr PartitionedMode kMode2{2, 3, 6, 5, 0, kNoPBit, 2, 99};
constexpr PartitionedMode kMode3{3, 2, 6, 7, 0, kEndpointPBit, 2, 98};
constexpr PartitionedMode kMode7{7, 2, 6, 5, 5, kEndpointPBit, 2, 98};

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

// Refines the chosen shape of a partitioned mode; writes the block when it
// beats `best`. Returns the shape's error.
template <int NC, int NS>
GLYPTORA_HD inline float runPartitioned(const Block& b, const PartitionedMode& m, const ShapeFit<NS>& start,
                                        int refineIterations, float& best, uint8_t out[16]) {
    // Mode 7 on an opaque block keeps alpha at 255: code 31 with p-bit 1.
    const int pkind = (m.alphaBits && NC == 3) ? kPBitOne : m.pkind;
    const EndpointFormat fmt = endpointFormat(m.colourBits, m.alphaBits, m.pkind != kNoPBit);
    const int levels = 1 << m.indexBits;
    Shape<NS> shape;
    makeShape<NS>(b, start.partition, shape);
    Fit<NC, NS> fit;
    for (int s = 0; s < NS; ++s)
        for (int e = 0; e < 2; ++e) fit.f[s][e] = Vec4f::load(start.f[s][e]);
    quantizeFit<NC, NS>(fit, fmt, pkind, -1);
    fit.total = evaluate<NC, NS>(b, shape.sel, fit.dec, levels, fit.err, fit.idx);
    refineFit<NC, NS>(b, shape, fmt, pkind, levels, refineIterations, kJointPBits, fit);
    if (!(fit.total < best)) return fit.total;
    fixAnchors<NC, NS>(shape, levels, fit);
    writePartitioned<NC, NS>(m, shape, fit, out);
    best = fit.total;
    return fit.total;
}

// ---------------------------------------------------------------------------
// Mode 6: one subset, RGBA endpoints of 7 bits plus one p-bit each, 4-bit indices.

GLYPTORA_HD inline float dot4f(const float (&a)[4], const float (&b)[4]) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2] + a[3] * b[3];
}

// Principal eigenvector of a symmetric 4x4 matrix by power iteration from the
// column of its largest diagonal entry (unit length); the zero vector for a
// matrix without a positive diagonal entry.
GLYPTORA_HD inline void principalAxis4(const float (&cov)[4][4], float (&axis)[4]) {
    int k = 0;
    for (int j = 1; j < 4; ++j)
        if (cov[j][j] > cov[k][k]) k = j;
    for (int j = 0; j < 4; ++j) axis[j] = 0.0f;
    if (!(cov[k][k] > 0.0f)) return;
    // Scaled by the trace the largest eigenvalue lies in [1/4, 1]: no overflow or underflow.
    const float inv = 1.0f / (cov[0][0] + cov[1][1] + cov[2][2] + cov[3][3]);
    const Vec4f c0 = Vec4f(cov[0][0], cov[0][1], cov[0][2], cov[0][3]) * Vec4f(inv);
    const Vec4f c1 = Vec4f(cov[1][0], cov[1][1], cov[1][2], cov[1][3]) * Vec4f(inv);
    const Vec4f c2 = Vec4f(cov[2][0], cov[2][1], cov[2][2], cov[2][3]) * Vec4f(inv);
    const Vec4f c3 = Vec4f(cov[3][0], cov[3][1], cov[3][2], cov[3][3]) * Vec4f(inv);
    Vec4f v = k == 0 ? c0 : (k == 1 ? c1 : (k == 2 ? c2 : c3));
    for (int it = 0; it < 8; ++it) v = c0 * v.splat<0>() + c1 * v.splat<1>() + c2 * v.splat<2>() + c3 * v.splat<3>();
    const float len2 = glyptora_simd::dot4(v, v);
    if (!(len2 > 0.0f)) return;
    v = v * Vec4f(1.0f / sqrtf(len2));
    v.store(axis);
}

// Nearest 4-bit index to t for four lanes: the guess of the 65-entry table at
// round(t * 64) (the table is (15k + 26) >> 6), then its neighbours; the guess
// wins ties and the lower neighbour wins a tie between the neighbours.
GLYPTORA_HD inline Vec4f nearestIndex16(Vec4f t) {
    const Vec4f k =
        glyptora_simd::min(glyptora_simd::max(lanes::roundHalfUp(t * Vec4f(64.0f)), Vec4f(0.0f)), Vec4f(64.0f));
    const Vec4f guess = glyptora_simd::floor((k * Vec4f(15.0f) + Vec4f(26.0f)) * Vec4f(0.015625f));
    const Vec4f w = Vec4f(64.0f / 15.0f);
    const Vec4f inv64(0.015625f);
    const Vec4f dg = glyptora_simd::abs(t - lanes::roundHalfUp(guess * w) * inv64);
    const Vec4f lower = guess - Vec4f(1.0f), upper = guess + Vec4f(1.0f);
    const Vec4f dl = glyptora_simd::abs(t - lanes::roundHalfUp(lower * w) * inv64);
    const Vec4f du = glyptora_simd::abs(t - lanes::roundHalfUp(upper * w) * inv64);
    const Vec4f takeLower =
        lanes::maskAnd(glyptora_simd::cmpGreater(guess, Vec4f(0.0f)), glyptora_simd::cmpLess(dl, dg));
    Vec4f best = glyptora_simd::select(takeLower, lower, guess);
    const Vec4f bestDist = glyptora_simd::select(takeLower, dl, dg);
    const Vec4f takeUpper =
        lanes::maskAnd(glyptora_simd::cmpLess(guess, Vec4f(15.0f)), glyptora_simd::cmpLess(du, bestDist));
    return glyptora_simd::select(takeUpper, upper, best);
}

// Weight of a 4-bit index / 64.
GLYPTORA_HD inline Vec4f weight16(Vec4f index) {
    return lanes::roundHalfUp(index * Vec4f(64.0f / 15.0f)) * Vec4f(0.015625f);
}

// Blend factors of the mode 6 refit: least squares of the texels' parameters
// against the 16-entry palette of the segment [s0, s1], two rounds.
GLYPTORA_HD inline void blendFactors(const Vec4f (&t)[4], const Vec4f (&valid)[4], float& s0, float& s1) {
    s0 = 0.0f;
    s1 = 1.0f;
    for (int round = 0; round < kBlendRounds; ++round) {
        const float range = s1 - s0;
        if (!(range > 1e-6f || range < -1e-6f)) return;
        const Vec4f inv(1.0f / range), lo(s0);
        Vec4f A(0.0f), B(0.0f), C(0.0f), X(0.0f), Y(0.0f);
        for (int g = 0; g < 4; ++g) {
            const Vec4f w = lanes::keep(valid[g], weight16(nearestIndex16((t[g] - lo) * inv)));
            const Vec4f a = lanes::keep(valid[g], Vec4f(1.0f) - w);
            A = A + a * a;
            B = B + a * w;
            C = C + w * w;
            X = X + a * t[g];
            Y = Y + w * t[g];
        }
        const float a = lanes::hsum(A), b = lanes::hsum(B), c = lanes::hsum(C), x = lanes::hsum(X), y = lanes::hsum(Y);
        const float det = a * c - b * b;
        if (!(det > 1e-4f * a * c) || !(det > 1e-12f)) return;
        s0 = (c * x - b * y) / det;
        s1 = (a * y - b * x) / det;
    }
}

// The channel quantiser of this encoder: x in [0, 1], b bits.
GLYPTORA_HD inline int quantizeUnit(float x, int bits) {
    const int u = int(saturate(x) * 255.0f + 0.5f);
    return (u * ((1 << bits) - 1) + 127) / 255;
}

// Writes the block when it beats `best`; returns its error.
GLYPTORA_HD inline float encodeMode6(const Block& b, float& best, uint8_t out[16]) {
    // 1. Moments over the valid texels (the unit-scale texels).
    const Vec4f(&u)[4][4] = b.uch;
    float sum[4], outer[4][4];
    for (int j = 0; j < 4; ++j) {
        Vec4f s(0.0f);
        for (int g = 0; g < 4; ++g) s = s + lanes::keep(b.valid[g], u[j][g]);
        sum[j] = lanes::hsum(s);
        for (int k = j; k < 4; ++k) {
            Vec4f o(0.0f);
            for (int g = 0; g < 4; ++g) o = o + lanes::keep(b.valid[g], u[j][g] * u[k][g]);
            outer[j][k] = outer[k][j] = lanes::hsum(o);
        }
    }
    bool anyZeroAlpha = false, anyOpaqueAlpha = false;
    for (int g = 0; g < 4; ++g) {
        if (glyptora_simd::moveMask(lanes::maskAnd(b.valid[g], glyptora_simd::cmpLessEqual(u[3][g], Vec4f(0.0f)))))
            anyZeroAlpha = true;
        if (glyptora_simd::moveMask(lanes::maskAnd(b.valid[g], glyptora_simd::cmpGreater(u[3][g], Vec4f(0.998f)))))
            anyOpaqueAlpha = true;
    }
    // 2. Mean and covariance.
    const float invn = 1.0f / float(b.validCount);
    float mean[4], cov[4][4];
    for (int j = 0; j < 4; ++j) mean[j] = sum[j] * invn;
    for (int j = 0; j < 4; ++j)
        for (int k = 0; k < 4; ++k) cov[j][k] = outer[j][k] * invn - mean[j] * mean[k];
    // 3. Principal axis, or the grey diagonal for a flat block.
    float axis[4];
    principalAxis4(cov, axis);
    float len2 = dot4f(axis, axis);
    if (!(len2 > 0.0f)) {
        const float a = cov[3][3] > 0.00001f ? 1.0f : 0.0f;
        axis[0] = axis[1] = axis[2] = 1.0f;
        axis[3] = a;
        len2 = a * a + 3.0f;
    }
    // 4. Extent of the projections.
    Vec4f tminv(kNoBlock), tmaxv(-kNoBlock);
    const Vec4f invLen2(1.0f / len2);
    for (int g = 0; g < 4; ++g) {
        Vec4f t = (u[0][g] - Vec4f(mean[0])) * Vec4f(axis[0]);
        for (int c = 1; c < 4; ++c) t = t + (u[c][g] - Vec4f(mean[c])) * Vec4f(axis[c]);
        t = t * invLen2;
        tminv = glyptora_simd::min(tminv, glyptora_simd::select(b.valid[g], t, Vec4f(kNoBlock)));
        tmaxv = glyptora_simd::max(tmaxv, glyptora_simd::select(b.valid[g], t, Vec4f(-kNoBlock)));
    }
    float tmin = lanes::hmin(tminv), tmax = lanes::hmax(tmaxv);
    if (tmin == tmax) {
        tmin -= 0.007874016f;
        tmax += 0.007874016f;
    }
    // 5. Endpoints.
    float e0[4], e1[4];
    for (int j = 0; j < 4; ++j) {
        e0[j] = clampf(mean[j] + axis[j] * tmin, 0.0f, 1.0f);
        e1[j] = clampf(mean[j] + axis[j] * tmax, 0.0f, 1.0f);
    }
    // 6. Alpha snapping.
    if (anyZeroAlpha) {
        if (e1[3] >= e0[3])
            e0[3] = 0.0f;
        else
            e1[3] = 0.0f;
    }
    if (anyOpaqueAlpha) {
        if (e1[3] >= e0[3])
            e1[3] = 1.0f;
        else
            e0[3] = 1.0f;
    }
    // 7. Refit along the segment (texels outside the valid region sit at 0.5).
    float d[4];
    for (int j = 0; j < 4; ++j) d[j] = e1[j] - e0[j];
    const float dd = dot4f(d, d);
    float s0 = 0.0f, s1 = 1.0f;
    if (dd > 0.0f) {
        Vec4f t[4];
        const Vec4f invdd(1.0f / dd);
        for (int g = 0; g < 4; ++g) {
            Vec4f p = (u[0][g] - Vec4f(e0[0])) * Vec4f(d[0]);
            for (int c = 1; c < 4; ++c) p = p + (u[c][g] - Vec4f(e0[c])) * Vec4f(d[c]);
            t[g] = glyptora_simd::select(b.valid[g], p * invdd, Vec4f(0.5f));
        }
        blendFactors(t, b.valid, s0, s1);
    }
    float ne[2][4];
    for (int j = 0; j < 4; ++j) {
        ne[0][j] = (1.0f - s0) * e0[j] + s0 * e1[j];  // clamped by the quantiser
        ne[1][j] = (1.0f - s1) * e0[j] + s1 * e1[j];
    }
    const float oldAlpha[2] = {e0[3], e1[3]};
    for (int e = 0; e < 2; ++e) {
        if (oldAlpha[e] == 0.0f) ne[e][3] = 0.0f;
        if (oldAlpha[e] > 0.998f) ne[e][3] = 1.0f;
    }
    // 8. Quantisation with p-bits: 8-bit values whose lowest bit is the p-bit.
    int v[2][4], pbit[2];
    for (int e = 0; e < 2; ++e) {
        int q[4];
        for (int j = 0; j < 4; ++j) q[j] = quantizeUnit(ne[e][j], 8);
        if (ne[e][3] == 0.0f)
            pbit[e] = 0;
        else if (ne[e][3] > 0.998f)
            pbit[e] = 1;
        else
            pbit[e] = ((q[0] & 1) + (q[1] & 1) + (q[2] & 1)) >= 2 ? 1 : 0;
        for (int j = 0; j < 4; ++j) v[e][j] = (q[j] & ~1) | pbit[e];
    }
    // 9. Indices by projection onto the decoded segment.
    float D0[4], Dd[4];
    for (int j = 0; j < 4; ++j) {
        D0[j] = float(v[0][j]) / 255.0f;
        Dd[j] = float(v[1][j]) / 255.0f - D0[j];
    }
    const float ddq = dot4f(Dd, Dd);
    const bool zero0 = v[0][3] == 0, zero1 = v[1][3] == 0;
    const bool high0 = float(v[0][3]) / 255.0f >= 0.998f, high1 = float(v[1][3]) / 255.0f >= 0.998f;
    const Vec4f invddq(ddq > 0.0f ? 1.0f / ddq : 0.0f);
    Vec4f err(0.0f);
    Vec4f idxv[4];
    for (int g = 0; g < 4; ++g) {
        Vec4f p = (u[0][g] - Vec4f(D0[0])) * Vec4f(Dd[0]);
        for (int c = 1; c < 4; ++c) p = p + (u[c][g] - Vec4f(D0[c])) * Vec4f(Dd[c]);
        Vec4f t = p * invddq;
        if (zero0 != zero1)
            t = glyptora_simd::select(glyptora_simd::cmpLessEqual(u[3][g], Vec4f(0.0f)), Vec4f(zero0 ? 0.0f : 1.0f), t);
        if (high0 != high1)
            t = glyptora_simd::select(glyptora_simd::cmpLessEqual(Vec4f(0.998f), u[3][g]), Vec4f(high0 ? 0.0f : 1.0f),
                                      t);
        t = glyptora_simd::select(b.valid[g], t, Vec4f(0.5f));
        const Vec4f index = nearestIndex16(t);
        idxv[g] = index;
        // 10. Error over the valid texels.
        const Vec4f w = lanes::roundHalfUp(index * Vec4f(64.0f / 15.0f));
        Vec4f e(0.0f);
        for (int c = 0; c < 4; ++c) {
            const float a = float(v[0][c]), bb = float(v[1][c]);
            const Vec4f value = glyptora_simd::floor((Vec4f(a * 64.0f + 32.0f) + Vec4f(bb - a) * w) * Vec4f(0.015625f));
            const Vec4f diff = b.ch[c][g] - value;
            e = e + diff * diff;
        }
        err = err + lanes::keep(b.valid[g], e);
    }
    const float total = lanes::hsum(err);
    if (!(total < best)) return total;
    best = total;
    int idx[16];
    for (int g = 0; g < 4; ++g) glyptora_simd::truncateToInt(idxv[g]).store(&idx[4 * g]);
    if (idx[0] & 8) {
        for (int j = 0; j < 4; ++j) {
            const int tv = v[0][j];
            v[0][j] = v[1][j];
            v[1][j] = tv;
        }
        const int tp = pbit[0];
        pbit[0] = pbit[1];
        pbit[1] = tp;
        for (int i = 0; i < 16; ++i) idx[i] = 15 - idx[i];
    }
    BC7Modes::Bits w(out, BC7Modes::BITSIZE);
    w.write(64, 7);
    for (int j = 0; j < 4; ++j) {
        w.write(v[0][j] >> 1, 7);
        w.write(v[1][j] >> 1, 7);
    }
    w.write(pbit[0], 1);
    w.write(pbit[1], 1);
    GLYPTORA_ASSERT(w.getptr() == 65);
    GLYPTORA_ASSERT((idx[0] & 8) == 0);
    w.write(idx[0], 3);
    for (int i = 1; i < 16; ++i) w.write(idx[i], 4);
    GLYPTORA_ASSERT(w.getptr() == BC7Modes::BITSIZE);
    return total;
}

// ---------------------------------------------------------------------------
// Modes 4 and 5: colour and alpha endpoints with separate indices, with one
// colour channel optionally exchanged with alpha (the rotation). The four
// rotations are fitted together: rotation r in lane r.

// Texel values as each rotation sees them: three colour channels (alpha in
// place of the exchanged channel) and the separate channel, plus starting
// endpoints (colour extremes along the principal axis, the separate channel's
// extremes).
struct RotationLanes {
    Vec4f colour[16][3];
    Vec4f scalar[16][1];
    Vec4f colourStart[2][3];
    Vec4f scalarStart[2][1];
};

GLYPTORA_HD inline void buildRotationLanes(const Block& b, RotationLanes& rl) {
    const Vec4f swapped[3] = {lanes::laneMask(2), lanes::laneMask(4), lanes::laneMask(8)};
    Vec4f sum[3] = {Vec4f(0.0f), Vec4f(0.0f), Vec4f(0.0f)};
    Vec4f smin(kBig), smax(-kBig);
    for (int i = 0; i < 16; ++i) {
        const Vec4f a(b.px[i][3]);
        for (int k = 0; k < 3; ++k) rl.colour[i][k] = glyptora_simd::select(swapped[k], a, Vec4f(b.px[i][k]));
        rl.scalar[i][0] = Vec4f(b.px[i][3], b.px[i][0], b.px[i][1], b.px[i][2]);
        if (!(b.validMask & (1u << i))) continue;
        for (int k = 0; k < 3; ++k) sum[k] = sum[k] + rl.colour[i][k];
        smin = glyptora_simd::min(smin, rl.scalar[i][0]);
        smax = glyptora_simd::max(smax, rl.scalar[i][0]);
    }
    rl.scalarStart[0][0] = smin;
    rl.scalarStart[1][0] = smax;
    const Vec4f invn(1.0f / float(b.validCount));
    Vec4f mean[3];
    for (int k = 0; k < 3; ++k) mean[k] = sum[k] * invn;
    Vec4f c00(0.0f), c01(0.0f), c02(0.0f), c11(0.0f), c12(0.0f), c22(0.0f);
    for (int i = 0; i < 16; ++i) {
        if (!(b.validMask & (1u << i))) continue;
        const Vec4f d0 = rl.colour[i][0] - mean[0], d1 = rl.colour[i][1] - mean[1], d2 = rl.colour[i][2] - mean[2];
        c00 = c00 + d0 * d0;
        c01 = c01 + d0 * d1;
        c02 = c02 + d0 * d2;
        c11 = c11 + d1 * d1;
        c12 = c12 + d1 * d2;
        c22 = c22 + d2 * d2;
    }
    // Power iteration (scaled by the trace) from the column of the largest diagonal entry.
    const Vec4f invT = Vec4f(1.0f) / glyptora_simd::max(c00 + c11 + c22, Vec4f(1e-6f));
    c00 = c00 * invT;
    c01 = c01 * invT;
    c02 = c02 * invT;
    c11 = c11 * invT;
    c12 = c12 * invT;
    c22 = c22 * invT;
    Vec4f v0 = c00, v1 = c01, v2 = c02, diag = c00;
    Vec4f larger = glyptora_simd::cmpGreater(c11, diag);
    diag = glyptora_simd::select(larger, c11, diag);
    v0 = glyptora_simd::select(larger, c01, v0);
    v1 = glyptora_simd::select(larger, c11, v1);
    v2 = glyptora_simd::select(larger, c12, v2);
    larger = glyptora_simd::cmpGreater(c22, diag);
    v0 = glyptora_simd::select(larger, c02, v0);
    v1 = glyptora_simd::select(larger, c12, v1);
    v2 = glyptora_simd::select(larger, c22, v2);
    for (int it = 0; it < 4; ++it) {
        const Vec4f w0 = c00 * v0 + c01 * v1 + c02 * v2;
        const Vec4f w1 = c01 * v0 + c11 * v1 + c12 * v2;
        const Vec4f w2 = c02 * v0 + c12 * v1 + c22 * v2;
        v0 = w0;
        v1 = w1;
        v2 = w2;
    }
    const Vec4f len2 = v0 * v0 + v1 * v1 + v2 * v2;
    const Vec4f hasAxis = glyptora_simd::cmpGreater(len2, Vec4f(1e-30f));
    const Vec4f invLen = Vec4f(1.0f) / glyptora_simd::sqrt(glyptora_simd::max(len2, Vec4f(1e-30f)));
    const Vec4f axis[3] = {lanes::keep(hasAxis, v0 * invLen), lanes::keep(hasAxis, v1 * invLen),
                           lanes::keep(hasAxis, v2 * invLen)};
    Vec4f tmin(kBig), tmax(-kBig);
    for (int i = 0; i < 16; ++i) {
        if (!(b.validMask & (1u << i))) continue;
        const Vec4f t = (rl.colour[i][0] - mean[0]) * axis[0] + (rl.colour[i][1] - mean[1]) * axis[1] +
                        (rl.colour[i][2] - mean[2]) * axis[2];
        tmin = glyptora_simd::min(tmin, t);
        tmax = glyptora_simd::max(tmax, t);
    }
    for (int k = 0; k < 3; ++k) {
        rl.colourStart[0][k] = glyptora_simd::clamp(mean[k] + axis[k] * tmin, Vec4f(0.0f), Vec4f(255.0f));
        rl.colourStart[1][k] = glyptora_simd::clamp(mean[k] + axis[k] * tmax, Vec4f(0.0f), Vec4f(255.0f));
    }
}

// Endpoints, indices and error of one part (colour or the separate channel) of the four rotations.
template <int NC>
struct LaneFit {
    Vec4f f[2][NC];    // float endpoints
    Vec4f q[2][NC];    // codes
    Vec4f dec[2][NC];  // decoded values
    Vec4f err;
    Vec4f idx[16];
};

// Bit replication of `bits`-bit codes to 8 bits.
GLYPTORA_HD inline Vec4f expandLanes(Vec4f q, int bits) {
    return q * Vec4f(float(1 << (8 - bits))) + glyptora_simd::floor(q * Vec4f(1.0f / float(1 << (2 * bits - 8))));
}

template <int NC>
GLYPTORA_HD inline void quantizeLanes(LaneFit<NC>& fit, int bits) {
    const float maxq = float((1 << bits) - 1);
    for (int e = 0; e < 2; ++e)
        for (int k = 0; k < NC; ++k) {
            fit.q[e][k] = quantizeChannels(fit.f[e][k], Vec4f(maxq));
            fit.dec[e][k] = expandLanes(fit.q[e][k], bits);
        }
}

// Indices (the palette entry nearest to the projection) and error.
template <int NC>
GLYPTORA_HD inline void evaluateLanes(const Block& b, const Vec4f (*vals)[NC], int levels, LaneFit<NC>& fit) {
    Vec4f D[NC], base[NC], delta[NC];
    Vec4f dd(0.0f);
    for (int k = 0; k < NC; ++k) {
        delta[k] = fit.dec[1][k] - fit.dec[0][k];
        dd = dd + delta[k] * delta[k];
        base[k] = fit.dec[0][k] * Vec4f(64.0f) + Vec4f(32.0f);
    }
    const Vec4f scale = lanes::keep(glyptora_simd::cmpGreater(dd, Vec4f(0.0f)),
                                    Vec4f(float(levels - 1)) / glyptora_simd::max(dd, Vec4f(1e-30f)));
    Vec4f O(0.0f);
    for (int k = 0; k < NC; ++k) {
        D[k] = delta[k] * scale;
        O = O - fit.dec[0][k] * D[k];
    }
    const float stepW = 64.0f / float(levels - 1);
    const Vec4f top(float(levels - 1));
    Vec4f err(0.0f);
    for (int i = 0; i < 16; ++i) {
        if (!(b.validMask & (1u << i))) {
            fit.idx[i] = Vec4f(0.0f);
            continue;
        }
        Vec4f t = O;
        for (int k = 0; k < NC; ++k) t = t + vals[i][k] * D[k];
        const Vec4f r = glyptora_simd::min(glyptora_simd::max(lanes::roundHalfUp(t), Vec4f(0.0f)), top);
        const Vec4f wr = lanes::roundHalfUp(r * Vec4f(stepW));
        Vec4f e(0.0f);
        for (int k = 0; k < NC; ++k) {
            const Vec4f d = vals[i][k] - glyptora_simd::floor((base[k] + delta[k] * wr) * Vec4f(0.015625f));
            e = e + d * d;
        }
        err = err + e;
        fit.idx[i] = r;
    }
    fit.err = err;
}

// Least-squares endpoints for the current indices (lanes whose indices do not
// determine two endpoints keep theirs).
template <int NC>
GLYPTORA_HD inline void leastSquaresLanes(const Block& b, const Vec4f (*vals)[NC], int levels, const Vec4f (&idx)[16],
                                          Vec4f (&f)[2][NC]) {
    const Vec4f stepW(64.0f / float(levels - 1));
    Vec4f A(0.0f), B(0.0f), C(0.0f), X[NC], Y[NC];
    for (int k = 0; k < NC; ++k) X[k] = Y[k] = Vec4f(0.0f);
    for (int i = 0; i < 16; ++i) {
        if (!(b.validMask & (1u << i))) continue;
        const Vec4f w = lanes::roundHalfUp(idx[i] * stepW) * Vec4f(0.015625f);
        const Vec4f a = Vec4f(1.0f) - w;
        A = A + a * a;
        B = B + a * w;
        C = C + w * w;
        for (int k = 0; k < NC; ++k) {
            X[k] = X[k] + a * vals[i][k];
            Y[k] = Y[k] + w * vals[i][k];
        }
    }
    const Vec4f det = A * C - B * B;
    const Vec4f ok = lanes::maskAnd(glyptora_simd::cmpGreater(det, Vec4f(1e-3f) * A * C),
                                    glyptora_simd::cmpGreater(det, Vec4f(1e-8f)));
    const Vec4f inv = Vec4f(1.0f) / glyptora_simd::select(ok, det, Vec4f(1.0f));
    for (int k = 0; k < NC; ++k) {
        const Vec4f e0 = glyptora_simd::clamp((C * X[k] - B * Y[k]) * inv, Vec4f(0.0f), Vec4f(255.0f));
        const Vec4f e1 = glyptora_simd::clamp((A * Y[k] - B * X[k]) * inv, Vec4f(0.0f), Vec4f(255.0f));
        f[0][k] = glyptora_simd::select(ok, e0, f[0][k]);
        f[1][k] = glyptora_simd::select(ok, e1, f[1][k]);
    }
}

template <int NC>
GLYPTORA_HD inline void fitLanes(const Block& b, const Vec4f (*vals)[NC], const Vec4f (&start)[2][NC], int bits,
                                 int levels, int iterations, LaneFit<NC>& fit) {
    for (int e = 0; e < 2; ++e)
        for (int k = 0; k < NC; ++k) fit.f[e][k] = start[e][k];
    quantizeLanes<NC>(fit, bits);
    evaluateLanes<NC>(b, vals, levels, fit);
    for (int it = 0; it < iterations; ++it) {
        LaneFit<NC> trial;
        for (int e = 0; e < 2; ++e)
            for (int k = 0; k < NC; ++k) trial.f[e][k] = fit.f[e][k];
        leastSquaresLanes<NC>(b, vals, levels, fit.idx, trial.f);
        quantizeLanes<NC>(trial, bits);
        evaluateLanes<NC>(b, vals, levels, trial);
        const Vec4f better = glyptora_simd::cmpLess(trial.err, fit.err);
        if (!glyptora_simd::moveMask(better)) break;
        fit.err = glyptora_simd::select(better, trial.err, fit.err);
        for (int e = 0; e < 2; ++e)
            for (int k = 0; k < NC; ++k) {
                fit.f[e][k] = glyptora_simd::select(better, trial.f[e][k], fit.f[e][k]);
                fit.q[e][k] = glyptora_simd::select(better, trial.q[e][k], fit.q[e][k]);
                fit.dec[e][k] = glyptora_simd::select(better, trial.dec[e][k], fit.dec[e][k]);
            }
        for (int i = 0; i < 16; ++i) fit.idx[i] = glyptora_simd::select(better, trial.idx[i], fit.idx[i]);
    }
}

// One rotation candidate of mode 5 (indexMode ignored) or mode 4.
struct RotationVariant {
    int mode;
    int indexMode;
    int colourBits, colourLevels;
    int alphaBits, alphaLevels;
};

GLYPTORA_HD inline RotationVariant rotationVariant(int mode, int indexMode) {
    if (mode == 5) return {5, 0, 7, 4, 8, 4};
    if (indexMode == 0) return {4, 0, 5, 4, 6, 8};
    return {4, 1, 5, 8, 6, 4};
}

// Writes lane `rotation` of the fits as a mode 4 or 5 block, after clearing
// the top bit of each anchor index (texel 0 of both index sets).
GLYPTORA_HD inline void writeRotationBlock(const RotationVariant& v, int rotation, const LaneFit<3>& colour,
                                           const LaneFit<1>& alpha, uint8_t out[16]) {
    int cq[2][3], aq[2], cidx[16], aidx[16];
    for (int e = 0; e < 2; ++e) {
        for (int k = 0; k < 3; ++k) cq[e][k] = int(colour.q[e][k][rotation]);
        aq[e] = int(alpha.q[e][0][rotation]);
    }
    for (int i = 0; i < 16; ++i) {
        cidx[i] = int(colour.idx[i][rotation]);
        aidx[i] = int(alpha.idx[i][rotation]);
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

// Fits all four rotations of a mode 4/5 variant; the rotation of least error
// (the earliest on a tie) is written when it beats `best`. forced >= 0 writes
// that rotation whatever its error. Returns the error of the rotation chosen
// (FLT_MAX when the variant stopped early, unable to win).
GLYPTORA_HD inline float encodeRotations(const Block& b, const RotationLanes& rl, const RotationVariant& v, int forced,
                                         float& best, uint8_t out[16]) {
    LaneFit<1> alpha;
    fitLanes<1>(b, rl.scalar, rl.scalarStart, v.alphaBits, v.alphaLevels, kRotationRefineIterations, alpha);
    if (forced < 0 && !glyptora_simd::moveMask(glyptora_simd::cmpLess(alpha.err, Vec4f(best)))) return kNoBlock;
    LaneFit<3> colour;
    fitLanes<3>(b, rl.colour, rl.colourStart, v.colourBits, v.colourLevels, kRotationRefineIterations, colour);
    float err[4];
    (colour.err + alpha.err).store(err);
    int r = forced;
    if (r < 0) {
        r = 0;
        for (int j = 1; j < 4; ++j)
            if (err[j] < err[r]) r = j;
        if (!(err[r] < best)) return err[r];
    }
    writeRotationBlock(v, r, colour, alpha, out);
    best = err[r];
    return err[r];
}

// ---------------------------------------------------------------------------
// The block driver.

// Steps of the driver, in their fixed order (see BC7FastTrace).
enum DriverStep { kStep6, kStep1, kStep3, kStep7, kStep0, kStep2, kStep5, kStep4Index0, kStep4Index1, kStepCount };

// Keeps each step's candidate error when a trace is asked for.
struct StepRecorder {
    BC7FastTrace* trace;
    // `err` is the step's candidate error, `bestBefore` the block's best error when the step began.
    GLYPTORA_HD void record(int step, float err, float bestBefore) {
        if (!trace) return;
        trace->stepError[step] = err;
        if (err < bestBefore) trace->keptStep = step;
    }
};

// Two-subset modes 1 and 3 (and 7, whose own ranking equals theirs while
// alpha is constant): the 16 shapes of least residual, each fitted and its
// error modelled for 3-bit (mode 1) and 2-bit (modes 3, 7) indices.
GLYPTORA_HD inline void encodeTwoSubsetModes(const Block& b, const RowMoments<3>& rm, float& best, uint8_t out[16],
                                             StepRecorder& rec) {
    float scatter[64];
    scatterEstimates<3, 2>(b, rm, scatter);
    int order[16];
    const int count = selectShapes(scatter, 64, 16, order);
    ShapeStats<3, 2, 16> st;
    shapeStats<3, 2, 16>(b, rm, order, count, kPowerIterations, st);
    const int slots[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    ShapeFit<2> fits[16];
    fitCandidates<3, 2, 16>(b, st, slots, order, count, 8, 0, fits);
    ShapeFit<2>& chosen = fits[bestCandidate<2>(fits, count, 0)];
    setEndpoints<3, 2, 16>(st, chosen);
    const float model = chosen.model[0];
    float before = best;
    if (model < kRejectRatio * best)
        rec.record(kStep1, runPartitioned<3, 2>(b, kMode1, chosen, kRefineIterations, best, out), before);
    if (best > 0.0f && model < kRejectRatio * best) {
        before = best;
        rec.record(kStep3, runPartitioned<3, 2>(b, kMode3, chosen, kRefineIterationsMode3, best, out), before);
    }
    if (best > 0.0f && model < kRejectRatioMode7 * best) {
        before = best;
        rec.record(kStep7, runPartitioned<3, 2>(b, kMode7, chosen, 0, best, out), before);
    }
}

// A three-subset mode: the `keep` shapes of least scatter among the first
// `limit`, each fitted by its subsets' lines with the error modelled from their
// moments; the best is refined. Returns its error.
GLYPTORA_HD inline float encodeThreeSubsetMode(const Block& b, const RowMoments<3>& rm, const float (&est)[64],
                                               const PartitionedMode& m, int limit, int keep, float& best,
                                               uint8_t out[16]) {
    // Each candidate's modelled error is at least its scatter / (levels - 1)^2:
    // when even the least scatter gives too much, no candidate is fitted.
    const float k = 1.0f / float(((1 << m.indexBits) - 1) * ((1 << m.indexBits) - 1));
    Vec4f least(kNoBlock);
    for (int p = 0; p < limit; p += 4) least = glyptora_simd::min(least, Vec4f::load(&est[p]));
    if (!(lanes::hmin(least) * k < kRejectRatio * best)) return kNoBlock;
    int order[16];
    const int count = selectShapes(est, limit, keep, order);
    ShapeStats<3, 3, 16> st;
    shapeStats<3, 3, 16>(b, rm, order, count, kPowerIterations, st);
    float model;
    const int slot = bestByMoments<3, 3, 16>(st, count, 1 << m.indexBits, model);
    if (!(model < kRejectRatio * best)) return kNoBlock;
    ShapeFit<3> fit;
    fitShape<3, 3, 16>(b, st, slot, order[slot], fit);
    return runPartitioned<3, 3>(b, m, fit, kRefineIterations3, best, out);
}

// The driver: every step compares against and updates the block's best error.
// Steps are skipped once the best error is 0 (nothing can beat it).
GLYPTORA_HD inline float encodeBlock(const Block& b, uint8_t out[16], BC7FastTrace* trace) {
    StepRecorder rec{trace};
    if (trace) {
        for (int i = 0; i < kStepCount; ++i) trace->stepError[i] = kNoBlock;
        trace->keptStep = -1;
    }
    float best = kNoBlock, before = best;
    rec.record(kStep6, encodeMode6(b, best, out), before);
    if (b.opaque) {
        if (best > 0.0f) {
            RowMoments<3> rm;
            buildRowMoments<3>(b, rm);
            encodeTwoSubsetModes(b, rm, best, out, rec);
            if (best > 0.0f) {
                float est[64];
                scatterEstimates<3, 3>(b, rm, est);
                before = best;
                rec.record(kStep0, encodeThreeSubsetMode(b, rm, est, kMode0, 16, 4, best, out), before);
                if (best > 0.0f) {
                    before = best;
                    rec.record(kStep2, encodeThreeSubsetMode(b, rm, est, kMode2, 64, 16, best, out), before);
                }
            }
        }
    } else if (best > 0.0f) {
        RowMoments<4> rm;
        buildRowMoments<4>(b, rm);
        ShapeStats<4, 2, 64> st;
        int all[64];
        for (int p = 0; p < 64; ++p) all[p] = p;
        shapeStats<4, 2, 64>(b, rm, all, 64, kPowerIterations, st);
        int order[16];
        const int count = selectShapes(st.est, 64, 16, order);
        ShapeFit<2> fits[16];
        fitCandidates<4, 2, 64>(b, st, order, order, count, 4, 0, fits);
        before = best;
        ShapeFit<2>& chosen = fits[bestCandidate<2>(fits, count, 0)];
        setEndpoints<4, 2, 64>(st, chosen);
        rec.record(kStep7, runPartitioned<4, 2>(b, kMode7, chosen, kRefineIterations, best, out), before);
    }
    if (best > 0.0f) {
        RotationLanes rl;
        buildRotationLanes(b, rl);
        const int steps[3] = {kStep5, kStep4Index0, kStep4Index1};
        const RotationVariant variants[3] = {rotationVariant(5, 0), rotationVariant(4, 0), rotationVariant(4, 1)};
        for (int v = 0; v < 3 && best > 0.0f; ++v) {
            before = best;
            rec.record(steps[v], encodeRotations(b, rl, variants[v], -1, best, out), before);
        }
    }
    return best;
}

// One shape of a partitioned mode, fitted and refined as the driver does.
template <int NC, int NS>
GLYPTORA_HD inline void encodeShape(const Block& b, const PartitionedMode& m, int partition, float& best,
                                    uint8_t out[16]) {
    RowMoments<NC> rm;
    buildRowMoments<NC>(b, rm);
    ShapeStats<NC, NS, 4> st;
    const int shape[1] = {partition};
    shapeStats<NC, NS, 4>(b, rm, shape, 1, kPowerIterations, st);
    ShapeFit<NS> fit;
    fitShape<NC, NS, 4>(b, st, 0, partition, fit);
    const int iterations = NS == 3 ? kRefineIterations3 : (m.mode == 3 ? kRefineIterationsMode3 : kRefineIterations);
    runPartitioned<NC, NS>(b, m, fit, iterations, best, out);
}

GLYPTORA_HD inline float encodeForced(const Block& b, const BC7ForcedChoice& choice, uint8_t out[16]) {
    float best = kNoBlock;
    const int mode = clampi(choice.mode, 0, 7);
    const int partition = clampi(choice.partition, 0, mode == 0 ? 15 : 63);
    switch (mode) {
        case 6:
            encodeMode6(b, best, out);
            break;
        case 4:
        case 5: {
            RotationLanes rl;
            buildRotationLanes(b, rl);
            encodeRotations(b, rl, rotationVariant(mode, clampi(choice.indexMode, 0, 1)), clampi(choice.rotation, 0, 3),
                            best, out);
            break;
        }
        case 0:
            encodeShape<3, 3>(b, kMode0, partition, best, out);
            break;
        case 2:
            encodeShape<3, 3>(b, kMode2, partition, best, out);
            break;
        case 1:
            encodeShape<3, 2>(b, kMode1, partition, best, out);
            break;
        case 3:
            encodeShape<3, 2>(b, kMode3, partition, best, out);
            break;
        default:
            if (b.opaque)
                encodeShape<3, 2>(b, kMode7, partition, best, out);
            else
                encodeShape<4, 2>(b, kMode7, partition, best, out);
            break;
    }
    return best;
}

}  // namespace fastenc

GLYPTORA_HD inline float encodeBC7BlockFast(const float texels[64], uint16_t validRegion, bool imageHasAlpha,
                                            uint8_t out[16], BC7FastTrace* trace) {
    fastenc::Block b;
    fastenc::loadBlock(texels, validRegion, imageHasAlpha, b);
    return fastenc::encodeBlock(b, out, trace);
}

GLYPTORA_HD inline float encodeBC7BlockForced(const float texels[64], uint16_t validRegion, bool imageHasAlpha,
                                              const BC7ForcedChoice& choice, uint8_t out[16]) {
    fastenc::Block b;
    fastenc::loadBlock(texels, validRegion, imageHasAlpha, b);
    return fastenc::encodeForced(b, choice, out);
}

}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
