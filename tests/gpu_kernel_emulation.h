#pragma once
// Runs the GPU kernels on the CPU behind the scripted CUDA driver: every launch the library
// makes reaches a hook that checks the launch shape and the arguments, then runs the kernel
// body of gpu/gpu_kernel_bodies.h for every thread of the grid, as the device would.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "fake_cuda.h"
#include "gpu/gpu_kernel_bodies.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu/gpu_views.h"

namespace gpu_emulation {

using glyptora_internal::GPUF32View;
using glyptora_internal::GPUS8View;
using glyptora_internal::GPUU8View;
using glyptora_internal::TGPUView;

struct Launch {
    std::string kernel;
    unsigned grid = 0;
    unsigned threads = 0;
    uint32_t tiles = 0;        // the view's tile count (for conversions: of the source)
    uintptr_t output = 0;      // output pointer of block kernels
    uintptr_t firstTile = 0;   // address of the view's first tile data
};

class KernelEmulator {
public:
    KernelEmulator() { fake_cuda_set_launch_hook(&KernelEmulator::hook, this); }
    ~KernelEmulator() { fake_cuda_set_launch_hook(nullptr, nullptr); }
    KernelEmulator(const KernelEmulator&) = delete;
    KernelEmulator& operator=(const KernelEmulator&) = delete;

    std::vector<Launch> launches() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_launches;
    }
    std::vector<Launch> launchesOf(const char* kernel) const {
        std::vector<Launch> result;
        for (const Launch& l : launches())
            if (l.kernel == kernel) result.push_back(l);
        return result;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_launches.clear();
    }

private:
    template <typename T>
    static void checkViewInDeviceMemory(const TGPUView<T>& view) {
        ASSERT_EQ(view.tileWidth, 4);
        ASSERT_EQ(view.tileHeight, 4);
        ASSERT_GT(view.tileCount, 0u);
        EXPECT_TRUE(fake_cuda_is_device_range(view.regions, view.tileCount * sizeof(*view.regions)));
        EXPECT_TRUE(fake_cuda_is_device_range(view.data, size_t(elementCount(view)) * sizeof(T)));
    }

    // A block kernel: one thread per 4x4 block, 64 threads per CUDA block, idle threads past
    // the block count; `units` 8-byte output units per block.
    template <typename T, typename Body>
    void runBlockKernel(Launch& record, const TGPUView<T>& view, uint32_t n, uint64_t* out, int units, Body body) {
        checkViewInDeviceMemory(view);
        EXPECT_EQ(record.threads, 64u);
        EXPECT_EQ(record.grid, (n + 63) / 64);
        EXPECT_EQ(n, view.tileCount);
        EXPECT_TRUE(fake_cuda_is_device_range(out, size_t(n) * size_t(units) * 8)) << record.kernel;
        record.tiles = view.tileCount;
        record.output = reinterpret_cast<uintptr_t>(out);
        record.firstTile = reinterpret_cast<uintptr_t>(view.data);
        for (uint64_t thread = 0; thread < uint64_t(record.grid) * record.threads; ++thread)
            if (thread < n) body(view, uint32_t(thread), out);
    }

    template <typename S, typename D, typename Body>
    void runConversion(Launch& record, const TGPUView<S>& source, const TGPUView<D>& target, Body body) {
        checkViewInDeviceMemory(source);
        checkViewInDeviceMemory(target);
        EXPECT_EQ(record.threads, 128u);
        const uint64_t count = elementCount(source);
        EXPECT_EQ(record.grid, (count + 127) / 128);
        EXPECT_EQ(elementCount(target), count);
        EXPECT_EQ(source.regions, target.regions);
        record.tiles = source.tileCount;
        record.firstTile = reinterpret_cast<uintptr_t>(source.data);
        for (uint64_t i = 0; i < uint64_t(record.grid) * record.threads; ++i)
            if (i < count) body(source, target, i);
    }

    static void hook(void* user, const char* kernel, unsigned grid, unsigned threads, unsigned sharedMemBytes,
                     void** parameters) {
        static_cast<KernelEmulator*>(user)->run(kernel, grid, threads, sharedMemBytes, parameters);
    }

    template <typename T>
    static T parameter(void** parameters, int i) {
        T value;
        std::memcpy(&value, parameters[i], sizeof value);
        return value;
    }

    void run(const char* kernel, unsigned grid, unsigned threads, unsigned sharedMemBytes, void** p) {
        namespace names = glyptora_internal::kernel_names;
        namespace blocks = glyptora_internal::gpu_blocks;
        EXPECT_EQ(sharedMemBytes, 0u);
        Launch record;
        record.kernel = kernel;
        record.grid = grid;
        record.threads = threads;
        const std::string name = kernel;
        if (name == names::kCompressDXT1a) {
            const auto view = parameter<GPUU8View>(p, 0);
            runBlockKernel(record, view, view.tileCount, parameter<uint64_t*>(p, 1), 1, blocks::compressDXT1a);
        } else if (name == names::kCompressDXT3) {
            const auto view = parameter<GPUU8View>(p, 0);
            runBlockKernel(record, view, view.tileCount, parameter<uint64_t*>(p, 1), 2, blocks::compressDXT3);
        } else if (name == names::kCompressDXT5Alpha) {
            runBlockKernel(record, parameter<GPUU8View>(p, 0), parameter<uint32_t>(p, 1), parameter<uint64_t*>(p, 2),
                           2, blocks::compressDXT5Alpha);
        } else if (name == names::kCompressDXT5Color) {
            const auto view = parameter<GPUU8View>(p, 0);
            runBlockKernel(record, view, view.tileCount, parameter<uint64_t*>(p, 1), 2, blocks::compressDXT5Color);
        } else if (name == names::kCompressBC4) {
            runBlockKernel(record, parameter<GPUU8View>(p, 0), parameter<uint32_t>(p, 1), parameter<uint64_t*>(p, 2),
                           1, blocks::compressBC4);
        } else if (name == names::kCompressBC4S) {
            runBlockKernel(record, parameter<GPUS8View>(p, 0), parameter<uint32_t>(p, 1), parameter<uint64_t*>(p, 2),
                           1, blocks::compressBC4S);
        } else if (name == names::kCompressBC5) {
            runBlockKernel(record, parameter<GPUU8View>(p, 0), parameter<uint32_t>(p, 1), parameter<uint64_t*>(p, 2),
                           2, blocks::compressBC5);
        } else if (name == names::kCompressBC5S) {
            runBlockKernel(record, parameter<GPUS8View>(p, 0), parameter<uint32_t>(p, 1), parameter<uint64_t*>(p, 2),
                           2, blocks::compressBC5S);
        } else if (name == names::kF32ToU8) {
            runConversion(record, parameter<GPUF32View>(p, 0), parameter<GPUU8View>(p, 1), blocks::convertF32ToU8);
        } else if (name == names::kS8ToU8) {
            runConversion(record, parameter<GPUS8View>(p, 0), parameter<GPUU8View>(p, 1), blocks::convertS8ToU8);
        } else if (name == names::kF32ToS8) {
            runConversion(record, parameter<GPUF32View>(p, 0), parameter<GPUS8View>(p, 1), blocks::convertF32ToS8);
        } else if (name == names::kU8ToS8) {
            runConversion(record, parameter<GPUU8View>(p, 0), parameter<GPUS8View>(p, 1), blocks::convertU8ToS8);
        } else {
            ADD_FAILURE() << "launch of unknown kernel " << name;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_launches.push_back(record);
    }

    mutable std::mutex m_mutex;
    std::vector<Launch> m_launches;
};

}  // namespace gpu_emulation
