#pragma once
// Index choice and error of the fast BC6H encoder for quantised endpoints. The palette is
// computed in lanes exactly as the decoder computes it: interpolation of the unquantised
// endpoints, (a (64 - w) + b w + 32) >> 6, then the final scaling, (v 31) >> 6 unsigned or
// the sign and magnitude of v 31 / 32 signed. All of it is exact in floats (every product
// stays below 2^24), so the error (fast_texels.h) is that of the block the decoder will see.
#include "bc6h/fast_line_fit.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_bc6h {
inline namespace GLYPTORA_SIMD_ABI {
namespace fast {

// A region's endpoints as the decoder interpolates them (after unquantisation).
struct Unquantized {
    int u[2][3];
};

// The final scaling of interpolated values to half values, in lanes.
GLYPTORA_HD inline Vec4f finishLanes(Vec4f v, bool isSigned) {
    return isSigned ? glyptora_simd::truncate(v * Vec4f(31.0f / 32.0f))
                    : glyptora_simd::floor(v * Vec4f(31.0f / 64.0f));
}

// Palette entry of weight `w` (lanes) between endpoints whose first is `a64` = 64 a + 32
// and whose difference is `du`.
GLYPTORA_HD inline Vec4f paletteLanes(Vec4f a64, Vec4f du, Vec4f w, bool isSigned) {
    return finishLanes(glyptora_simd::floor((a64 + du * w) * Vec4f(1.0f / 64.0f)), isSigned);
}

// Indices and error. Each texel is projected onto the segment between its region's first
// and last palette entries (in the integer domain, where the palette is evenly spread); of
// the two entries around the projection the one of smaller error is taken (the lower on a
// tie). `sel[s]` selects region s's valid texels.
// `value` (may be null) receives the palette value each texel got, [channel][texel].
template <int NS, int LEVELS>
GLYPTORA_HD inline float chooseIndices(const Texels& tx, const Vec4f (&sel)[NS][4], const Unquantized (&r)[NS],
                                       bool isSigned, int (&idx)[16], float (*value)[16]) {
    // Per region: first entry a64, difference du, projection direction D and offset O.
    float a64[NS][3], du[NS][3], D[NS][3], O[NS];
    for (int s = 0; s < NS; ++s) {
        float h0[3], hd[3], dd = 0.0f;
        for (int c = 0; c < 3; ++c) {
            a64[s][c] = float(r[s].u[0][c]) * 64.0f + 32.0f;
            du[s][c] = float(r[s].u[1][c] - r[s].u[0][c]);
            const float first = finishLanes(Vec4f(float(r[s].u[0][c])), isSigned).x();
            const float last = finishLanes(Vec4f(float(r[s].u[1][c])), isSigned).x();
            h0[c] = first;
            hd[c] = last - first;
            dd += hd[c] * hd[c];
        }
        const float scale = dd > 0.0f ? float(LEVELS - 1) / dd : 0.0f;
        O[s] = 0.0f;
        for (int c = 0; c < 3; ++c) {
            D[s][c] = hd[c] * scale;
            O[s] -= h0[c] * D[s][c];
        }
    }
    const Vec4f weightStep(64.0f / float(LEVELS - 1)), maxLo(float(LEVELS - 2));
    Vec4f acc(0.0f);
    for (int g = 0; g < 4; ++g) {
        Vec4f A64[3], DU[3], Dk[3], Ok(O[0]);
        for (int c = 0; c < 3; ++c) {
            A64[c] = Vec4f(a64[0][c]);
            DU[c] = Vec4f(du[0][c]);
            Dk[c] = Vec4f(D[0][c]);
        }
        for (int s = 1; s < NS; ++s) {
            Ok = glyptora_simd::select(sel[s][g], Vec4f(O[s]), Ok);
            for (int c = 0; c < 3; ++c) {
                A64[c] = glyptora_simd::select(sel[s][g], Vec4f(a64[s][c]), A64[c]);
                DU[c] = glyptora_simd::select(sel[s][g], Vec4f(du[s][c]), DU[c]);
                Dk[c] = glyptora_simd::select(sel[s][g], Vec4f(D[s][c]), Dk[c]);
            }
        }
        Vec4f t = Ok;
        for (int c = 0; c < 3; ++c) t = t + tx.half[c][g] * Dk[c];
        const Vec4f lo = glyptora_simd::clamp(glyptora_simd::floor(t), Vec4f(0.0f), maxLo);
        const Vec4f wlo = lanes::roundHalfUp(lo * weightStep);
        const Vec4f whi = lanes::roundHalfUp((lo + Vec4f(1.0f)) * weightStep);
        Vec4f plo[3], phi[3], elo(0.0f), ehi(0.0f);
        for (int c = 0; c < 3; ++c) {
            plo[c] = paletteLanes(A64[c], DU[c], wlo, isSigned);
            phi[c] = paletteLanes(A64[c], DU[c], whi, isSigned);
            const Vec4f dl = (halfValueToFloat(plo[c], isSigned) - tx.value[c][g]) * tx.weight[c][g];
            const Vec4f dh = (halfValueToFloat(phi[c], isSigned) - tx.value[c][g]) * tx.weight[c][g];
            elo = elo + dl * dl;
            ehi = ehi + dh * dh;
        }
        const Vec4f useHi = glyptora_simd::cmpLess(ehi, elo);
        glyptora_simd::truncateToInt(lo + lanes::keep(useHi, Vec4f(1.0f))).store(&idx[4 * g]);
        Vec4f valid = sel[0][g];
        for (int s = 1; s < NS; ++s) valid = glyptora_simd::select(sel[s][g], sel[s][g], valid);
        acc = acc + lanes::keep(valid, glyptora_simd::select(useHi, ehi, elo));
        if (value)
            for (int c = 0; c < 3; ++c) glyptora_simd::select(useHi, phi[c], plo[c]).store(&value[c][4 * g]);
    }
    return lanes::hsum(acc);
}

}  // namespace fast
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc6h
