#pragma once
// Mean, covariance and principal axis of a block's weighted colours (valid texels only).
#include <cmath>

#include "astc/block_texels.h"
#include "core/host_device.h"
#include "core/vec4.h"

namespace glyptora_astc {

struct AstcColourStatistics {
    float mean[4] = {};
    float covariance[4][4] = {};  // per texel (divided by the valid count)
};

GLYPTORA_HD inline void astcColourStatistics(const AstcBlockTexels& t, AstcColourStatistics& out) {
    using glyptora_simd::Vec4f;
    Vec4f sum[4];
    for (int i = 0; i < t.padded; i += 4) {
        const Vec4f m = Vec4f::load(t.valid + i);
        for (int c = 0; c < 4; ++c) sum[c] += m * Vec4f::load(t.channel[c] + i);
    }
    const float n = t.validCount > 0 ? float(t.validCount) : 1.0f;
    for (int c = 0; c < 4; ++c) out.mean[c] = glyptora_simd::horizontalSum(sum[c]) / n;
    Vec4f products[10];
    for (int i = 0; i < t.padded; i += 4) {
        const Vec4f m = Vec4f::load(t.valid + i);
        Vec4f d[4];
        for (int c = 0; c < 4; ++c) d[c] = m * (Vec4f::load(t.channel[c] + i) - Vec4f(out.mean[c]));
        for (int r = 0, k = 0; r < 4; ++r)
            for (int c = r; c < 4; ++c, ++k) products[k] += d[r] * d[c];
    }
    for (int r = 0, k = 0; r < 4; ++r)
        for (int c = r; c < 4; ++c, ++k)
            out.covariance[r][c] = out.covariance[c][r] = glyptora_simd::horizontalSum(products[k]) / n;
}

// Principal axis by eight rounds of power iteration, each round dividing the vector by its
// component of largest magnitude; a largest component of exactly 0 ends with a zero axis.
// The iteration starts from the covariance column of the channel with the largest variance.
// The result has unit length (or is zero).
GLYPTORA_HD inline void astcPrincipalAxis(const float cov[4][4], float axis[4]) {
    using glyptora_simd::Vec4f;
    int start = 0;
    for (int c = 1; c < 4; ++c)
        if (cov[c][c] > cov[start][start]) start = c;
    const Vec4f c0 = Vec4f::load(cov[0]), c1 = Vec4f::load(cov[1]), c2 = Vec4f::load(cov[2]), c3 = Vec4f::load(cov[3]);
    Vec4f v = Vec4f::load(cov[start]);  // the matrix is symmetric: row `start` is column `start`
    for (int round = 0; round < 8; ++round) {
        const Vec4f magnitude = glyptora_simd::abs(v);
        float largest = v[0], size = magnitude[0];
        for (int c = 1; c < 4; ++c)
            if (magnitude[c] > size) size = magnitude[c], largest = v[c];
        if (largest == 0.0f) {
            for (int c = 0; c < 4; ++c) axis[c] = 0.0f;
            return;
        }
        const Vec4f scaled = v / Vec4f(largest);
        v = c0 * scaled.splat<0>() + c1 * scaled.splat<1>() + c2 * scaled.splat<2>() + c3 * scaled.splat<3>();
    }
    const float length = std::sqrt(glyptora_simd::dot4(v, v));
    const Vec4f unit = length > 0.0f ? v / Vec4f(length) : Vec4f();
    unit.store(axis);
}

}  // namespace glyptora_astc
