// Scripted CUDA driver for tests; see fake_cuda.h.
#include "fake_cuda.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "gpu/bc6h_gpu_stages.h"
#include "gpu/bc7_gpu_stages.h"
#include "gpu/gpu_kernel_bodies.h"
#include "gpu/gpu_kernel_names.h"

namespace {

using namespace glyptora_internal;
using CUresult = int;
constexpr CUresult kSuccess = 0, kInvalidValue = 1, kOutOfMemory = 2, kNotInitialized = 3, kInvalidContext = 201,
                   kNotFound = 500;

std::recursive_mutex g_mutex;  // launches and copies come from any thread
FakeCuda g_state;
FakeCudaConfig& g_config = g_state.config;
FakeCudaCounters& g_counters = g_state.counters;
std::map<const char*, size_t> g_allocations;  // address -> bytes
bool g_initialised = false;
int g_context, g_module;  // their addresses are the handles
thread_local void* g_currentContext;

bool contextIsCurrent() { return g_currentContext == &g_context; }

CUresult deviceStatus(int ordinal) {
    if (!g_initialised) return kNotInitialized;
    return ordinal >= 0 && ordinal < std::min(g_config.deviceCount, kFakeCudaMaxDevices) ? kSuccess : kInvalidValue;
}

// Whether [address, address + bytes) lies inside one live allocation.
bool isDeviceRange(const void* address, size_t bytes) {
    const char* a = static_cast<const char*>(address);
    for (const auto& [start, size] : g_allocations)
        if (a >= start && bytes <= size && size_t(a - start) <= size - bytes) return true;
    return false;
}

template <typename T>
bool inDeviceMemory(const TGPUView<T>& view) {
    return view.tileWidth == 4 && view.tileHeight == 4 && view.tileCount > 0 &&
           isDeviceRange(view.regions, view.tileCount * sizeof(*view.regions)) &&
           isDeviceRange(view.data, size_t(elementCount(view)) * sizeof(T));
}

// Records the launch's tile count; when its arguments are `valid`, runs `body` for threads 0 to
// count - 1, the grid having exactly enough CUDA blocks of `expectedThreads` threads for them
// (the threads past `count` idle).
template <typename Body>
bool runGrid(FakeCudaLaunch& r, uint32_t tiles, bool valid, unsigned grid, unsigned threads, unsigned expectedThreads,
             uint64_t count, Body body) {
    r.tiles = tiles;
    if (!valid || threads != expectedThreads || grid != (count + threads - 1) / threads) return false;
    for (uint64_t i = 0; i < count; ++i) body(i);
    return true;
}

// A block kernel: one thread per 4x4 tile of the view, 64 threads per CUDA block.
template <typename T, typename Body>
bool runBlockKernel(FakeCudaLaunch& r, unsigned grid, unsigned threads, const TGPUView<T>& view, uint32_t n,
                    uint64_t* out, size_t blockBytes, Body body) {
    return runGrid(r, n, inDeviceMemory(view) && n == view.tileCount && isDeviceRange(out, n * blockBytes), grid,
                   threads, 64, n, [&](uint64_t t) { body(view, uint32_t(t), out); });
}

// An element conversion: one thread per channel value, 128 threads per CUDA block.
template <typename S, typename D, typename Body>
bool runConversion(FakeCudaLaunch& r, unsigned grid, unsigned threads, const TGPUView<S>& source,
                   const TGPUView<D>& target, Body body) {
    const bool valid = inDeviceMemory(source) && inDeviceMemory(target) && source.regions == target.regions &&
                       elementCount(target) == elementCount(source);
    return runGrid(r, source.tileCount, valid, grid, threads, 128, elementCount(source),
                   [&](uint64_t i) { body(source, target, i); });
}

template <typename T>
T parameter(void** parameters, int i) {
    T value;
    std::memcpy(&value, parameters[i], sizeof value);
    return value;
}

// A BC7 stage: one thread per block, 128 threads per CUDA block, output and scratch in
// device memory (the opacity flags only where the stage reads them, the stage group's scratch
// wherever it has one).
bool runBC7Stage(FakeCudaLaunch& r, unsigned grid, unsigned threads, int stage, const gpu_bc7::StageArgs& a) {
    const bool flags = a.opaque ? isDeviceRange(a.opaque, a.count) : stage != 1;
    const size_t scratchFloats = size_t(a.count) * size_t(gpu_bc7::scratchLayout(stage).floats());
    const bool scratch = scratchFloats == 0 || isDeviceRange(a.scratch, scratchFloats * sizeof(float));
    const bool valid = inDeviceMemory(a.view) && a.count == a.view.tileCount && flags && scratch &&
                       isDeviceRange(a.out, a.count * 16u) && isDeviceRange(a.best, a.count * sizeof(float));
    return runGrid(r, a.count, valid, grid, threads, 128, a.count,
                   [&](uint64_t t) { gpu_bc7::runStage(stage, a, uint32_t(t)); });
}

// A BC6H texel conversion: one thread per texel of the view, 128 threads per CUDA block,
// into n x 64 floats of device memory.
template <typename T>
bool runBC6HTexels(FakeCudaLaunch& r, unsigned grid, unsigned threads, const TGPUView<T>& view, float* texels) {
    const uint64_t count = uint64_t(view.tileCount) * 16;
    return runGrid(r, view.tileCount, inDeviceMemory(view) && isDeviceRange(texels, count * 4 * sizeof(float)), grid,
                   threads, 128, count, [&](uint64_t i) { glyptora_bc6h::gpu_stages::convertTexel(view, texels, i); });
}

// A BC6H block encoder: one thread per block, 128 threads per CUDA block, texels, output and
// errors in device memory.
template <typename Funcs>
bool runBC6HEncode(FakeCudaLaunch& r, unsigned grid, unsigned threads, const glyptora_bc6h::bc6h_gpu& a) {
    const bool valid = a.count > 0 && isDeviceRange(a.texels, a.count * 64 * sizeof(float)) &&
                       isDeviceRange(a.out, a.count * 16u) && isDeviceRange(a.error, a.count * sizeof(float));
    return runGrid(r, a.count, valid, grid, threads, 128, a.count,
                   [&](uint64_t t) { glyptora_bc6h::gpu_stages::encodeBlock<Funcs>(a, uint32_t(t)); });
}

// Carries out the kernel named in `r` with the parameters it declares (gpu/gpu_kernel_names.h).
bool runKernel(FakeCudaLaunch& r, unsigned grid, unsigned threads, void** p) {
    namespace k = kernel_names;
    namespace b = gpu_blocks;
    auto u8 = [&](int i) { return parameter<GPUU8View>(p, i); };
    auto s8 = [&](int i) { return parameter<GPUS8View>(p, i); };
    auto f32 = [&](int i) { return parameter<GPUF32View>(p, i); };
    auto out = [&](int i) { return parameter<uint64_t*>(p, i); };
    auto n = [&] { return parameter<uint32_t>(p, 1); };  // the block count of the channel kernels
    auto block = [&](auto view, uint32_t count, uint64_t* output, size_t bytes, auto body) {
        return runBlockKernel(r, grid, threads, view, count, output, bytes, body);
    };
    auto convert = [&](auto source, auto target, auto body) {
        return runConversion(r, grid, threads, source, target, body);
    };
    const std::string& name = r.kernel;
    if (name == k::kCompressDXT1a) return block(u8(0), u8(0).tileCount, out(1), 8, b::compressDXT1a);
    if (name == k::kCompressDXT3) return block(u8(0), u8(0).tileCount, out(1), 16, b::compressDXT3);
    if (name == k::kCompressDXT5Alpha) return block(u8(0), n(), out(2), 16, b::compressDXT5Alpha);
    if (name == k::kCompressDXT5Color) return block(u8(0), u8(0).tileCount, out(1), 16, b::compressDXT5Color);
    if (name == k::kCompressBC4) return block(u8(0), n(), out(2), 8, b::compressBC4);
    if (name == k::kCompressBC4S) return block(s8(0), n(), out(2), 8, b::compressBC4S);
    if (name == k::kCompressBC5) return block(u8(0), n(), out(2), 16, b::compressBC5);
    if (name == k::kCompressBC5S) return block(s8(0), n(), out(2), 16, b::compressBC5S);
    for (int s = 1; s <= gpu_bc7::kStageCount; ++s)
        if (name == k::kBC7Stages[s - 1]) return runBC7Stage(r, grid, threads, s, parameter<gpu_bc7::StageArgs>(p, 0));
    auto texels = [&] { return parameter<float*>(p, 1); };
    if (name == k::kBC6HTexels[0]) return runBC6HTexels(r, grid, threads, u8(0), texels());
    if (name == k::kBC6HTexels[1]) return runBC6HTexels(r, grid, threads, s8(0), texels());
    if (name == k::kBC6HTexels[2]) return runBC6HTexels(r, grid, threads, f32(0), texels());
    if (name == k::kBC6HEncode[0])
        return runBC6HEncode<glyptora_bc6h::UnsignedFuncs>(r, grid, threads, parameter<glyptora_bc6h::bc6h_gpu>(p, 0));
    if (name == k::kBC6HEncode[1])
        return runBC6HEncode<glyptora_bc6h::SignedFuncs>(r, grid, threads, parameter<glyptora_bc6h::bc6h_gpu>(p, 0));
    if (name == k::kFillFltMax) {
        float* values = parameter<float*>(p, 0);
        const uint64_t count = parameter<uint64_t>(p, 1);
        return runGrid(r, uint32_t(count), isDeviceRange(values, count * sizeof(float)), grid, threads, 128, count,
                       [&](uint64_t i) { gpu_bc7::fillFltMax(values, i); });
    }
    if (name == k::kF32ToU8) return convert(f32(0), u8(1), b::convertF32ToU8);
    if (name == k::kS8ToU8) return convert(s8(0), u8(1), b::convertS8ToU8);
    if (name == k::kF32ToS8) return convert(f32(0), s8(1), b::convertF32ToS8);
    if (name == k::kU8ToS8) return convert(u8(0), s8(1), b::convertU8ToS8);
    return false;  // not a kernel of the module
}

CUresult copy(void* destination, const void* source, size_t bytes, const void* deviceSide, long* counter) {
    std::lock_guard<std::recursive_mutex> lock(g_mutex);
    if (!contextIsCurrent() || !isDeviceRange(deviceSide, bytes)) {
        ++g_counters.badAccesses;
        return contextIsCurrent() ? kInvalidValue : kInvalidContext;
    }
    if (counter) ++*counter;
    std::memcpy(destination, source, bytes);
    return kSuccess;
}

}  // namespace

