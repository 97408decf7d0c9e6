#pragma once
// Fixture of the GPU host tests: the library loads the stand-in CUDA driver
// (tests/support_fake_cuda) with a placeholder kernel image; after each test no device memory
// may be left allocated and no copy or launch may have gone outside device memory.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fake_cuda.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_testing.h"

class FakeDriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake_cuda_reset(glyptora_internal::cudaKernelRuntimeVersion());
        glyptora_internal::gpu_testing::setDriverLibraryPath(GLYPTORA_FAKE_CUDA);
        glyptora_internal::gpu_testing::setKernelImage(kTestKernelImage, sizeof kTestKernelImage);
        glyptora_internal::gpu_testing::setWorkLimits(0, 0);
        glyptora_internal::gpu_testing::resetGpuState();
        ASSERT_TRUE(glyptora_internal::isGpuEncodingAvailable());
    }
    void TearDown() override {
        const FakeCudaCounters counters = fake_cuda().counters;
        EXPECT_EQ(counters.liveAllocations, 0) << "device memory leaked";
        EXPECT_EQ(counters.badAccesses, 0) << "copy outside device memory or without a context";
        EXPECT_EQ(counters.badLaunches, 0) << "launch of a wrong shape or with arguments outside device memory";
        glyptora_internal::gpu_testing::setWorkLimits(0, 0);
        glyptora_internal::gpu_testing::resetGpuState();
        glyptora_internal::gpu_testing::setDriverLibraryPath(nullptr);
        glyptora_internal::gpu_testing::setKernelImage(nullptr, 0);
    }

    alignas(64) static constexpr uint32_t kTestKernelImage[4] = {0x7E57CAFEu, 0, 0, 0};
};

// The kernels the stand-in driver has launched since its launch list was last cleared, in order.
inline std::vector<std::string> launchedKernels() {
    std::vector<std::string> kernels;
    for (const FakeCudaLaunch& l : fake_cuda().launches) kernels.push_back(l.kernel);
    return kernels;
}
