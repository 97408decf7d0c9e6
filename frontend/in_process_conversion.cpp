// Carries one decoded request to its encoder entry: a private copy of the pixels where a
// fix-up is needed, one image record per level, the alpha scan, the tiled input buffer
// and the entry call.
#include "frontend/in_process_conversion.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

#include "core/cpu_input_buffer.h"
#include "core/task_dispatcher.h"
#include "dispatch/encoder_entries.h"
#include "frontend/source_fixups.h"

namespace glyptora_internal {

namespace {

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

Status convertInProcess(const ConversionRequest& request, void* destination, const void* source) {
    if (request.totalTiles == 0) return Status::Ok;  // no block to write
    const uint64_t bytesPerPixel = request.bytesPerPixel();
    const glyptora::ValueType valueType = request.valueType;

    // A private copy where the pixels need fixing up before encoding.
    std::vector<uint8_t> privateCopy;
    const uint8_t* pixels = static_cast<const uint8_t*>(source);
    if (request.oneBitAlpha || request.luminanceAlpha) {
        privateCopy.resize(size_t(request.sourceBytes));
        uint8_t* copy = privateCopy.data();
        forEachPixelRun(request.totalPixels, [&](uint64_t first, uint64_t count) {
            uint8_t* run = copy + first * bytesPerPixel;
            std::memcpy(run, pixels + first * bytesPerPixel, count * bytesPerPixel);
            if (request.oneBitAlpha) forceOneBitAlpha(run, count, valueType);
            if (request.luminanceAlpha) expandLuminanceAlpha(run, count, valueType);
        });
        pixels = privateCopy.data();
    }

    std::vector<glyptora::ImageRecord> records(size_t(request.levelCount));
    std::atomic<bool> imageHasAlpha{false};
    uint64_t offset = 0;
    for (int m = 0; m < request.levelCount; ++m) {
        const LevelExtent e = request.level(m);
        glyptora::ImageRecord& r = records[size_t(m)];
        const uint8_t* level = pixels + offset * bytesPerPixel;
        r.data = level;
        r.width = int32_t(e.width);
        r.height = int32_t(e.height);
        r.depth = int32_t(e.depth);
        forEachPixelRun(e.pixels(), [&](uint64_t first, uint64_t count) {
            if (!imageHasAlpha.load(std::memory_order_relaxed) &&
                levelHasAlpha(level + first * bytesPerPixel, count, valueType))
                imageHasAlpha.store(true, std::memory_order_relaxed);
        });
        offset += e.pixels();
    }

    const FormatRow& format = *request.format;
    auto input = std::make_unique<glyptora::CPUInputBuffer>(
        records.data(), request.levelCount, valueType, format.blockWidth, format.blockHeight, request.weights[0],
        request.weights[1], request.weights[2], request.weights[3]);
    privateCopy = std::vector<uint8_t>();  // the input buffer holds its own tiles now

    // Once the encoder runs, the conversion reports success: its notices explain any fall-back.
    runEncoderEntry(*format.entry, *input, request.modeArgument, format.isSigned, imageHasAlpha.load(), destination,
                    request.useGpu, false, nullptr);
    return Status::Ok;
}

}  // namespace glyptora_internal
