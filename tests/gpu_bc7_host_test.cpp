// The BC7 GPU path without a GPU: the staged launch sequence runs against the stand-in CUDA
// driver (tests/support_fake_cuda), which checks each launch's shape and carries out the
// stage functions of gpu/bc7_gpu_stages.h on the CPU. Covers the launch order and counts
// with and without the alpha stages, the FLT_MAX fills before the stages that use each
// scratch array, scratch freed, complete output over poison (host and device memory), odd
// sizes, launch splits, the entry's routing and failures; the blocks must be the CPU fast
// encoder's, in every mode.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "bc7/bc7_tables.h"
#include "gpu/bc7_gpu_encode.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu_fake_driver_fixture.h"

using namespace glyptora_internal;
using namespace gpu_quality;

namespace {

class GpuBC7HostTest : public FakeDriverTest {};

// Blocks of one to three regions of a BC7 shape, each region a colour with a gradient and
// noise of a random strength, translucent in about every third block: every mode wins some.
SourceImage partitionedSource(int blocksX, int blocksY, uint32_t seed) {
    std::mt19937 random(seed);
    auto uniform = [&](float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(random); };
    SourceImage image{blocksX * 4, blocksY * 4, std::vector<uint8_t>(size_t(blocksX * blocksY) * 64), {}, {}};
    for (int by = 0; by < blocksY; ++by)
        for (int bx = 0; bx < blocksX; ++bx) {
            const int subsets = 1 + int(random() % 3), shape = int(random() % 64);
            const bool translucent = random() % 3 == 0;
            const float noise = std::array<float, 4>{0.0f, 2.0f, 8.0f, 30.0f}[random() % 4];
            float base[3][4], slope[3][4];
            for (int r = 0; r < 3; ++r)
                for (int c = 0; c < 4; ++c) {
                    base[r][c] = c == 3 && !translucent ? 255.0f : uniform(0.0f, 255.0f);
                    slope[r][c] = c == 3 && !translucent ? 0.0f : uniform(-20.0f, 20.0f);
                }
            for (int i = 0; i < 16; ++i) {
                const int region = glyptora_bc7::partitionSubset(subsets, shape, i);
                const size_t at = ((size_t(by) * 4 + size_t(i / 4)) * size_t(blocksX * 4) + size_t(bx) * 4 + i % 4) * 4;
                for (int c = 0; c < 4; ++c) {
                    const float v = base[region][c] + slope[region][c] * float(i % 4 + i / 4 - 3) +
                                    (c == 3 && !translucent ? 0.0f : uniform(-noise, noise));
                    image.u8[at + size_t(c)] = uint8_t(std::clamp(std::lround(v), 0L, 255L));
                }
            }
        }
    return image;
}

// 65 tiles with partial tiles on both edges, translucent and opaque blocks, then 128 blocks
// of BC7 shapes (a seed with which mode 7 wins an opaque block too, a rare case).
std::unique_ptr<glyptora::CPUInputBuffer> oddInput() {
    std::vector<SourceImage> images = oddSizedImages();
    images.push_back(partitionedSource(16, 8, 87));
    return makeInput(images, glyptora::kValueU8);
}

// The kernels one sequence launches, in order.
std::vector<std::string> sequenceKernels(bool imageHasAlpha) {
    std::vector<std::string> kernels;
    for (int k = 0; k < glyptora_bc7::kBC7SequenceLength; ++k) {
        const glyptora_bc7::SequenceStep& s = glyptora_bc7::kBC7Sequence[k];
        if (glyptora_bc7::alphaOnlyStep(k) && !imageHasAlpha) continue;
        for (int i = 0; i < s.launches; ++i)
            kernels.push_back(s.stage ? kernel_names::kBC7Stages[s.stage - 1] : kernel_names::kFillFltMax);
    }
    return kernels;
}

// Kernels as "name x count" runs of repeats, the stage kernels by their number alone
// ("glyptora_bc7_stage3" is "3").
std::vector<std::string> runs(const std::vector<std::string>& kernels) {
    std::vector<std::string> out;
    for (size_t i = 0; i < kernels.size();) {
        size_t j = i;
        while (j < kernels.size() && kernels[j] == kernels[i]) ++j;
        const std::string stagePrefix = "glyptora_bc7_stage";
        std::string name = kernels[i];
        if (name.rfind(stagePrefix, 0) == 0) name = name.substr(stagePrefix.size());
        if (name == kernel_names::kFillFltMax) name = "fill";
        out.push_back(name + " x" + std::to_string(j - i));
        i = j;
    }
    return out;
}

// The BC7 modes of a run of blocks, a bit each.
unsigned modesOf(const std::vector<uint8_t>& blocks) {
    unsigned modes = 0;
    for (size_t b = 0; b < blocks.size(); b += 16)
        for (int m = 0; m < 8; ++m)
            if (blocks[b] & (1u << m)) {
                modes |= 1u << m;
                break;
            }
    return modes;
}

}  // namespace

