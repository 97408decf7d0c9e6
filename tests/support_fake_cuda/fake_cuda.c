/* Scripted CUDA driver for tests; see fake_cuda.h. */
#include "fake_cuda.h"

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define EXPORT __attribute__((visibility("default")))

typedef int CUresult;
enum {
    kSuccess = 0,
    kInvalidValue = 1,
    kOutOfMemory = 2,
    kNotInitialized = 3,
    kInvalidContext = 201,
    kNotFound = 500
};

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static FakeCudaConfig g_config;
static FakeCudaCounters g_counters;
static FakeCudaLaunchHook g_hook;
static void* g_hookUser;
static int g_initialised;
static int g_contextToken;
static int g_moduleToken;
static __thread void* g_currentContext;

typedef struct Allocation {
    char* address;
    size_t bytes;
} Allocation;
static Allocation* g_allocations;
static size_t g_allocationCount;
static size_t g_allocationCapacity;

#define MAX_KERNELS 64
static char g_kernelNames[MAX_KERNELS][64];
static int g_kernelCount;

static int hasDevice(int ordinal) { return ordinal >= 0 && ordinal < g_config.deviceCount && ordinal < FAKE_CUDA_MAX_DEVICES; }

EXPORT void fake_cuda_reset(int driverVersion) {
    pthread_mutex_lock(&g_mutex);
    memset(&g_config, 0, sizeof g_config);
    memset(&g_counters, 0, sizeof g_counters);
    g_config.driverVersion = driverVersion;
    g_config.deviceCount = 1;
    g_config.devices[0].clockRate = 1500000;
    g_config.devices[0].multiProcessorCount = 40;
    g_config.devices[0].major = 8;
    g_config.devices[0].minor = 6;
    g_config.devices[0].totalMem = 8ull << 30;
    g_counters.retainedDevice = -1;
    g_hook = NULL;
    g_hookUser = NULL;
    g_initialised = 0;
    pthread_mutex_unlock(&g_mutex);
}

EXPORT FakeCudaConfig* fake_cuda_config(void) { return &g_config; }

EXPORT FakeCudaCounters fake_cuda_counters(void) {
    pthread_mutex_lock(&g_mutex);
    FakeCudaCounters copy = g_counters;
    pthread_mutex_unlock(&g_mutex);
    return copy;
}

EXPORT void fake_cuda_set_launch_hook(FakeCudaLaunchHook hook, void* user) {
    g_hook = hook;
    g_hookUser = user;
}

static int insideAllocation(const void* address, size_t bytes) {
    const char* a = (const char*)address;
    for (size_t i = 0; i < g_allocationCount; ++i) {
        const Allocation* al = &g_allocations[i];
        if (a >= al->address && bytes <= al->bytes && (size_t)(a - al->address) <= al->bytes - bytes) return 1;
    }
    return 0;
}

EXPORT int fake_cuda_is_device_range(const void* address, size_t bytes) {
    pthread_mutex_lock(&g_mutex);
    int inside = insideAllocation(address, bytes);
    pthread_mutex_unlock(&g_mutex);
    return inside;
}

/* ---- driver entry points ---- */

#ifndef FAKE_CUDA_WITHOUT_cuDriverGetVersion
EXPORT CUresult cuDriverGetVersion(int* version) {
    pthread_mutex_lock(&g_mutex);
    ++g_counters.driverVersionCalls;
    pthread_mutex_unlock(&g_mutex);
    if (g_config.driverVersionResult) return g_config.driverVersionResult;
    *version = g_config.driverVersion;
    return kSuccess;
}
#endif

#ifndef FAKE_CUDA_WITHOUT_cuStreamCreate
EXPORT CUresult cuStreamCreate(void** stream, unsigned flags) {
    (void)flags;
    *stream = NULL;
    return kInvalidValue; /* never used by the library beyond its presence */
}
#endif

#ifndef FAKE_CUDA_WITHOUT_cuModuleLoadDataEx
EXPORT CUresult cuModuleLoadDataEx(void** module, const void* image, unsigned count, void* options, void** values) {
    (void)module, (void)image, (void)count, (void)options, (void)values;
    return kInvalidValue; /* presence only */
}
#endif

