// The GPU encoding path on a real device. Every test skips itself (and says why) where no
// usable CUDA GPU is present: no driver, a driver older than the kernels, no device of
// compute capability 7.5 or newer, or a build without the embedded kernels.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gpu/cuda_driver.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_testing.h"
#include "gpu_block_quality.h"

using namespace glyptora_internal;
using namespace gpu_quality;

namespace {

class GpuDeviceTest : public ::testing::Test {
protected:
    void SetUp() override {
        static std::string reason;  // printed only when availability is first computed
        gpu_testing::setWorkLimits(0, 0);
        testing::internal::CaptureStdout();
        const bool available = isGpuEncodingAvailable();
        const std::string printed = testing::internal::GetCapturedStdout();
        if (!printed.empty()) reason = ": " + printed.substr(0, printed.find('\n'));
        if (!available) GTEST_SKIP() << "no usable CUDA GPU on this machine" << reason;
        ASSERT_NE(currentGpuSession(), nullptr);
    }
    void TearDown() override { gpu_testing::setWorkLimits(0, 0); }
};

}  // namespace

// The colour fit (floating point) is compiled without fused multiply-adds, so the device
// rounds as the host does: the kernels' arithmetic run on the host gives the same blocks.
TEST_F(GpuDeviceTest, EntriesGiveTheKernelBlocksAtTheCpuQuality) {
    gpu_quality::checkEntriesGiveTheKernelBlocksAtTheCpuQuality();
}

TEST_F(GpuDeviceTest, OddSizesSplitsAndDeviceOutputsGiveTheSameBlocks) {
    // 1815 tiles, partial tiles on every edge.
    const std::vector<gpu_quality::SourceImage> images = {makeSource(1, 1, 21), makeSource(3, 5, 22),
                                                          makeSource(129, 65, 23), makeSource(4, 4, 24),
                                                          makeSource(200, 100, 25)};
    for (const EncoderEntry* entry : gpu_quality::gpuEntries())
        for (int32_t valueType : kValueTypes) {
            SCOPED_TRACE(caseName(*entry, valueType));
            auto input = makeInput(images, valueType);
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            const std::vector<uint8_t> expected = expectedBlocks(*entry, buffer);
            EXPECT_EQ(gpuEncode(*entry, buffer, 0x00), expected);
            gpu_testing::setWorkLimits(200, 97);  // 10 chunks, 2 launches each
            EXPECT_EQ(gpuEncode(*entry, buffer, 0xFF), expected);
            EXPECT_EQ(gpuEncode(*entry, buffer, 0xC3, true), expected);
            gpu_testing::setWorkLimits(0, 1);  // one tile a launch
            EXPECT_EQ(gpuEncode(*entry, buffer, 0x5A), expected);
            gpu_testing::setWorkLimits(0, 0);
        }
}

// BC6H: the fast encoder's blocks for every source type and signedness, HDR floats (many
// octaves, both signs, values past the largest half) included; the device rounds as the host.
TEST_F(GpuDeviceTest, BC6HGivesTheCpuFastBlocks) {
    std::vector<gpu_quality::SourceImage> images = {makeSource(1, 1, 31), makeSource(129, 65, 32),
                                                    makeSource(200, 100, 33)};
    for (gpu_quality::SourceImage& image : images)
        for (size_t i = 0; i < image.f32.size(); ++i)
            if ((i / 4) % 3 == 1) image.f32[i] = image.f32[i] * image.f32[i] * 3000.0f - 40.0f;
    const cuda::DriverApi& api = currentGpuSession()->api();
    for (int32_t valueType : kValueTypes)
        for (bool isSigned : {false, true}) {
            SCOPED_TRACE(caseName(format_table::kBC6H, valueType) + (isSigned ? " signed" : " unsigned"));
            auto input = makeInput(images, valueType);
            const size_t bytes = size_t(input->tileCount()) * 16;
            std::vector<uint8_t> expected(bytes), gpu(bytes, 0xFF), onDevice(bytes);
            ASSERT_TRUE(runEncoderEntry(format_table::kBC6H, *input, 0, isSigned, false, expected.data(), false, false,
                                        nullptr));
            EXPECT_TRUE(
                runEncoderEntry(format_table::kBC6H, *input, 0, isSigned, false, gpu.data(), true, false, nullptr));
            EXPECT_EQ(gpu, expected);
            cuda::CUdeviceptr device = 0;
            ASSERT_EQ(api.cuMemAlloc(&device, bytes), cuda::kSuccess);
            gpu_testing::setWorkLimits(200, 97);  // chunks of several launches
            EXPECT_TRUE(runEncoderEntry(format_table::kBC6H, *input, 0, isSigned, false,
                                        reinterpret_cast<void*>(uintptr_t(device)), true, true, nullptr));
            gpu_testing::setWorkLimits(0, 0);
            ASSERT_EQ(api.cuMemcpyDtoH(onDevice.data(), device, bytes), cuda::kSuccess);
            api.cuMemFree(device);
            EXPECT_EQ(onDevice, expected);
        }
}
