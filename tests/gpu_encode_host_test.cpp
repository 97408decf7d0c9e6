// The GPU encoding path without a GPU: the host code runs against the stand-in CUDA driver
// (tests/support_fake_cuda), where device memory is host memory and every kernel launch is
// checked and carried out on the CPU by the kernel's own per-thread function. Covers work
// splitting into memory chunks and launches, device copies, element conversions, output
// placement (host and device memory), the entries' routing, timing scopes and failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gpu/gpu_kernel_names.h"
#include "gpu_fake_driver_fixture.h"

using namespace glyptora_internal;
using namespace gpu_quality;

namespace {

// The timing labels of an entry's chunk encodes and launches, kept word for word:
// "s_encode_bc3_gpu()" and "encode_bc3_gpu()"; BC1a launches as "encode_bc1_gpu()".
std::pair<std::string, std::string> timingLabels(const EncoderEntry& entry) {
    std::string name = entry.name;
    std::transform(name.begin(), name.end(), name.begin(), [](char c) { return char(std::tolower(c)); });
    return {"s_encode_" + name + "_gpu()", "encode_" + (name == "bc1a" ? std::string("bc1") : name) + "_gpu()"};
}

class GpuEncodeHostTest : public FakeDriverTest {
protected:
    // Makes the next availability computation see a device with this much memory and speed.
    static void useDevice(unsigned long long totalMem, int clockRate, int multiProcessors) {
        fake_cuda().config.devices[0] = FakeCudaDevice{clockRate, multiProcessors, 8, 6, totalMem};
        gpu_testing::resetGpuState();
        ASSERT_TRUE(isGpuEncodingAvailable());
    }
};

// The conversion kernel an encode runs first, or null when the input has the kernels' type.
const char* conversionKernel(const GpuPlan& plan, int32_t valueType) {
    namespace k = kernel_names;
    const bool f32 = valueType == glyptora::kValueF32;
    if (plan.signedKernels) return valueType == glyptora::kValueS8 ? nullptr : f32 ? k::kF32ToS8 : k::kU8ToS8;
    return valueType == glyptora::kValueU8 ? nullptr : f32 ? k::kF32ToU8 : k::kS8ToU8;
}

// The kernels an encode launches: per chunk the conversion (if any), then per launch the
// plan's channel kernel before its colour kernel.
std::vector<std::string> expectedKernels(const GpuPlan& plan, int32_t valueType, int chunks, int launchesPerChunk) {
    std::vector<std::string> kernels;
    for (int c = 0; c < chunks; ++c) {
        if (const char* conversion = conversionKernel(plan, valueType)) kernels.push_back(conversion);
        for (int l = 0; l < launchesPerChunk; ++l)
            for (const char* k : {plan.channelKernel, plan.colourKernel})
                if (k) kernels.push_back(k);
    }
    return kernels;
}

}  // namespace

TEST_F(GpuEncodeHostTest, EveryFormatAndValueTypeWritesTheKernelBlocksHoweverTheWorkIsSplit) {
    std::string names;
    for (const EncoderEntry* entry : gpu_quality::gpuEntries()) names += std::string(entry->name) + " ";
    EXPECT_EQ(names, "BC1a BC2 BC3 BC4 BC4S BC5 BC5S ") << "the formats with kernels";

    const auto images = oddSizedImages();
    for (const EncoderEntry* e : gpu_quality::gpuEntries())
        for (int32_t valueType : kValueTypes) {
            const EncoderEntry& entry = *e;
            SCOPED_TRACE(caseName(entry, valueType));
            auto input = makeInput(images, valueType, {0.2126f, 0.7152f, 0.0722f, 1.0f});
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            ASSERT_EQ(buffer.tileCount, 65u);
            const std::vector<uint8_t> expected = expectedBlocks(entry, buffer);

            // One chunk, one launch, from another thread: the driver's current context is per
            // thread, and the encoder makes it current itself. Unwritten blocks show as the host
            // poison or as the driver's poison of fresh device memory.
            fake_cuda().launches.clear();
            std::vector<uint8_t> fromThread;
            std::thread([&] { fromThread = gpuEncode(entry, buffer, 0x00); }).join();
            EXPECT_EQ(fromThread, expected);
            EXPECT_EQ(launchedKernels(), expectedKernels(*entry.gpu, valueType, 1, 1));

            // Forced splits: 4 chunks of 17, 16, 16 and 16 tiles, 6 launches each.
            gpu_testing::setWorkLimits(20, 3);
            fake_cuda().launches.clear();
            glyptora::TimingContext timing;
            EXPECT_EQ(gpuEncode(entry, buffer, 0xFF, false, nullptr, &timing), expected);
            EXPECT_EQ(launchedKernels(), expectedKernels(*entry.gpu, valueType, 4, 6));
            const auto [chunkLabel, launchLabel] = timingLabels(entry);
            const std::map<std::string, int> labels = {
                {"host to device", 4}, {chunkLabel, 4}, {launchLabel, 24}, {"device to host", 4}};
            EXPECT_EQ(labelCounts(timing), labels);

            // Output in device memory: each chunk writes its own part there, nothing comes back.
            const long copiesBack = fake_cuda().counters.copiesToHost;
            EXPECT_EQ(gpuEncode(entry, buffer, 0xC3, true), expected);
            EXPECT_EQ(fake_cuda().counters.copiesToHost, copiesBack + 1);  // the test's own copy
            gpu_testing::setWorkLimits(0, 0);
        }
}

