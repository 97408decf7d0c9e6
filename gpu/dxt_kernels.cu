// BC1 to BC5 kernels. One thread encodes one 4x4 block; the host launches 64 threads per
// CUDA block and ceil(n / 64) CUDA blocks, so threads past the block count stay idle.
// The kernels are extern "C" so that the host finds them by their plain names
// (gpu/gpu_kernel_names.h) in the module loaded through the driver.
#include "gpu/gpu_kernel_bodies.h"

namespace {

__device__ inline uint32_t glyptora_threadIndex() { return blockIdx.x * blockDim.x + threadIdx.x; }

__device__ inline uint64_t* glyptora_units(uint2* out) { return reinterpret_cast<uint64_t*>(out); }

}  // namespace

using glyptora_internal::GPUS8View;
using glyptora_internal::GPUU8View;
namespace blocks = glyptora_internal::gpu_blocks;

extern "C" __global__ void __launch_bounds__(64) glyptora_compressDXT1a(GPUU8View view, uint2* out) {
    const uint32_t b = glyptora_threadIndex();
    if (b < view.tileCount) blocks::compressDXT1a(view, b, glyptora_units(out));
}

extern "C" __global__ void __launch_bounds__(64) glyptora_compressDXT3(GPUU8View view, uint2* out) {
    const uint32_t b = glyptora_threadIndex();
    if (b < view.tileCount) blocks::compressDXT3(view, b, glyptora_units(out));
}

extern "C" __global__ void __launch_bounds__(64) glyptora_compressDXT5_Alpha(GPUU8View view, uint32_t n, uint2* out) {
    const uint32_t b = glyptora_threadIndex();
    if (b < n) blocks::compressDXT5Alpha(view, b, glyptora_units(out));
}

extern "C" __global__ void __launch_bounds__(64) glyptora_compressDXT5_Color(GPUU8View view, uint2* out) {
    const uint32_t b = glyptora_threadIndex();
    if (b < view.tileCount) blocks::compressDXT5Color(view, b, glyptora_units(out));
}

extern "C" __global__ void __launch_bounds__(64) glyptora_compressBC4(GPUU8View view, uint32_t n, uint2* out) {
    const uint32_t b = glyptora_threadIndex();
    if (b < n) blocks::compressBC4(view, b, glyptora_units(out));
}

extern "C" __global__ void __launch_bounds__(64) glyptora_compressBC4S(GPUS8View view, uint32_t n, uint2* out) {
    const uint32_t b = glyptora_threadIndex();
    if (b < n) blocks::compressBC4S(view, b, glyptora_units(out));
}

extern "C" __global__ void __launch_bounds__(64) glyptora_compressBC5(GPUU8View view, uint32_t n, uint2* out) {
    const uint32_t b = glyptora_threadIndex();
    if (b < n) blocks::compressBC5(view, b, glyptora_units(out));
}

extern "C" __global__ void __launch_bounds__(64) glyptora_compressBC5S(GPUS8View view, uint32_t n, uint2* out) {
    const uint32_t b = glyptora_threadIndex();
    if (b < n) blocks::compressBC5S(view, b, glyptora_units(out));
}
