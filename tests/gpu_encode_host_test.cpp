// The GPU encoding path without a GPU: the host code runs against the scripted CUDA driver
// (device memory is host memory) and every kernel launch is carried out on the CPU by the
// kernels' own per-thread bodies (gpu_kernel_emulation.h). Covers work splitting into memory
// chunks and launches, device copies, element conversions, launch shapes and arguments,
// output placement (host and device memory), timing scopes, failures and clean-up.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/encoder_dispatch.h"
#include "core/timing_context.h"
#include "fake_cuda.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_buffer.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_testing.h"
#include "gpu_block_quality.h"
#include "gpu_kernel_emulation.h"

// Device memory of the scripted driver, for outputs that live on the device.
extern "C" int cuMemAlloc_v2(unsigned long long* pointer, size_t bytes);
extern "C" int cuMemFree_v2(unsigned long long pointer);
extern "C" int cuMemcpyHtoD_v2(unsigned long long destination, const void* source, size_t bytes);
extern "C" int cuMemcpyDtoH_v2(void* destination, unsigned long long source, size_t bytes);

using namespace glyptora_internal;
using gpu_emulation::KernelEmulator;
using gpu_emulation::Launch;
using gpu_quality::FormatCase;
using gpu_quality::cpuEntryBlocks;

namespace names = glyptora_internal::kernel_names;

namespace {

alignas(64) const uint32_t kTestKernelImage[4] = {0x7E57CAFEu, 0, 0, 0};

constexpr int32_t kValueTypes[] = {glyptora::kValueU8, glyptora::kValueS8, glyptora::kValueF32};

class GpuEncodeHostTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake_cuda_reset(cudaKernelRuntimeVersion());
        gpu_testing::setDriverLibraryPath(GLYPTORA_FAKE_CUDA);
        gpu_testing::setKernelImage(kTestKernelImage, sizeof kTestKernelImage);
        gpu_testing::setWorkLimits(0, 0);
        gpu_testing::resetGpuState();
        emulator = std::make_unique<KernelEmulator>();
        ASSERT_TRUE(isGpuEncodingAvailable());
        m_baselineAllocations = fake_cuda_counters().liveAllocations;
    }
    void TearDown() override {
        EXPECT_EQ(fake_cuda_counters().liveAllocations, m_baselineAllocations) << "device memory leaked";
        EXPECT_EQ(fake_cuda_counters().badAccesses, 0) << "copy outside device memory or without a context";
        gpu_testing::setWorkLimits(0, 0);
        gpu_testing::resetGpuState();
        gpu_testing::setDriverLibraryPath(nullptr);
        gpu_testing::setKernelImage(nullptr, 0);
        emulator.reset();
    }

    // Makes the next availability computation see a device with this much memory and speed.
    static void useDevice(unsigned long long totalMem, int clockRate, int multiProcessors) {
        FakeCudaDevice& d = fake_cuda_config()->devices[0];
        d.totalMem = totalMem;
        d.clockRate = clockRate;
        d.multiProcessorCount = multiProcessors;
        gpu_testing::resetGpuState();
        ASSERT_TRUE(isGpuEncodingAvailable());
    }

    // Encodes into host memory first filled with `poison`.
    static std::vector<uint8_t> encode(const FormatCase& f, const glyptora::CPUBuffer_Base& buffer, uint8_t poison,
                                       bool* ok = nullptr, glyptora::TimingContext* timing = nullptr) {
        std::vector<uint8_t> out(size_t(buffer.tileCount) * size_t(f.blockBytes), poison);
        const bool result = encodeOnGpu(f.format, buffer, out.data(), false, timing);
        if (ok) *ok = result;
        else EXPECT_TRUE(result) << f.name;
        return out;
    }

    std::unique_ptr<KernelEmulator> emulator;  // carries out every launch
    long m_baselineAllocations = 0;
};

const FormatCase& formatCase(GpuFormat format) {
    for (const FormatCase& f : gpu_quality::blockFormats())
        if (f.format == format) return f;
    return gpu_quality::blockFormats().front();
}

std::vector<gpu_quality::SourceImage> oddSizedImages() {
    // Partial tiles on both edges, and further images whose tiles follow the first's; 65
    // tiles in all, so that the last CUDA block of 64 threads holds one block.
    return {gpu_quality::makeSource(37, 23, 1), gpu_quality::makeSource(5, 3, 2), gpu_quality::makeSource(4, 12, 3)};
}

