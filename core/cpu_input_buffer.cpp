#include "core/cpu_input_buffer.h"

#include <algorithm>
#include <memory>
#include <type_traits>

#include "core/task_dispatcher.h"
#include "core/timing_context.h"

namespace glyptora {

using glyptora_internal::TileValidRegion;

void CPUBuffer_Base::describe(glyptora_internal::CPUViewBase& view) const {
    for (int c = 0; c < 4; ++c) {
        view.weights[c] = weights[c];
        view.inverseWeights[c] = 1.0f / weights[c];
    }
    view.tileWidth = tileWidth;
    view.tileHeight = tileHeight;
    view.tileCount = tileCount;
    view.regions = validRegions.data();
}

template <> int32_t U8TileBuffer::valueType() const { return kValueU8; }
template <> int32_t S8TileBuffer::valueType() const { return kValueS8; }
template <> int32_t F32TileBuffer::valueType() const { return kValueF32; }

namespace {

uint64_t ceilDiv(int32_t a, int32_t b) { return (uint64_t(a) + uint64_t(b) - 1) / uint64_t(b); }

// Tiles of one image, in 64 bits: the product of three 32-bit counts can exceed 32 bits.
uint64_t imageTiles(const ImageRecord& image, int tileWidth, int tileHeight) {
    return uint64_t(image.depth) * ceilDiv(image.height, tileHeight) * ceilDiv(image.width, tileWidth);
}

// The tile buffer counts tiles in 32 bits and the task loop in signed 32 bits.
constexpr uint64_t kMaxTiles = INT32_MAX;

template <typename T>
T constantOne() {
    if constexpr (std::is_same_v<T, float>) return 1.0f;
    else if constexpr (std::is_same_v<T, signed char>) return 127;
    else return 255;
}

// Cuts one image into tiles starting at tile `firstTile`; one task per (slice, tile row).
template <typename T>
void fillImage(const ImageRecord& image, int tileWidth, int tileHeight, uint32_t firstTile, T* tiles,
               TileValidRegion* regions) {
    const int tilesPerRow = int(ceilDiv(image.width, tileWidth));
    const int tilesPerColumn = int(ceilDiv(image.height, tileHeight));
    const size_t plane = size_t(image.depth) * size_t(image.width) * size_t(image.height);
    const T* source = static_cast<const T*>(image.data);
    const size_t pixelStep = image.interleaved ? size_t(image.channelCount) : 1;
    const size_t channelStep = image.interleaved ? 1 : plane;
    const size_t tileValues = size_t(tileWidth) * size_t(tileHeight) * 4;
    // Where each tile channel comes from, read once: the tile stores could alias the record
    // (8-bit tiles), which would make the compiler reload it for every value.
    uint32_t order[4];
    bool identity = image.interleaved && pixelStep == 4;
    for (int k = 0; k < 4; ++k) {
        order[k] = image.channelOrder[k];
        identity = identity && order[k] == uint32_t(k);
    }
    const T one = constantOne<T>();

    glyptora_internal::parallelFor(image.depth * tilesPerColumn, [&](uint32_t task) {
        const int slice = int(task) / tilesPerColumn;
        const int tileRow = int(task) % tilesPerColumn;
        const uint32_t rowFirstTile = firstTile + task * uint32_t(tilesPerRow);
        const int validHeight = std::min(tileHeight, image.height - tileRow * tileHeight);
        for (int tileColumn = 0; tileColumn < tilesPerRow; ++tileColumn) {
            const uint32_t t = rowFirstTile + uint32_t(tileColumn);
            const int validWidth = std::min(tileWidth, image.width - tileColumn * tileWidth);
            regions[t] = TileValidRegion{uint8_t(validWidth), uint8_t(validHeight)};
            T* out = tiles + size_t(t) * tileValues;
            for (int y = 0; y < validHeight; ++y) {
                const size_t row = size_t(tileRow * tileHeight + y);
                const size_t column = size_t(tileColumn * tileWidth);
                const size_t pixel = (size_t(slice) * size_t(image.height) + row) * size_t(image.width) + column;
                const T* src = source + pixel * pixelStep;
                T* dst = out + size_t(y * tileWidth) * 4;
                if (identity) {  // RGBA in memory order: the row is one copy
                    std::copy(src, src + size_t(validWidth) * 4, dst);
                    continue;
                }
                for (int x = 0; x < validWidth; ++x, src += pixelStep, dst += 4)
                    for (int k = 0; k < 4; ++k) {
                        const uint32_t from = order[k];
                        dst[k] = from < 4 ? src[from * channelStep] : (from == 5 ? one : T(0));
                    }
            }
        }
    });
}

// Null when the images hold more tiles than a buffer can count.
template <typename Buffer>
std::unique_ptr<CPUBuffer_Base> buildTiles(const ImageRecord* images, int imageCount, int tileWidth, int tileHeight,
                                           uint32_t* tileCountPerImage) {
    uint64_t total = 0;
    for (int i = 0; i < imageCount && total <= kMaxTiles; ++i) total += imageTiles(images[i], tileWidth, tileHeight);
    if (total > kMaxTiles) return nullptr;
    auto buffer = std::make_unique<Buffer>();
    buffer->tileWidth = tileWidth;
    buffer->tileHeight = tileHeight;
    buffer->tileCount = uint32_t(total);
    buffer->validRegions.assign(size_t(total), TileValidRegion{0, 0});
    buffer->tiles.resize(size_t(total) * size_t(tileWidth) * size_t(tileHeight) * 4);
    uint32_t first = 0;
    for (int i = 0; i < imageCount; ++i) {
        const uint32_t count = uint32_t(imageTiles(images[i], tileWidth, tileHeight));
        if (tileCountPerImage) tileCountPerImage[i] = count;
        fillImage(images[i], tileWidth, tileHeight, first, buffer->tiles.data(), buffer->validRegions.data());
        first += count;
    }
    return buffer;
}

bool validImages(const ImageRecord* images, int imageCount) {
    for (int i = 0; i < imageCount; ++i)
        if (images[i].width <= 0 || images[i].height <= 0 || images[i].depth <= 0 || !images[i].data ||
            images[i].channelCount <= 0)
            return false;
    return true;
}

}  // namespace

struct CPUInputBuffer::Private {
    std::unique_ptr<CPUBuffer_Base> buffer;
};

CPUInputBuffer::CPUInputBuffer(const ImageRecord* images, int imageCount, int32_t valueType, int tileWidth,
                               int tileHeight, float weightR, float weightG, float weightB, float weightA,
                               TimingContext* timing, uint32_t* tileCountPerImage)
    : m_private(new Private) {
    ScopedTimer timer(timing, "image to buffer");
    if (tileWidth <= 0 || tileHeight <= 0 || tileWidth > 255 || tileHeight > 255 || imageCount < 0 ||
        !validImages(images, imageCount))
        return;
    switch (valueType) {
        case kValueU8: m_private->buffer = buildTiles<U8TileBuffer>(images, imageCount, tileWidth, tileHeight, tileCountPerImage); break;
        case kValueS8: m_private->buffer = buildTiles<S8TileBuffer>(images, imageCount, tileWidth, tileHeight, tileCountPerImage); break;
        case kValueF32: m_private->buffer = buildTiles<F32TileBuffer>(images, imageCount, tileWidth, tileHeight, tileCountPerImage); break;
        default: return;
    }
    if (!m_private->buffer) return;
    const float weights[4] = {weightR, weightG, weightB, weightA};
    for (int c = 0; c < 4; ++c) m_private->buffer->weights[c] = weights[c];
}

CPUInputBuffer::~CPUInputBuffer() { delete m_private; }

const CPUBuffer_Base* CPUInputBuffer::buffer() const { return m_private->buffer.get(); }

uint32_t CPUInputBuffer::tileCount() const { return m_private->buffer ? m_private->buffer->tileCount : 0; }

}  // namespace glyptora
