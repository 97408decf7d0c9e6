#pragma once
// Which channel, if any, gets its own weight plane: the channel whose separation from the
// others leaves the least that one line through the colours cannot hold.
#include "astc/colour_statistics.h"
#include "core/host_device.h"

namespace glyptora_astc {

// Gain (weighted space, per texel) at which a channel scores one half.
inline constexpr float kAstcDualPlaneFloor = 2.0e-5f;

// What one line through the colours leaves unexplained: the trace of the covariance less its
// largest eigenvalue (along the axis of astcPrincipalAxis).
GLYPTORA_HD inline float astcLineResidual(const float cov[4][4]) {
    float axis[4];
    astcPrincipalAxis(cov, axis);
    float lambda = 0.0f, trace = 0.0f;
    for (int r = 0; r < 4; ++r) {
        trace += cov[r][r];
        for (int c = 0; c < 4; ++c) lambda += axis[r] * cov[r][c] * axis[c];
    }
    const float residual = trace - lambda;
    return residual > 0.0f ? residual : 0.0f;
}

// Score of each channel: the gain g of giving it its own plane, the residual of one line
// through all channels less that of a line through the others, as g / (g + floor). A channel
// that the block's principal axis follows closely gains nothing and scores near 0; one that it
// follows poorly scores above one half, up to near 1.
GLYPTORA_HD inline void astcDualPlaneScores(const float cov[4][4], float score[4]) {
    const float whole = astcLineResidual(cov);
    for (int c = 0; c < 4; ++c) {
        // The gain is at most the channel's own variance: a channel that flat cannot score
        // above one half, and its line need not be found.
        if (cov[c][c] <= kAstcDualPlaneFloor) {
            score[c] = 0.0f;
            continue;
        }
        float rest[4][4];
        for (int r = 0; r < 4; ++r)
            for (int k = 0; k < 4; ++k) rest[r][k] = r == c || k == c ? 0.0f : cov[r][k];
        float gain = whole - astcLineResidual(rest);
        gain = gain > 0.0f ? gain : 0.0f;
        score[c] = gain / (gain + kAstcDualPlaneFloor);
    }
}

// The block's dual-plane choice: the channel (0..3, alpha only for a block with alpha) with
// the highest score above 0.5, the first of equal scores; -1 for no dual-plane try.
GLYPTORA_HD inline int astcDualPlaneChoice(const AstcColourStatistics& stats, bool hasAlpha) {
    float score[4];
    astcDualPlaneScores(stats.covariance, score);
    int choice = -1;
    float best = 0.5f;
    for (int c = 0; c < (hasAlpha ? 4 : 3); ++c)
        if (score[c] > best) best = score[c], choice = c;
    return choice;
}

}  // namespace glyptora_astc