std::vector<gpu_quality::SourceImage> thousandTiles() { return {gpu_quality::makeSource(160, 100, 3)}; }

// The kernels a format launches, in order within one launch function.
std::vector<const char*> blockKernels(GpuFormat format) {
    switch (format) {
        case GpuFormat::BC1a: return {names::kCompressDXT1a};
        case GpuFormat::BC2: return {names::kCompressDXT3};
        case GpuFormat::BC3: return {names::kCompressDXT5Alpha, names::kCompressDXT5Color};
        case GpuFormat::BC4: return {names::kCompressBC4};
        case GpuFormat::BC4S: return {names::kCompressBC4S};
        case GpuFormat::BC5: return {names::kCompressBC5};
        case GpuFormat::BC5S: return {names::kCompressBC5S};
        default: return {};
    }
}

// The conversion kernel run before the block kernels, or null when the input already has the
// kernels' element type.
const char* conversionKernel(const FormatCase& f, int32_t valueType) {
    if (f.signedBlocks) {
        if (valueType == glyptora::kValueU8) return names::kU8ToS8;
        if (valueType == glyptora::kValueF32) return names::kF32ToS8;
        return nullptr;
    }
    if (valueType == glyptora::kValueS8) return names::kS8ToU8;
    if (valueType == glyptora::kValueF32) return names::kF32ToU8;
    return nullptr;
}

std::vector<uint32_t> tilesOf(const std::vector<Launch>& launches) {
    std::vector<uint32_t> tiles;
    for (const Launch& l : launches) tiles.push_back(l.tiles);
    return tiles;
}

std::map<std::string, int> labelCounts(const glyptora::TimingContext& timing) {
    std::map<std::string, int> counts;
    for (const auto& entry : timing.entries()) ++counts[entry.label];
    return counts;
}

}  // namespace

TEST_F(GpuEncodeHostTest, EveryFormatAndValueTypeWritesTheKernelBlocksForEveryTile) {
    const auto images = oddSizedImages();
    for (const FormatCase& f : gpu_quality::blockFormats())
        for (int32_t valueType : kValueTypes) {
            SCOPED_TRACE(std::string(f.name) + " " + gpu_quality::valueTypeName(valueType));
            const float weights[4] = {0.2126f, 0.7152f, 0.0722f, 1.0f};
            auto input = gpu_quality::makeInput(images, valueType, weights);
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            ASSERT_EQ(buffer.tileCount, 10u * 6u + 2u + 3u);
            const std::vector<uint8_t> expected = gpu_quality::expectedBlocks(f.format, buffer);
            // Two different poisons: a block left unwritten cannot match both times.
            EXPECT_EQ(encode(f, buffer, 0x00), expected);
            EXPECT_EQ(encode(f, buffer, 0xFF), expected);
        }
}

TEST_F(GpuEncodeHostTest, QualityMatchesTheCpuPathWithinATenthOfADecibel) {
    const std::vector<gpu_quality::SourceImage> images = {gpu_quality::makeSource(64, 48, 7),
                                                          gpu_quality::makeSource(13, 9, 8)};
    for (const FormatCase& f : gpu_quality::blockFormats())
        for (int32_t valueType : kValueTypes) {
            SCOPED_TRACE(std::string(f.name) + " " + gpu_quality::valueTypeName(valueType));
            auto input = gpu_quality::makeInput(images, valueType);
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            const std::vector<uint8_t> gpu = encode(f, buffer, 0x5A);
            const std::vector<uint8_t> cpu = cpuEntryBlocks(f, *input);
            const double gpuPsnr = gpu_quality::blocksPsnr(f.format, buffer, gpu.data());
            const double cpuPsnr = gpu_quality::blocksPsnr(f.format, buffer, cpu.data());
            EXPECT_GT(gpuPsnr, 20.0);
            if (std::isfinite(cpuPsnr)) {
                EXPECT_NEAR(gpuPsnr, cpuPsnr, 0.1);
            } else {
                EXPECT_FALSE(std::isfinite(gpuPsnr));
            }
        }
}

