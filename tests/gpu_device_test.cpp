// The GPU encoding path on a real device. Every test skips itself (and says why) where no
// usable CUDA GPU is present: no driver, a driver older than the kernels, no device of
// compute capability 7.5 or newer, or a build without the embedded kernels.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/encoder_dispatch.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_testing.h"
#include "gpu_block_quality.h"

using namespace glyptora_internal;
using gpu_quality::FormatCase;
using gpu_quality::cpuEntryBlocks;

namespace {

constexpr int32_t kValueTypes[] = {glyptora::kValueU8, glyptora::kValueS8, glyptora::kValueF32};

class GpuDeviceTest : public ::testing::Test {
protected:
    void SetUp() override {
        gpu_testing::setWorkLimits(0, 0);
        testing::internal::CaptureStdout();
        const bool available = isGpuEncodingAvailable();
        const std::string reason = testing::internal::GetCapturedStdout();
        if (!available)
            GTEST_SKIP() << "no usable CUDA GPU on this machine"
                         << (reason.empty() ? std::string() : ": " + reason.substr(0, reason.find('\n')));
        session = currentGpuSession();
        ASSERT_NE(session, nullptr);
    }
    void TearDown() override { gpu_testing::setWorkLimits(0, 0); }

    static std::vector<uint8_t> encode(const FormatCase& f, const glyptora::CPUBuffer_Base& buffer, uint8_t poison) {
        std::vector<uint8_t> out(size_t(buffer.tileCount) * size_t(f.blockBytes), poison);
        EXPECT_TRUE(encodeOnGpu(f.format, buffer, out.data(), false, nullptr)) << f.name;
        return out;
    }

    const GpuSession* session = nullptr;
};

size_t differingBlocks(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, int blockBytes) {
    size_t count = 0;
    for (size_t i = 0; i + size_t(blockBytes) <= a.size(); i += size_t(blockBytes))
        if (std::memcmp(&a[i], &b[i], size_t(blockBytes)) != 0) ++count;
    return count;
}

bool isSingleChannel(GpuFormat format) {
    return format == GpuFormat::BC4 || format == GpuFormat::BC4S || format == GpuFormat::BC5 ||
           format == GpuFormat::BC5S;
}

}  // namespace

TEST_F(GpuDeviceTest, EveryFormatAndValueTypeMatchesTheCpuPath) {
    const std::vector<gpu_quality::SourceImage> images = {gpu_quality::makeSource(256, 128, 11),
                                                          gpu_quality::makeSource(37, 23, 12)};
    for (const FormatCase& f : gpu_quality::blockFormats())
        for (int32_t valueType : kValueTypes) {
            SCOPED_TRACE(std::string(f.name) + " " + gpu_quality::valueTypeName(valueType));
            const float weights[4] = {0.2126f, 0.7152f, 0.0722f, 1.0f};
            auto input = gpu_quality::makeInput(images, valueType, weights);
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            const std::vector<uint8_t> gpu = encode(f, buffer, 0xA5);
            const std::vector<uint8_t> cpu = cpuEntryBlocks(f, *input);
            const double gpuPsnr = gpu_quality::blocksPsnr(f.format, buffer, gpu.data());
            const double cpuPsnr = gpu_quality::blocksPsnr(f.format, buffer, cpu.data());
            if (std::isfinite(cpuPsnr)) {
                EXPECT_NEAR(gpuPsnr, cpuPsnr, 0.1);
            } else {
                EXPECT_FALSE(std::isfinite(gpuPsnr));
            }
            // Integer block arithmetic: the same blocks. The colour fit (floating point) is
            // compiled without fused multiply-adds and is expected to match as well.
            const size_t differing = differingBlocks(gpu, cpu, f.blockBytes);
            if (isSingleChannel(f.format)) {
                EXPECT_EQ(differing, 0u);
            }
            RecordProperty(std::string(f.name) + "_" + gpu_quality::valueTypeName(valueType) + "_differing_blocks",
                           int(differing));
            // The kernels' own arithmetic run on the host gives the same blocks.
            EXPECT_EQ(differingBlocks(gpu, gpu_quality::expectedBlocks(f.format, buffer), f.blockBytes), 0u);
        }
}