FAKE_CUDA_API FakeCuda& fake_cuda() { return g_state; }

FAKE_CUDA_API FakeCuda& fake_cuda_reset(int driverVersion) {
    std::lock_guard<std::recursive_mutex> lock(g_mutex);
    g_state = FakeCuda{};
    g_config.driverVersion = driverVersion;
    g_config.deviceCount = 1;
    g_config.devices[0] = FakeCudaDevice{1500000, 40, 8, 6, 8ull << 30};
    g_counters.retainedDevice = -1;
    g_initialised = false;
    return g_state;
}

// ---- driver entry points ----

FAKE_CUDA_API CUresult cuDriverGetVersion(int* version) {
    ++g_counters.driverVersionCalls;
    *version = g_config.driverVersion;
    return g_config.driverVersionResult;
}

// Present for the driver check only (they came with driver versions 2.0 and 2.1).
FAKE_CUDA_API CUresult cuStreamCreate(void**, unsigned) { return kInvalidValue; }
FAKE_CUDA_API CUresult cuModuleLoadDataEx(void**, const void*, unsigned, void*, void**) { return kInvalidValue; }

FAKE_CUDA_API CUresult cuGetErrorString(CUresult error, const char** text) {
    static thread_local char buffer[48];
    std::snprintf(buffer, sizeof buffer, "fake error %d", error);
    *text = buffer;
    return kSuccess;
}