TEST_F(GpuEncodeHostTest, SingleChannelFormatsAreIdenticalToTheCpuPath) {
    // BC4 and BC5 at the GPU quality run the fast encoders, integer arithmetic throughout.
    const auto images = oddSizedImages();
    for (GpuFormat format : {GpuFormat::BC4, GpuFormat::BC4S, GpuFormat::BC5, GpuFormat::BC5S})
        for (int32_t valueType : kValueTypes) {
            const FormatCase& f = formatCase(format);
            SCOPED_TRACE(std::string(f.name) + " " + gpu_quality::valueTypeName(valueType));
            auto input = gpu_quality::makeInput(images, valueType);
            EXPECT_EQ(encode(f, *input->buffer(), 0xEE), cpuEntryBlocks(f, *input));
        }
}

TEST_F(GpuEncodeHostTest, InputOfAnotherElementTypeIsConvertedOnTheDeviceFirst) {
    const auto images = oddSizedImages();
    for (const FormatCase& f : gpu_quality::blockFormats())
        for (int32_t valueType : kValueTypes) {
            SCOPED_TRACE(std::string(f.name) + " " + gpu_quality::valueTypeName(valueType));
            auto input = gpu_quality::makeInput(images, valueType);
            emulator->clear();
            encode(f, *input->buffer(), 0);
            const std::vector<Launch> launches = emulator->launches();
            std::vector<std::string> kernels;
            for (const Launch& l : launches) kernels.push_back(l.kernel);
            std::vector<std::string> expected;
            if (const char* conversion = conversionKernel(f, valueType)) expected.push_back(conversion);
            for (const char* k : blockKernels(f.format)) expected.push_back(k);
            EXPECT_EQ(kernels, expected);
            if (launches.size() > 1 && conversionKernel(f, valueType)) {
                // The block kernels read the converted copy, not the uploaded tiles.
                EXPECT_NE(launches[1].firstTile, launches[0].firstTile);
                EXPECT_EQ(launches[0].tiles, input->tileCount());
            }
        }
}

TEST_F(GpuEncodeHostTest, MemoryChunksTakeAQuarterOfTheDeviceMemory) {
    // 8-bit tiles take 64 bytes: a quarter of 76800 bytes holds 300 of them, so 1000 tiles
    // run in 4 chunks of 250; float tiles take 256 bytes: 75 a chunk, 14 chunks.
    useDevice(76800, 1500000, 40);
    const auto images = thousandTiles();
    for (int32_t valueType : {glyptora::kValueU8, glyptora::kValueF32}) {
        SCOPED_TRACE(gpu_quality::valueTypeName(valueType));
        auto input = gpu_quality::makeInput(images, valueType);
        const glyptora::CPUBuffer_Base& buffer = *input->buffer();
        ASSERT_EQ(buffer.tileCount, 1000u);
        const FormatCase& f = formatCase(GpuFormat::BC4);
        emulator->clear();
        glyptora::TimingContext timing;
        EXPECT_EQ(encode(f, buffer, 0xA5, nullptr, &timing), gpu_quality::expectedBlocks(f.format, buffer));
        const std::vector<uint32_t> tiles = tilesOf(emulator->launchesOf(names::kCompressBC4));
        if (valueType == glyptora::kValueU8) {
            EXPECT_EQ(tiles, (std::vector<uint32_t>{250, 250, 250, 250}));
        } else {
            std::vector<uint32_t> expected(14, 71);
            std::fill(expected.begin(), expected.begin() + 6, 72);  // 1000 = 6 x 72 + 8 x 71
            EXPECT_EQ(tiles, expected);
        }
        const auto counts = labelCounts(timing);
        EXPECT_EQ(counts.at("host to device"), int(tiles.size()));
        EXPECT_EQ(counts.at("s_encode_bc4_gpu()"), int(tiles.size()));
        EXPECT_EQ(counts.at("device to host"), int(tiles.size()));
    }
}

