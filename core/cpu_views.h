#pragma once
#include <cstddef>
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_internal {

// Valid part of a tile; read as one 16-bit value: width in the low byte, height in the high byte.
struct TileValidRegion {
    uint8_t width;
    uint8_t height;
};
static_assert(sizeof(TileValidRegion) == 2);

// What every encoder sees of the tile buffer: weights, tile geometry and three fetch operations.
class CPUViewBase {
public:
    virtual ~CPUViewBase() = default;
    // Tile t as float RGBA (tileWidth*tileHeight*4 floats); 8-bit values scale by 1/255.
    virtual void fetchFloat(uint32_t tile, float* out, bool applyWeights) const = 0;
    // Tile t as unsigned bytes in B, G, R, A order.
    virtual void fetchBGRA8(uint32_t tile, uint8_t* out) const = 0;
    // Tile t as signed bytes in B, G, R, A order.
    virtual void fetchSignedBGRA8(uint32_t tile, int8_t* out) const = 0;

    uint16_t validRegion(uint32_t tile) const {
        return uint16_t(regions[tile].width | (regions[tile].height << 8));
    }
    int pixelsPerTile() const { return tileWidth * tileHeight; }

    float weights[4] = {1, 1, 1, 1};
    float inverseWeights[4] = {1, 1, 1, 1};
    int32_t tileWidth = 0;
    int32_t tileHeight = 0;
    uint32_t tileCount = 0;
    const TileValidRegion* regions = nullptr;
};

// A view over tiles stored with element type T (unsigned char, signed char or float).
template <typename T>
class TCPUView final : public CPUViewBase {
public:
    using Element = T;
    void fetchFloat(uint32_t tile, float* out, bool applyWeights) const override;
    void fetchBGRA8(uint32_t tile, uint8_t* out) const override;
    void fetchSignedBGRA8(uint32_t tile, int8_t* out) const override;

    const T* data = nullptr;

private:
    // Calls emit(outputPixel, storedPixel) for every pixel of the tile, completing
    // partial tiles by wrapping around the valid region.
    template <typename Emit>
    void forEachPixel(uint32_t tile, Emit&& emit) const;
};

using CPUU8View = TCPUView<unsigned char>;
using CPUS8View = TCPUView<signed char>;
using CPUF32View = TCPUView<float>;

// Element conversions shared by the CPU views and the GPU conversion kernels; the
// kernels include this header, so these must stay plain inline arithmetic.
GLYPTORA_HD inline uint8_t floatToUnorm8(float v) {
    float c = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;  // NaN reads as 0
    return uint8_t(int(c * 255.0f + 0.5f));
}
GLYPTORA_HD inline int8_t floatToSnorm8(float v) {
    float c = v > -1.0f ? (v < 1.0f ? v : 1.0f) : -1.0f;
    if (v != v) c = 0.0f;
    float s = c * 127.0f + 0.5f;
    int i = int(s);
    if (float(i) > s) --i;  // floor for negatives
    return int8_t(i);
}
// Unsigned to signed keeps the byte order of the range but never yields -128.
GLYPTORA_HD inline int8_t unorm8ToSnorm8(uint8_t u) { return u == 0 ? int8_t(-127) : int8_t(uint8_t(u + 128)); }
GLYPTORA_HD inline uint8_t snorm8ToUnorm8(int8_t s) { return uint8_t(uint8_t(s) + 128); }
GLYPTORA_HD inline float snorm8ToFloat(int8_t s) { return s <= -127 ? -1.0f : float(s) / 127.0f; }

}  // namespace glyptora_internal