TEST_F(GpuBC7HostTest, SequenceLaunchesInOrderAndWritesTheCpuFastBlocks) {
    auto input = oddInput();
    ASSERT_EQ(input->tileCount(), 65u + 128u);
    // Each scratch array is filled with FLT_MAX right before the first stage that uses it;
    // the alpha flags and the stages of translucent blocks (with their fill) run only for
    // images with alpha.
    const std::vector<std::string> opaqueRuns = {"fill x1", "2 x1",  "fill x1", "3 x64",  "4 x16",  "5 x16",
                                                 "fill x1", "8 x16", "9 x4",    "fill x1", "10 x64", "11 x16",
                                                 "12 x4",   "13 x4", "14 x4"};
    std::vector<std::string> alphaRuns = opaqueRuns;
    alphaRuns.insert(alphaRuns.begin(), "1 x1");
    alphaRuns.insert(alphaRuns.begin() + 7, {"fill x1", "6 x64", "7 x16"});
    for (bool alpha : {false, true}) {
        SCOPED_TRACE(alpha ? "image has alpha" : "opaque image");
        EXPECT_EQ(runs(sequenceKernels(alpha)), alpha ? alphaRuns : opaqueRuns);
        const std::vector<uint8_t> expected = entryBlocks(format_table::kBC7, *input, false, alpha);
        // Every mode comes out, 7 of translucent blocks too: each stage has blocks to match.
        EXPECT_EQ(modesOf(expected), 0xFFu);
        // 4 chunks (49, 48, 48, 48 tiles) of 4, 3, 3, 3 launches: each runs the whole sequence.
        expectSequenceAndBlocks({format_table::kBC7, alpha, false, "bc7_encode_gpu()", 64, 16, 13}, *input->buffer(),
                                expected, sequenceKernels(alpha));
    }
}

TEST_F(GpuBC7HostTest, EntryRoutesTheDefaultQualitiesToTheGpuAndKeepsTheSlowOneOnTheCpu) {
    expectOnlyTheDefaultQualityOnTheGpu(format_table::kBC7, *oddInput(), true, false, sequenceKernels(true),
                                        "BC7 Compressor: no slow-mode for bc7-gpu, using cpu instead.\n");
}

TEST_F(GpuBC7HostTest, FailuresAreReportedOnceAndFreeTheScratch) {
    auto input = oddInput();
    const DeviceFailure failures[] = {
        {700, 0, nullptr, "*** GPU encoding failed at kernel launch: 'fake error 700'.\n", 1},
        {0, 0, kernel_names::kBC7Stages[4], "*** GPU kernel glyptora_bc7_stage5 is missing from the kernel module.\n",
         1 + 1 + 1 + 64 + 16}};
    for (const DeviceFailure& f : failures) {
        gpu_testing::resetGpuState();  // a new session, which has looked up no kernel yet
        expectDeviceFailure(f, format_table::kBC7, *input->buffer());
    }
}
