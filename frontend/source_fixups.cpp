#include "frontend/source_fixups.h"

namespace glyptora_internal {

// BC1 keeps one bit of alpha: 8-bit alpha below 128 becomes 0, else 255; float alpha of at least 0.5 becomes 1.
void forceOneBitAlpha(uint8_t* pixels, uint64_t count, glyptora::ValueType valueType) {
    if (valueType == glyptora::kValueF32) {
        float* p = reinterpret_cast<float*>(pixels);
        for (uint64_t i = 0; i < count; ++i) p[i * 4 + 3] = p[i * 4 + 3] >= 0.5f ? 1.0f : 0.0f;
    } else {
        for (uint64_t i = 0; i < count; ++i) pixels[i * 4 + 3] = pixels[i * 4 + 3] < 128 ? 0 : 255;
    }
}

// Luminance-alpha sources: (c0, c1, c2, c3) becomes (c0, c0, c0, c1).
void expandLuminanceAlpha(uint8_t* pixels, uint64_t count, glyptora::ValueType valueType) {
    if (valueType == glyptora::kValueF32) {
        float* p = reinterpret_cast<float*>(pixels);
        for (uint64_t i = 0; i < count; ++i, p += 4) {
            const float l = p[0], a = p[1];
            p[1] = p[2] = l;
            p[3] = a;
        }
    } else {
        for (uint64_t i = 0; i < count; ++i, pixels += 4) {
            const uint8_t l = pixels[0], a = pixels[1];
            pixels[1] = pixels[2] = l;
            pixels[3] = a;
        }
    }
}

// Any alpha byte below 255 (8-bit sources), or any float alpha that is not exactly 1.0.
bool levelHasAlpha(const uint8_t* pixels, uint64_t count, glyptora::ValueType valueType) {
    if (valueType == glyptora::kValueF32) {
        const float* p = reinterpret_cast<const float*>(pixels);
        for (uint64_t i = 0; i < count; ++i)
            if (!(p[i * 4 + 3] == 1.0f)) return true;
        return false;
    }
    for (uint64_t i = 0; i < count; ++i)
        if (pixels[i * 4 + 3] < 255) return true;
    return false;
}

}  // namespace glyptora_internal
