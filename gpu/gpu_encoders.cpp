// Host side of the BC1 to BC5 GPU paths: work splitting into memory chunks and kernel
// launches, device copies of the tiles, element conversions on the device, kernel launches
// through the CUDA driver and the copy back of the blocks.
#include "gpu/gpu_encoders.h"

#include <algorithm>
#include <atomic>

#include "core/cpu_input_buffer.h"
#include "core/diagnostics.h"
#include "core/timing_context.h"
#include "gpu/bc6h_gpu_encode.h"
#include "gpu/bc7_gpu_encode.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_buffer.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu/gpu_plan.h"
#include "gpu/gpu_testing.h"
#include "gpu/gpu_work_split.h"

namespace glyptora_internal {

using glyptora::CPUBuffer_Base;
using glyptora::ScopedTimer;
using glyptora::TimingContext;

namespace {

std::atomic<uint64_t> g_maxTilesPerChunk{0};
std::atomic<uint64_t> g_maxTilesPerLaunch{0};

uint64_t capped(uint64_t value, uint64_t cap) {
    if (cap) value = std::min(value, cap);
    return std::max<uint64_t>(value, 1);
}

// The conversion kernel from element type Source to Target.
template <typename Source, typename Target>
const char* conversionKernel() {
    if constexpr (std::is_same_v<Target, uint8_t>) {
        if constexpr (std::is_same_v<Source, float>) return kernel_names::kF32ToU8;
        else return kernel_names::kS8ToU8;
    } else {
        if constexpr (std::is_same_v<Source, float>) return kernel_names::kF32ToS8;
        else return kernel_names::kU8ToS8;
    }
}

// One chunk's work on the device; the first failure is reported once and stops the rest.
class ChunkEncoder {
public:
    ChunkEncoder(const GpuSession& session, const GpuPlan& plan, uint64_t tilesPerLaunch, bool imageHasAlpha,
                 bool isSigned, TimingContext* timing)
        : m_session(session), m_api(session.api()), m_plan(plan), m_tilesPerLaunch(tilesPerLaunch),
          m_imageHasAlpha(imageHasAlpha), m_isSigned(isSigned), m_timing(timing) {}

    bool failed() const { return m_failed; }

    template <typename Source, typename CPUBuffer>
    void encode(const CPUBuffer& cpu, TileRange range, uint8_t* output, bool outputInDeviceMemory) {
        using GPUBuffer = glyptora::TGPUBuffer<TGPUView<Source>, CPUBuffer>;
        const GPUBuffer tiles(cpu, range.first, int64_t(range.end), m_timing);
        if (!tiles.ok()) return fail("host to device copy", tiles.error());
        // BC6H reads every source type itself.
        if (m_plan.stages == GpuStages::BC6H)
            encodeTiles<Source, Source>(tiles.view(), range, output, outputInDeviceMemory);
        else if (m_plan.signedKernels) encodeTiles<Source, int8_t>(tiles.view(), range, output, outputInDeviceMemory);
        else encodeTiles<Source, uint8_t>(tiles.view(), range, output, outputInDeviceMemory);
    }

private:
    // The per-chunk encoder: converts the elements if the kernels need another type, runs
    // the launches, waits for them and copies the blocks back.
    template <typename Source, typename Target>
    void encodeTiles(const TGPUView<Source>& source, TileRange range, uint8_t* output, bool outputInDeviceMemory) {
        ScopedTimer timer(m_timing, m_plan.chunkLabel);
        const uint64_t count = range.end - range.first;
        const size_t outputBytes = size_t(count) * size_t(m_plan.blockBytes);

        DeviceMemory staging;
        cuda::CUdeviceptr out = 0;
        if (outputInDeviceMemory) {
            out = cuda::CUdeviceptr(reinterpret_cast<uintptr_t>(output)) + range.first * uint64_t(m_plan.blockBytes);
        } else {
            staging = DeviceMemory(m_session, outputBytes);
            if (!staging.ok()) return fail("output allocation", staging.error());
            out = staging.address();
        }

        DeviceMemory converted;
        TGPUView<Target> view;
        if constexpr (std::is_same_v<Source, Target>) {
            view = source;
        } else {
            converted = DeviceMemory(m_session, size_t(elementCount(source)) * sizeof(Target));
            if (!converted.ok()) return fail("conversion buffer allocation", converted.error());
            for (int c = 0; c < 4; ++c) {
                view.weights[c] = source.weights[c];
                view.inverseWeights[c] = source.inverseWeights[c];
            }
            view.tileWidth = source.tileWidth;
            view.tileHeight = source.tileHeight;
            view.tileCount = source.tileCount;
            view.reserved = 0;
            view.regions = source.regions;
            view.data = converted.as<Target>();
            if (!convert(conversionKernel<Source, Target>(), source, view)) return;
        }

        const uint64_t launches = (count + m_tilesPerLaunch - 1) / m_tilesPerLaunch;
        forEachEvenSplit(count, launches, [&](TileRange launch) {
            if (!m_failed)
                launchFormat(subView(view, uint32_t(launch.first), uint32_t(launch.end - launch.first)),
                             out + launch.first * uint64_t(m_plan.blockBytes));
        });
        if (m_failed) return;
        const cuda::CUresult result = m_api.cuCtxSynchronize();
        if (result != cuda::kSuccess) return fail("kernel execution", result);

        if (!outputInDeviceMemory) {
            ScopedTimer copyTimer(m_timing, "device to host");
            const cuda::CUresult copied =
                m_api.cuMemcpyDtoH(output + range.first * uint64_t(m_plan.blockBytes), out, outputBytes);
            if (copied != cuda::kSuccess) return fail("device to host copy", copied);
        }
    }

