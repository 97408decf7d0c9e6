#pragma once
// Fixtures of the tests on the stand-in CUDA driver (tests/support_fake_cuda), loaded by the
// library with a placeholder kernel image, and the checks the GPU host tests share: an encode's
// kernel sequence and blocks however the work is split, the entry's routing, device failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/timing_context.h"
#include "fake_cuda.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_testing.h"
#include "gpu_block_quality.h"

// The stand-in driver and placeholder image in place, availability not yet computed.
class FakeDriverBase : public ::testing::Test {
protected:
    void SetUp() override {
        fake_cuda_reset(glyptora_internal::cudaKernelRuntimeVersion());
        glyptora_internal::gpu_testing::setDriverLibraryPath(GLYPTORA_FAKE_CUDA);
        glyptora_internal::gpu_testing::setKernelImage(kTestKernelImage, sizeof kTestKernelImage);
        glyptora_internal::gpu_testing::setWorkLimits(0, 0);
        glyptora_internal::gpu_testing::resetGpuState();
    }
    void TearDown() override {
        glyptora_internal::gpu_testing::setWorkLimits(0, 0);
        glyptora_internal::gpu_testing::resetGpuState();
        glyptora_internal::gpu_testing::setDriverLibraryPath(nullptr);
        glyptora_internal::gpu_testing::setKernelImage(nullptr, 0);
    }

    alignas(64) static constexpr uint32_t kTestKernelImage[4] = {0x7E57CAFEu, 1, 2, 3};
};

// A usable GPU; after each test no device memory may be left allocated and no copy or launch
// may have gone outside device memory.
class FakeDriverTest : public FakeDriverBase {
protected:
    void SetUp() override {
        FakeDriverBase::SetUp();
        ASSERT_TRUE(glyptora_internal::isGpuEncodingAvailable());
    }
    void TearDown() override {
        const FakeCudaCounters counters = fake_cuda().counters;
        EXPECT_EQ(counters.liveAllocations, 0) << "device memory leaked";
        EXPECT_EQ(counters.badAccesses, 0) << "copy outside device memory or without a context";
        EXPECT_EQ(counters.badLaunches, 0) << "launch of a wrong shape or with arguments outside device memory";
        FakeDriverBase::TearDown();
    }
};

// The kernels the stand-in driver has launched since its launch list was last cleared, in order.
inline std::vector<std::string> launchedKernels() {
    std::vector<std::string> kernels;
    for (const FakeCudaLaunch& l : fake_cuda().launches) kernels.push_back(l.kernel);
    return kernels;
}

inline std::map<std::string, int> labelCounts(const glyptora::TimingContext& timing) {
    std::map<std::string, int> counts;
    for (const auto& entry : timing.entries()) ++counts[entry.label];
    return counts;
}

// A GPU encode of the staged formats (BC6H, BC7) writes `expected` over host poisons 0 and FF,
// launching `sequence` once under one `label` timing scope; split by the work limits (tiles a
// chunk, tiles a launch), `sequences` runs of it one after the other, over poison 5A; and into
// device memory.
struct StagedEncode {
    const gpu_quality::EncoderEntry& entry;
    bool imageHasAlpha, isSigned;
    const char* label;
    uint32_t chunkTiles, launchTiles, sequences;
};
inline void expectSequenceAndBlocks(const StagedEncode& e, const glyptora::CPUBuffer_Base& buffer,
                                    const std::vector<uint8_t>& expected, const std::vector<std::string>& sequence) {
    using glyptora_internal::gpu_testing::setWorkLimits;
    auto encode = [&](uint8_t poison, bool onDevice = false, glyptora::TimingContext* timing = nullptr) {
        return gpu_quality::gpuEncode(e.entry, buffer, poison, onDevice, nullptr, timing, e.imageHasAlpha, e.isSigned);
    };
    for (uint8_t poison : {0x00, 0xFF}) {
        fake_cuda().launches.clear();
        glyptora::TimingContext timing;
        EXPECT_EQ(encode(poison, false, &timing), expected);
        EXPECT_EQ(launchedKernels(), sequence);
        EXPECT_EQ(labelCounts(timing)[e.label], 1);
    }
    setWorkLimits(e.chunkTiles, e.launchTiles);
    fake_cuda().launches.clear();
    EXPECT_EQ(encode(0x5A), expected);
    std::vector<std::string> split;
    for (uint32_t i = 0; i < e.sequences; ++i) split.insert(split.end(), sequence.begin(), sequence.end());
    EXPECT_EQ(launchedKernels(), split);
    EXPECT_EQ(encode(0xC3, true), expected);
    setWorkLimits(0, 0);
}

// Asked for the GPU, the entry's default quality runs `sequence` and gives the CPU blocks; its
// slow quality prints `notice` and stays on the CPU.
inline void expectOnlyTheDefaultQualityOnTheGpu(const gpu_quality::EncoderEntry& entry,
                                                const glyptora::CPUInputBuffer& input, bool imageHasAlpha,
                                                bool isSigned, const std::vector<std::string>& sequence,
                                                const char* notice) {
    fake_cuda().launches.clear();
    EXPECT_EQ(gpu_quality::entryBlocks(entry, input, true, imageHasAlpha, isSigned),
              gpu_quality::entryBlocks(entry, input, false, imageHasAlpha, isSigned));
    EXPECT_EQ(launchedKernels(), sequence);
    fake_cuda().launches.clear();
    std::vector<uint8_t> out(size_t(input.tileCount()) * size_t(entry.blockBytes));
    testing::internal::CaptureStdout();
    EXPECT_TRUE(runEncoderEntry(entry, input, 1, isSigned, imageHasAlpha, out.data(), true, false, nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), notice);
    EXPECT_TRUE(fake_cuda().launches.empty());
}

// A device that fails the way the stand-in is set: launches failing with `launchResult`,
// synchronisation with `synchronizeResult`, or `missingKernel` not in the module. The encode
// must fail, print `printed` (the report comes once), stop after `launches` launches, free
// its device memory and leave its output as it was.
struct DeviceFailure {
    int launchResult, synchronizeResult;
    const char* missingKernel;
    std::string printed;
    long launches;
};
inline void expectDeviceFailure(const DeviceFailure& f, const gpu_quality::EncoderEntry& entry,
                                const glyptora::CPUBuffer_Base& buffer, bool imageHasAlpha = false,
                                bool isSigned = false) {
    FakeCudaConfig& config = fake_cuda().config;
    config.launchResult = f.launchResult, config.synchronizeResult = f.synchronizeResult;
    config.missingKernel = f.missingKernel;
    const long before = fake_cuda().counters.launches;
    testing::internal::CaptureStdout();
    bool ok = true;
    const std::vector<uint8_t> out =
        gpu_quality::gpuEncode(entry, buffer, 0x42, false, &ok, nullptr, imageHasAlpha, isSigned);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), f.printed);
    EXPECT_FALSE(ok);
    EXPECT_EQ(fake_cuda().counters.launches - before, f.launches);
    EXPECT_EQ(fake_cuda().counters.liveAllocations, 0);
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](uint8_t b) { return b == 0x42; }));
    config.launchResult = config.synchronizeResult = 0, config.missingKernel = nullptr;
}
