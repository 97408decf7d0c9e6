#include "tools/normal_maps.h"

#include <cmath>
#include <cstring>

namespace glyptora_tools {

namespace {

// Stored values in 0..1 -> unit vector -> stored values.
void renormalise(float v[3]) {
    float n[3];
    for (int c = 0; c < 3; ++c) n[c] = 2.0f * v[c] - 1.0f;
    const float length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    if (!(length > 1e-6f)) {
        n[0] = n[1] = 0.0f;
        n[2] = 1.0f;
    } else {
        for (float& c : n) c /= length;
    }
    for (int c = 0; c < 3; ++c) v[c] = 0.5f * (n[c] + 1.0f);
}

}  // namespace

void renormaliseNormals(SourceChain& chain) {
    for (uint32_t m = 0; m < chain.levels; ++m) {
        const size_t count = size_t(chain.levelWidth(m)) * chain.levelHeight(m);
        uint8_t* level = chain.bytes.data() + chain.levelOffsets[m];
        for (size_t i = 0; i < count; ++i) {
            float v[3];
            if (chain.isFloat) {
                std::memcpy(v, level + i * 16, sizeof v);
                renormalise(v);
                std::memcpy(level + i * 16, v, sizeof v);
            } else {
                uint8_t* texel = level + i * 4;
                for (int c = 0; c < 3; ++c) v[c] = float(texel[c]) / 255.0f;
                renormalise(v);
                for (int c = 0; c < 3; ++c) texel[c] = uint8_t(std::lround(v[c] * 255.0f));
            }
        }
    }
}

}  // namespace glyptora_tools
