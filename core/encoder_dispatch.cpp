#include "core/encoder_dispatch.h"

#include <vector>

#include "core/cpu_encoders.h"
#include "core/cpu_input_buffer.h"
#include "core/diagnostics.h"
#include "core/timing_context.h"
#include "gpu/gpu_encoders.h"

namespace glyptora_internal {

using glyptora::CPUBuffer_Base;
using glyptora::CPUInputBuffer;
using glyptora::TimingContext;

namespace {

struct EntryDescription {
    const char* name;             // "BC1a", as the entry's messages name it
    const char* cpuTimerLabel;    // "encode_bc1a_cpu()"
    const char* noGpuModeNotice;  // printed when the GPU is asked for in the mode without a GPU path
    GpuFormat gpuFormat;
    int blockBytes;
};

const EntryDescription kBC1a{"BC1a", "encode_bc1a_cpu()",
                             "BC1a Compressor: no fast-mode for bc1a-gpu, using cpu instead.\n", GpuFormat::BC1a, 8};
const EntryDescription kBC2{"BC2", "encode_bc2_cpu()",
                            "BC2 Compressor: no fast-mode for bc2-gpu, using cpu instead.\n", GpuFormat::BC2, 16};
const EntryDescription kBC3{"BC3", "encode_bc3_cpu()",
                            "BC3 Compressor: no fast-mode for bc3-gpu, using cpu instead.\n", GpuFormat::BC3, 16};
const EntryDescription kBC4{"BC4", "encode_bc4_cpu()",
                            "BC4 Compressor: no production-mode for bc4-gpu, using cpu instead.\n", GpuFormat::BC4, 8};
const EntryDescription kBC4S{"BC4S", "encode_bc4s_cpu()",
                             "BC4S Compressor: no production-mode for bc4s-gpu, using cpu instead.\n", GpuFormat::BC4S,
                             8};
const EntryDescription kBC5{"BC5", "encode_bc5_cpu()",
                            "BC5 Compressor: no production-mode for bc5-gpu, using cpu instead.\n", GpuFormat::BC5, 16};
// The signed BC5 notice names "bc5-gpu"; it is kept word for word.
const EntryDescription kBC5S{"BC5S", "encode_bc5s_cpu()",
                             "BC5S Compressor: no production-mode for bc5-gpu, using cpu instead.\n", GpuFormat::BC5S,
                             16};
const EntryDescription kBC6H{"BC6H", "encode_bc6h_cpu()",
                             "BC6H Compressor: no slow-mode for bc6-gpu, using cpu instead.\n", GpuFormat::BC6H, 16};
const EntryDescription kBC7{"BC7", "encode_bc7_cpu()",
                            "BC7 Compressor: no slow-mode for bc7-gpu, using cpu instead.\n", GpuFormat::BC7, 16};

// Builds the typed view by a run-time type test (unsigned, signed, float) and runs `encode` on it.
template <typename Encode>
bool withCpuView(const CPUBuffer_Base& buffer, Encode&& encode) {
    if (auto* u8 = dynamic_cast<const glyptora::U8TileBuffer*>(&buffer)) {
        const CPUU8View view = u8->view();
        encode(view);
        return true;
    }
    if (auto* s8 = dynamic_cast<const glyptora::S8TileBuffer*>(&buffer)) {
        const CPUS8View view = s8->view();
        encode(view);
        return true;
    }
    if (auto* f32 = dynamic_cast<const glyptora::F32TileBuffer*>(&buffer)) {
        const CPUF32View view = f32->view();
        encode(view);
        return true;
    }
    return false;
}

// Encodes into the output, or into a host staging buffer copied to the device afterwards.
template <typename Encode>
bool encodeToOutput(const CPUBuffer_Base& buffer, int blockBytes, void* output, bool outputInDeviceMemory,
                    Encode&& encode) {
    if (!outputInDeviceMemory) return withCpuView(buffer, [&](const CPUViewBase& v) { encode(v, static_cast<uint8_t*>(output)); });
    std::vector<uint8_t> staging(size_t(buffer.tileCount) * size_t(blockBytes));
    if (!withCpuView(buffer, [&](const CPUViewBase& v) { encode(v, staging.data()); })) return false;
    return copyHostToDevice(output, staging.data(), staging.size());
}

// Routing shared by the BC entries: notice and CPU fall-back for the mode without a GPU
// path, GPU implementation when asked for, else the 4x4 check and the CPU implementation.
template <typename CpuEncode>
bool runBlockEntry(const EntryDescription& entry, const CPUInputBuffer& input, bool modeWithoutGpu, void* output,
                   bool gpu, bool outputInDeviceMemory, TimingContext* timing, CpuEncode&& cpuEncode) {
    if (gpu && modeWithoutGpu) {
        diagnosticPrint("%s", entry.noGpuModeNotice);
        gpu = false;
    }
    const CPUBuffer_Base* buffer = input.buffer();
    if (!buffer) return false;
    if (gpu && !hasGpuImplementation(entry.gpuFormat)) {
        // Formats whose kernels are not part of this build keep working on the CPU.
        diagnosticPrint("%s Compressor: no gpu implementation in this build, using cpu instead.\n", entry.name);
        gpu = false;
    }
    if (gpu) return encodeOnGpu(entry.gpuFormat, *buffer, static_cast<uint8_t*>(output), outputInDeviceMemory, timing);
    glyptora::ScopedTimer timer(timing, entry.cpuTimerLabel);
    if (buffer->tileWidth != 4 || buffer->tileHeight != 4) {
        diagnosticPrint("%s Compressor: only tile size 4x4 is supported.\n", entry.name);
        return false;
    }
    return encodeToOutput(*buffer, entry.blockBytes, output, outputInDeviceMemory, cpuEncode);
}

bool isSupportedAstcFootprint(int width, int height) {
    static const int kSizes[14][2] = {{4, 4}, {5, 4}, {5, 5}, {6, 5}, {6, 6}, {8, 5}, {8, 6},
                                      {8, 8}, {10, 5}, {10, 6}, {10, 8}, {10, 10}, {12, 10}, {12, 12}};
    for (const auto& size : kSizes)
        if (size[0] == width && size[1] == height) return true;
    return false;
}

}  // namespace

bool encodeBC1a(const CPUInputBuffer& input, bool fast, void* output, bool gpu, bool outputInDeviceMemory,
                TimingContext* timing) {
    return runBlockEntry(kBC1a, input, fast, output, gpu, outputInDeviceMemory, timing,
                         [&](const CPUViewBase& v, uint8_t* out) { glyptora_dxt::encodeBC1aCPU(v, fast, out); });
}

bool encodeBC2(const CPUInputBuffer& input, bool fast, void* output, bool gpu, bool outputInDeviceMemory,
               TimingContext* timing) {
    return runBlockEntry(kBC2, input, fast, output, gpu, outputInDeviceMemory, timing,
                         [&](const CPUViewBase& v, uint8_t* out) { glyptora_dxt::encodeBC2CPU(v, fast, out); });
}

bool encodeBC3(const CPUInputBuffer& input, bool fast, void* output, bool gpu, bool outputInDeviceMemory,
               TimingContext* timing) {
    return runBlockEntry(kBC3, input, fast, output, gpu, outputInDeviceMemory, timing,
                         [&](const CPUViewBase& v, uint8_t* out) { glyptora_dxt::encodeBC3CPU(v, fast, out); });
}

bool encodeBC4(const CPUInputBuffer& input, bool slow, void* output, bool gpu, bool outputInDeviceMemory,
               TimingContext* timing) {
    return runBlockEntry(kBC4, input, slow, output, gpu, outputInDeviceMemory, timing,
                         [&](const CPUViewBase& v, uint8_t* out) { glyptora_dxt::encodeBC4CPU(v, !slow, out); });
}

bool encodeBC4S(const CPUInputBuffer& input, bool slow, void* output, bool gpu, bool outputInDeviceMemory,
                TimingContext* timing) {
    return runBlockEntry(kBC4S, input, slow, output, gpu, outputInDeviceMemory, timing,
                         [&](const CPUViewBase& v, uint8_t* out) { glyptora_dxt::encodeBC4SCPU(v, !slow, out); });
}

bool encodeBC5(const CPUInputBuffer& input, bool slow, void* output, bool gpu, bool outputInDeviceMemory,
               TimingContext* timing) {
    return runBlockEntry(kBC5, input, slow, output, gpu, outputInDeviceMemory, timing,
                         [&](const CPUViewBase& v, uint8_t* out) { glyptora_dxt::encodeBC5CPU(v, !slow, out); });
}

bool encodeBC5S(const CPUInputBuffer& input, bool slow, void* output, bool gpu, bool outputInDeviceMemory,
                TimingContext* timing) {
    return runBlockEntry(kBC5S, input, slow, output, gpu, outputInDeviceMemory, timing,
                         [&](const CPUViewBase& v, uint8_t* out) { glyptora_dxt::encodeBC5SCPU(v, !slow, out); });
}

bool encodeBC6H(const CPUInputBuffer& input, bool slow, bool isSigned, void* output, bool gpu,
                bool outputInDeviceMemory, TimingContext* timing) {
    // No BC6H block encoder exists yet: routing and checks run, the output stays untouched.
    (void)isSigned;
    runBlockEntry(kBC6H, input, slow, output, gpu, outputInDeviceMemory, timing, [](const CPUViewBase&, uint8_t*) {});
    return false;
}

bool encodeBC7(const CPUInputBuffer& input, bool slow, bool imageHasAlpha, void* output, bool gpu,
               bool outputInDeviceMemory, TimingContext* timing) {
    return runBlockEntry(kBC7, input, slow, output, gpu, outputInDeviceMemory, timing,
                         [&](const CPUViewBase& v, uint8_t* out) {
                             glyptora_bc7::encodeBC7CPU(v, !slow, imageHasAlpha, out);
                         });
}

bool encodeASTC(const CPUInputBuffer& input, int level, bool imageHasAlpha, void* output, bool gpu,
                bool outputInDeviceMemory, TimingContext* timing) {
    (void)imageHasAlpha;
    (void)gpu;
    (void)outputInDeviceMemory;
    const CPUBuffer_Base* buffer = input.buffer();
    if (!buffer) return false;
    glyptora::ScopedTimer timer(timing, "astc_encode_cpu()");
    if (!isSupportedAstcFootprint(buffer->tileWidth, buffer->tileHeight)) {
        diagnosticPrint("ASTC Compressor: tile size %dx%d not supported.\n", buffer->tileWidth, buffer->tileHeight);
        return false;
    }
    if (level < 0 || level >= 4) {
        diagnosticPrint("Level %d not supported. Supported levels are 0,1,2,3\n", level);
        return false;
    }
    // No ASTC block encoder exists yet: the output stays untouched.
    return false;
}

uint64_t gpuTilesPerChunk(uint64_t totalGlobalMem, int tileWidth, int tileHeight, int bytesPerPixel) {
    const uint64_t tileBytes = uint64_t(tileWidth) * uint64_t(tileHeight) * uint64_t(bytesPerPixel);
    return tileBytes ? (totalGlobalMem / 4) / tileBytes : 0;
}

uint64_t gpuChunkCount(uint64_t tileCount, uint64_t tilesPerChunk) {
    return tilesPerChunk ? (tileCount + tilesPerChunk - 1) / tilesPerChunk : 0;
}

uint64_t gpuLaunchLimit(int clockRate, int multiProcessorCount, int divisor) {
    return divisor > 0 ? uint64_t(clockRate) * uint64_t(multiProcessorCount) / uint64_t(divisor) : 0;
}

}  // namespace glyptora_internal
