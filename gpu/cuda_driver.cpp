#include "gpu/cuda_driver.h"

#include <atomic>
#include <cstdio>

#include "core/diagnostics.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_testing.h"
#include "gpu/kernel_image.h"

namespace glyptora_internal {

namespace {

// 0 = not yet known, 1 = available, 2 = not available.
std::atomic<int> g_availability{0};
std::mutex g_availabilityMutex;
GpuSession* g_session = nullptr;  // lives until the process ends (or a test resets it)

std::mutex g_testMutex;
std::string g_driverPathOverride;
const void* g_kernelImageOverride = nullptr;
size_t g_kernelImageOverrideSize = 0;

std::string driverLibraryPath() {
    std::lock_guard<std::mutex> lock(g_testMutex);
    return g_driverPathOverride.empty() ? std::string(defaultCudaDriverLibraryName()) : g_driverPathOverride;
}

KernelImage kernelImage() {
    {
        std::lock_guard<std::mutex> lock(g_testMutex);
        if (g_kernelImageOverride) return KernelImage{g_kernelImageOverride, g_kernelImageOverrideSize};
    }
    return embeddedKernelImage();
}

using GetErrorString = cuda::CUresult (*)(cuda::CUresult, const char**);

std::string errorTextFrom(GetErrorString getErrorString, cuda::CUresult error) {
    const char* text = nullptr;
    if (getErrorString && getErrorString(error, &text) == cuda::kSuccess && text) return text;
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "CUDA error %d", error);
    return buffer;
}

template <typename Function>
bool lookUp(const DynamicLibrary& library, const char* name, Function* function) {
    *function = reinterpret_cast<Function>(library.symbol(name));
    if (*function) return true;
    diagnosticPrint("*** CUDA driver lacks the entry point %s.\n", name);
    return false;
}

bool loadDriverApi(const DynamicLibrary& library, cuda::DriverApi* api) {
    return lookUp(library, "cuInit", &api->cuInit) && lookUp(library, "cuDriverGetVersion", &api->cuDriverGetVersion) &&
           lookUp(library, "cuDeviceGetCount", &api->cuDeviceGetCount) &&
           lookUp(library, "cuDeviceGet", &api->cuDeviceGet) &&
           lookUp(library, "cuDeviceGetAttribute", &api->cuDeviceGetAttribute) &&
           lookUp(library, "cuDeviceTotalMem_v2", &api->cuDeviceTotalMem) &&
           lookUp(library, "cuDevicePrimaryCtxRetain", &api->cuDevicePrimaryCtxRetain) &&
           lookUp(library, "cuDevicePrimaryCtxRelease_v2", &api->cuDevicePrimaryCtxRelease) &&
           lookUp(library, "cuCtxSetCurrent", &api->cuCtxSetCurrent) &&
           lookUp(library, "cuCtxSynchronize", &api->cuCtxSynchronize) &&
           lookUp(library, "cuModuleLoadData", &api->cuModuleLoadData) &&
           lookUp(library, "cuModuleUnload", &api->cuModuleUnload) &&
           lookUp(library, "cuModuleGetFunction", &api->cuModuleGetFunction) &&
           lookUp(library, "cuLaunchKernel", &api->cuLaunchKernel) &&
           lookUp(library, "cuMemAlloc_v2", &api->cuMemAlloc) && lookUp(library, "cuMemFree_v2", &api->cuMemFree) &&
           lookUp(library, "cuMemcpyHtoD_v2", &api->cuMemcpyHtoD) &&
           lookUp(library, "cuMemcpyDtoH_v2", &api->cuMemcpyDtoH) &&
           lookUp(library, "cuGetErrorString", &api->cuGetErrorString);
}

// Properties of device `ordinal`; a failed query leaves major/minor at -1 (the device is
// then skipped) and the score fields at 0.
CudaDeviceProperties queryDevice(const cuda::DriverApi& api, int ordinal) {
    CudaDeviceProperties p;
    cuda::CUdevice device = 0;
    if (api.cuDeviceGet(&device, ordinal) != cuda::kSuccess) return p;
    auto attribute = [&](int which, int fallback) {
        int value = 0;
        return api.cuDeviceGetAttribute(&value, which, device) == cuda::kSuccess ? value : fallback;
    };
    p.clockRate = attribute(cuda::kAttributeClockRate, 0);
    p.multiProcessorCount = attribute(cuda::kAttributeMultiprocessorCount, 0);
    p.major = attribute(cuda::kAttributeComputeCapabilityMajor, -1);
    p.minor = attribute(cuda::kAttributeComputeCapabilityMinor, -1);
    size_t bytes = 0;
    if (api.cuDeviceTotalMem(&bytes, device) == cuda::kSuccess) p.totalGlobalMem = bytes;
    return p;
}

}  // namespace

