#include "tools/premultiplied_alpha.h"

#include <algorithm>
#include <cmath>

#include "tools/mip_chain.h"

namespace glyptora_tools {

void premultiplyAlpha(Image& image, bool srgb) {
    const size_t count = size_t(image.width) * image.height;
    if (image.isFloat) {
        for (size_t i = 0; i < count; ++i) {
            float* texel = &image.f32[i * 4];
            const float a = std::clamp(texel[3], 0.0f, 1.0f);
            for (int c = 0; c < 3; ++c) texel[c] *= a;
        }
        return;
    }
    for (size_t i = 0; i < count; ++i) {
        uint8_t* texel = &image.u8[i * 4];
        const float a = float(texel[3]) / 255.0f;
        for (int c = 0; c < 3; ++c) {
            const float v = float(texel[c]) / 255.0f;
            const float out = srgb ? linearToSrgb(srgbToLinear(v) * a) : v * a;
            texel[c] = uint8_t(std::lround(out * 255.0f));
        }
    }
}

}  // namespace glyptora_tools