TEST_F(GpuEncodeHostTest, LaunchesTakeAtMostClockTimesMultiprocessorsOverTheFormatDivisor) {
    // clockRate x multiProcessorCount = 384: BC1a launches take 64 tiles (divisor 6), BC2 and
    // BC3 32 (divisor 12), BC4 and BC5 384 (divisor 1), spread evenly over the launches.
    useDevice(8ull << 30, 384, 1);
    const auto images = thousandTiles();
    auto input = gpu_quality::makeInput(images, glyptora::kValueU8);
    const glyptora::CPUBuffer_Base& buffer = *input->buffer();
    struct Expectation {
        GpuFormat format;
        const char* launchLabel;
        uint32_t launches;
    };
    for (const Expectation& e : {Expectation{GpuFormat::BC1a, "encode_bc1_gpu()", 16},
                                 Expectation{GpuFormat::BC2, "encode_bc2_gpu()", 32},
                                 Expectation{GpuFormat::BC3, "encode_bc3_gpu()", 32},
                                 Expectation{GpuFormat::BC4, "encode_bc4_gpu()", 3},
                                 Expectation{GpuFormat::BC5S, "encode_bc5s_gpu()", 3}}) {
        const FormatCase& f = formatCase(e.format);
        SCOPED_TRACE(f.name);
        emulator->clear();
        glyptora::TimingContext timing;
        EXPECT_EQ(encode(f, buffer, 0x3C, nullptr, &timing), gpu_quality::expectedBlocks(f.format, buffer));
        for (const char* kernel : blockKernels(e.format)) {
            const std::vector<Launch> launches = emulator->launchesOf(kernel);
            ASSERT_EQ(launches.size(), e.launches) << kernel;
            // Even split: ceil(remaining / remaining launches) each, so sizes never grow and
            // differ by at most one; consecutive launches cover consecutive tiles.
            uint32_t total = 0;
            for (size_t i = 0; i < launches.size(); ++i) {
                const uint32_t remaining = 1000 - total;
                const uint32_t parts = uint32_t(launches.size() - i);
                EXPECT_EQ(launches[i].tiles, (remaining + parts - 1) / parts);
                if (i > 0) {
                    EXPECT_EQ(launches[i].output - launches[0].output, uintptr_t(total) * uintptr_t(f.blockBytes));
                    EXPECT_EQ(launches[i].firstTile - launches[0].firstTile, uintptr_t(total) * 64u);
                }
                total += launches[i].tiles;
            }
            EXPECT_EQ(total, 1000u);
        }
        EXPECT_EQ(labelCounts(timing).at(e.launchLabel), int(e.launches));
    }
}

TEST_F(GpuEncodeHostTest, TestLimitsForceManyChunksAndLaunches) {
    const auto images = oddSizedImages();  // 65 tiles
    for (const FormatCase& f : gpu_quality::blockFormats())
        for (int32_t valueType : kValueTypes) {
            SCOPED_TRACE(std::string(f.name) + " " + gpu_quality::valueTypeName(valueType));
            auto input = gpu_quality::makeInput(images, valueType);
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            gpu_testing::setWorkLimits(20, 3);  // 4 chunks of 17, 16, 16, 16 tiles, 6 launches each
            emulator->clear();
            glyptora::TimingContext timing;
            EXPECT_EQ(encode(f, buffer, 0x77, nullptr, &timing), gpu_quality::expectedBlocks(f.format, buffer));
            gpu_testing::setWorkLimits(0, 0);
            EXPECT_EQ(labelCounts(timing).at("host to device"), 4);
            const std::vector<Launch> launches = emulator->launchesOf(blockKernels(f.format).front());
            EXPECT_EQ(launches.size(), 4u * 6u);
            for (const Launch& l : launches) EXPECT_LE(l.tiles, 3u);
            if (const char* conversion = conversionKernel(f, valueType)) {
                EXPECT_EQ(emulator->launchesOf(conversion).size(), 4u);  // once per chunk
            }
        }
}

TEST_F(GpuEncodeHostTest, OutputCanStayInDeviceMemory) {
    const auto images = oddSizedImages();
    for (const FormatCase& f : gpu_quality::blockFormats()) {
        SCOPED_TRACE(f.name);
        auto input = gpu_quality::makeInput(images, glyptora::kValueF32);
        const glyptora::CPUBuffer_Base& buffer = *input->buffer();
        const size_t bytes = size_t(buffer.tileCount) * size_t(f.blockBytes);
        unsigned long long device = 0;
        ASSERT_EQ(cuMemAlloc_v2(&device, bytes), 0);
        const std::vector<uint8_t> poison(bytes, 0xC3);
        ASSERT_EQ(cuMemcpyHtoD_v2(device, poison.data(), bytes), 0);
        gpu_testing::setWorkLimits(25, 4);  // 3 chunks, each writing its own part of the output
        const long copiesBack = fake_cuda_counters().copiesToHost;
        EXPECT_TRUE(encodeOnGpu(f.format, buffer, reinterpret_cast<uint8_t*>(uintptr_t(device)), true, nullptr));
        gpu_testing::setWorkLimits(0, 0);
        EXPECT_EQ(fake_cuda_counters().copiesToHost, copiesBack) << "blocks must stay on the device";
        std::vector<uint8_t> result(bytes);
        ASSERT_EQ(cuMemcpyDtoH_v2(result.data(), device, bytes), 0);
        EXPECT_EQ(result, gpu_quality::expectedBlocks(f.format, buffer));
        cuMemFree_v2(device);
    }
}