FAKE_CUDA_API CUresult cuInit(unsigned) {
    ++g_counters.initCalls;
    g_initialised = g_config.initResult == kSuccess;
    return g_config.initResult;
}

FAKE_CUDA_API CUresult cuDeviceGetCount(int* count) {
    if (!g_initialised) return kNotInitialized;
    *count = g_config.deviceCount;
    return g_config.deviceCountResult;
}

FAKE_CUDA_API CUresult cuDeviceGet(int* device, int ordinal) {
    *device = ordinal;
    return deviceStatus(ordinal);
}

FAKE_CUDA_API CUresult cuDeviceGetAttribute(int* value, int attribute, int device) {
    if (const CUresult status = deviceStatus(device)) return status;
    const FakeCudaDevice& d = g_config.devices[device];  // clock rate, multiprocessors, compute capability
    const int* found = attribute == 13 ? &d.clockRate : attribute == 16 ? &d.multiProcessorCount
                     : attribute == 75 ? &d.major : attribute == 76 ? &d.minor : nullptr;
    if (found) *value = *found;
    return found ? kSuccess : kInvalidValue;
}

FAKE_CUDA_API CUresult cuDeviceTotalMem_v2(size_t* bytes, int device) {
    if (const CUresult status = deviceStatus(device)) return status;
    *bytes = size_t(g_config.devices[device].totalMem);
    return kSuccess;
}

