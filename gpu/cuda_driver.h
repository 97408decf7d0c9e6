#pragma once
// The NVIDIA CUDA driver as the GPU host code uses it: loaded at run time (never linked),
// reached through a table of entry points, with the few driver types declared here so that
// host code builds without the CUDA toolkit.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "gpu/dynamic_library.h"

namespace glyptora_internal {

namespace cuda {

using CUresult = int;
using CUdevice = int;
using CUdeviceptr = unsigned long long;
struct CUctx_st;
struct CUmod_st;
struct CUfunc_st;
struct CUstream_st;
using CUcontext = CUctx_st*;
using CUmodule = CUmod_st*;
using CUfunction = CUfunc_st*;
using CUstream = CUstream_st*;

constexpr CUresult kSuccess = 0;

// Device attribute numbers of the driver interface.
constexpr int kAttributeClockRate = 13;           // kHz
constexpr int kAttributeMultiprocessorCount = 16;
constexpr int kAttributeComputeCapabilityMajor = 75;
constexpr int kAttributeComputeCapabilityMinor = 76;

// Entry points used after the driver check; the versioned names ("_v2") are the ones looked up.
struct DriverApi {
    CUresult (*cuInit)(unsigned int flags) = nullptr;
    CUresult (*cuDriverGetVersion)(int* version) = nullptr;
    CUresult (*cuDeviceGetCount)(int* count) = nullptr;
    CUresult (*cuDeviceGet)(CUdevice* device, int ordinal) = nullptr;
    CUresult (*cuDeviceGetAttribute)(int* value, int attribute, CUdevice device) = nullptr;
    CUresult (*cuDeviceTotalMem)(size_t* bytes, CUdevice device) = nullptr;
    CUresult (*cuDevicePrimaryCtxRetain)(CUcontext* context, CUdevice device) = nullptr;
    CUresult (*cuDevicePrimaryCtxRelease)(CUdevice device) = nullptr;
    CUresult (*cuCtxSetCurrent)(CUcontext context) = nullptr;
    CUresult (*cuCtxSynchronize)() = nullptr;
    CUresult (*cuModuleLoadData)(CUmodule* module, const void* image) = nullptr;
    CUresult (*cuModuleUnload)(CUmodule module) = nullptr;
    CUresult (*cuModuleGetFunction)(CUfunction* function, CUmodule module, const char* name) = nullptr;
    CUresult (*cuLaunchKernel)(CUfunction function, unsigned gridX, unsigned gridY, unsigned gridZ, unsigned blockX,
                               unsigned blockY, unsigned blockZ, unsigned sharedMemBytes, CUstream stream,
                               void** parameters, void** extra) = nullptr;
    CUresult (*cuMemAlloc)(CUdeviceptr* pointer, size_t bytes) = nullptr;
    CUresult (*cuMemFree)(CUdeviceptr pointer) = nullptr;
    CUresult (*cuMemcpyHtoD)(CUdeviceptr destination, const void* source, size_t bytes) = nullptr;
    CUresult (*cuMemcpyDtoH)(void* destination, CUdeviceptr source, size_t bytes) = nullptr;
    CUresult (*cuGetErrorString)(CUresult error, const char** text) = nullptr;
};

}  // namespace cuda

// The CUDA version the embedded kernels were built with (CUDA_VERSION form: 13000 for 13.0).
// A driver older than this cannot run them.
int cudaKernelRuntimeVersion();

// The properties of one device that device choice and work splitting read.
struct CudaDeviceProperties {
    int clockRate = 0;            // kHz
    int multiProcessorCount = 0;
    int major = -1;               // -1: not known
    int minor = -1;
    uint64_t totalGlobalMem = 0;  // bytes
};

// Loads the driver library, checks that it is recent enough and releases it again; prints
// a "*** " line and returns false when it is missing, too old or failing.
bool checkCudaDriver();

// Index of the device to use among `deviceCount` devices (a count below 1, also the -1 of
// a failed count query, gives 0): the highest clockRate x multiProcessorCount, the earlier
// device on equal scores, skipping devices whose major or minor is -1.
int chooseCudaDevice(int deviceCount, const std::function<CudaDeviceProperties(int)>& properties);

// The oldest compute capability the embedded kernels run on.
constexpr int kMinimumComputeMajor = 7;
constexpr int kMinimumComputeMinor = 5;

// Process-wide state once the GPU was found usable: the driver entry points, the chosen
// device with its primary context, and the kernel module loaded from the embedded image.
class GpuSession {
public:
    ~GpuSession();
    const cuda::DriverApi& api() const { return m_api; }
    const CudaDeviceProperties& properties() const { return m_properties; }
    int deviceIndex() const { return m_deviceIndex; }
    // Makes the session's context current on the calling thread.
    bool makeCurrent() const;
    // The kernel `name` of the module (looked up once), or null when the module lacks it.
    cuda::CUfunction kernel(const char* name) const;
    // The driver's text for an error code.
    std::string errorText(cuda::CUresult error) const;

private:
    friend bool computeGpuAvailability();
    GpuSession() = default;

    std::unique_ptr<DynamicLibrary> m_library;
    cuda::DriverApi m_api;
    int m_deviceIndex = 0;
    cuda::CUdevice m_device = 0;
    bool m_contextRetained = false;
    cuda::CUcontext m_context = nullptr;
    cuda::CUmodule m_module = nullptr;
    CudaDeviceProperties m_properties;
    mutable std::mutex m_kernelMutex;
    mutable std::unordered_map<std::string, cuda::CUfunction> m_kernels;
};

// The session when the GPU is usable (computing availability first), with its context made
// current on the calling thread; null otherwise.
const GpuSession* currentGpuSession();

// Runs the availability steps once: driver check, device choice, compute-capability check,
// context, device count, kernel module. Prints a "*** " line for the reason of a refusal.
bool computeGpuAvailability();

}  // namespace glyptora_internal
