#pragma once
// Endpoint fitting of the partitioned modes (0, 1, 2, 3, 7) of the fast BC7
// encoder: index choice and error for decoded endpoints, least-squares
// endpoints for given indices, endpoint quantisation with the p-bit choice,
// and the refinement rounds that combine them.
#include "bc7/bc7_simd.h"
#include "bc7/fast_block_load.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

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

}  // namespace fastenc
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