TEST_F(GpuDeviceTest, OddSizesAndPoisonedOutputs) {
    const std::vector<gpu_quality::SourceImage> images = {
        gpu_quality::makeSource(1, 1, 21), gpu_quality::makeSource(3, 5, 22), gpu_quality::makeSource(129, 65, 23),
        gpu_quality::makeSource(4, 4, 24)};
    for (const FormatCase& f : gpu_quality::blockFormats())
        for (int32_t valueType : kValueTypes) {
            SCOPED_TRACE(std::string(f.name) + " " + gpu_quality::valueTypeName(valueType));
            auto input = gpu_quality::makeInput(images, valueType);
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            const std::vector<uint8_t> expected = gpu_quality::expectedBlocks(f.format, buffer);
            EXPECT_EQ(encode(f, buffer, 0x00), expected);
            EXPECT_EQ(encode(f, buffer, 0xFF), expected);
        }
}

TEST_F(GpuDeviceTest, ForcedChunksAndLaunchesGiveTheSameBlocks) {
    const std::vector<gpu_quality::SourceImage> images = {gpu_quality::makeSource(512, 384, 31),
                                                          gpu_quality::makeSource(33, 17, 32)};
    for (const FormatCase& f : gpu_quality::blockFormats())
        for (int32_t valueType : {glyptora::kValueU8, glyptora::kValueF32}) {
            SCOPED_TRACE(std::string(f.name) + " " + gpu_quality::valueTypeName(valueType));
            auto input = gpu_quality::makeInput(images, valueType);
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            const std::vector<uint8_t> whole = encode(f, buffer, 0x11);
            gpu_testing::setWorkLimits(1000, 97);  // 13 chunks, 11 launches each
            EXPECT_EQ(encode(f, buffer, 0xEE), whole);
            gpu_testing::setWorkLimits(5000, 1);  // one tile a launch
            EXPECT_EQ(encode(f, buffer, 0x22), whole);
            gpu_testing::setWorkLimits(0, 0);
        }
}

TEST_F(GpuDeviceTest, OutputCanStayInDeviceMemory) {
    const std::vector<gpu_quality::SourceImage> images = {gpu_quality::makeSource(200, 100, 41)};
    const cuda::DriverApi& api = session->api();
    for (const FormatCase& f : gpu_quality::blockFormats()) {
        SCOPED_TRACE(f.name);
        auto input = gpu_quality::makeInput(images, glyptora::kValueS8);
        const glyptora::CPUBuffer_Base& buffer = *input->buffer();
        const size_t bytes = size_t(buffer.tileCount) * size_t(f.blockBytes);
        cuda::CUdeviceptr device = 0;
        ASSERT_EQ(api.cuMemAlloc(&device, bytes), cuda::kSuccess);
        const std::vector<uint8_t> poison(bytes, 0xC3);
        ASSERT_TRUE(copyHostToDevice(reinterpret_cast<void*>(uintptr_t(device)), poison.data(), bytes));
        gpu_testing::setWorkLimits(300, 64);
        EXPECT_TRUE(encodeOnGpu(f.format, buffer, reinterpret_cast<uint8_t*>(uintptr_t(device)), true, nullptr));
        gpu_testing::setWorkLimits(0, 0);
        std::vector<uint8_t> result(bytes);
        ASSERT_EQ(api.cuMemcpyDtoH(result.data(), device, bytes), cuda::kSuccess);
        EXPECT_EQ(result, gpu_quality::expectedBlocks(f.format, buffer));
        api.cuMemFree(device);
    }
}

TEST_F(GpuDeviceTest, EntriesEncodeOnTheGpuAndMatchTheCpuQuality) {
    const std::vector<gpu_quality::SourceImage> images = {gpu_quality::makeSource(1024, 512, 51)};
    auto input = gpu_quality::makeInput(images, glyptora::kValueU8);
    const size_t tiles = input->tileCount();
    std::vector<uint8_t> gpu(tiles * 8), cpu(tiles * 8);
    EXPECT_TRUE(encodeBC1a(*input, false, gpu.data(), true, false, nullptr));
    EXPECT_TRUE(encodeBC1a(*input, false, cpu.data(), false, false, nullptr));
    EXPECT_NEAR(gpu_quality::blocksPsnr(GpuFormat::BC1a, *input->buffer(), gpu.data()),
                gpu_quality::blocksPsnr(GpuFormat::BC1a, *input->buffer(), cpu.data()), 0.1);
}