int cudaKernelRuntimeVersion() {
#if defined(GLYPTORA_CUDA_KERNEL_VERSION)
    return GLYPTORA_CUDA_KERNEL_VERSION;
#else
    return 13000;  // the toolkit the kernels are written for, when none was found at build time
#endif
}

bool checkCudaDriver() {
    std::unique_ptr<DynamicLibrary> library(DynamicLibrary::open(driverLibraryPath().c_str()));
    if (!library) {
        diagnosticPrint("*** CUDA driver not found.\n");
        return false;
    }
    // Entry points that appeared with driver versions 2.0, 2.1 and 2.2, in that order.
    if (!library->symbol("cuStreamCreate")) {
        diagnosticPrint("*** CUDA driver version < 2.0.\n");
        return false;
    }
    if (!library->symbol("cuModuleLoadDataEx")) {
        diagnosticPrint("*** CUDA driver version < 2.1.\n");
        return false;
    }
    auto getVersion = reinterpret_cast<cuda::CUresult (*)(int*)>(library->symbol("cuDriverGetVersion"));
    if (!getVersion) {
        diagnosticPrint("*** CUDA driver version < 2.2.\n");
        return false;
    }
    int version = 0;
    const cuda::CUresult result = getVersion(&version);
    if (result != cuda::kSuccess) {
        auto getErrorString = reinterpret_cast<GetErrorString>(library->symbol("cuGetErrorString"));
        diagnosticPrint("*** Error querying driver version: '%s'.\n", errorTextFrom(getErrorString, result).c_str());
        return false;
    }
    if (version < cudaKernelRuntimeVersion()) {
        diagnosticPrint("*** CUDA driver version %d < runtime version %d.\n", version, cudaKernelRuntimeVersion());
        return false;
    }
    return true;  // the library is released on every path
}

int chooseCudaDevice(int deviceCount, const std::function<CudaDeviceProperties(int)>& properties) {
    int best = 0;
    bool found = false;
    long long bestScore = 0;
    for (int i = 0; i < deviceCount; ++i) {
        const CudaDeviceProperties p = properties(i);
        if (p.major == -1 || p.minor == -1) continue;
        const long long score = static_cast<long long>(p.clockRate) * static_cast<long long>(p.multiProcessorCount);
        if (!found || score > bestScore) {  // strictly greater replaces: ties keep the earlier device
            best = i;
            bestScore = score;
            found = true;
        }
    }
    return best;
}

GpuSession::~GpuSession() {
    if (m_module) m_api.cuModuleUnload(m_module);
    if (m_contextRetained) m_api.cuDevicePrimaryCtxRelease(m_device);
}

bool GpuSession::makeCurrent() const { return m_api.cuCtxSetCurrent(m_context) == cuda::kSuccess; }

cuda::CUfunction GpuSession::kernel(const char* name) const {
    std::lock_guard<std::mutex> lock(m_kernelMutex);
    auto found = m_kernels.find(name);
    if (found != m_kernels.end()) return found->second;
    cuda::CUfunction function = nullptr;
    if (m_api.cuModuleGetFunction(&function, m_module, name) != cuda::kSuccess) function = nullptr;
    m_kernels.emplace(name, function);
    return function;
}

std::string GpuSession::errorText(cuda::CUresult error) const { return errorTextFrom(m_api.cuGetErrorString, error); }

