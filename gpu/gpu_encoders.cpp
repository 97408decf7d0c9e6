#include "gpu/gpu_encoders.h"

// Without a CUDA driver loader and kernels in this build, no GPU path is usable.
namespace glyptora_internal {

bool isGpuEncodingAvailable() { return false; }

bool encodeOnGpu(GpuFormat, const glyptora::CPUBuffer_Base&, uint8_t*, bool, glyptora::TimingContext*) {
    return false;
}

bool copyHostToDevice(void*, const void*, size_t) { return false; }

}  // namespace glyptora_internal