    // One thread per channel value, 128 threads per CUDA block.
    template <typename Source, typename Target>
    bool convert(const char* kernelName, TGPUView<Source> source, TGPUView<Target> target) {
        cuda::CUfunction kernel = lookUp(kernelName);
        if (!kernel) return false;
        const uint64_t grid = (elementCount(source) + 127) / 128;
        void* parameters[] = {&source, &target};
        const cuda::CUresult result =
            m_api.cuLaunchKernel(kernel, unsigned(grid), 1, 1, 128, 1, 1, 0, nullptr, parameters, nullptr);
        if (result != cuda::kSuccess) fail("conversion launch", result);
        return result == cuda::kSuccess;
    }

    // The launch function of the format: one thread per 4x4 block, 64 threads per CUDA
    // block, the channel kernel (with the block count) before the colour kernel.
    template <typename T>
    void launchFormat(TGPUView<T> view, cuda::CUdeviceptr out) {
        if constexpr (std::is_same_v<T, uint8_t>) {
            if (m_plan.stages == GpuStages::BC7) return launchBC7(view, out);
        }
        if (m_plan.stages == GpuStages::BC6H) return launchBC6H(view, out);
        ScopedTimer timer(m_timing, m_plan.launchLabel);
        uint32_t n = view.tileCount;
        const unsigned grid = unsigned((uint64_t(n) + 63) / 64);
        if (m_plan.channelKernel) {
            cuda::CUfunction kernel = lookUp(m_plan.channelKernel);
            if (!kernel) return;
            void* parameters[] = {&view, &n, &out};
            const cuda::CUresult result =
                m_api.cuLaunchKernel(kernel, grid, 1, 1, 64, 1, 1, 0, nullptr, parameters, nullptr);
            if (result != cuda::kSuccess) return fail("kernel launch", result);
        }
        if (m_plan.colourKernel) {
            cuda::CUfunction kernel = lookUp(m_plan.colourKernel);
            if (!kernel) return;
            void* parameters[] = {&view, &out};
            const cuda::CUresult result =
                m_api.cuLaunchKernel(kernel, grid, 1, 1, 64, 1, 1, 0, nullptr, parameters, nullptr);
            if (result != cuda::kSuccess) return fail("kernel launch", result);
        }
    }

    // The staged BC7 sequence, which opens its own timing scope.
    void launchBC7(const GPUU8View& view, cuda::CUdeviceptr out) {
        report(glyptora_bc7::t_bc7_encode_gpu(m_session, view, m_imageHasAlpha, out, m_timing));
    }

    // The BC6H sequence of the request's signedness, which opens its own timing scope.
    template <typename T>
    void launchBC6H(const TGPUView<T>& view, cuda::CUdeviceptr out) {
        using namespace glyptora_bc6h;
        if (m_isSigned) report(t_bc6h_encode_gpu<TGPUView<T>, SignedFuncs>(m_session, view, out, m_timing));
        else report(t_bc6h_encode_gpu<TGPUView<T>, UnsignedFuncs>(m_session, view, out, m_timing));
    }

    void report(const GpuSequenceFailure& failure) {
        if (failure.missingKernel) lookUp(failure.missingKernel);
        else if (failure.step) fail(failure.step, failure.result);
    }