EXPORT CUresult cuGetErrorString(CUresult error, const char** text) {
    static char buffers[4][48];
    static int next;
    char* buffer = buffers[next++ & 3];
    snprintf(buffer, sizeof buffers[0], "fake error %d", error);
    *text = buffer;
    return kSuccess;
}

EXPORT CUresult cuInit(unsigned flags) {
    (void)flags;
    ++g_counters.initCalls;
    if (g_config.initResult) return g_config.initResult;
    g_initialised = 1;
    return kSuccess;
}

EXPORT CUresult cuDeviceGetCount(int* count) {
    if (!g_initialised) return kNotInitialized;
    if (g_config.deviceCountResult) return g_config.deviceCountResult;
    *count = g_config.deviceCount;
    return kSuccess;
}

EXPORT CUresult cuDeviceGet(int* device, int ordinal) {
    if (!g_initialised) return kNotInitialized;
    if (!hasDevice(ordinal)) return kInvalidValue;
    *device = ordinal;
    return kSuccess;
}

EXPORT CUresult cuDeviceGetAttribute(int* value, int attribute, int device) {
    if (!g_initialised) return kNotInitialized;
    if (!hasDevice(device)) return kInvalidValue;
    const FakeCudaDevice* d = &g_config.devices[device];
    switch (attribute) {
        case 13: *value = d->clockRate; return kSuccess;
        case 16: *value = d->multiProcessorCount; return kSuccess;
        case 75: *value = d->major; return kSuccess;
        case 76: *value = d->minor; return kSuccess;
        default: return kInvalidValue;
    }
}

EXPORT CUresult cuDeviceTotalMem_v2(size_t* bytes, int device) {
    if (!g_initialised) return kNotInitialized;
    if (!hasDevice(device)) return kInvalidValue;
    *bytes = (size_t)g_config.devices[device].totalMem;
    return kSuccess;
}

EXPORT CUresult cuDevicePrimaryCtxRetain(void** context, int device) {
    if (!g_initialised) return kNotInitialized;
    if (!hasDevice(device)) return kInvalidValue;
    ++g_counters.retainCalls;
    g_counters.retainedDevice = device;
    *context = &g_contextToken;
    return kSuccess;
}

EXPORT CUresult cuDevicePrimaryCtxRelease_v2(int device) {
    (void)device;
    ++g_counters.releaseCalls;
    return kSuccess;
}

EXPORT CUresult cuCtxSetCurrent(void* context) {
    g_currentContext = context;
    return kSuccess;
}

EXPORT CUresult cuCtxSynchronize(void) {
    if (g_currentContext != &g_contextToken) return kInvalidContext;
    ++g_counters.synchronizes;
    return g_config.synchronizeResult;
}

EXPORT CUresult cuModuleLoadData(void** module, const void* image) {
    if (g_currentContext != &g_contextToken) return kInvalidContext;
    if (g_config.moduleLoadResult) return g_config.moduleLoadResult;
    ++g_counters.moduleLoads;
    uint32_t first = 0;
    memcpy(&first, image, sizeof first);
    g_counters.loadedImageFirstWord = first;
    *module = &g_moduleToken;
    return kSuccess;
}

EXPORT CUresult cuModuleUnload(void* module) {
    (void)module;
    ++g_counters.moduleUnloads;
    return kSuccess;
}

EXPORT CUresult cuModuleGetFunction(void** function, void* module, const char* name) {
    if (module != &g_moduleToken) return kInvalidValue;
    if (g_config.missingKernel && strcmp(g_config.missingKernel, name) == 0) return kNotFound;
    pthread_mutex_lock(&g_mutex);
    int found = -1;
    for (int i = 0; i < g_kernelCount; ++i)
        if (strcmp(g_kernelNames[i], name) == 0) found = i;
    if (found < 0 && g_kernelCount < MAX_KERNELS && strlen(name) < sizeof g_kernelNames[0]) {
        found = g_kernelCount++;
        strcpy(g_kernelNames[found], name);
    }
    pthread_mutex_unlock(&g_mutex);
    if (found < 0) return kNotFound;
    *function = g_kernelNames[found];
    return kSuccess;
}

