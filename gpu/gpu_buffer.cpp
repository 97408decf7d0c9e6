#include "gpu/gpu_buffer.h"

#include <algorithm>
#include <utility>

#include "core/timing_context.h"

namespace glyptora_internal {

DeviceMemory::DeviceMemory(const GpuSession& session, size_t bytes) : m_session(&session), m_size(bytes) {
    m_error = session.api().cuMemAlloc(&m_address, bytes);
    if (m_error != cuda::kSuccess) m_address = 0;
}

DeviceMemory::~DeviceMemory() { release(); }

DeviceMemory::DeviceMemory(DeviceMemory&& other) noexcept
    : m_session(other.m_session), m_address(other.m_address), m_size(other.m_size), m_error(other.m_error) {
    other.m_address = 0;
    other.m_size = 0;
}

DeviceMemory& DeviceMemory::operator=(DeviceMemory&& other) noexcept {
    if (this != &other) {
        release();
        m_session = other.m_session;
        m_address = std::exchange(other.m_address, 0);
        m_size = std::exchange(other.m_size, 0);
        m_error = other.m_error;
    }
    return *this;
}

void DeviceMemory::release() {
    if (m_address && m_session) m_session->api().cuMemFree(m_address);
    m_address = 0;
}

}  // namespace glyptora_internal

namespace glyptora {

using namespace glyptora_internal;

GPUBuffer_Base::GPUBuffer_Base(const CPUBuffer_Base& source, uint64_t first, int64_t end, TimingContext* timing) {
    ScopedTimer timer(timing, "host to device");
    valueType = source.valueType();
    for (int c = 0; c < 4; ++c) weights[c] = source.weights[c];
    tileWidth = source.tileWidth;
    tileHeight = source.tileHeight;
    const uint64_t last = end < 0 ? uint64_t(source.tileCount) : std::min<uint64_t>(uint64_t(end), source.tileCount);
    tileCount = uint32_t(last > first ? last - first : 0);
    if (tileCount == 0) return;

    const GpuSession* session = currentGpuSession();
    if (!session) return;
    const cuda::DriverApi& api = session->api();

    const size_t regionBytes = size_t(tileCount) * sizeof(TileValidRegion);
    m_regions = DeviceMemory(*session, regionBytes);
    if (!m_regions.ok()) {
        m_error = m_regions.error();
        return;
    }
    m_error = api.cuMemcpyHtoD(m_regions.address(), source.validRegions.data() + first, regionBytes);
    if (m_error != cuda::kSuccess) return;

    const size_t tileBytes = size_t(tileWidth) * size_t(tileHeight) * source.bytesPerPixel();
    m_tiles = DeviceMemory(*session, size_t(tileCount) * tileBytes);
    if (!m_tiles.ok()) {
        m_error = m_tiles.error();
        return;
    }
    const uint8_t* tiles = static_cast<const uint8_t*>(source.tileData()) + size_t(first) * tileBytes;
    m_error = api.cuMemcpyHtoD(m_tiles.address(), tiles, size_t(tileCount) * tileBytes);
    m_ok = m_error == cuda::kSuccess;
}

}  // namespace glyptora