bool computeGpuAvailability() {
    if (!checkCudaDriver()) return false;

    std::unique_ptr<GpuSession> session(new GpuSession);
    session->m_library.reset(DynamicLibrary::open(driverLibraryPath().c_str()));
    if (!session->m_library) {
        diagnosticPrint("*** CUDA driver not found.\n");
        return false;
    }
    if (!loadDriverApi(*session->m_library, &session->m_api)) return false;
    const cuda::DriverApi& api = session->m_api;
    cuda::CUresult result = api.cuInit(0);
    if (result != cuda::kSuccess) {
        diagnosticPrint("*** CUDA driver initialisation failed: '%s'.\n", session->errorText(result).c_str());
        return false;
    }

    // Device choice.
    int count = 0;
    if (api.cuDeviceGetCount(&count) != cuda::kSuccess) count = -1;
    const int chosen = chooseCudaDevice(count, [&](int i) { return queryDevice(api, i); });
    const CudaDeviceProperties properties = queryDevice(api, chosen);

    // The kernels are built for compute capability 7.5 and newer.
    if (properties.major < kMinimumComputeMajor) {
        diagnosticPrint("*** Device compute capability = %d < %d.\n", properties.major, kMinimumComputeMajor);
        return false;
    }
    if (properties.major == kMinimumComputeMajor && properties.minor < kMinimumComputeMinor) {
        diagnosticPrint("*** Device compute capability = %d.%d < %d.%d.\n", properties.major, properties.minor,
                        kMinimumComputeMajor, kMinimumComputeMinor);
        return false;
    }

    // Make the chosen device current: its primary context on this thread.
    session->m_deviceIndex = chosen;
    session->m_properties = properties;
    result = api.cuDeviceGet(&session->m_device, chosen);
    if (result == cuda::kSuccess) {
        result = api.cuDevicePrimaryCtxRetain(&session->m_context, session->m_device);
        session->m_contextRetained = result == cuda::kSuccess;
    }
    if (result == cuda::kSuccess) result = api.cuCtxSetCurrent(session->m_context);
    if (result != cuda::kSuccess) {
        diagnosticPrint("*** Cannot use CUDA device %d: '%s'.\n", chosen, session->errorText(result).c_str());
        return false;
    }

    // Ask the device count again.
    count = 0;
    if (api.cuDeviceGetCount(&count) != cuda::kSuccess || count == 0) return false;
    if (count == 1 && (properties.major == -1 || properties.minor == -1)) return false;

    // The kernels travel inside the library.
    const KernelImage image = kernelImage();
    if (!image.data || image.size == 0) {
        diagnosticPrint("*** GPU kernels are not part of this build.\n");
        return false;
    }
    result = api.cuModuleLoadData(&session->m_module, image.data);
    if (result != cuda::kSuccess) {
        session->m_module = nullptr;
        diagnosticPrint("*** Cannot load the GPU kernels: '%s'.\n", session->errorText(result).c_str());
        return false;
    }

    g_session = session.release();
    return true;
}

bool isGpuEncodingAvailable() {
    int state = g_availability.load(std::memory_order_acquire);
    if (state == 0) {
        std::lock_guard<std::mutex> lock(g_availabilityMutex);
        state = g_availability.load(std::memory_order_relaxed);
        if (state == 0) {
            state = computeGpuAvailability() ? 1 : 2;
            g_availability.store(state, std::memory_order_release);
        }
    }
    return state == 1;
}

const GpuSession* currentGpuSession() {
    if (!isGpuEncodingAvailable()) return nullptr;
    const GpuSession* session = g_session;
    return session && session->makeCurrent() ? session : nullptr;
}

namespace gpu_testing {

void setDriverLibraryPath(const char* path) {
    std::lock_guard<std::mutex> lock(g_testMutex);
    g_driverPathOverride = path ? path : "";
}

void resetGpuState() {
    std::lock_guard<std::mutex> lock(g_availabilityMutex);
    delete g_session;
    g_session = nullptr;
    g_availability.store(0, std::memory_order_release);
}

void setKernelImage(const void* image, size_t size) {
    std::lock_guard<std::mutex> lock(g_testMutex);
    g_kernelImageOverride = image;
    g_kernelImageOverrideSize = image ? size : 0;
}

}  // namespace gpu_testing

}  // namespace glyptora_internal