    cuda::CUfunction lookUp(const char* name) {
        cuda::CUfunction kernel = m_session.kernel(name);
        if (!kernel && !m_failed) {
            diagnosticPrint("*** GPU kernel %s is missing from the kernel module.\n", name);
            m_failed = true;
        }
        return kernel;
    }

    void fail(const char* step, cuda::CUresult result) {
        if (!m_failed) diagnosticPrint("*** GPU encoding failed at %s: '%s'.\n", step, m_session.errorText(result).c_str());
        m_failed = true;
    }

    const GpuSession& m_session;
    const cuda::DriverApi& m_api;
    const GpuPlan& m_plan;
    const uint64_t m_tilesPerLaunch;
    const bool m_imageHasAlpha;
    const bool m_isSigned;
    TimingContext* m_timing;
    bool m_failed = false;
};

template <typename Source, typename CPUBuffer>
bool encodeChunks(const GpuSession& session, const GpuPlan& plan, const CPUBuffer& buffer, uint8_t* output,
                  bool outputInDeviceMemory, bool imageHasAlpha, bool isSigned, TimingContext* timing) {
    const CudaDeviceProperties& properties = session.properties();
    const uint64_t tilesPerChunk = capped(
        gpuTilesPerChunk(properties.totalGlobalMem, buffer.tileWidth, buffer.tileHeight, int(buffer.bytesPerPixel())),
        g_maxTilesPerChunk.load());
    const uint64_t chunks = gpuChunkCount(buffer.tileCount, tilesPerChunk);
    const uint64_t tilesPerLaunch =
        capped(gpuLaunchLimit(properties.clockRate, properties.multiProcessorCount, plan.launchDivisor),
               g_maxTilesPerLaunch.load());

    ChunkEncoder encoder(session, plan, tilesPerLaunch, imageHasAlpha, isSigned, timing);
    forEachEvenSplit(buffer.tileCount, chunks, [&](TileRange range) {
        if (!encoder.failed()) encoder.template encode<Source>(buffer, range, output, outputInDeviceMemory);
    });
    return !encoder.failed();
}

}  // namespace

bool encodeOnGpu(const GpuPlan& plan, const char* entryName, const CPUBuffer_Base& buffer, uint8_t* output,
                 bool outputInDeviceMemory, TimingContext* timing, bool imageHasAlpha, bool isSigned) {
    if (buffer.tileCount == 0) return true;  // no chunk, no output
    if (buffer.tileWidth != 4 || buffer.tileHeight != 4) {
        diagnosticPrint("%s Compressor: only tile size 4x4 is supported.\n", entryName);
        return false;
    }
    const GpuSession* session = currentGpuSession();
    if (!session) return false;
    if (auto* u8 = dynamic_cast<const glyptora::U8TileBuffer*>(&buffer))
        return encodeChunks<uint8_t>(*session, plan, *u8, output, outputInDeviceMemory, imageHasAlpha, isSigned,
                                     timing);
    if (auto* s8 = dynamic_cast<const glyptora::S8TileBuffer*>(&buffer))
        return encodeChunks<int8_t>(*session, plan, *s8, output, outputInDeviceMemory, imageHasAlpha, isSigned, timing);
    if (auto* f32 = dynamic_cast<const glyptora::F32TileBuffer*>(&buffer))
        return encodeChunks<float>(*session, plan, *f32, output, outputInDeviceMemory, imageHasAlpha, isSigned, timing);
    return false;
}

bool copyHostToDevice(void* deviceDestination, const void* host, size_t bytes) {
    const GpuSession* session = currentGpuSession();
    if (!session) return false;
    if (bytes == 0) return true;
    const cuda::CUresult result = session->api().cuMemcpyHtoD(
        cuda::CUdeviceptr(reinterpret_cast<uintptr_t>(deviceDestination)), host, bytes);
    if (result != cuda::kSuccess) {
        diagnosticPrint("*** Copy to device memory failed: '%s'.\n", session->errorText(result).c_str());
        return false;
    }
    return true;
}

namespace gpu_testing {

void setWorkLimits(uint64_t maxTilesPerChunk, uint64_t maxTilesPerLaunch) {
    g_maxTilesPerChunk.store(maxTilesPerChunk);
    g_maxTilesPerLaunch.store(maxTilesPerLaunch);
}

}  // namespace gpu_testing

}  // namespace glyptora_internal
