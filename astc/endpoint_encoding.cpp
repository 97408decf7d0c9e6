#include "astc/endpoint_encoding.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "astc/colour_quantization.h"
#include "astc/endpoint_decoding.h"
#include "astc/integer_sequence.h"
#include "astc/quantization_tables.h"

namespace glyptora_astc {

namespace {

int toByte(float v) {
    return v > 0.0f ? (v < 255.0f ? int(v + 0.5f) : 255) : 0;  // NaN fails v > 0
}

float luminance(const float v[4], const float w[4]) {
    const float w0 = w[0] * w[0], w1 = w[1] * w[1], w2 = w[2] * w[2];
    return (w0 * v[0] + w1 * v[1] + w2 * v[2]) / (w0 + w1 + w2);
}

float sum3(const float v[4]) { return v[0] + v[1] + v[2]; }

// Floor and ceiling without the library calls, for values well inside the int range.
int floorInt(float t) { return int(t) - (t < float(int(t)) ? 1 : 0); }
int ceilInt(float t) { return int(t) + (t > float(int(t)) ? 1 : 0); }
// Floor and ceiling clamped to 0..255 (NaN to 0).
int floorByte(float t) { return t > 0.0f ? (t < 255.0f ? int(t) : 255) : 0; }
int ceilByte(float t) { return t > 0.0f ? (t < 255.0f ? ceilInt(t) : 255) : 0; }

// The stored values of the levels at or below and at or above `target` (0..255).
void levelsAround(int range, float target, uint8_t out[2]) {
    out[0] = astcColourLevelBelow(range, floorByte(target));
    out[1] = astcColourLevelAbove(range, ceilByte(target));
}

// Value `target` (0..255) of a base-plus-offset pair whose decoder drops bit 0: the stored
// value that keeps bits 7..1, trying both settings of bit 0.
uint8_t quantizeDroppingLowBit(int range, int target) {
    const uint8_t even = astcQuantizeColour(range, target & 0xFE), odd = astcQuantizeColour(range, target | 1);
    if ((astcColourUnquant(range, even) >> 1) == (target >> 1)) return even;
    if ((astcColourUnquant(range, odd) >> 1) == (target >> 1)) return odd;
    return astcQuantizeColour(range, target);
}

// Base value and signed offset (-32..31) as the two stored values of a bit-transfer pair.
void encodeBaseOffset(int range, int base, int offset, uint8_t& first, uint8_t& second) {
    offset = offset < -32 ? -32 : (offset > 31 ? 31 : offset);
    first = quantizeDroppingLowBit(range, (base & 0x7F) << 1);
    second = quantizeDroppingLowBit(range, (base & 0x80) | ((offset & 0x3F) << 1));
}

// The pair of levels around targets t0, t1 (one around each) that the quadratic a d0^2 +
// 2 b d0 d1 + c d1^2 of the differences rates best; the first of equal ones.
void bestLevelPair(int range, float t0, float t1, float a, float b, float c, uint8_t& v0, uint8_t& v1) {
    uint8_t first[2], second[2];
    levelsAround(range, t0, first);
    levelsAround(range, t1, second);
    float best = 3.4e38f;
    for (int i = 0; i < 2; ++i) {
        const float d0 = float(astcColourUnquant(range, first[i])) - t0;
        for (int j = 0; j < 2; ++j) {
            const float d1 = float(astcColourUnquant(range, second[j])) - t1;
            const float e = a * d0 * d0 + 2.0f * b * d0 * d1 + c * d1 * d1;
            if (e < best) best = e, v0 = first[i], v1 = second[j];
        }
    }
}

// From this colour range (128 levels) up, every base and offset a pair can decode to is the
// nearest one: the error model has nothing to choose.
constexpr int kExactOffsetRange = 17;

// The signed offsets (-32..31) a base-plus-offset pair of one colour range can store under
// each top bit of the base: per offset, the stored second value of the nearest offset at or
// below it and at or above it (kNoLevel when there is none).
constexpr uint8_t kNoLevel = 0xFF;
struct OffsetLevels {
    uint8_t below[2][64], above[2][64];
};

const OffsetLevels& offsetLevels(int range) {
    static const std::array<OffsetLevels, kAstcRangeCount> tables = [] {
        std::array<OffsetLevels, kAstcRangeCount> t;
        for (int r = 0; r < kAstcRangeCount; ++r) {
            int offsetOf[2][64];  // per top bit and offset + 32: the stored value, -1 when none
            for (auto& top : offsetOf)
                for (int& o : top) o = -1;
            for (int v = 0; v < astcRangeLevels(r); ++v) {
                const int u = astcColourUnquant(r, v), bits = (u >> 1) & 0x3F;
                offsetOf[u >> 7][(bits & 0x20 ? bits - 0x40 : bits) + 32] = v;
            }
            for (int top = 0; top < 2; ++top) {
                int below = kNoLevel, above = kNoLevel;
                for (int o = 0; o < 64; ++o) {
                    if (offsetOf[top][o] >= 0) below = offsetOf[top][o];
                    if (offsetOf[top][63 - o] >= 0) above = offsetOf[top][63 - o];
                    t[r].below[top][o] = uint8_t(below);
                    t[r].above[top][63 - o] = uint8_t(above);
                }
            }
        }
        return t;
    }();
    return tables[range];
}

// Base-plus-offset values chosen per channel among the decodable bases around the darker
// fitted endpoint and the offsets around the rest, by the error model (`a` for the base, `c`
// for the other endpoint). False when the chosen offsets would sum below zero, which the
// decoder reads as the blue-contracted form.
bool encodeBaseOffsetModelled(int range, int channels, const float base[4], const float other[4], const float a[4],
                              const float b[4], const float c[4], uint8_t* v) {
    const OffsetLevels& offsets = offsetLevels(range);
    int offsetSum = 0;
    for (int ch = 0; ch < channels; ++ch) {
        if (!(base[ch] >= 0.0f && base[ch] <= 255.0f && other[ch] >= 0.0f && other[ch] <= 255.0f)) return false;
        float best = 3.4e38f;
        int bestOffset = 0;
        // For a base that misses its target by d0 the model's best other endpoint misses by
        // -b d0 / c: of the offsets around that, the nearer one is the better.
        const float follow = c[ch] > 0.0f ? b[ch] / c[ch] : 0.0f;
        // The base keeps bits 7..1 of the first value under the top bit of the second; a top
        // bit far from the target's cannot win.
        for (int top = base[ch] < 132.0f ? 0 : 1; top < (base[ch] < 124.0f ? 1 : 2); ++top) {
            const float x = std::clamp(base[ch] - float(top << 7), 0.0f, 127.0f);
            const uint8_t firsts[2] = {astcColourLevelBelow(range, 2 * int(x) + 1),
                                       astcColourLevelAbove(range, 2 * ceilInt(x))};
            for (int i = 0; i < 2; ++i) {
                const int e0 = (astcColourUnquant(range, firsts[i]) >> 1) | (top << 7);
                const float d0 = float(e0) - base[ch];
                const float target = std::clamp(other[ch] - follow * d0 - float(e0), -32.0f, 31.0f);
                const uint8_t below = offsets.below[top][floorInt(target) + 32];
                const uint8_t above = offsets.above[top][ceilInt(target) + 32];
                const auto offsetOf = [&](uint8_t level) {
                    const int bits = (astcColourUnquant(range, level) >> 1) & 0x3F;
                    return bits & 0x20 ? bits - 0x40 : bits;
                };
                const int lower = below != kNoLevel ? offsetOf(below) : -64;
                const int upper = above != kNoLevel ? offsetOf(above) : 64;
                const bool up = float(upper) - target < target - float(lower);
                const int offset = up ? upper : lower;
                const float d1 = float(std::clamp(e0 + offset, 0, 255)) - other[ch];
                const float e = a[ch] * d0 * d0 + 2.0f * b[ch] * d0 * d1 + c[ch] * d1 * d1;
                if (e < best) best = e, v[2 * ch] = firsts[i], v[2 * ch + 1] = up ? above : below, bestOffset = offset;
            }
        }
        if (ch < 3) offsetSum += bestOffset;
    }
    return offsetSum >= 0;
}

// Base-plus-scale values (the base the brighter endpoint, the darker one the base scaled by
// s / 256) chosen by the error model (`a` for the darker endpoint, `c` for the base): each
// base channel takes the level around its fitted value that the model rates best with the
// darker endpoint at the fitted scale, then the scale takes the better of the two levels
// around the best scale for those bases.
void encodeBaseScaleModelled(int range, const float dark[4], const float bright[4], const float a[4],
                             const float b[4], const float c[4], uint8_t* v) {
    float num = 0.0f, den = 0.0f;
    for (int ch = 0; ch < 3; ++ch) num += a[ch] * bright[ch] * dark[ch], den += a[ch] * bright[ch] * bright[ch];
    const float fitted = den > 0.0f ? num / den : 1.0f;  // scale as a fraction
    int base[3];
    float db[3];
    num = den = 0.0f;
    for (int ch = 0; ch < 3; ++ch) {
        uint8_t levels[2];
        levelsAround(range, bright[ch], levels);
        float best = 3.4e38f;
        for (int k = 0; k < 2; ++k) {
            const float level = float(astcColourUnquant(range, levels[k]));
            const float d1 = level - bright[ch], d0 = level * fitted - dark[ch];
            const float e = a[ch] * d0 * d0 + 2.0f * b[ch] * d0 * d1 + c[ch] * d1 * d1;
            if (e < best) best = e, v[ch] = levels[k], base[ch] = int(level), db[ch] = d1;
        }
        // Least squares of the darker endpoint with the base's deviation carried over.
        const float target = dark[ch] - (a[ch] > 0.0f ? b[ch] * db[ch] / a[ch] : 0.0f);
        num += a[ch] * float(base[ch]) * target;
        den += a[ch] * float(base[ch]) * float(base[ch]);
    }
    const float scale = den > 0.0f ? 256.0f * num / den : 255.0f;
    uint8_t scales[2];
    levelsAround(range, scale, scales);
    float best = 3.4e38f;
    for (int k = 0; k < 2; ++k) {
        const int s = astcColourUnquant(range, scales[k]);
        float e = 0.0f;
        for (int ch = 0; ch < 3; ++ch) {
            const float dd = float((base[ch] * s) >> 8) - dark[ch];
            e += a[ch] * dd * dd + 2.0f * b[ch] * dd * db[ch] + c[ch] * db[ch] * db[ch];
        }
        if (e < best) best = e, v[3] = scales[k];
    }
}

}  // namespace

void astcEncodeEndpoints(int cem, int range, const float lo[4], const float hi[4], const float weights[4],
                         AstcEncodedEndpoints& out, const AstcEndpointErrorModel* model) {
    uint8_t* v = out.values;
    const auto q = [range](float x) { return astcQuantizeColour(range, toByte(x)); };
    const auto u = [range](uint8_t x) { return uint8_t(astcColourUnquant(range, x)); };
    out.invert = false;
    switch (cem) {
        case 0:
        case 4: {
            const float l0 = luminance(lo, weights), l1 = luminance(hi, weights);
            if (model) {
                // The grey pair: the colour channels' quadratics weighted by their weights.
                float a = 0, b = 0, c = 0;
                for (int k = 0; k < 3; ++k) {
                    const float w2 = weights[k] * weights[k];
                    a += model->a[k] * w2, b += model->b[k] * w2, c += model->c[k] * w2;
                }
                bestLevelPair(range, l0, l1, a, b, c, v[0], v[1]);
                if (cem == 4) bestLevelPair(range, lo[3], hi[3], model->a[3], model->b[3], model->c[3], v[2], v[3]);
            } else {
                v[0] = q(l0);
                v[1] = q(l1);
                v[2] = q(lo[3]);
                v[3] = q(hi[3]);
            }
            const uint8_t u0 = u(v[0]), u1 = u(v[1]);
            const uint8_t a0 = cem == 4 ? u(v[2]) : 255, a1 = cem == 4 ? u(v[3]) : 255;
            for (int c = 0; c < 3; ++c) out.lo[c] = u0, out.hi[c] = u1;
            out.lo[3] = a0, out.hi[3] = a1;
            return;
        }
        case 8:
        case 12: {
            // Stored direct only when the second endpoint's sum is not below the first's.
            // RGB direct stores no alpha: its levels are not chosen.
            uint8_t a[4] = {}, b[4] = {};
            for (int c = 0; c < (cem == 12 ? 4 : 3); ++c) {
                if (model)
                    bestLevelPair(range, lo[c], hi[c], model->a[c], model->b[c], model->c[c], a[c], b[c]);
                else
                    a[c] = q(lo[c]), b[c] = q(hi[c]);
            }
            uint8_t ua[4], ub[4];
            for (int c = 0; c < 4; ++c) ua[c] = u(a[c]), ub[c] = u(b[c]);
            if (cem == 8) ua[3] = ub[3] = 255;
            out.invert = ua[0] + ua[1] + ua[2] > ub[0] + ub[1] + ub[2];
            const uint8_t* first = out.invert ? b : a;
            const uint8_t* second = out.invert ? a : b;
            for (int c = 0; c < 4; ++c) {
                v[2 * c] = first[c], v[2 * c + 1] = second[c];
                out.lo[c] = ua[c], out.hi[c] = ub[c];
            }
            return;
        }
        case 6:
        case 10: {
            // The base is the brighter endpoint; the other is the base scaled by s / 256.
            out.invert = sum3(lo) > sum3(hi);
            const float* bright = out.invert ? lo : hi;
            const float* dark = out.invert ? hi : lo;
            if (model) {
                const float* ma = out.invert ? model->c : model->a;
                const float* mc = out.invert ? model->a : model->c;
                encodeBaseScaleModelled(range, dark, bright, ma, model->b, mc, v);
                if (cem == 10) bestLevelPair(range, dark[3], bright[3], ma[3], model->b[3], mc[3], v[4], v[5]);
                break;
            }
            for (int c = 0; c < 3; ++c) v[c] = q(bright[c]);
            float dot = 0.0f, norm = 0.0f;
            for (int c = 0; c < 3; ++c) {
                const float b = float(u(v[c]));
                dot += dark[c] * b * weights[c] * weights[c];
                norm += b * b * weights[c] * weights[c];
            }
            v[3] = q(norm > 0.0f ? 256.0f * dot / norm : 255.0f);
            v[4] = q(dark[3]);
            v[5] = q(bright[3]);
            break;
        }
        case 9:
        case 13: {
            // Base and offset, oriented so that the offsets' sum is not negative.
            int a[4], b[4];
            for (int c = 0; c < 4; ++c) a[c] = toByte(lo[c]), b[c] = toByte(hi[c]);
            out.invert = a[0] + a[1] + a[2] > b[0] + b[1] + b[2];
            const int* base = out.invert ? b : a;
            const int* other = out.invert ? a : b;
            if (model && range < kExactOffsetRange) {
                // The error model rates the endpoints as fitted: the base is `hi` when inverted.
                const float* fb = out.invert ? hi : lo;
                const float* fo = out.invert ? lo : hi;
                const float* ma = out.invert ? model->c : model->a;
                const float* mc = out.invert ? model->a : model->c;
                if (encodeBaseOffsetModelled(range, cem == 13 ? 4 : 3, fb, fo, ma, model->b, mc, v)) break;
            }
            for (int c = 0; c < 4; ++c) encodeBaseOffset(range, base[c], other[c] - base[c], v[2 * c], v[2 * c + 1]);
            break;
        }
        default: break;
    }
    // The modes whose values combine: decode what was stored.
    uint8_t unquantised[8];
    const int count = astcEndpointValueCount(cem);
    for (int i = 0; i < count; ++i) unquantised[i] = u(v[i]);
    uint8_t e0[4], e1[4];
    decodeAstcEndpoints(cem, unquantised, e0, e1);
    for (int c = 0; c < 4; ++c) {
        out.lo[c] = out.invert ? e1[c] : e0[c];
        out.hi[c] = out.invert ? e0[c] : e1[c];
    }
}

bool astcEncodeEndpointsBlueContracted(int cem, int range, const float lo[4], const float hi[4],
                                       AstcEncodedEndpoints& out) {
    // Expanded endpoints (2r - b, 2g - b, b) must lie in 0..255.
    float expanded[2][3];
    const float* endpoints[2] = {lo, hi};
    for (int e = 0; e < 2; ++e) {
        const float* p = endpoints[e];
        expanded[e][0] = 2.0f * p[0] - p[2];
        expanded[e][1] = 2.0f * p[1] - p[2];
        expanded[e][2] = p[2];
        for (int c = 0; c < 2; ++c)
            if (expanded[e][c] < -0.5f || expanded[e][c] > 255.5f) return false;
    }
    uint8_t q[2][4];
    int sums[2] = {0, 0};
    for (int e = 0; e < 2; ++e) {
        for (int c = 0; c < 3; ++c) {
            q[e][c] = astcQuantizeColour(range, toByte(expanded[e][c]));
            sums[e] += astcColourUnquant(range, q[e][c]);
        }
        q[e][3] = astcQuantizeColour(range, toByte(endpoints[e][3]));
    }
    // The decoder contracts when the second stored endpoint sums below the first, and then
    // returns the second as its first endpoint: store the fitted first endpoint second, or
    // swap (and mirror the weights) when its sum is the larger.
    if (sums[0] == sums[1]) return false;
    out.invert = sums[0] > sums[1];
    const uint8_t* first = out.invert ? q[0] : q[1];
    const uint8_t* second = out.invert ? q[1] : q[0];
    for (int c = 0; c < 4; ++c) out.values[2 * c] = first[c], out.values[2 * c + 1] = second[c];
    uint8_t unquantised[8], e0[4], e1[4];
    for (int i = 0; i < 8; ++i) unquantised[i] = astcColourUnquant(range, out.values[i]);
    decodeAstcEndpoints(cem, unquantised, e0, e1);
    for (int c = 0; c < 4; ++c) {
        out.lo[c] = out.invert ? e1[c] : e0[c];
        out.hi[c] = out.invert ? e0[c] : e1[c];
    }
    return true;
}

}  // namespace glyptora_astc
