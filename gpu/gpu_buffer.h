#pragma once
// Device memory and the device copies of tile ranges that the GPU encoders read.
#include <cstddef>
#include <cstdint>

#include "core/cpu_input_buffer.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_views.h"

namespace glyptora {
class TimingContext;
}

namespace glyptora_internal {

// One device allocation of the current GPU session, freed on destruction.
class DeviceMemory {
public:
    DeviceMemory() = default;
    DeviceMemory(const GpuSession& session, size_t bytes);
    ~DeviceMemory();
    DeviceMemory(DeviceMemory&& other) noexcept;
    DeviceMemory& operator=(DeviceMemory&& other) noexcept;
    DeviceMemory(const DeviceMemory&) = delete;
    DeviceMemory& operator=(const DeviceMemory&) = delete;

    bool ok() const { return m_error == cuda::kSuccess && m_address != 0; }
    cuda::CUresult error() const { return m_error; }
    cuda::CUdeviceptr address() const { return m_address; }
    size_t size() const { return m_size; }
    template <typename T>
    T* as() const {
        return reinterpret_cast<T*>(static_cast<uintptr_t>(m_address));
    }

private:
    void release();
    const GpuSession* m_session = nullptr;
    cuda::CUdeviceptr m_address = 0;
    size_t m_size = 0;
    cuda::CUresult m_error = cuda::kSuccess;
};

}  // namespace glyptora_internal

namespace glyptora {

// Device copy of tiles [first, end) of a CPU tile buffer (end below 0: all tiles) with their
// valid regions, made under the timing label "host to device". Pixels keep the CPU layout:
// 4 bytes a pixel for 8-bit buffers, 16 for float.
class GPUBuffer_Base {
public:
    virtual ~GPUBuffer_Base() = default;
    GPUBuffer_Base(const GPUBuffer_Base&) = delete;
    GPUBuffer_Base& operator=(const GPUBuffer_Base&) = delete;

    // False when the GPU session is missing or an allocation or copy failed (see error()).
    bool ok() const { return m_ok; }
    glyptora_internal::cuda::CUresult error() const { return m_error; }

    int32_t valueType = -1;
    float weights[4] = {1, 1, 1, 1};
    int32_t tileWidth = 0;
    int32_t tileHeight = 0;
    uint32_t tileCount = 0;

protected:
    GPUBuffer_Base(const CPUBuffer_Base& source, uint64_t first, int64_t end, TimingContext* timing);

    template <typename T>
    glyptora_internal::TGPUView<T> makeView() const {
        glyptora_internal::TGPUView<T> view{};
        for (int c = 0; c < 4; ++c) {
            view.weights[c] = weights[c];
            view.inverseWeights[c] = 1.0f / weights[c];
        }
        view.tileWidth = tileWidth;
        view.tileHeight = tileHeight;
        view.tileCount = tileCount;
        view.regions = m_regions.as<const glyptora_internal::TileValidRegion>();
        view.data = m_tiles.as<T>();
        return view;
    }

private:
    bool m_ok = false;
    glyptora_internal::cuda::CUresult m_error = glyptora_internal::cuda::kSuccess;
    glyptora_internal::DeviceMemory m_regions;
    glyptora_internal::DeviceMemory m_tiles;
};

template <typename GPUView, typename CPUBuffer>
class TGPUBuffer final : public GPUBuffer_Base {
public:
    TGPUBuffer(const CPUBuffer& source, uint64_t first, int64_t end, TimingContext* timing)
        : GPUBuffer_Base(source, first, end, timing) {}
    GPUView view() const { return makeView<std::remove_pointer_t<decltype(GPUView::data)>>(); }
};

using GPUU8Buffer = TGPUBuffer<glyptora_internal::GPUU8View, U8TileBuffer>;
using GPUS8Buffer = TGPUBuffer<glyptora_internal::GPUS8View, S8TileBuffer>;
using GPUF32Buffer = TGPUBuffer<glyptora_internal::GPUF32View, F32TileBuffer>;

}  // namespace glyptora
