#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

#include "core/cpu_input_buffer.h"
#include "core/encoder_dispatch.h"
#include "core/task_dispatcher.h"
#include "frontend/conversion_entry.h"
#include "frontend/request_decoding.h"
#include "frontend/source_fixups.h"
#include "gpu/gpu_encoders.h"

namespace glyptora_internal {

namespace {

struct LevelExtent {
    uint32_t width, height, depth;
    uint64_t pixels() const { return uint64_t(width) * height * depth; }
};

LevelExtent levelExtent(uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth, uint32_t m) {
    const uint32_t shift = m < 31 ? m : 31;
    LevelExtent e;
    e.width = std::max<uint32_t>(width >> shift, 1);
    e.height = std::max<uint32_t>(height >> shift, 1);
    e.depth = dimension == 2 ? std::max<uint32_t>(depth >> shift, 1) : depth;
    return e;
}

// Runs `visit(first, count)` over runs of pixels in parallel: copies, fix-ups and the alpha
// scan are linear in the image and would otherwise hold back the parallel encoders.
template <typename Visit>
void forEachPixelRun(uint64_t pixelCount, Visit&& visit) {
    const uint64_t run = 1u << 16;
    const uint64_t runs = (pixelCount + run - 1) / run;
    parallelFor(int(runs), [&](uint32_t r) {
        const uint64_t first = uint64_t(r) * run;
        visit(first, std::min(run, pixelCount - first));
    });
}

}  // namespace

bool convertInProcess(void* destination, const void* source, const char* destinationFormat,
                      const char* sourceFormat, const char* options, uint32_t flags, uint32_t dimension,
                      uint32_t width, uint32_t height, uint32_t depth, uint32_t mipCount) {
    const int32_t code = decodeFormatCode(destinationFormat);
    if (code == kFormatUnknown) return false;
    if (!isAcceptedSourceFormat(sourceFormat)) return false;
    bool useGpu = false;
    if (!resolveGpuChoice(flags, (flags & kFlagGpu) ? isGpuEncodingAvailable() : false, &useGpu)) return false;

    const int quality = decodeQualityLevel(destinationFormat, options);
    float weights[4];
    decodeChannelWeights(destinationFormat, options, code, flags, weights);
    const int32_t valueType = decodeValueType(sourceFormat);
    const uint64_t bytesPerPixel = valueType == 2 ? 16 : 4;
    const int levels = int32_t(mipCount) < 1 ? 0 : int(mipCount);

    uint64_t totalPixels = 0;
    for (int m = 0; m < levels; ++m) totalPixels += levelExtent(dimension, width, height, depth, uint32_t(m)).pixels();

    // A private copy where the pixels need fixing up before encoding.
    const bool oneBitAlpha = std::strcmp(destinationFormat, "unorm_bc1") == 0 ||
                             std::strcmp(destinationFormat, "srgb_bc1") == 0;
    const bool luminanceAlpha = isAstcCode(code) && (flags & kFlagLuminanceAlpha);
    std::vector<uint8_t> privateCopy;
    const uint8_t* pixels = static_cast<const uint8_t*>(source);
    if (oneBitAlpha || luminanceAlpha) {
        privateCopy.resize(totalPixels * bytesPerPixel);
        uint8_t* copy = privateCopy.data();
        forEachPixelRun(totalPixels, [&](uint64_t first, uint64_t count) {
            std::memcpy(copy + first * bytesPerPixel, pixels + first * bytesPerPixel, count * bytesPerPixel);
            if (oneBitAlpha) forceOneBitAlpha(copy + first * bytesPerPixel, count, valueType);
            if (luminanceAlpha) expandLuminanceAlpha(copy + first * bytesPerPixel, count, valueType);
        });
        pixels = privateCopy.data();
    }

    std::vector<glyptora::ImageRecord> records(static_cast<size_t>(levels));
    std::atomic<bool> imageHasAlpha{false};
    uint64_t offset = 0;
    for (int m = 0; m < levels; ++m) {
        const LevelExtent e = levelExtent(dimension, width, height, depth, uint32_t(m));
        glyptora::ImageRecord& r = records[size_t(m)];
        r.data = pixels + offset * bytesPerPixel;
        r.width = int32_t(e.width);
        r.height = int32_t(e.height);
        r.depth = int32_t(e.depth);
        const uint8_t* level = pixels + offset * bytesPerPixel;
        forEachPixelRun(e.pixels(), [&](uint64_t first, uint64_t count) {
            if (!imageHasAlpha.load(std::memory_order_relaxed) &&
                levelHasAlpha(level + first * bytesPerPixel, count, valueType))
                imageHasAlpha.store(true, std::memory_order_relaxed);
        });
        offset += e.pixels();
    }

    const FormatInfo info = formatInfo(code);
    auto input = std::make_unique<glyptora::CPUInputBuffer>(records.data(), levels, valueType, info.blockWidth,
                                                            info.blockHeight, weights[0], weights[1], weights[2],
                                                            weights[3]);
    privateCopy = std::vector<uint8_t>();  // the input buffer holds its own tiles now

    const bool fast = quality < 1;
    const bool slow = quality >= 2;
    switch (code) {
        case kFormatBC1: encodeBC1a(*input, fast, destination, useGpu && !fast, false, nullptr); break;
        case kFormatBC2: encodeBC2(*input, fast, destination, useGpu && !fast, false, nullptr); break;
        case kFormatBC3: encodeBC3(*input, fast, destination, useGpu && !fast, false, nullptr); break;
        case kFormatBC4: encodeBC4(*input, slow, destination, useGpu && !slow, false, nullptr); break;
        case kFormatBC4S: encodeBC4S(*input, slow, destination, useGpu && !slow, false, nullptr); break;
        case kFormatBC5: encodeBC5(*input, slow, destination, useGpu && !slow, false, nullptr); break;
        case kFormatBC5S: encodeBC5S(*input, slow, destination, useGpu && !slow, false, nullptr); break;
        case kFormatBC6HU:
        case kFormatBC6HS:
            encodeBC6H(*input, slow, code == kFormatBC6HS, destination, useGpu && !slow, false, nullptr);
            break;
        case kFormatBC7: encodeBC7(*input, slow, imageHasAlpha.load(), destination, useGpu && !slow, false, nullptr); break;
        default:
            if (isAstcCode(code)) encodeASTC(*input, quality, imageHasAlpha.load(), destination, useGpu, false, nullptr);
            break;
    }
    return true;
}

}  // namespace glyptora_internal
