#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/cpu_input_buffer.h"
#include "core/timing_context.h"
#include "dispatch/encoder_entries.h"
#include "gpu/gpu_work_split.h"

using namespace glyptora;
using namespace glyptora_internal;

namespace {

struct Image {
    std::vector<uint8_t> pixels;
    ImageRecord record;
    Image(int w, int h) : pixels(size_t(w) * h * 4) {
        for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = uint8_t((i * 37) ^ (i >> 3));
        record.data = pixels.data();
        record.width = w;
        record.height = h;
    }
};

// Runs an entry on the CPU or with the GPU asked for; returns what it printed.
std::string run(const EncoderEntry& entry, const CPUInputBuffer& input, int mode, void* out, bool gpu,
                TimingContext* timing = nullptr) {
    testing::internal::CaptureStdout();
    runEncoderEntry(entry, input, mode, false, false, out, gpu, false, timing);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(EncoderDispatch, GpuRequestsInTheModeWithoutGpuPrintTheirNoticeOnceAndRunOnTheCpu) {
    Image image(9, 6);
    CPUInputBuffer input(&image.record, 1, kValueU8, 4, 4, 1, 1, 1, 1);
    std::vector<uint8_t> viaGpuRequest(6 * 16), cpu(6 * 16);
    EXPECT_EQ(run(format_table::kBC1a, input, true, viaGpuRequest.data(), true),
              "BC1a Compressor: no fast-mode for bc1a-gpu, using cpu instead.\n");
    EXPECT_EQ(run(format_table::kBC1a, input, true, cpu.data(), false), "");
    EXPECT_EQ(viaGpuRequest, cpu);

    const std::pair<const EncoderEntry*, const char*> notices[] = {
        {&format_table::kBC4, "BC4 Compressor: no production-mode for bc4-gpu, using cpu instead.\n"},
        {&format_table::kBC4S, "BC4S Compressor: no production-mode for bc4s-gpu, using cpu instead.\n"},
        {&format_table::kBC5, "BC5 Compressor: no production-mode for bc5-gpu, using cpu instead.\n"},
        {&format_table::kBC5S, "BC5S Compressor: no production-mode for bc5-gpu, using cpu instead.\n"},
        {&format_table::kBC7, "BC7 Compressor: no slow-mode for bc7-gpu, using cpu instead.\n"},
        {&format_table::kBC2, "BC2 Compressor: no fast-mode for bc2-gpu, using cpu instead.\n"},
        {&format_table::kBC3, "BC3 Compressor: no fast-mode for bc3-gpu, using cpu instead.\n"}};
    for (const auto& [entry, notice] : notices) EXPECT_EQ(run(*entry, input, true, cpu.data(), true), notice);
}

TEST(EncoderDispatch, WrongTileSizeOrLevelIsRefusedAndLeavesTheOutputUntouched) {
    Image image(16, 16);
    CPUInputBuffer eightByEight(&image.record, 1, kValueU8, 8, 8, 1, 1, 1, 1);
    CPUInputBuffer sixBySix(&image.record, 1, kValueU8, 6, 6, 1, 1, 1, 1);
    CPUInputBuffer threeByThree(&image.record, 1, kValueU8, 3, 3, 1, 1, 1, 1);
    std::vector<uint8_t> out(16 * 16, 0x5A);
    for (const EncoderEntry* e : {&format_table::kBC7, &format_table::kBC1a, &format_table::kBC5S})
        EXPECT_EQ(run(*e, eightByEight, false, out.data(), false),
                  e->name + std::string(" Compressor: only tile size 4x4 is supported.\n"));
    EXPECT_EQ(run(format_table::kASTC, sixBySix, 4, out.data(), false),
              "Level 4 not supported. Supported levels are 0,1,2,3\n");
    EXPECT_EQ(run(format_table::kASTC, threeByThree, 1, out.data(), false),
              "ASTC Compressor: tile size 3x3 not supported.\n");
    for (uint8_t b : out) ASSERT_EQ(b, 0x5A);
}

TEST(EncoderDispatch, ZeroTilesWriteNothingAndEveryValueTypeIsRouted) {
    CPUInputBuffer empty(nullptr, 0, kValueU8, 4, 4, 1, 1, 1, 1);
    EXPECT_EQ(empty.tileCount(), 0u);
    uint8_t guard = 0x77;
    EXPECT_EQ(run(format_table::kBC3, empty, false, &guard, false), "");
    EXPECT_EQ(guard, 0x77);

    // The same image as unsigned, signed and float buffers: every type produces blocks.
    std::vector<float> floats(16 * 4, 0.25f);
    std::vector<int8_t> signedPixels(16 * 4, 32);
    std::vector<uint8_t> bytes(16 * 4, 64);
    ImageRecord r;
    r.width = r.height = 4;
    for (int type : {kValueU8, kValueS8, kValueF32}) {
        r.data = type == kValueU8 ? static_cast<const void*>(bytes.data())
                                  : type == kValueS8 ? static_cast<const void*>(signedPixels.data())
                                                     : static_cast<const void*>(floats.data());
        CPUInputBuffer input(&r, 1, type, 4, 4, 1, 1, 1, 1);
        std::vector<uint8_t> out(8, 0xAB);
        TimingContext timing;
        EXPECT_TRUE(runEncoderEntry(format_table::kBC4, input, false, false, false, out.data(), false, false, &timing));
        EXPECT_NE(out, std::vector<uint8_t>(8, 0xAB)) << type;
        ASSERT_EQ(timing.entries().size(), 1u);
        EXPECT_EQ(timing.entries()[0].label, "encode_bc4_cpu()");
    }
}

TEST(GpuChunking, QuarterOfDeviceMemoryAndEvenSplits) {
    const uint64_t mem80GiB = 80ull << 30;
    EXPECT_EQ(gpuTilesPerChunk(mem80GiB, 4, 4, 4), (mem80GiB / 4) / 64);
    EXPECT_EQ(gpuTilesPerChunk(mem80GiB, 4, 4, 16), (mem80GiB / 4) / 256);
    EXPECT_EQ(gpuTilesPerChunk(1000, 4, 4, 4), 3u);
    EXPECT_EQ(gpuChunkCount(10, 3), 4u);
    EXPECT_EQ(gpuChunkCount(0, 3), 0u);
    EXPECT_EQ(gpuChunkCount(9, 3), 3u);
    // 1.98 GHz (kHz units) x 132 multiprocessors.
    EXPECT_EQ(gpuLaunchLimit(1980000, 132, 6), 43560000u);
    EXPECT_EQ(gpuLaunchLimit(1980000, 132, 12), 21780000u);
    EXPECT_EQ(gpuLaunchLimit(1980000, 132, 1), 261360000u);

    std::vector<TileRange> ranges;
    forEachEvenSplit(10, 4, [&](TileRange r) { ranges.push_back(r); });
    ASSERT_EQ(ranges.size(), 4u);
    const uint64_t expected[4][2] = {{0, 3}, {3, 6}, {6, 8}, {8, 10}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(ranges[i].first, expected[i][0]);
        EXPECT_EQ(ranges[i].end, expected[i][1]);
    }
    ranges.clear();
    forEachEvenSplit(0, 3, [&](TileRange r) { ranges.push_back(r); });
    EXPECT_TRUE(ranges.empty());
    ranges.clear();
    forEachEvenSplit(2, 5, [&](TileRange r) { ranges.push_back(r); });
    EXPECT_EQ(ranges.size(), 2u);
}
