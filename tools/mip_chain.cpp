#include "tools/mip_chain.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace glyptora_tools {

float srgbToLinear(float v) {
    if (v <= 0.04045f) return v / 12.92f;
    return std::pow((v + 0.055f) / 1.055f, 2.4f);
}

float linearToSrgb(float v) {
    if (!(v > 0.0f)) return 0.0f;
    if (v >= 1.0f) return 1.0f;
    if (v <= 0.0031308f) return v * 12.92f;
    return 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
}

uint64_t sourceChainBytes(uint32_t width, uint32_t height, uint32_t levels, bool isFloat) {
    uint64_t pixels = 0;
    for (uint32_t m = 0; m < levels && m < 32; ++m)
        pixels += uint64_t(std::max<uint32_t>(width >> m, 1)) * std::max<uint32_t>(height >> m, 1);
    return pixels * (isFloat ? 16 : 4);
}

namespace {

// Source taps of one destination pixel along one axis.
struct Taps {
    uint32_t first = 0;
    std::vector<float> weights;  // sum to 1
};

// Destination pixel i of `dst` covers [i * src / dst, (i + 1) * src / dst) of the source.
std::vector<Taps> boxTaps(uint32_t src, uint32_t dst) {
    std::vector<Taps> taps(dst);
    const double scale = double(src) / double(dst);
    for (uint32_t i = 0; i < dst; ++i) {
        const double lo = i * scale, hi = (i + 1) * scale;
        uint32_t first = uint32_t(std::floor(lo));
        uint32_t end = std::min<uint32_t>(uint32_t(std::ceil(hi)), src);
        taps[i].first = first;
        for (uint32_t j = first; j < end; ++j) {
            const double cover = std::min(hi, double(j + 1)) - std::max(lo, double(j));
            taps[i].weights.push_back(float(cover / scale));
        }
    }
    return taps;
}

// Area-average of an RGBA float image to (dw, dh): rows first, then columns.
std::vector<float> downsample(const std::vector<float>& src, uint32_t sw, uint32_t sh, uint32_t dw, uint32_t dh) {
    const std::vector<Taps> tx = boxTaps(sw, dw), ty = boxTaps(sh, dh);
    std::vector<float> rows(size_t(dw) * sh * 4, 0.0f);
    for (uint32_t y = 0; y < sh; ++y)
        for (uint32_t x = 0; x < dw; ++x) {
            float* out = &rows[(size_t(y) * dw + x) * 4];
            const Taps& t = tx[x];
            for (size_t k = 0; k < t.weights.size(); ++k) {
                const float* in = &src[(size_t(y) * sw + t.first + k) * 4];
                for (int c = 0; c < 4; ++c) out[c] += t.weights[k] * in[c];
            }
        }
    std::vector<float> dst(size_t(dw) * dh * 4, 0.0f);
    for (uint32_t y = 0; y < dh; ++y) {
        const Taps& t = ty[y];
        for (size_t k = 0; k < t.weights.size(); ++k) {
            const float* in = &rows[size_t(t.first + k) * dw * 4];
            float* out = &dst[size_t(y) * dw * 4];
            for (size_t i = 0; i < size_t(dw) * 4; ++i) out[i] += t.weights[k] * in[i];
        }
    }
    return dst;
}

uint8_t toByte(float v) {
    const float c = v > 0.0f ? (v < 255.0f ? v : 255.0f) : 0.0f;
    return uint8_t(int(c + 0.5f));
}

}  // namespace

SourceChain buildSourceChain(const Image& image, uint32_t levels, bool srgb) {
    SourceChain chain;
    chain.isFloat = image.isFloat;
    chain.width = image.width;
    chain.height = image.height;
    chain.levels = levels;
    chain.bytes.resize(size_t(sourceChainBytes(image.width, image.height, levels, image.isFloat)));
    const uint64_t bytesPerPixel = image.isFloat ? 16 : 4;

    // Working copy of the current level: linear light for sRGB destinations, else the stored values
    // (0..255 for 8-bit images).
    const size_t count0 = size_t(image.width) * image.height;
    std::vector<float> work(count0 * 4);
    std::vector<float> byteToLinear(256);
    for (int i = 0; i < 256; ++i) byteToLinear[size_t(i)] = srgbToLinear(float(i) / 255.0f);
    for (size_t i = 0; i < count0 * 4; ++i) {
        const bool colour = (i & 3) != 3;
        if (image.isFloat) work[i] = image.f32[i];
        else if (srgb && colour) work[i] = byteToLinear[image.u8[i]];
        else work[i] = float(image.u8[i]) * (srgb ? 1.0f / 255.0f : 1.0f);
    }

    uint64_t offset = 0;
    uint32_t w = image.width, h = image.height;
    for (uint32_t m = 0; m < levels; ++m) {
        chain.levelOffsets.push_back(offset);
        uint8_t* out = chain.bytes.data() + offset;
        const size_t count = size_t(w) * h;
        if (m == 0 && !image.isFloat) {
            std::memcpy(out, image.u8.data(), count * 4);  // level 0 exactly as loaded
        } else if (image.isFloat) {
            std::vector<float> f(count * 4);
            for (size_t i = 0; i < count * 4; ++i)
                f[i] = (srgb && (i & 3) != 3) ? linearToSrgb(work[i]) : work[i];
            std::memcpy(out, f.data(), f.size() * sizeof(float));
        } else {
            for (size_t i = 0; i < count * 4; ++i) {
                const bool colour = (i & 3) != 3;
                out[i] = srgb ? toByte((colour ? linearToSrgb(work[i]) : work[i]) * 255.0f) : toByte(work[i]);
            }
        }
        offset += count * bytesPerPixel;
        if (m + 1 < levels) {
            const uint32_t nw = std::max<uint32_t>(w >> 1, 1), nh = std::max<uint32_t>(h >> 1, 1);
            work = downsample(work, w, h, nw, nh);
            w = nw;
            h = nh;
        }
    }
    return chain;
}

}  // namespace glyptora_tools