TEST_F(GpuEncodeHostTest, EntriesRouteToTheGpuAtTheQualitiesThatHaveIt) {
    const auto images = oddSizedImages();
    auto input = gpu_quality::makeInput(images, glyptora::kValueU8);
    std::vector<uint8_t> out(size_t(input->tileCount()) * 16, 0);

    EXPECT_TRUE(encodeBC3(*input, /*fast=*/false, out.data(), true, false, nullptr));
    EXPECT_EQ(emulator->launchesOf(names::kCompressDXT5Color).size(), 1u);
    EXPECT_EQ(out, gpu_quality::expectedBlocks(GpuFormat::BC3, *input->buffer()));

    emulator->clear();
    testing::internal::CaptureStdout();
    encodeBC1a(*input, /*fast=*/true, out.data(), true, false, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "BC1a Compressor: no fast-mode for bc1a-gpu, using cpu instead.\n");
    EXPECT_TRUE(emulator->launches().empty());

    std::vector<uint8_t> bc5(size_t(input->tileCount()) * 16, 0);
    EXPECT_TRUE(encodeBC5(*input, /*slow=*/false, bc5.data(), true, false, nullptr));
    EXPECT_EQ(emulator->launchesOf(names::kCompressBC5).size(), 1u);
    EXPECT_EQ(bc5, gpu_quality::expectedBlocks(GpuFormat::BC5, *input->buffer()));
}

TEST_F(GpuEncodeHostTest, CpuEncodesCanBeCopiedIntoDeviceMemory) {
    // A CPU encode with its output in device memory stages the blocks on the host and copies
    // them over (copyHostToDevice).
    const auto images = oddSizedImages();
    auto input = gpu_quality::makeInput(images, glyptora::kValueU8);
    const size_t bytes = size_t(input->tileCount()) * 8;
    unsigned long long device = 0;
    ASSERT_EQ(cuMemAlloc_v2(&device, bytes), 0);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(encodeBC4(*input, /*slow=*/true, reinterpret_cast<void*>(uintptr_t(device)), true, true, nullptr));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "BC4 Compressor: no production-mode for bc4-gpu, using cpu instead.\n");
    std::vector<uint8_t> onDevice(bytes), onHost(bytes);
    ASSERT_EQ(cuMemcpyDtoH_v2(onDevice.data(), device, bytes), 0);
    encodeBC4(*input, true, onHost.data(), false, false, nullptr);
    EXPECT_EQ(onDevice, onHost);
    cuMemFree_v2(device);
}

TEST_F(GpuEncodeHostTest, EncodingWorksFromAnotherThread) {
    // The driver's current context is per thread; the encoder makes it current itself.
    const auto images = oddSizedImages();
    auto input = gpu_quality::makeInput(images, glyptora::kValueS8);
    const FormatCase& f = formatCase(GpuFormat::BC1a);
    std::vector<uint8_t> out(size_t(input->tileCount()) * 8, 0);
    bool ok = false;
    std::thread worker([&] { ok = encodeOnGpu(f.format, *input->buffer(), out.data(), false, nullptr); });
    worker.join();
    EXPECT_TRUE(ok);
    EXPECT_EQ(out, gpu_quality::expectedBlocks(f.format, *input->buffer()));
}

TEST_F(GpuEncodeHostTest, LaunchFailureIsReportedOnceAndNothingLeaks) {
    fake_cuda_config()->launchResult = 700;
    gpu_testing::setWorkLimits(10, 3);
    auto input = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueF32);
    testing::internal::CaptureStdout();
    bool ok = true;
    encode(formatCase(GpuFormat::BC3), *input->buffer(), 0, &ok);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "*** GPU encoding failed at conversion launch: 'fake error 700'.\n");
    EXPECT_FALSE(ok);

    testing::internal::CaptureStdout();
    auto u8 = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueU8);
    encode(formatCase(GpuFormat::BC3), *u8->buffer(), 0, &ok);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "*** GPU encoding failed at kernel launch: 'fake error 700'.\n");
    EXPECT_FALSE(ok);
    EXPECT_EQ(fake_cuda_counters().launches, 2);  // the first failure stops the encode
}

