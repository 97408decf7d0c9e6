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

}  // namespace glyptora_astc
