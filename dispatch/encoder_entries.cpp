#include "dispatch/encoder_entries.h"

#include <vector>

#include "core/cpu_input_buffer.h"
#include "core/diagnostics.h"
#include "core/timing_context.h"
#include "gpu/gpu_encoders.h"

namespace glyptora_internal {

using glyptora::CPUBuffer_Base;
using glyptora::CPUInputBuffer;
using glyptora::TimingContext;

namespace {

// Builds the typed view by a run-time type test (unsigned, signed, float) and runs `encode` on it.
template <typename Encode>
bool withCpuView(const CPUBuffer_Base& buffer, Encode&& encode) {
    if (auto* u8 = dynamic_cast<const glyptora::U8TileBuffer*>(&buffer)) {
        encode(u8->view());
        return true;
    }
    if (auto* s8 = dynamic_cast<const glyptora::S8TileBuffer*>(&buffer)) {
        encode(s8->view());
        return true;
    }
    if (auto* f32 = dynamic_cast<const glyptora::F32TileBuffer*>(&buffer)) {
        encode(f32->view());
        return true;
    }
    return false;
}

bool isAstcFootprint(int width, int height) {
    for (const FormatRow& row : allFormatRows())
        if (row.family == FormatFamily::ASTC && row.blockWidth == width && row.blockHeight == height) return true;
    return false;
}

// The entry's checks before the CPU encoder; false (with its line printed) refuses the work.
bool acceptsTiles(const EncoderEntry& entry, const CPUBuffer_Base& buffer, int level) {
    if (!entry.astcFootprints) {
        if (buffer.tileWidth == 4 && buffer.tileHeight == 4) return true;
        diagnosticPrint("%s Compressor: only tile size 4x4 is supported.\n", entry.name);
        return false;
    }
    if (!isAstcFootprint(buffer.tileWidth, buffer.tileHeight)) {
        diagnosticPrint("ASTC Compressor: tile size %dx%d not supported.\n", buffer.tileWidth, buffer.tileHeight);
        return false;
    }
    if (level < 0 || level >= 4) {
        diagnosticPrint("Level %d not supported. Supported levels are 0,1,2,3\n", level);
        return false;
    }
    return true;
}

}  // namespace

bool runEncoderEntry(const EncoderEntry& entry, const CPUInputBuffer& input, int modeArgument, bool isSigned,
                     bool imageHasAlpha, void* output, bool gpu, bool outputInDeviceMemory, TimingContext* timing) {
    // The fast flag (BC1-BC3) or the slow flag (BC4-BC7) is the mode without a GPU path.
    const bool modeWithoutGpu = entry.quality != QualityFlag::Level && modeArgument != 0;
    if (gpu && modeWithoutGpu && entry.noGpuModeNotice) {
        diagnosticPrint("%s", entry.noGpuModeNotice);
        gpu = false;
    }
    const CPUBuffer_Base* buffer = input.buffer();
    if (!buffer) return false;
    if (gpu && !entry.gpu) {
        // Formats whose kernels are not part of this build keep working on the CPU.
        diagnosticPrint("%s Compressor: no gpu implementation in this build, using cpu instead.\n", entry.name);
        gpu = false;
    }
    if (gpu)
        return encodeOnGpu(*entry.gpu, entry.name, *buffer, static_cast<uint8_t*>(output), outputInDeviceMemory,
                           timing, imageHasAlpha, isSigned);

    glyptora::ScopedTimer timer(timing, entry.cpuTimerLabel);
    if (!acceptsTiles(entry, *buffer, modeArgument) || !entry.cpu) return false;
    EncoderMode mode;
    // BC1-BC3 take the fast flag as it is; BC4-BC7 take the negation of their slow flag.
    if (entry.quality != QualityFlag::Level) mode.fast = (entry.quality == QualityFlag::Fast) == (modeArgument != 0);
    mode.level = modeArgument;
    mode.isSigned = isSigned;
    mode.imageHasAlpha = imageHasAlpha;
    if (!outputInDeviceMemory)
        return withCpuView(*buffer, [&](const CPUViewBase& v) { entry.cpu(v, mode, static_cast<uint8_t*>(output)); });
    // Output in device memory: encode into host memory, then copy it over.
    std::vector<uint8_t> staging(size_t(buffer->tileCount) * size_t(entry.blockBytes));
    if (!withCpuView(*buffer, [&](const CPUViewBase& v) { entry.cpu(v, mode, staging.data()); })) return false;
    return copyHostToDevice(output, staging.data(), staging.size());
}

}  // namespace glyptora_internal
