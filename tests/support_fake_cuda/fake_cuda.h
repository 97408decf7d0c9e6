/* A stand-in for the NVIDIA CUDA driver library, loaded by the GPU host code in tests.
 * Devices, versions and failures are scripted; device memory is host memory; kernel
 * launches call a hook that the test supplies (which can emulate the kernel on the CPU).
 * Built several times with FAKE_CUDA_WITHOUT_<name> to leave out one entry point. */
#ifndef GLYPTORA_FAKE_CUDA_H
#define GLYPTORA_FAKE_CUDA_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define FAKE_CUDA_MAX_DEVICES 8

typedef struct FakeCudaDevice {
    int clockRate;
    int multiProcessorCount;
    int major;
    int minor;
    unsigned long long totalMem;
} FakeCudaDevice;

typedef struct FakeCudaConfig {
    int driverVersion;
    int driverVersionResult; /* non-zero: cuDriverGetVersion fails with it */
    int initResult;
    int deviceCountResult;
    int deviceCount;
    FakeCudaDevice devices[FAKE_CUDA_MAX_DEVICES];
    int moduleLoadResult;
    int launchResult;
    int synchronizeResult;
    const char* missingKernel; /* cuModuleGetFunction fails for this name */
} FakeCudaConfig;

typedef struct FakeCudaCounters {
    int driverVersionCalls;
    int initCalls;
    int retainCalls;
    int releaseCalls;
    int retainedDevice;
    int moduleLoads;
    int moduleUnloads;
    size_t loadedImageFirstWord; /* first 4 bytes of the last module image */
    long allocations;
    long liveAllocations;
    long launches;
    long synchronizes;
    long copiesToDevice;
    long copiesToHost;
    long badAccesses; /* copies outside any live allocation, or without a current context */
} FakeCudaCounters;

typedef void (*FakeCudaLaunchHook)(void* user, const char* kernelName, unsigned gridX, unsigned blockX,
                                   unsigned sharedMemBytes, void** parameters);

/* A working driver of the given version with one device, no hook, zeroed counters. */
void fake_cuda_reset(int driverVersion);
FakeCudaConfig* fake_cuda_config(void);
FakeCudaCounters fake_cuda_counters(void);
void fake_cuda_set_launch_hook(FakeCudaLaunchHook hook, void* user);
/* Whether [address, address + bytes) lies inside one live allocation. */
int fake_cuda_is_device_range(const void* address, size_t bytes);

#ifdef __cplusplus
}
#endif

#endif
