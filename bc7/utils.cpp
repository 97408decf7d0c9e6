#include "bc7/utils.h"

#include <cmath>

#include "core/vec4.h"

namespace BC7Modes {

std::atomic<bool> flag_luma_weights{false};
std::atomic<bool> flag_alt_luma_weights{false};
std::atomic<bool> flag_premult{false};

// Weights of index i: denom 15 and 7 read their own tables, denom 3 the
// 4-bit table at 5i. Out-of-range arguments (already reported) are clamped.
void Utils::weights_for(int i, int denom, int& wa, int& wb) {
    if (denom != 3 && denom != 7 && denom != 15) denom = 15;
    if (i < 0) i = 0;
    if (i > denom) i = denom;
    if (denom == 15) {
        wb = kWeights4[i];
        wa = kWeights4[15 - i];
    } else if (denom == 7) {
        wb = kWeights3[i];
        wa = kWeights3[7 - i];
    } else {
        wb = kWeights4[i * 5];
        wa = kWeights4[15 - i * 5];
    }
}

int Utils::lerp(int a, int b, int i, int bias, int denom) {
    // The assertion texts are fixed: keep the spelling of the expressions.
    // clang-format off
    GLYPTORA_ASSERT(denom == 3 || denom == 7 || denom == 15);
    GLYPTORA_ASSERT(i >= 0 && i <= denom);
    GLYPTORA_ASSERT(bias >= 0 && bias <= denom/2);
    GLYPTORA_ASSERT(a >= 0 && b >= 0);
    // clang-format on
    int wa, wb;
    weights_for(i, denom, wa, wb);
    return (wa * a + wb * b + 32) >> 6;
}

void Utils::lerp(float out[4], const float a[4], const float b[4], int i, int denom) {
    GLYPTORA_ASSERT(denom == 3 || denom == 7 || denom == 15);
    GLYPTORA_ASSERT(i >= 0 && i <= denom);
    int wa, wb;
    weights_for(i, denom, wa, wb);
    for (int c = 0; c < 4; ++c) out[c] = (float(wa) * a[c] + float(wb) * b[c]) * 0.015625f;
}

void Utils::lerp_palette(float palette[][4], const float a[4], const float b[4], int denom) {
    GLYPTORA_ASSERT(denom == 3 || denom == 7 || denom == 15);
    using glyptora_simd::Vec4f;
    const Vec4f va = Vec4f::load(a), vb = Vec4f::load(b);
    for (int i = 0; i <= denom; ++i) {
        int wa, wb;
        weights_for(i, denom, wa, wb);
        ((Vec4f(float(wa)) * va + Vec4f(float(wb)) * vb) * Vec4f(0.015625f)).store(palette[i]);
    }
}

int Utils::quantize(float unq, int prec) {
    GLYPTORA_ASSERT(prec > 3);
    float rounded = std::floor(unq + 0.5f);
    if (!(rounded > -8388608.0f)) rounded = -8388608.0f;  // keeps the conversion defined (NaN too)
    if (rounded > 8388608.0f) rounded = 8388608.0f;
    const int u = int(rounded);
    GLYPTORA_ASSERT(unq <= 255);
    const int q = (((1 << prec) - 1) * u + 127) / 255;
    GLYPTORA_ASSERT(q >= 0 && q < (1 << prec));
    return q;
}

int Utils::unquantize(int q, int prec) {
    GLYPTORA_ASSERT(prec > 3);
    if (prec < 4 || prec > 8) {
        // Refused precisions: replicate bit by bit instead of shifting by a negative amount.
        if (prec <= 0) return 0;
        if (prec > 8) return q >> (prec - 8);
        int v = 0;
        for (int shift = 8 - prec; shift > -prec; shift -= prec) v |= shift >= 0 ? q << shift : q >> -shift;
        return v & 255;
    }
    return (q << (8 - prec)) | (q >> (2 * prec - 8));
}

void Utils::premult(float pixel[4]) {
    const float r = pixel[0], g = pixel[1], b = pixel[2], a = pixel[3];
    const int R = int(r), G = int(g), B = int(b), A = int(a);
    // clang-format off
    GLYPTORA_ASSERT((R==r) && (A==a));
    GLYPTORA_ASSERT((G==g) && (A==a));
    GLYPTORA_ASSERT((B==b) && (A==a));
    // clang-format on
    pixel[0] = float((R * A + 127) / 255);
    pixel[1] = float((G * A + 127) / 255);
    pixel[2] = float((B * A + 127) / 255);
}

void Utils::premult(const float in[4], float out[4]) {
    for (int c = 0; c < 4; ++c) out[c] = in[c];
    premult(out);
}

void Utils::premult(float* pixels, int count) {
    for (int i = 0; i < count; ++i) premult(pixels + 4 * i);
}

void Utils::premult_if_enabled(float pixel[4]) {
    if (flag_premult) premult(pixel);
}

float Utils::pixel_error(const float a[4], const float b[4]) {
    const float dr = a[0] - b[0];
    const float dg = a[1] - b[1];
    const float db = a[2] - b[2];
    const float da = a[3] - b[3];
    if (!flag_luma_weights && !flag_alt_luma_weights) return dr * dr + dg * dg + db * db + da * da;
    float wr, wg, wb;
    if (flag_luma_weights) {
        wr = 0.299f;
        wg = 0.587f;
        wb = 0.114f;
    } else {
        wr = 0.3086f;
        wg = 0.6094f;
        wb = 0.082f;
    }
    const float er = wr * dr, eg = wg * dg, eb = wb * db;
    return er * er + eg * eg + eb * eb + da * da;
}

void Utils::clear_error_flags() {
    flag_luma_weights.store(false, std::memory_order_relaxed);
    flag_alt_luma_weights.store(false, std::memory_order_relaxed);
    flag_premult.store(false, std::memory_order_relaxed);
}

}  // namespace BC7Modes
