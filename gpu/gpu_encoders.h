#pragma once
// Host side of the GPU paths as the encoder entries see it.
#include <cstddef>
#include <cstdint>

namespace glyptora {
class CPUBuffer_Base;
class TimingContext;
}  // namespace glyptora

namespace glyptora_internal {

struct GpuPlan;

// Whether a usable CUDA device and driver are present (computed once per process).
bool isGpuEncodingAvailable();

// Encodes every tile of `buffer` on the GPU into `output` (host or device memory) as
// `plan` says. `entryName` ("BC1a") names the format in messages. Returns false when
// the device failed. `imageHasAlpha` is the BC7 stages' alpha flag, `isSigned` picks the
// signed BC6H encoder.
bool encodeOnGpu(const GpuPlan& plan, const char* entryName, const glyptora::CPUBuffer_Base& buffer,
                 uint8_t* output, bool outputInDeviceMemory, glyptora::TimingContext* timing,
                 bool imageHasAlpha = false, bool isSigned = false);

// Copies host bytes to device memory owned by the caller.
bool copyHostToDevice(void* deviceDestination, const void* host, size_t bytes);

}  // namespace glyptora_internal
