#pragma once
// A stand-in for the NVIDIA CUDA driver library, loaded by the GPU host code in tests.
// Devices, versions and failures are scripted; device memory is host memory. A kernel
// launch checks its shape and arguments as the kernels expect them (64 threads a CUDA block
// and one thread a tile for block kernels, 128 threads and one thread a value for
// conversions, views and outputs in live device memory), then runs the kernel's own
// per-thread function (gpu/gpu_kernel_bodies.h) for every thread of the grid on the CPU.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#define FAKE_CUDA_API extern "C" __attribute__((visibility("default")))

constexpr int kFakeCudaMaxDevices = 8;

struct FakeCudaDevice {
    int clockRate, multiProcessorCount, major, minor;
    unsigned long long totalMem;
};

// Results other than 0 make the entry point fail with them.
struct FakeCudaConfig {
    int driverVersion, driverVersionResult, initResult;
    int deviceCount, deviceCountResult;
    FakeCudaDevice devices[kFakeCudaMaxDevices];
    int moduleLoadResult, launchResult, synchronizeResult;
    const char* missingKernel;  // cuModuleGetFunction fails for this name
};

struct FakeCudaCounters {
    int driverVersionCalls, initCalls, retainCalls, releaseCalls, moduleLoads, moduleUnloads;
    int retainedDevice;
    uint32_t loadedImageFirstWord;  // first 4 bytes of the last module image
    long allocations, liveAllocations, launches, copiesToHost;
    long badAccesses;  // copies outside any live allocation, or without a current context
    long badLaunches;  // launches of an unknown kernel, or of a wrong shape or arguments
};

// One kernel launch as the driver carried it out.
struct FakeCudaLaunch {
    std::string kernel;
    uint32_t tiles;  // the view's tile count (for conversions: of the source)
};

struct FakeCuda {
    FakeCudaConfig config;
    FakeCudaCounters counters;
    std::vector<FakeCudaLaunch> launches;  // carried out since the last reset, in order
};

// The driver's state, to be read and changed while no call into the driver is under way.
FAKE_CUDA_API FakeCuda& fake_cuda();
// A working driver of the given version with one device, zeroed counters, no launches.
FAKE_CUDA_API FakeCuda& fake_cuda_reset(int driverVersion);
