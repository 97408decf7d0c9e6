#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "core/cpu_views.h"
#include "core/image_record.h"

namespace glyptora {

class TimingContext;

// Typed tile storage: every image cut into tiles of the block size, in the source's value type.
class CPUBuffer_Base {
public:
    virtual ~CPUBuffer_Base() = default;
    virtual int32_t valueType() const = 0;
    virtual const void* tileData() const = 0;
    virtual size_t bytesPerPixel() const = 0;

    float weights[4] = {1, 1, 1, 1};
    int32_t tileWidth = 0;
    int32_t tileHeight = 0;
    uint32_t tileCount = 0;
    std::vector<glyptora_internal::TileValidRegion> validRegions;

    // Fills a view's common fields: weights and their reciprocals, geometry, regions.
    void describe(glyptora_internal::CPUViewBase& view) const;
};

// Leaves elements uninitialised on resize: tile storage is written by the fill before any
// valid pixel is read, and zeroing it first would be a serial pass over the whole image.
template <typename T>
struct UninitialisedAllocator : std::allocator<T> {
    template <typename U>
    struct rebind {
        using other = UninitialisedAllocator<U>;
    };
    UninitialisedAllocator() = default;
    template <typename U>
    UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}
    template <typename U>
    void construct(U* p) noexcept {
        ::new (static_cast<void*>(p)) U;
    }
    template <typename U, typename... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
};

template <typename View>
class TCPUBuffer final : public CPUBuffer_Base {
public:
    using Element = typename View::Element;
    int32_t valueType() const override;
    const void* tileData() const override { return tiles.data(); }
    size_t bytesPerPixel() const override { return 4 * sizeof(Element); }
    View view() const {
        View v;
        describe(v);
        v.data = tiles.data();
        return v;
    }
    std::vector<Element, UninitialisedAllocator<Element>> tiles;
};

using U8TileBuffer = TCPUBuffer<glyptora_internal::CPUU8View>;
using S8TileBuffer = TCPUBuffer<glyptora_internal::CPUS8View>;
using F32TileBuffer = TCPUBuffer<glyptora_internal::CPUF32View>;

// The tiled input of every encoder. An unknown value type, invalid images or more tiles than
// a signed 32-bit count holds leave it empty (buffer() is null).
class CPUInputBuffer {
public:
    CPUInputBuffer(const ImageRecord* images, int imageCount, int32_t valueType, int tileWidth, int tileHeight,
                   float weightR, float weightG, float weightB, float weightA, TimingContext* timing = nullptr,
                   uint32_t* tileCountPerImage = nullptr);
    ~CPUInputBuffer();
    CPUInputBuffer(const CPUInputBuffer&) = delete;
    CPUInputBuffer& operator=(const CPUInputBuffer&) = delete;

    const CPUBuffer_Base* buffer() const;
    uint32_t tileCount() const;

    struct Private;

private:
    Private* m_private;
};

}  // namespace glyptora
