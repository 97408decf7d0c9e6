// BC6H kernels: the texel conversions (one thread per texel) and the block encoders (one
// thread per block), 128 threads per CUDA block; threads past the count stay idle. Their
// work is gpu_stages (gpu/bc6h_gpu_stages.h), shared with the host tests. The FLT_MAX fill
// is the shared glyptora_g_fill_flt_max (bc7_kernels.cu).
#include "gpu/bc6h_gpu_stages.h"

namespace {
__device__ inline uint64_t glyptora_bc6h_thread() { return uint64_t(blockIdx.x) * blockDim.x + threadIdx.x; }
}  // namespace

#define GLYPTORA_BC6H_TEXEL_KERNEL(suffix, View)                                                         \
    extern "C" __global__ void __launch_bounds__(128)                                                    \
        glyptora_bc6h_texels_##suffix(glyptora_internal::View view, float* texels) {                      \
        const uint64_t i = glyptora_bc6h_thread();                                                       \
        if (i < uint64_t(view.tileCount) * 16) glyptora_bc6h::gpu_stages::convertTexel(view, texels, i); \
    }

GLYPTORA_BC6H_TEXEL_KERNEL(u8, GPUU8View)
GLYPTORA_BC6H_TEXEL_KERNEL(s8, GPUS8View)
GLYPTORA_BC6H_TEXEL_KERNEL(f32, GPUF32View)

#undef GLYPTORA_BC6H_TEXEL_KERNEL

extern "C" __global__ void __launch_bounds__(128) glyptora_bc6h_encode_unsigned(glyptora_bc6h::bc6h_gpu args) {
    const uint64_t t = glyptora_bc6h_thread();
    if (t < args.count) glyptora_bc6h::gpu_stages::encodeBlock<glyptora_bc6h::UnsignedFuncs>(args, uint32_t(t));
}

extern "C" __global__ void __launch_bounds__(128) glyptora_bc6h_encode_signed(glyptora_bc6h::bc6h_gpu args) {
    const uint64_t t = glyptora_bc6h_thread();
    if (t < args.count) glyptora_bc6h::gpu_stages::encodeBlock<glyptora_bc6h::SignedFuncs>(args, uint32_t(t));
}
