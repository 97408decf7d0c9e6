// The BC6H launch sequence: the texel scratch and its conversion launch, the error array and
// its FLT_MAX fill, the one encoding launch. Every launch is element-wise: one thread per
// element, 128 threads per CUDA block, (count + 127) >> 7 blocks.
#include "gpu/bc6h_gpu_encode.h"

#include "core/timing_context.h"
#include "gpu/gpu_buffer.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu/gpu_sequence_launcher.h"

namespace glyptora_bc6h {

using glyptora_internal::DeviceMemory;
using glyptora_internal::GpuSession;
using glyptora_internal::TGPUView;
namespace cuda = glyptora_internal::cuda;
namespace names = glyptora_internal::kernel_names;

namespace {

using Launcher = glyptora_internal::GpuSequenceLauncher;

}  // namespace

template <typename Funcs>
GpuSequenceFailure t_bc6h_encode_gpu(const GpuSession& session, bc6h_gpu record) {
    Launcher launcher(session);
    DeviceMemory error;
    record.error = launcher.allocate<float>(error, record.count);
    uint64_t count = record.count;
    void* fill[] = {&record.error, &count};
    launcher.launch(names::kFillFltMax, count, fill);
    void* encode[] = {&record};
    launcher.launch(names::kBC6HEncode[Funcs::kSigned ? 1 : 0], count, encode);
    return launcher.failure;
}

template <typename View, typename Funcs>
GpuSequenceFailure t_bc6h_encode_gpu(const GpuSession& session, const View& view, cuda::CUdeviceptr output,
                                     glyptora::TimingContext* timing) {
    using Element = std::remove_cv_t<std::remove_pointer_t<decltype(view.data)>>;
    glyptora::ScopedTimer timer(timing, "bc6h_encode_gpu()");
    Launcher launcher(session);
    DeviceMemory texels;
    bc6h_gpu record{};
    record.count = view.tileCount;
    record.out = reinterpret_cast<uint8_t*>(uintptr_t(output));
    record.texels = launcher.allocate<float>(texels, size_t(record.count) * 64);
    View source = view;
    void* convert[] = {&source, &record.texels};
    launcher.launch(names::kBC6HTexels[texelKernelIndex<Element>()], uint64_t(record.count) * 16, convert);
    if (launcher.failure.failed()) return launcher.failure;
    return t_bc6h_encode_gpu<Funcs>(session, record);
}

#define GLYPTORA_BC6H_INSTANCE(View, Funcs)                                                                    \
    template GpuSequenceFailure t_bc6h_encode_gpu<glyptora_internal::View, Funcs>(                            \
        const GpuSession&, const glyptora_internal::View&, cuda::CUdeviceptr, glyptora::TimingContext*);
GLYPTORA_BC6H_INSTANCE(GPUU8View, UnsignedFuncs)
GLYPTORA_BC6H_INSTANCE(GPUU8View, SignedFuncs)
GLYPTORA_BC6H_INSTANCE(GPUS8View, UnsignedFuncs)
GLYPTORA_BC6H_INSTANCE(GPUS8View, SignedFuncs)
GLYPTORA_BC6H_INSTANCE(GPUF32View, UnsignedFuncs)
GLYPTORA_BC6H_INSTANCE(GPUF32View, SignedFuncs)
#undef GLYPTORA_BC6H_INSTANCE

}  // namespace glyptora_bc6h