EXPORT CUresult cuLaunchKernel(void* function, unsigned gridX, unsigned gridY, unsigned gridZ, unsigned blockX,
                               unsigned blockY, unsigned blockZ, unsigned sharedMemBytes, void* stream,
                               void** parameters, void** extra) {
    (void)stream, (void)extra;
    if (g_currentContext != &g_contextToken) return kInvalidContext;
    if (gridY != 1 || gridZ != 1 || blockY != 1 || blockZ != 1 || gridX == 0 || blockX == 0) return kInvalidValue;
    pthread_mutex_lock(&g_mutex);
    ++g_counters.launches;
    pthread_mutex_unlock(&g_mutex);
    if (g_config.launchResult) return g_config.launchResult;
    if (g_hook) g_hook(g_hookUser, (const char*)function, gridX, blockX, sharedMemBytes, parameters);
    return kSuccess;
}

EXPORT CUresult cuMemAlloc_v2(unsigned long long* pointer, size_t bytes) {
    if (g_currentContext != &g_contextToken) return kInvalidContext;
    if (bytes == 0) return kInvalidValue;
    char* memory = (char*)malloc(bytes);
    if (!memory) return kOutOfMemory;
    memset(memory, 0xCD, bytes); /* poison: reads of unwritten device memory show */
    pthread_mutex_lock(&g_mutex);
    if (g_allocationCount == g_allocationCapacity) {
        g_allocationCapacity = g_allocationCapacity ? 2 * g_allocationCapacity : 16;
        g_allocations = (Allocation*)realloc(g_allocations, g_allocationCapacity * sizeof(Allocation));
    }
    g_allocations[g_allocationCount].address = memory;
    g_allocations[g_allocationCount].bytes = bytes;
    ++g_allocationCount;
    ++g_counters.allocations;
    ++g_counters.liveAllocations;
    pthread_mutex_unlock(&g_mutex);
    *pointer = (unsigned long long)(uintptr_t)memory;
    return kSuccess;
}

EXPORT CUresult cuMemFree_v2(unsigned long long pointer) {
    char* memory = (char*)(uintptr_t)pointer;
    pthread_mutex_lock(&g_mutex);
    for (size_t i = 0; i < g_allocationCount; ++i) {
        if (g_allocations[i].address == memory) {
            g_allocations[i] = g_allocations[--g_allocationCount];
            --g_counters.liveAllocations;
            pthread_mutex_unlock(&g_mutex);
            free(memory);
            return kSuccess;
        }
    }
    ++g_counters.badAccesses;
    pthread_mutex_unlock(&g_mutex);
    return kInvalidValue;
}

static CUresult checkedCopy(void* destination, const void* source, size_t bytes, const void* deviceSide,
                            long* counter) {
    if (g_currentContext != &g_contextToken) {
        ++g_counters.badAccesses;
        return kInvalidContext;
    }
    pthread_mutex_lock(&g_mutex);
    int inside = insideAllocation(deviceSide, bytes);
    if (!inside) ++g_counters.badAccesses;
    else ++*counter;
    pthread_mutex_unlock(&g_mutex);
    if (!inside) return kInvalidValue;
    memcpy(destination, source, bytes);
    return kSuccess;
}

EXPORT CUresult cuMemcpyHtoD_v2(unsigned long long destination, const void* source, size_t bytes) {
    void* device = (void*)(uintptr_t)destination;
    return checkedCopy(device, source, bytes, device, &g_counters.copiesToDevice);
}

EXPORT CUresult cuMemcpyDtoH_v2(void* destination, unsigned long long source, size_t bytes) {
    const void* device = (const void*)(uintptr_t)source;
    return checkedCopy(destination, device, bytes, device, &g_counters.copiesToHost);
}
