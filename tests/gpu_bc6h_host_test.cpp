// The BC6H GPU path without a GPU: the launch sequence runs against the stand-in CUDA driver
// (tests/support_fake_cuda), which checks each launch's shape and carries out the functions
// of gpu/bc6h_gpu_stages.h on the CPU. Covers the launch order and counts for every source
// type and signedness, scratch freed, complete output over poison (host and device memory),
// odd sizes, launch splits, the entry's routing and failures; the blocks must be the CPU
// fast encoder's, HDR float sources included.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "core/timing_context.h"
#include "fake_cuda.h"
#include "gpu/bc6h_gpu_encode.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu/gpu_testing.h"
#include "gpu_block_quality.h"
#include "gpu_fake_driver_fixture.h"

using namespace glyptora_internal;
using namespace gpu_quality;

namespace {

class GpuBC6HHostTest : public FakeDriverTest {};

// An HDR image: values over many octaves, negatives, values past the largest half, infinity,
// NaN and denormals, beside the test images' gradients and noise.
SourceImage hdrSource(int width, int height, uint32_t seed) {
    SourceImage image = makeSource(width, height, seed);
    const float specials[] = {70000.0f, -3.5f, std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN(), 1.0e-6f, -2.0e-7f, 65504.0f, 0.0f};
    for (size_t i = 0; i < image.f32.size(); ++i) {
        float& v = image.f32[i];
        const size_t texel = i / 4;
        if (texel % 5 == 1) v = v * v * 900.0f - 20.0f;  // bright and dark, both signs
        if (texel % 37 == 3) v = specials[(texel / 37 + i % 4) % 8];
    }
    return image;
}

// 65 tiles with partial tiles on both edges.
std::unique_ptr<glyptora::CPUInputBuffer> oddInput(int32_t valueType) {
    static const std::vector<SourceImage> images = {hdrSource(37, 23, 1), hdrSource(5, 3, 2), hdrSource(4, 12, 3)};
    return makeInput(images, valueType);
}

int texelKernel(int32_t valueType) {
    return valueType == glyptora::kValueU8 ? 0 : valueType == glyptora::kValueS8 ? 1 : 2;
}

// The kernels one sequence launches, in order.
std::vector<std::string> sequenceKernels(int32_t valueType, bool isSigned) {
    return {kernel_names::kBC6HTexels[texelKernel(valueType)], kernel_names::kFillFltMax,
            kernel_names::kBC6HEncode[isSigned ? 1 : 0]};
}

std::vector<uint8_t> cpuBlocks(const glyptora::CPUInputBuffer& input, bool isSigned) {
    std::vector<uint8_t> out(size_t(input.tileCount()) * 16, 0);
    EXPECT_TRUE(runEncoderEntry(format_table::kBC6H, input, 0, isSigned, false, out.data(), false, false, nullptr));
    return out;
}

// GPU blocks in host memory, or in device memory when `onDevice`, first filled with `poison`.
std::vector<uint8_t> gpuBlocks(const glyptora::CPUInputBuffer& input, bool isSigned, uint8_t poison,
                               bool onDevice = false, bool* ok = nullptr, glyptora::TimingContext* timing = nullptr) {
    std::vector<uint8_t> out(size_t(input.tileCount()) * 16, poison);
    const cuda::DriverApi& api = currentGpuSession()->api();
    cuda::CUdeviceptr device = 0;
    if (onDevice) {
        EXPECT_EQ(api.cuMemAlloc(&device, out.size()), cuda::kSuccess);
        EXPECT_EQ(api.cuMemcpyHtoD(device, out.data(), out.size()), cuda::kSuccess);
    }
    uint8_t* target = onDevice ? reinterpret_cast<uint8_t*>(uintptr_t(device)) : out.data();
    const bool result =
        encodeOnGpu(*format_table::kBC6H.gpu, "BC6H", *input.buffer(), target, onDevice, timing, false, isSigned);
    if (ok) *ok = result;
    if (onDevice) {
        EXPECT_EQ(api.cuMemcpyDtoH(out.data(), device, out.size()), cuda::kSuccess);
        api.cuMemFree(device);
    }
    return out;
}

}  // namespace

