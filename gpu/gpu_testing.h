#pragma once
// Test seams of the GPU host code. Production code never calls these.
#include <cstddef>
#include <cstdint>

namespace glyptora_internal::gpu_testing {

// Loads the CUDA driver from `path` instead of the platform's driver library (null: default).
// Takes effect at the next availability computation (see resetGpuState).
void setDriverLibraryPath(const char* path);

// Forgets the cached availability and releases the GPU session, so that the next query
// computes availability again.
void resetGpuState();

// Loads `image` as the kernel module instead of the embedded fat binary (null: embedded).
void setKernelImage(const void* image, size_t size);

// Caps tiles per memory chunk and tiles per kernel launch below what the device's memory
// and clock give (0: no cap), so that multi-chunk and multi-launch splits can be exercised.
void setWorkLimits(uint64_t maxTilesPerChunk, uint64_t maxTilesPerLaunch);

}  // namespace glyptora_internal::gpu_testing
