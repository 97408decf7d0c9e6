#include "tools/quality_metrics.h"

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

unsigned primaryChannels(const FormatDesc& format) {
    switch (format.family) {
        case BlockFamily::BC4: return kChannelsR;
        case BlockFamily::BC5: return kChannelsRG;
        default: return kChannelsRGB;
    }
}

}  // namespace glyptora_tools