TEST_F(GpuBC6HHostTest, SequenceLaunchesInOrderAndWritesTheCpuFastBlocks) {
    for (int32_t valueType : kValueTypes)
        for (bool isSigned : {false, true}) {
            SCOPED_TRACE(caseName(format_table::kBC6H, valueType) + (isSigned ? " signed" : " unsigned"));
            auto input = oddInput(valueType);
            ASSERT_EQ(input->tileCount(), 65u);
            const std::vector<uint8_t> expected = cpuBlocks(*input, isSigned);
            for (uint8_t poison : {0x00, 0xFF}) {
                fake_cuda().launches.clear();
                glyptora::TimingContext timing;
                EXPECT_EQ(gpuBlocks(*input, isSigned, poison, false, nullptr, &timing), expected);
                EXPECT_EQ(launchedKernels(), sequenceKernels(valueType, isSigned));
                for (const FakeCudaLaunch& l : fake_cuda().launches) EXPECT_EQ(l.tiles, 65u);
                std::map<std::string, int> labels;
                for (const auto& entry : timing.entries()) ++labels[entry.label];
                EXPECT_EQ(labels["bc6h_encode_gpu()"], 1);
            }
            // 4 chunks (17, 16, 16, 16 tiles) of 6 launches, each launch one whole sequence;
            // then the output in device memory.
            gpu_testing::setWorkLimits(20, 3);
            fake_cuda().launches.clear();
            EXPECT_EQ(gpuBlocks(*input, isSigned, 0x5A), expected);
            EXPECT_EQ(launchedKernels().size(), 24 * sequenceKernels(valueType, isSigned).size());
            EXPECT_EQ(gpuBlocks(*input, isSigned, 0xC3, true), expected);
            gpu_testing::setWorkLimits(0, 0);
        }
}

TEST_F(GpuBC6HHostTest, EntryRoutesTheDefaultQualitiesToTheGpuAndKeepsTheSlowOneOnTheCpu) {
    auto input = oddInput(glyptora::kValueF32);
    for (bool isSigned : {false, true}) {
        std::vector<uint8_t> out(size_t(input->tileCount()) * 16, 0xEE);
        fake_cuda().launches.clear();
        EXPECT_TRUE(runEncoderEntry(format_table::kBC6H, *input, 0, isSigned, false, out.data(), true, false, nullptr));
        EXPECT_EQ(out, cpuBlocks(*input, isSigned));
        EXPECT_EQ(launchedKernels(), sequenceKernels(glyptora::kValueF32, isSigned));

        fake_cuda().launches.clear();
        testing::internal::CaptureStdout();
        EXPECT_TRUE(runEncoderEntry(format_table::kBC6H, *input, 1, isSigned, false, out.data(), true, false, nullptr));
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "BC6H Compressor: no slow-mode for bc6-gpu, using cpu instead.\n");
        EXPECT_TRUE(fake_cuda().launches.empty());
    }
}

TEST_F(GpuBC6HHostTest, FailuresAreReportedOnceAndFreeTheScratch) {
    auto input = oddInput(glyptora::kValueS8);
    const struct {
        int launchResult;
        const char* missingKernel;
        const char* printed;
        long launches;
    } cases[] = {{700, nullptr, "*** GPU encoding failed at kernel launch: 'fake error 700'.\n", 1},
                 {0, kernel_names::kBC6HEncode[1],
                  "*** GPU kernel glyptora_bc6h_encode_signed is missing from the kernel module.\n", 2},
                 {0, kernel_names::kFillFltMax,
                  "*** GPU kernel glyptora_g_fill_flt_max is missing from the kernel module.\n", 1}};
    for (const auto& c : cases) {
        fake_cuda_reset(cudaKernelRuntimeVersion());
        gpu_testing::resetGpuState();
        fake_cuda().config.launchResult = c.launchResult;
        fake_cuda().config.missingKernel = c.missingKernel;
        testing::internal::CaptureStdout();
        bool ok = true;
        gpuBlocks(*input, true, 0x42, false, &ok);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
        EXPECT_FALSE(ok);
        EXPECT_EQ(fake_cuda().counters.launches, c.launches);
        EXPECT_EQ(fake_cuda().counters.liveAllocations, 0);
        fake_cuda().config.launchResult = 0;
        fake_cuda().config.missingKernel = nullptr;
    }
}
