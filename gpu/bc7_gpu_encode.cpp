// The BC7 launch sequence: scratch allocation, FLT_MAX fills and the stage launches in the
// order of kBC7Sequence, each repeat passing its loop index to the stage.
#include "gpu/bc7_gpu_encode.h"

#include "core/timing_context.h"
#include "gpu/bc7_gpu_stages.h"
#include "gpu/gpu_buffer.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu/gpu_sequence_launcher.h"

namespace glyptora_bc7 {

using glyptora_internal::DeviceMemory;
using glyptora_internal::GpuSession;
using glyptora_internal::GPUU8View;
namespace cuda = glyptora_internal::cuda;
namespace names = glyptora_internal::kernel_names;
namespace stages = glyptora_internal::gpu_bc7;

namespace {

constexpr bool matchesStageLaunches() {
    for (const SequenceStep& s : kBC7Sequence)
        if (s.stage > 0 && s.launches != stages::kStageLaunches[s.stage - 1]) return false;
    return true;
}
static_assert(matchesStageLaunches(), "the stage functions expect these launch counts");

// The launcher with the per-block sizes of one sequence over `count` blocks.
class Sequence : public glyptora_internal::GpuSequenceLauncher {
public:
    Sequence(const GpuSession& session, uint32_t count) : GpuSequenceLauncher(session), m_count(count) {}

    // Device memory for `elementsPerBlock` of T per block; null (with the failure kept) when refused.
    template <typename T>
    T* allocate(DeviceMemory& memory, size_t elementsPerBlock) {
        return GpuSequenceLauncher::allocate<T>(memory, size_t(m_count) * elementsPerBlock);
    }

    void fill(float* values, uint64_t count) {
        void* parameters[] = {&values, &count};
        launch(names::kFillFltMax, count, parameters);
    }

    void stage(int s, stages::StageArgs args) {
        void* parameters[] = {&args};
        launch(names::kBC7Stages[s - 1], m_count, parameters);
    }

private:
    const uint32_t m_count;
};

}  // namespace

GpuSequenceFailure t_bc7_encode_gpu(const GpuSession& session, const GPUU8View& view, bool imageHasAlpha,
                                    cuda::CUdeviceptr output, glyptora::TimingContext* timing) {
    glyptora::ScopedTimer timer(timing, "bc7_encode_gpu()");
    const uint32_t n = view.tileCount;
    Sequence sequence(session, n);
    stages::StageArgs args{};
    args.view = view;
    args.out = reinterpret_cast<uint8_t*>(uintptr_t(output));
    args.count = n;

    DeviceMemory opaque, best, scratch;
    if (imageHasAlpha) args.opaque = sequence.allocate<uint8_t>(opaque, 1);
    args.best = sequence.allocate<float>(best, 1);
    for (int k = 0; k < kBC7SequenceLength; ++k) {
        const SequenceStep& s = kBC7Sequence[k];
        if (alphaOnlyStep(k) && !imageHasAlpha) continue;
        if (s.stage == 0) {
            const int next = kBC7Sequence[k + 1].stage;
            if (next == 2) {
                sequence.fill(args.best, n);
                continue;
            }
            // A group's arrays replace those of the group before, which has no more use for them.
            scratch = DeviceMemory();
            const int floats = stages::scratchLayout(next).floats();
            args.scratch = sequence.allocate<float>(scratch, size_t(floats));
            sequence.fill(args.scratch, uint64_t(n) * uint64_t(floats));
            continue;
        }
        for (int i = 0; i < s.launches; ++i) {
            args.index = uint32_t(i);
            sequence.stage(s.stage, args);
        }
    }
    return sequence.failure;
}

}  // namespace glyptora_bc7
