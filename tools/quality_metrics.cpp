#include "tools/quality_metrics.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "core/cpu_views.h"

namespace glyptora_tools {

double ErrorSum::psnr() const {
    const double m = mse();
    if (m <= 0) return std::numeric_limits<double>::infinity();
    return 10.0 * std::log10(255.0 * 255.0 / m);
}

ErrorSum compareRgba8(const uint8_t* reference, const uint8_t* decoded, size_t pixels, unsigned channels,
                      bool isSigned) {
    ErrorSum sum;
    for (size_t i = 0; i < pixels; ++i)
        for (int c = 0; c < 4; ++c) {
            if (!(channels & (1u << c))) continue;
            const int a = isSigned ? int(int8_t(reference[i * 4 + c])) : int(reference[i * 4 + c]);
            const int b = isSigned ? int(int8_t(decoded[i * 4 + c])) : int(decoded[i * 4 + c]);
            sum.squaredError += double((a - b) * (a - b));
            sum.values += 1;
        }
    return sum;
}

std::vector<uint8_t> encoderReference(const SourceChain& chain, uint32_t m, const FormatDesc& format) {
    const size_t count = size_t(chain.levelWidth(m)) * chain.levelHeight(m) * 4;
    std::vector<uint8_t> out(count);
    const uint8_t* level = chain.level(m);
    const bool isSigned = format.isSigned;
    if (chain.isFloat) {
        std::vector<float> f(count);
        std::memcpy(f.data(), level, count * sizeof(float));
        for (size_t i = 0; i < count; ++i)
            out[i] = isSigned ? uint8_t(glyptora_internal::floatToSnorm8(f[i])) : glyptora_internal::floatToUnorm8(f[i]);
    } else {
        for (size_t i = 0; i < count; ++i)
            out[i] = isSigned ? uint8_t(glyptora_internal::unorm8ToSnorm8(level[i])) : level[i];
    }
    return out;
}

namespace {

constexpr float kLargestHalf = 65504.0f;

double logValue(float v) { return v < 0 ? -std::log2(1.0 - double(v)) : std::log2(1.0 + double(v)); }

float asStored(float v, bool isSigned) {
    if (std::isnan(v)) return kLargestHalf;
    return std::max(isSigned ? -kLargestHalf : 0.0f, std::min(kLargestHalf, v));
}

double clampUnit(float v) { return std::max(0.0, std::min(1.0, double(v))); }

}  // namespace

double HdrErrorSum::rmsle() const { return values ? std::sqrt(logSquared / double(values)) : 0.0; }

double HdrErrorSum::clampedPsnr() const {
    if (clampedSquared == 0) return std::numeric_limits<double>::infinity();
    return 10.0 * std::log10(double(values) / clampedSquared);
}

HdrErrorSum compareHdr(const float* reference, const float* decoded, size_t pixels, bool isSigned) {
    HdrErrorSum sum;
    for (size_t i = 0; i < pixels; ++i)
        for (int c = 0; c < 3; ++c) {
            const float r = asStored(reference[i * 4 + c], isSigned), d = decoded[i * 4 + c];
            const double dl = logValue(d) - logValue(r), dc = clampUnit(d) - clampUnit(r);
            sum.logSquared += dl * dl;
            sum.clampedSquared += dc * dc;
        }
    sum.values = uint64_t(pixels) * 3;
    return sum;
}

std::vector<float> floatReference(const SourceChain& chain, uint32_t m) {
    const size_t count = size_t(chain.levelWidth(m)) * chain.levelHeight(m) * 4;
    std::vector<float> out(count);
    const uint8_t* level = chain.level(m);
    if (chain.isFloat) {
        std::memcpy(out.data(), level, count * sizeof(float));
    } else {
        for (size_t i = 0; i < count; ++i) out[i] = float(level[i]) * 0.003921569f;
    }
    return out;
}

unsigned primaryChannels(const FormatDesc& format) {
    switch (format.family) {
        case BlockFamily::BC4: return kChannelsR;
        case BlockFamily::BC5: return kChannelsRG;
        default: return kChannelsRGB;
    }
}

}  // namespace glyptora_tools
