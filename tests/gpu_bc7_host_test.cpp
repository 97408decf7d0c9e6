// The BC7 GPU path without a GPU: the staged launch sequence runs against the stand-in CUDA
// driver (tests/support_fake_cuda), which checks each launch's shape and carries out the
// stage functions of gpu/bc7_gpu_stages.h on the CPU. Covers the launch order and counts
// with and without the alpha stages, scratch freed, complete output over poison, odd sizes,
// launch splits, the entry's routing and failures; the blocks must be the CPU fast
// encoder's.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "core/timing_context.h"
#include "fake_cuda.h"
#include "gpu/bc7_gpu_encode.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu/gpu_testing.h"
#include "gpu_block_quality.h"
#include "gpu_fake_driver_fixture.h"

using namespace glyptora_internal;
using namespace gpu_quality;

namespace {

class GpuBC7HostTest : public FakeDriverTest {};

// 65 tiles with partial tiles on both edges; translucent and opaque blocks.
std::unique_ptr<glyptora::CPUInputBuffer> oddInput() {
    return makeInput({makeSource(37, 23, 1), makeSource(5, 3, 2), makeSource(4, 12, 3)}, glyptora::kValueU8);
}

// The kernels one sequence launches, in order.
std::vector<std::string> sequenceKernels(bool imageHasAlpha) {
    std::vector<std::string> kernels;
    for (const glyptora_bc7::SequenceStep& s : glyptora_bc7::kBC7Sequence) {
        if (glyptora_bc7::alphaOnlyStage(s.stage) && !imageHasAlpha) continue;
        for (int i = 0; i < s.launches; ++i)
            kernels.push_back(s.stage ? kernel_names::kBC7Stages[s.stage - 1] : kernel_names::kFillFltMax);
    }
    return kernels;
}

std::vector<uint8_t> cpuBlocks(const glyptora::CPUInputBuffer& input, bool imageHasAlpha) {
    std::vector<uint8_t> out(size_t(input.tileCount()) * 16, 0);
    EXPECT_TRUE(runEncoderEntry(format_table::kBC7, input, 0, false, imageHasAlpha, out.data(), false, false, nullptr));
    return out;
}

std::vector<uint8_t> gpuBlocks(const glyptora::CPUInputBuffer& input, bool imageHasAlpha, uint8_t poison,
                               bool* ok = nullptr, glyptora::TimingContext* timing = nullptr) {
    std::vector<uint8_t> out(size_t(input.tileCount()) * 16, poison);
    const bool result = encodeOnGpu(*format_table::kBC7.gpu, "BC7", *input.buffer(), out.data(), false, timing,
                                    imageHasAlpha);
    if (ok) *ok = result;
    return out;
}

}  // namespace

TEST_F(GpuBC7HostTest, SequenceLaunchesInOrderAndWritesTheCpuFastBlocks) {
    auto input = oddInput();
    ASSERT_EQ(input->tileCount(), 65u);
    // Launch counts per sequence: 1 fill, 14 stage functions, 64 + 16 + 16 (+ 64 + 16 with
    // alpha) + 16 + 4 + 64 + 16 + 4 + 4 + 4 launches, 128 threads per CUDA block.
    EXPECT_EQ(sequenceKernels(false).size(), 1u + 1 + 64 + 16 + 16 + 16 + 4 + 64 + 16 + 4 + 4 + 4);
    EXPECT_EQ(sequenceKernels(true).size(), sequenceKernels(false).size() + 1 + 64 + 16);
    for (bool alpha : {false, true}) {
        SCOPED_TRACE(alpha ? "image has alpha" : "opaque image");
        const std::vector<uint8_t> expected = cpuBlocks(*input, alpha);
        for (uint8_t poison : {0x00, 0xFF}) {
            fake_cuda().launches.clear();
            glyptora::TimingContext timing;
            EXPECT_EQ(gpuBlocks(*input, alpha, poison, nullptr, &timing), expected);
            EXPECT_EQ(launchedKernels(), sequenceKernels(alpha));
            std::map<std::string, int> labels;
            for (const auto& entry : timing.entries()) ++labels[entry.label];
            EXPECT_EQ(labels["bc7_encode_gpu()"], 1);
        }
        // 4 chunks (17, 16, 16, 16 tiles) of 6 launches: each launch runs the whole sequence.
        gpu_testing::setWorkLimits(20, 3);
        fake_cuda().launches.clear();
        EXPECT_EQ(gpuBlocks(*input, alpha, 0x5A), expected);
        EXPECT_EQ(launchedKernels().size(), 24 * sequenceKernels(alpha).size());
        gpu_testing::setWorkLimits(0, 0);
    }
}

TEST_F(GpuBC7HostTest, EntryRoutesTheDefaultQualitiesToTheGpuAndKeepsTheSlowOneOnTheCpu) {
    auto input = oddInput();
    std::vector<uint8_t> out(size_t(input->tileCount()) * 16, 0xEE);
    EXPECT_TRUE(runEncoderEntry(format_table::kBC7, *input, 0, false, true, out.data(), true, false, nullptr));
    EXPECT_EQ(out, cpuBlocks(*input, true));
    EXPECT_EQ(launchedKernels(), sequenceKernels(true));

    fake_cuda().launches.clear();
    testing::internal::CaptureStdout();
    EXPECT_TRUE(runEncoderEntry(format_table::kBC7, *input, 1, false, true, out.data(), true, false, nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "BC7 Compressor: no slow-mode for bc7-gpu, using cpu instead.\n");
    EXPECT_TRUE(fake_cuda().launches.empty());
}

TEST_F(GpuBC7HostTest, FailuresAreReportedOnceAndFreeTheScratch) {
    auto input = oddInput();
    const struct {
        int launchResult;
        const char* missingKernel;
        const char* printed;
        long launches;
    } cases[] = {{700, nullptr, "*** GPU encoding failed at kernel launch: 'fake error 700'.\n", 1},
                 {0, kernel_names::kBC7Stages[4],
                  "*** GPU kernel glyptora_bc7_stage5 is missing from the kernel module.\n", 1 + 1 + 64 + 16}};
    for (const auto& c : cases) {
        fake_cuda_reset(cudaKernelRuntimeVersion());
        gpu_testing::resetGpuState();
        fake_cuda().config.launchResult = c.launchResult;
        fake_cuda().config.missingKernel = c.missingKernel;
        testing::internal::CaptureStdout();
        bool ok = true;
        gpuBlocks(*input, false, 0x42, &ok);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
        EXPECT_FALSE(ok);
        EXPECT_EQ(fake_cuda().counters.launches, c.launches);
        EXPECT_EQ(fake_cuda().counters.liveAllocations, 0);
        fake_cuda().config.launchResult = 0;
        fake_cuda().config.missingKernel = nullptr;
    }
}