TEST_F(GpuEncodeHostTest, ExecutionFailureSurfacesAtSynchronisation) {
    fake_cuda_config()->synchronizeResult = 719;
    auto input = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueU8);
    testing::internal::CaptureStdout();
    bool ok = true;
    encode(formatCase(GpuFormat::BC2), *input->buffer(), 0, &ok);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "*** GPU encoding failed at kernel execution: 'fake error 719'.\n");
    EXPECT_FALSE(ok);
}

TEST_F(GpuEncodeHostTest, MissingKernelIsReported) {
    fake_cuda_config()->missingKernel = names::kCompressBC4S;
    auto input = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueS8);
    testing::internal::CaptureStdout();
    bool ok = true;
    encode(formatCase(GpuFormat::BC4S), *input->buffer(), 0, &ok);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "*** GPU kernel glyptora_compressBC4S is missing from the kernel module.\n");
    EXPECT_FALSE(ok);
}

TEST_F(GpuEncodeHostTest, TilesOtherThanFourByFourAreRefusedWithoutTouchingTheOutput) {
    auto input = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueU8, nullptr, 8);
    const long allocations = fake_cuda_counters().allocations;
    for (const FormatCase& f : gpu_quality::blockFormats()) {
        std::vector<uint8_t> out(size_t(input->tileCount()) * 16, 0x42);
        testing::internal::CaptureStdout();
        EXPECT_FALSE(encodeOnGpu(f.format, *input->buffer(), out.data(), false, nullptr));
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  std::string(f.name) + " Compressor: only tile size 4x4 is supported.\n");
        EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](uint8_t b) { return b == 0x42; }));
    }
    EXPECT_EQ(fake_cuda_counters().allocations, allocations);
    EXPECT_EQ(fake_cuda_counters().launches, 0);
}

TEST_F(GpuEncodeHostTest, ZeroTilesMeanNoChunkAndNoOutput) {
    glyptora::CPUInputBuffer input(nullptr, 0, glyptora::kValueU8, 4, 4, 1, 1, 1, 1);
    ASSERT_NE(input.buffer(), nullptr);
    ASSERT_EQ(input.tileCount(), 0u);
    const long allocations = fake_cuda_counters().allocations;
    EXPECT_TRUE(encodeOnGpu(GpuFormat::BC1a, *input.buffer(), nullptr, false, nullptr));
    EXPECT_EQ(fake_cuda_counters().allocations, allocations);
    EXPECT_EQ(fake_cuda_counters().launches, 0);
}

TEST_F(GpuEncodeHostTest, FormatsWithoutKernelsAreNotEncodedOnTheGpu) {
    auto input = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueF32);
    std::vector<uint8_t> out(size_t(input->tileCount()) * 16, 0x42);
    for (GpuFormat format : {GpuFormat::BC6H, GpuFormat::BC6HS, GpuFormat::BC7, GpuFormat::ASTC})
        EXPECT_FALSE(encodeOnGpu(format, *input->buffer(), out.data(), false, nullptr));
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](uint8_t b) { return b == 0x42; }));
    EXPECT_EQ(fake_cuda_counters().launches, 0);
}

TEST_F(GpuEncodeHostTest, TimingScopesCarryTheirLabels) {
    gpu_testing::setWorkLimits(40, 16);  // 65 tiles: chunks of 33 and 32, 3 and 2 launches
    auto input = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueU8);
    const struct {
        GpuFormat format;
        const char* chunk;
        const char* launch;
    } labels[] = {{GpuFormat::BC1a, "s_encode_bc1a_gpu()", "encode_bc1_gpu()"},
                  {GpuFormat::BC2, "s_encode_bc2_gpu()", "encode_bc2_gpu()"},
                  {GpuFormat::BC3, "s_encode_bc3_gpu()", "encode_bc3_gpu()"},
                  {GpuFormat::BC4, "s_encode_bc4_gpu()", "encode_bc4_gpu()"},
                  {GpuFormat::BC4S, "s_encode_bc4s_gpu()", "encode_bc4s_gpu()"},
                  {GpuFormat::BC5, "s_encode_bc5_gpu()", "encode_bc5_gpu()"},
                  {GpuFormat::BC5S, "s_encode_bc5s_gpu()", "encode_bc5s_gpu()"}};
    for (const auto& l : labels) {
        glyptora::TimingContext timing;
        encode(formatCase(l.format), *input->buffer(), 0, nullptr, &timing);
        const std::map<std::string, int> expected = {
            {"host to device", 2}, {l.chunk, 2}, {l.launch, 5}, {"device to host", 2}};
        EXPECT_EQ(labelCounts(timing), expected) << l.chunk;
    }
}

