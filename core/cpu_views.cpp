#include "core/cpu_views.h"

#include <cstring>
#include <type_traits>

namespace glyptora_internal {

template <typename T>
template <typename Emit>
void TCPUView<T>::forEachPixel(uint32_t tile, Emit&& emit) const {
    const uint16_t region = validRegion(tile);
    int validWidth = region & 0xFF;
    int validHeight = region >> 8;
    if (validWidth == 0) validWidth = 1;
    if (validHeight == 0) validHeight = 1;
    const T* base = data + size_t(tile) * size_t(tileWidth) * size_t(tileHeight) * 4;
    for (int y = 0; y < tileHeight; ++y) {
        const int sy = y % validHeight;
        for (int x = 0; x < tileWidth; ++x) {
            const int sx = x % validWidth;
            emit(y * tileWidth + x, base + (sy * tileWidth + sx) * 4);
        }
    }
}

namespace {
inline float toFloat(unsigned char v) { return float(v) * 0.003921569f; }
inline float toFloat(signed char v) { return snorm8ToFloat(v); }
inline float toFloat(float v) { return v; }
inline uint8_t toUnorm8(unsigned char v) { return v; }
inline uint8_t toUnorm8(signed char v) { return snorm8ToUnorm8(v); }
inline uint8_t toUnorm8(float v) { return floatToUnorm8(v); }
inline int8_t toSnorm8(unsigned char v) { return unorm8ToSnorm8(v); }
inline int8_t toSnorm8(signed char v) { return v; }
inline int8_t toSnorm8(float v) { return floatToSnorm8(v); }
}  // namespace

template <typename T>
void TCPUView<T>::fetchFloat(uint32_t tile, float* out, bool applyWeights) const {
    forEachPixel(tile, [&](int i, const T* src) {
        for (int c = 0; c < 4; ++c) {
            float v = toFloat(src[c]);
            out[i * 4 + c] = applyWeights ? v * weights[c] : v;
        }
    });
}

template <typename T>
void TCPUView<T>::fetchBGRA8(uint32_t tile, uint8_t* out) const {
    if constexpr (std::is_same_v<T, unsigned char>) {
        // A full tile is one contiguous run of RGBA pixels: swap red and blue in place of
        // the per-pixel walk (same bytes as the general path below).
        const uint16_t region = validRegion(tile);
        if ((region & 0xFF) == tileWidth && (region >> 8) == tileHeight) {
            const size_t count = size_t(tileWidth) * size_t(tileHeight);
            const T* base = data + size_t(tile) * count * 4;
            for (size_t i = 0; i < count; ++i) {
                uint32_t v;
                std::memcpy(&v, base + 4 * i, 4);
                v = (v & 0xFF00FF00u) | ((v >> 16) & 0xFFu) | ((v & 0xFFu) << 16);
                std::memcpy(out + 4 * i, &v, 4);
            }
            return;
        }
    }
    forEachPixel(tile, [&](int i, const T* src) {
        out[i * 4 + 0] = toUnorm8(src[2]);
        out[i * 4 + 1] = toUnorm8(src[1]);
        out[i * 4 + 2] = toUnorm8(src[0]);
        out[i * 4 + 3] = toUnorm8(src[3]);
    });
}

template <typename T>
void TCPUView<T>::fetchSignedBGRA8(uint32_t tile, int8_t* out) const {
    forEachPixel(tile, [&](int i, const T* src) {
        out[i * 4 + 0] = toSnorm8(src[2]);
        out[i * 4 + 1] = toSnorm8(src[1]);
        out[i * 4 + 2] = toSnorm8(src[0]);
        out[i * 4 + 3] = toSnorm8(src[3]);
    });
}

template class TCPUView<unsigned char>;
template class TCPUView<signed char>;
template class TCPUView<float>;

}  // namespace glyptora_internal
