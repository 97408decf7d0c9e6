#pragma once
// Issues the allocations and launches of one GPU launch sequence; after the first failure it
// issues nothing more and keeps that failure. Launches are element-wise: one thread per
// element, 128 threads per CUDA block, (count + 127) >> 7 blocks.
#include <cstddef>
#include <cstdint>

#include "gpu/cuda_driver.h"
#include "gpu/gpu_buffer.h"

namespace glyptora_internal {

// The first failure of a sequence: the kernel missing from the module, or the step and the
// driver's result. Empty when every allocation and launch went through.
struct GpuSequenceFailure {
    const char* missingKernel = nullptr;
    const char* step = nullptr;
    cuda::CUresult result = cuda::kSuccess;
    bool failed() const { return missingKernel || step; }
};

class GpuSequenceLauncher {
public:
    explicit GpuSequenceLauncher(const GpuSession& session) : m_session(session) {}

    GpuSequenceFailure failure;

    // Device memory for `elements` of T; null (with the failure kept) when refused.
    template <typename T>
    T* allocate(DeviceMemory& memory, size_t elements) {
        if (failure.failed()) return nullptr;
        memory = DeviceMemory(m_session, elements * sizeof(T));
        if (!memory.ok()) fail("scratch allocation", memory.error());
        return memory.ok() ? memory.as<T>() : nullptr;
    }

    void launch(const char* name, uint64_t threads, void** parameters) {
        if (failure.failed()) return;
        cuda::CUfunction kernel = m_session.kernel(name);
        if (!kernel) {
            failure.missingKernel = name;
            return;
        }
        const unsigned grid = unsigned((threads + 127) >> 7);
        const cuda::CUresult result =
            m_session.api().cuLaunchKernel(kernel, grid, 1, 1, 128, 1, 1, 0, nullptr, parameters, nullptr);
        if (result != cuda::kSuccess) fail("kernel launch", result);
    }

private:
    void fail(const char* step, cuda::CUresult result) {
        failure.step = step;
        failure.result = result;
    }

    const GpuSession& m_session;
};

}  // namespace glyptora_internal