FAKE_CUDA_API CUresult cuDevicePrimaryCtxRetain(void** context, int device) {
    if (const CUresult status = deviceStatus(device)) return status;
    ++g_counters.retainCalls;
    g_counters.retainedDevice = device;
    *context = &g_context;
    return kSuccess;
}

FAKE_CUDA_API CUresult cuDevicePrimaryCtxRelease_v2(int) {
    ++g_counters.releaseCalls;
    return kSuccess;
}

FAKE_CUDA_API CUresult cuCtxSetCurrent(void* context) {
    g_currentContext = context;
    return kSuccess;
}

FAKE_CUDA_API CUresult cuCtxSynchronize() { return contextIsCurrent() ? g_config.synchronizeResult : kInvalidContext; }

FAKE_CUDA_API CUresult cuModuleLoadData(void** module, const void* image) {
    if (!contextIsCurrent()) return kInvalidContext;
    if (g_config.moduleLoadResult) return g_config.moduleLoadResult;
    ++g_counters.moduleLoads;
    std::memcpy(&g_counters.loadedImageFirstWord, image, sizeof g_counters.loadedImageFirstWord);
    *module = &g_module;
    return kSuccess;
}

FAKE_CUDA_API CUresult cuModuleUnload(void*) {
    ++g_counters.moduleUnloads;
    return kSuccess;
}

// A function handle is the kernel's name, kept for the life of the process.
FAKE_CUDA_API CUresult cuModuleGetFunction(void** function, void* module, const char* name) {
    static std::map<std::string, std::string> names;
    if (module != &g_module) return kInvalidValue;
    if (g_config.missingKernel && std::strcmp(g_config.missingKernel, name) == 0) return kNotFound;
    std::lock_guard<std::recursive_mutex> lock(g_mutex);
    *function = names.emplace(name, name).first->second.data();
    return kSuccess;
}

FAKE_CUDA_API CUresult cuLaunchKernel(void* function, unsigned gridX, unsigned gridY, unsigned gridZ, unsigned blockX,
                                      unsigned blockY, unsigned blockZ, unsigned sharedMemBytes, void*,
                                      void** parameters, void** extra) {
    if (!contextIsCurrent()) return kInvalidContext;
    std::lock_guard<std::recursive_mutex> lock(g_mutex);
    ++g_counters.launches;
    if (g_config.launchResult) return g_config.launchResult;
    FakeCudaLaunch record{static_cast<const char*>(function), 0};
    if (gridY != 1 || gridZ != 1 || blockY != 1 || blockZ != 1 || sharedMemBytes != 0 || extra ||
        !runKernel(record, gridX, blockX, parameters)) {
        ++g_counters.badLaunches;
        return kInvalidValue;
    }
    g_state.launches.push_back(record);
    return kSuccess;
}

FAKE_CUDA_API CUresult cuMemAlloc_v2(unsigned long long* pointer, size_t bytes) {
    if (!contextIsCurrent()) return kInvalidContext;
    if (bytes == 0) return kInvalidValue;
    char* memory = static_cast<char*>(std::malloc(bytes));
    if (!memory) return kOutOfMemory;
    std::memset(memory, 0xCD, bytes);  // poison: reads of unwritten device memory show
    std::lock_guard<std::recursive_mutex> lock(g_mutex);
    g_allocations[memory] = bytes;
    ++g_counters.allocations;
    ++g_counters.liveAllocations;
    *pointer = reinterpret_cast<uintptr_t>(memory);
    return kSuccess;
}

FAKE_CUDA_API CUresult cuMemFree_v2(unsigned long long pointer) {
    char* memory = reinterpret_cast<char*>(uintptr_t(pointer));
    std::lock_guard<std::recursive_mutex> lock(g_mutex);
    if (g_allocations.erase(memory) == 0) {
        ++g_counters.badAccesses;
        return kInvalidValue;
    }
    --g_counters.liveAllocations;
    std::free(memory);
    return kSuccess;
}

FAKE_CUDA_API CUresult cuMemcpyHtoD_v2(unsigned long long destination, const void* source, size_t bytes) {
    void* device = reinterpret_cast<void*>(uintptr_t(destination));
    return copy(device, source, bytes, device, nullptr);
}

FAKE_CUDA_API CUresult cuMemcpyDtoH_v2(void* destination, unsigned long long source, size_t bytes) {
    const void* device = reinterpret_cast<const void*>(uintptr_t(source));
    return copy(destination, device, bytes, device, &g_counters.copiesToHost);
}