TEST_F(GpuEncodeHostTest, EntriesGiveTheKernelBlocksAtTheCpuQuality) {
    gpu_quality::checkEntriesGiveTheKernelBlocksAtTheCpuQuality();
    for (const EncoderEntry* entry : gpu_quality::gpuEntries()) {
        fake_cuda().launches.clear();
        gpu_quality::entryBlocks(*entry, *makeInput(oddSizedImages(), glyptora::kValueU8), true);
        EXPECT_EQ(launchedKernels(), expectedKernels(*entry->gpu, glyptora::kValueU8, 1, 1)) << entry->name;
    }
}

TEST_F(GpuEncodeHostTest, ModesAndFormatsWithoutKernelsStayOffTheGpu) {
    auto input = makeInput(oddSizedImages(), glyptora::kValueU8);
    std::vector<uint8_t> out(size_t(input->tileCount()) * 16, 0);
    testing::internal::CaptureStdout();  // the fall-back notices: encoder_dispatch_test
    EXPECT_TRUE(
        runEncoderEntry(format_table::kBC1a, *input, /*fast=*/true, false, false, out.data(), true, false, nullptr));
    EXPECT_TRUE(
        runEncoderEntry(format_table::kBC6H, *input, /*slow=*/1, false, false, out.data(), true, false, nullptr));
    runEncoderEntry(format_table::kASTC, *input, 0, false, false, out.data(), true, false, nullptr);
    EXPECT_EQ(fake_cuda().counters.launches, 0);
    EXPECT_EQ(fake_cuda().counters.allocations, 0);

    // A CPU encode with its output in device memory stages the blocks on the host and copies
    // them over.
    const cuda::DriverApi& api = currentGpuSession()->api();
    const size_t bytes = size_t(input->tileCount()) * 8;
    cuda::CUdeviceptr device = 0;
    ASSERT_EQ(api.cuMemAlloc(&device, bytes), cuda::kSuccess);
    EXPECT_TRUE(runEncoderEntry(format_table::kBC4, *input, /*slow=*/true, false, false,
                                reinterpret_cast<void*>(uintptr_t(device)), true, true, nullptr));
    testing::internal::GetCapturedStdout();
    std::vector<uint8_t> onDevice(bytes), onHost(bytes);
    ASSERT_EQ(api.cuMemcpyDtoH(onDevice.data(), device, bytes), cuda::kSuccess);
    EXPECT_TRUE(runEncoderEntry(format_table::kBC4, *input, true, false, false, onHost.data(), false, false, nullptr));
    EXPECT_EQ(onDevice, onHost);
    EXPECT_EQ(fake_cuda().counters.launches, 0);
    api.cuMemFree(device);
}

