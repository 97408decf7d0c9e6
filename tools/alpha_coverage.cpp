#include "tools/alpha_coverage.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace glyptora_tools {

namespace {

// Scales beyond this bring every texel with any alpha above the reference.
constexpr float kMaxScale = 256.0f;

float alphaAt(const SourceChain& chain, const uint8_t* level, size_t i) {
    if (!chain.isFloat) return float(level[i * 4 + 3]) / 255.0f;
    float a;
    std::memcpy(&a, level + i * 16 + 12, sizeof a);
    return a;
}

// Alpha `a` scaled by `scale` as it will be stored.
float scaledAlpha(const SourceChain& chain, float a, float scale) {
    const float v = std::clamp(a * scale, 0.0f, 1.0f);
    return chain.isFloat ? v : std::round(v * 255.0f) / 255.0f;
}

double coverageScaled(const SourceChain& chain, uint32_t m, float reference, float scale) {
    const size_t count = size_t(chain.levelWidth(m)) * chain.levelHeight(m);
    const uint8_t* level = chain.level(m);
    size_t above = 0;
    for (size_t i = 0; i < count; ++i) above += scaledAlpha(chain, alphaAt(chain, level, i), scale) > reference;
    return double(above) / double(count);
}

void scaleLevel(SourceChain& chain, uint32_t m, float scale, bool premultiplied) {
    const size_t count = size_t(chain.levelWidth(m)) * chain.levelHeight(m);
    uint8_t* level = chain.bytes.data() + chain.levelOffsets[m];
    for (size_t i = 0; i < count; ++i) {
        const float a = alphaAt(chain, level, i), scaled = scaledAlpha(chain, a, scale);
        const float colourScale = premultiplied && a > 0.0f ? scaled / a : 1.0f;
        if (chain.isFloat) {
            float texel[4];
            std::memcpy(texel, level + i * 16, sizeof texel);
            for (int c = 0; c < 3; ++c) texel[c] *= colourScale;
            texel[3] = scaled;
            std::memcpy(level + i * 16, texel, sizeof texel);
        } else {
            uint8_t* texel = level + i * 4;
            for (int c = 0; c < 3; ++c) texel[c] = uint8_t(std::min(255.0f, std::round(texel[c] * colourScale)));
            texel[3] = uint8_t(std::lround(scaled * 255.0f));
        }
    }
}

}  // namespace

double alphaCoverage(const SourceChain& chain, uint32_t m, float reference) {
    return coverageScaled(chain, m, reference, 1.0f);
}

void preserveAlphaCoverage(SourceChain& chain, float reference, bool premultiplied) {
    const double target = alphaCoverage(chain, 0, reference);
    for (uint32_t m = 1; m < chain.levels; ++m) {
        // Coverage grows with the scale: bisect for the smallest scale that reaches the
        // target, then keep whichever of the two bounds comes closer.
        float lo = 0.0f, hi = kMaxScale;
        if (coverageScaled(chain, m, reference, hi) >= target)
            for (int i = 0; i < 24; ++i) {
                const float mid = 0.5f * (lo + hi);
                if (coverageScaled(chain, m, reference, mid) >= target) hi = mid;
                else lo = mid;
            }
        const double below = std::abs(coverageScaled(chain, m, reference, lo) - target);
        const double above = std::abs(coverageScaled(chain, m, reference, hi) - target);
        scaleLevel(chain, m, below < above ? lo : hi, premultiplied);
    }
}

}  // namespace glyptora_tools
