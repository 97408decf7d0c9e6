#pragma once
// Device views of a range of tiles: plain structs passed to the kernels by value. They carry
// the channel weights (and reciprocals), the tile geometry, the tile count and the device
// addresses of the valid regions and the tile data, in the layout of the CPU tile buffer.
// Compiled by both the host compiler and nvcc.
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "core/cpu_views.h"
#include "core/host_device.h"

namespace glyptora_internal {

template <typename T>
struct TGPUView {
    float weights[4];
    float inverseWeights[4];
    int32_t tileWidth;
    int32_t tileHeight;
    uint32_t tileCount;
    uint32_t reserved;
    const TileValidRegion* regions;  // tileCount entries, device memory
    T* data;                         // tileCount x tileWidth x tileHeight x 4 elements, device memory
};

using GPUU8View = TGPUView<uint8_t>;
using GPUS8View = TGPUView<int8_t>;
using GPUF32View = TGPUView<float>;

static_assert(sizeof(GPUU8View) == 64 && sizeof(GPUS8View) == 64 && sizeof(GPUF32View) == 64);
static_assert(std::is_trivially_copyable_v<GPUU8View> && std::is_standard_layout_v<GPUU8View>);

// The same weights and geometry over tiles [first, first + count) of `view`.
template <typename T>
GLYPTORA_HD inline TGPUView<T> subView(const TGPUView<T>& view, uint32_t first, uint32_t count) {
    TGPUView<T> sub = view;
    sub.tileCount = count;
    sub.regions = view.regions + first;
    sub.data = view.data + size_t(first) * size_t(view.tileWidth) * size_t(view.tileHeight) * 4;
    return sub;
}

// Element count of the view's tile data.
template <typename T>
GLYPTORA_HD inline uint64_t elementCount(const TGPUView<T>& view) {
    return uint64_t(view.tileCount) * uint64_t(view.tileWidth) * uint64_t(view.tileHeight) * 4;
}

// Pixel (x, y) of tile `tile` as stored: partial tiles are completed by wrapping around the
// valid region, as the CPU views do (a zero extent reads as 1).
template <typename T>
GLYPTORA_HD inline const T* tilePixel(const TGPUView<T>& view, uint32_t tile, int x, int y) {
    const TileValidRegion region = view.regions[tile];
    const int validWidth = region.width ? region.width : 1;
    const int validHeight = region.height ? region.height : 1;
    const size_t tileBase = size_t(tile) * size_t(view.tileWidth) * size_t(view.tileHeight);
    return view.data + (tileBase + size_t((y % validHeight) * view.tileWidth + (x % validWidth))) * 4;
}

// A 4x4 tile as 16 pixels of bytes in blue, green, red, alpha order.
template <typename T>
GLYPTORA_HD inline void fetchTile4x4BGRA(const TGPUView<T>& view, uint32_t tile, T out[64]) {
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) {
            const T* p = tilePixel(view, tile, x, y);
            T* o = out + (y * 4 + x) * 4;
            o[0] = p[2];
            o[1] = p[1];
            o[2] = p[0];
            o[3] = p[3];
        }
}

}  // namespace glyptora_internal
