#pragma once
// Host side of the GPU paths as the encoder entries see it.
#include <cstddef>
#include <cstdint>

namespace glyptora {
class CPUBuffer_Base;
class TimingContext;
}  // namespace glyptora

namespace glyptora_internal {

enum class GpuFormat { BC1a, BC2, BC3, BC4, BC4S, BC5, BC5S, BC6H, BC6HS, BC7, ASTC };

// Whether a usable CUDA device and driver are present (computed once per process).
bool isGpuEncodingAvailable();

// Whether this build has GPU kernels for the format.
bool hasGpuImplementation(GpuFormat format);

// Encodes every tile of `buffer` on the GPU into `output` (host or device memory).
// Returns false when the format has no GPU implementation or the device failed.
bool encodeOnGpu(GpuFormat format, const glyptora::CPUBuffer_Base& buffer, uint8_t* output,
                 bool outputInDeviceMemory, glyptora::TimingContext* timing);

// Copies host bytes to device memory owned by the caller.
bool copyHostToDevice(void* deviceDestination, const void* host, size_t bytes);

}  // namespace glyptora_internal