TEST_F(GpuEncodeHostTest, WorkIsSplitEvenlyByDeviceMemoryAndLaunchLimit) {
    // Chunks take a quarter of the device memory: of 76800 bytes, 300 8-bit tiles (64 bytes)
    // or 75 float tiles (256 bytes), so 1000 tiles run in 4 or 14 chunks. Launches take at
    // most clockRate x multiProcessorCount / the plan's divisor tiles: of 384, 64 for BC1a,
    // 32 for BC3 (two kernels a launch), 384 for BC4.
    const struct {
        unsigned long long memory;
        int clockRate;
        const EncoderEntry* entry;
        int32_t valueType;
        uint32_t chunks, launches;
    } splits[] = {{76800, 1500000, &format_table::kBC4, glyptora::kValueU8, 4, 4},
                  {76800, 1500000, &format_table::kBC4, glyptora::kValueF32, 14, 14},
                  {8ull << 30, 384, &format_table::kBC1a, glyptora::kValueU8, 1, 16},
                  {8ull << 30, 384, &format_table::kBC3, glyptora::kValueU8, 1, 32},
                  {8ull << 30, 384, &format_table::kBC4, glyptora::kValueU8, 1, 3}};
    // Each part takes ceil(remaining / remaining parts): 1000 in 14 is 6 x 72 and 8 x 71.
    auto evenSplit = [](uint32_t count, uint32_t parts) {
        std::vector<uint32_t> sizes;
        for (uint32_t done = 0; parts > 0; --parts) done += sizes.emplace_back((count - done + parts - 1) / parts);
        return sizes;
    };
    const std::vector<gpu_quality::SourceImage> images = {makeSource(160, 100, 3)};
    for (const auto& split : splits) {
        const EncoderEntry& entry = *split.entry;
        SCOPED_TRACE(caseName(entry, split.valueType) + ", " + std::to_string(split.memory) + " bytes");
        useDevice(split.memory, split.clockRate, 1);
        auto input = makeInput(images, split.valueType);
        const glyptora::CPUBuffer_Base& buffer = *input->buffer();
        ASSERT_EQ(buffer.tileCount, 1000u);
        fake_cuda().launches.clear();
        glyptora::TimingContext timing;
        EXPECT_EQ(gpuEncode(entry, buffer, 0x3C, false, nullptr, &timing), expectedBlocks(entry, buffer));
        const std::map<std::string, int> labels = {{"host to device", int(split.chunks)},
                                                   {entry.gpu->chunkLabel, int(split.chunks)},
                                                   {entry.gpu->launchLabel, int(split.launches)},
                                                   {"device to host", int(split.chunks)}};
        EXPECT_EQ(labelCounts(timing), labels);
        std::vector<uint32_t> expectedTiles;
        for (uint32_t chunk : evenSplit(1000, split.chunks))
            for (uint32_t tiles : evenSplit(chunk, split.launches / split.chunks)) expectedTiles.push_back(tiles);
        for (const char* kernel : {entry.gpu->channelKernel, entry.gpu->colourKernel}) {
            if (!kernel) continue;
            std::vector<uint32_t> tiles;
            for (const FakeCudaLaunch& l : fake_cuda().launches)
                if (l.kernel == kernel) tiles.push_back(l.tiles);
            EXPECT_EQ(tiles, expectedTiles) << kernel;
        }
    }
}

TEST_F(GpuEncodeHostTest, DeviceFailuresAreReportedOnceAndStopTheEncode) {
    // The first failure stops an encode of many launches: a chunk's 4 launches are synchronised together.
    gpu_testing::setWorkLimits(10, 3);
    using glyptora::kValueF32, glyptora::kValueS8, glyptora::kValueU8;
    const std::string failed = "*** GPU encoding failed at ";
    const struct {
        const EncoderEntry& entry;
        int32_t valueType;
        DeviceFailure failure;
    } cases[] = {
        {format_table::kBC3, kValueF32, {700, 0, nullptr, failed + "conversion launch: 'fake error 700'.\n", 1}},
        {format_table::kBC3, kValueU8, {700, 0, nullptr, failed + "kernel launch: 'fake error 700'.\n", 1}},
        {format_table::kBC2, kValueU8, {0, 719, nullptr, failed + "kernel execution: 'fake error 719'.\n", 4}},
        {format_table::kBC4S, kValueS8,
         {0, 0, kernel_names::kCompressBC4S,
          "*** GPU kernel glyptora_compressBC4S is missing from the kernel module.\n", 0}}};
    for (const auto& c : cases)
        expectDeviceFailure(c.failure, c.entry, *makeInput(oddSizedImages(), c.valueType)->buffer());
}

TEST_F(GpuEncodeHostTest, RefusedOrEmptyWorkTouchesNeitherTheOutputNorTheDevice) {
    auto eightByEight = makeInput(oddSizedImages(), glyptora::kValueU8, {1, 1, 1, 1}, 8);
    for (const EncoderEntry* entry : gpu_quality::gpuEntries()) {
        const std::string refusal = entry->name + std::string(" Compressor: only tile size 4x4 is supported.\n");
        expectDeviceFailure({0, 0, nullptr, refusal, 0}, *entry, *eightByEight->buffer());
    }
    glyptora::CPUInputBuffer empty(nullptr, 0, glyptora::kValueU8, 4, 4, 1, 1, 1, 1);
    ASSERT_EQ(empty.tileCount(), 0u);
    EXPECT_TRUE(encodeOnGpu(*format_table::kBC1a.gpu, "BC1a", *empty.buffer(), nullptr, false, nullptr));
    EXPECT_EQ(fake_cuda().counters.allocations, 0);
    EXPECT_EQ(fake_cuda().counters.launches, 0);

    // Without a usable GPU (a driver too old for the kernels) encodes and copies are refused.
    fake_cuda_reset(12000);
    gpu_testing::resetGpuState();
    const std::string refusal = "*** CUDA driver version 12000 < runtime version " +
                                std::to_string(cudaKernelRuntimeVersion()) + ".\n";
    expectDeviceFailure({0, 0, nullptr, refusal, 0}, format_table::kBC4,
                        *makeInput(oddSizedImages(), glyptora::kValueU8)->buffer());
    uint8_t byte = 0;
    EXPECT_FALSE(copyHostToDevice(&byte, &byte, 1));
    EXPECT_EQ(fake_cuda().counters.allocations, 0);
}
