#include "astc/weight_spectrum.h"

#include <cmath>

#include "core/vec4.h"

namespace glyptora_astc {

namespace {

using glyptora_simd::Vec4f;

// Orthonormal DCT-II bases of sizes 1..12, transposed and padded for four frequencies at a
// time: basis[n][x][k] is frequency k at position x.
struct CosineBases {
    alignas(16) float basis[13][12][12] = {};
};

const CosineBases& bases() {
    static const CosineBases b = [] {
        CosineBases out;
        const double pi = std::acos(-1.0);
        for (int n = 1; n <= 12; ++n)
            for (int k = 0; k < n; ++k)
                for (int x = 0; x < n; ++x)
                    out.basis[n][x][k] = float((k == 0 ? std::sqrt(1.0 / n) : std::sqrt(2.0 / n)) *
                                               std::cos(pi * (2 * x + 1) * k / (2.0 * n)));
        return out;
    }();
    return b;
}

}  // namespace

void AstcWeightSpectrum::compute(const float* u, int bw, int bh) {
    const CosineBases& b = bases();
    const int across = (bw + 3) / 4, down = (bh + 3) / 4;
    // Rows: frequencies across, for each row of texels.
    alignas(16) float rows[12][12];
    for (int y = 0; y < bh; ++y)
        for (int k = 0; k < across; ++k) {
            Vec4f sum;
            for (int x = 0; x < bw; ++x) sum += Vec4f(u[y * bw + x]) * Vec4f::load(&b.basis[bw][x][4 * k]);
            sum.store(&rows[y][4 * k]);
        }
    // Columns: frequencies down, four frequencies across at a time; energies.
    alignas(16) float energy[12][12];
    for (int kx = 0; kx < across; ++kx) {
        Vec4f column[12];
        for (int ky = 0; ky < bh; ++ky) column[ky] = Vec4f();
        for (int y = 0; y < bh; ++y) {
            const Vec4f r = Vec4f::load(&rows[y][4 * kx]);
            for (int ky = 0; ky < bh; ++ky) column[ky] += r * Vec4f(b.basis[bh][y][ky]);
        }
        for (int ky = 0; ky < bh; ++ky) (column[ky] * column[ky]).store(&energy[ky][4 * kx]);
    }
    (void)down;
    m_total = 0.0f;
    for (int ky = 0; ky < bh; ++ky)
        for (int kx = 0; kx < bw; ++kx) {
            m_total += energy[ky][kx];
            m_kept[ky][kx] = energy[ky][kx] + (kx ? m_kept[ky][kx - 1] : 0.0f) + (ky ? m_kept[ky - 1][kx] : 0.0f) -
                             (kx && ky ? m_kept[ky - 1][kx - 1] : 0.0f);
        }
}

float AstcWeightSpectrum::lostEnergyOf(const float* u, int bw, int bh, int gw, int gh) {
    const CosineBases& b = bases();
    const int across = (gw + 3) / 4;
    Vec4f total;
    for (int i = 0; i + 4 <= bw * bh; i += 4) total += Vec4f::load(u + i) * Vec4f::load(u + i);
    float energy = glyptora_simd::horizontalSum(total);
    for (int i = bw * bh & ~3; i < bw * bh; ++i) energy += u[i] * u[i];
    Vec4f kept;
    for (int kx = 0; kx < across; ++kx) {
        // Frequencies across at or past the grid's width hold nothing the grid keeps.
        alignas(16) float lane[4];
        for (int l = 0; l < 4; ++l) lane[l] = 4 * kx + l < gw ? 1.0f : 0.0f;
        const Vec4f inside = Vec4f::load(lane);
        Vec4f rows[12];
        for (int y = 0; y < bh; ++y) {
            Vec4f sum;
            for (int x = 0; x < bw; ++x) sum += Vec4f(u[y * bw + x]) * Vec4f::load(&b.basis[bw][x][4 * kx]);
            rows[y] = sum * inside;
        }
        for (int ky = 0; ky < gh; ++ky) {
            Vec4f column;
            for (int y = 0; y < bh; ++y) column += rows[y] * Vec4f(b.basis[bh][y][ky]);
            kept += column * column;
        }
    }
    const float lost = energy - glyptora_simd::horizontalSum(kept);
    return lost > 0.0f ? lost : 0.0f;
}

}  // namespace glyptora_astc