TEST_F(GpuEncodeHostTest, KernelBodiesSplitBC3AsTheWholeBlockEncoderDoes) {
    // The two BC3 kernels write the halves of encodeBC3BlockHighQuality's block.
    const auto images = oddSizedImages();
    auto input = gpu_quality::makeInput(images, glyptora::kValueU8);
    const FormatCase& f = formatCase(GpuFormat::BC3);
    const std::vector<uint8_t> whole = gpu_quality::expectedBlocks(GpuFormat::BC3, *input->buffer());
    const std::vector<uint8_t> gpu = encode(f, *input->buffer(), 0x99);
    for (size_t t = 0; t < whole.size() / 16; ++t) {
        EXPECT_EQ(std::memcmp(&gpu[16 * t], &whole[16 * t], 8), 0) << "alpha half of block " << t;
        EXPECT_EQ(std::memcmp(&gpu[16 * t + 8], &whole[16 * t + 8], 8), 0) << "colour half of block " << t;
    }
}

TEST(GpuEncodeWithoutGpu, UnavailableGpuRefusesEncodingAndCopies) {
    fake_cuda_reset(12000);  // too old for the kernels
    gpu_testing::setDriverLibraryPath(GLYPTORA_FAKE_CUDA);
    gpu_testing::resetGpuState();
    auto input = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueU8);
    std::vector<uint8_t> out(size_t(input->tileCount()) * 8, 0x42);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(encodeOnGpu(GpuFormat::BC4, *input->buffer(), out.data(), false, nullptr));
    uint8_t byte = 0;
    EXPECT_FALSE(copyHostToDevice(&byte, &byte, 1));
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](uint8_t b) { return b == 0x42; }));
    EXPECT_EQ(fake_cuda_counters().allocations, 0);
    gpu_testing::resetGpuState();
    gpu_testing::setDriverLibraryPath(nullptr);
}

TEST_F(GpuEncodeHostTest, DeviceTileBuffersCopyTheirRangeWithValidRegions) {
    auto input = gpu_quality::makeInput(oddSizedImages(), glyptora::kValueF32);
    const auto& cpu = dynamic_cast<const glyptora::F32TileBuffer&>(*input->buffer());
    glyptora::TimingContext timing;
    {
        const glyptora::GPUF32Buffer range(cpu, 5, 9, &timing);
        ASSERT_TRUE(range.ok());
        const GPUF32View view = range.view();
        EXPECT_EQ(view.tileCount, 4u);
        EXPECT_EQ(view.tileWidth, 4);
        EXPECT_EQ(view.tileHeight, 4);
        for (int c = 0; c < 4; ++c) {
            EXPECT_EQ(view.weights[c], cpu.weights[c]);
            EXPECT_EQ(view.inverseWeights[c], 1.0f / cpu.weights[c]);
        }
        EXPECT_EQ(std::memcmp(view.data, cpu.tiles.data() + 5 * 64, 4 * 64 * sizeof(float)), 0);
        EXPECT_EQ(std::memcmp(view.regions, cpu.validRegions.data() + 5, 4 * sizeof(TileValidRegion)), 0);
        // The partial tiles of the first image's right edge keep their valid width.
        const glyptora::GPUF32Buffer all(cpu, 0, -1, nullptr);
        ASSERT_TRUE(all.ok());
        EXPECT_EQ(all.view().tileCount, cpu.tileCount);
        EXPECT_EQ(all.view().regions[9].width, 1);
        EXPECT_EQ(all.view().regions[59].height, 3);
        EXPECT_EQ(fake_cuda_counters().liveAllocations, m_baselineAllocations + 4);
    }
    EXPECT_EQ(fake_cuda_counters().liveAllocations, m_baselineAllocations);
    EXPECT_EQ(labelCounts(timing).at("host to device"), 1);
}
