#pragma once
// Shared by the GPU tests, whichever driver they run on: the encoder entries that have
// kernels, test images in the three value types, GPU encodes into poisoned host or device
// memory, the blocks the GPU must produce (the per-block encoders of the GPU quality applied
// to the CPU views' fetches, with the kernels' arithmetic), the aggregate PSNR of an entry's
// blocks, and the check of the entries against the CPU.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bc/alpha_block_bc2_bc3.h"
#include "bc/alpha_block_formats.h"
#include "bc/alpha_decoders.h"
#include "bc/bc1_decoder.h"
#include "bc/colour_block.h"
#include "core/cpu_input_buffer.h"
#include "core/image_record.h"
#include "dispatch/encoder_entries.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_encoders.h"

namespace gpu_quality {

using glyptora_internal::EncoderEntry;
namespace table = glyptora_internal::format_table;

constexpr int32_t kValueTypes[] = {glyptora::kValueU8, glyptora::kValueS8, glyptora::kValueF32};

inline std::string caseName(const EncoderEntry& entry, int32_t valueType) {
    return std::string(entry.name) +
           (valueType == glyptora::kValueU8 ? " u8" : valueType == glyptora::kValueS8 ? " s8" : " f32");
}

// The entries of the format table that run block kernels on the GPU, each once, in table
// order (BC7's staged sequence has tests of its own: gpu_bc7_host_test).
inline std::vector<const EncoderEntry*> gpuEntries() {
    std::vector<const EncoderEntry*> entries;
    for (const auto& row : glyptora_internal::allFormatRows())
        if (row.entry->gpu && row.entry->gpu->stages == glyptora_internal::GpuStages::BlockKernels &&
            std::find(entries.begin(), entries.end(), row.entry) == entries.end())
            entries.push_back(row.entry);
    return entries;
}

// One source image in the three value types, kept alive for the input buffers built from it:
// RGBA on the 0..1 scale with flat areas, gradients, noise with punch-through holes, hard
// edges and values beyond the unit range (clamped by the conversions).
struct SourceImage {
    int width, height;
    std::vector<uint8_t> u8;
    std::vector<int8_t> s8;
    std::vector<float> f32;
};

inline SourceImage makeSource(int width, int height, uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> noise(-0.08f, 0.08f);
    SourceImage image{width, height, {}, {}, std::vector<float>(size_t(width) * size_t(height) * 4)};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            float* px = &image.f32[(size_t(y) * size_t(width) + size_t(x)) * 4];
            const float u = float(x) / float(width > 1 ? width - 1 : 1);
            const float v = float(y) / float(height > 1 ? height - 1 : 1);
            const float edge = (x % 4) < 2 ? 0.95f : 0.05f;
            switch (((x / 8) + (y / 8) * 3) % 5) {
            case 0: px[0] = 0.2f, px[1] = 0.6f, px[2] = 0.9f, px[3] = 1.0f; break;
            case 1: px[0] = u, px[1] = v, px[2] = 1.0f - u, px[3] = 0.5f + 0.5f * v; break;
            case 2:  // the comma operator sequences the generator's calls
                px[0] = 0.5f + 4 * noise(random), px[1] = 0.4f + 4 * noise(random), px[2] = 0.3f + noise(random);
                px[3] = (x + y) % 3 == 0 ? 0.0f : 1.0f;
                break;
            case 3: px[0] = edge, px[1] = edge, px[2] = 1.0f - edge, px[3] = (y % 4) < 2 ? 1.0f : 0.1f; break;
            default: px[0] = 1.1f + noise(random), px[1] = -0.1f + noise(random), px[2] = u * 1.2f - 0.1f, px[3] = v;
            }
        }
    for (float v : image.f32) {
        image.u8.push_back(uint8_t(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f)));
        image.s8.push_back(int8_t(std::clamp<long>(std::lround((v * 2.0f - 1.0f) * 128.0f), -128, 127)));
    }
    return image;
}

// An input buffer of square tiles over several images (the tiles of later images follow
// those of earlier ones).
inline std::unique_ptr<glyptora::CPUInputBuffer> makeInput(const std::vector<SourceImage>& images, int32_t valueType,
                                                           const float (&weights)[4] = {1, 1, 1, 1},
                                                           int tileSize = 4) {
    std::vector<glyptora::ImageRecord> records;
    for (const SourceImage& i : images)
        records.push_back({.data = valueType == glyptora::kValueU8   ? static_cast<const void*>(i.u8.data())
                                   : valueType == glyptora::kValueS8 ? static_cast<const void*>(i.s8.data())
                                                                     : i.f32.data(),
                           .width = i.width, .height = i.height});
    return std::make_unique<glyptora::CPUInputBuffer>(records.data(), int(records.size()), valueType, tileSize,
                                                      tileSize, weights[0], weights[1], weights[2], weights[3]);
}

// Partial tiles on both edges, and further images whose tiles follow the first's: 65 tiles,
// so that the last CUDA block of 64 threads holds one block.
inline std::vector<SourceImage> oddSizedImages() {
    return {makeSource(37, 23, 1), makeSource(5, 3, 2), makeSource(4, 12, 3)};
}

// Encodes on the GPU into host or device memory first filled with `poison`; returns what the
// output holds afterwards. Without `ok` the encode must succeed.
inline std::vector<uint8_t> gpuEncode(const EncoderEntry& entry, const glyptora::CPUBuffer_Base& buffer,
                                      uint8_t poison, bool onDevice = false, bool* ok = nullptr,
                                      glyptora::TimingContext* timing = nullptr, bool imageHasAlpha = false,
                                      bool isSigned = false) {
    using namespace glyptora_internal;
    std::vector<uint8_t> out(size_t(buffer.tileCount) * size_t(entry.blockBytes), poison);
    const GpuSession* session = onDevice ? currentGpuSession() : nullptr;
    cuda::CUdeviceptr device = 0;
    if (onDevice) {
        EXPECT_EQ(session->api().cuMemAlloc(&device, out.size()), cuda::kSuccess);
        EXPECT_TRUE(copyHostToDevice(reinterpret_cast<void*>(uintptr_t(device)), out.data(), out.size()));
    }
    uint8_t* output = onDevice ? reinterpret_cast<uint8_t*>(uintptr_t(device)) : out.data();
    const bool result =
        encodeOnGpu(*entry.gpu, entry.name, buffer, output, onDevice, timing, imageHasAlpha, isSigned);
    if (ok) *ok = result;
    else EXPECT_TRUE(result);
    if (onDevice) {
        EXPECT_EQ(session->api().cuMemcpyDtoH(out.data(), device, out.size()), cuda::kSuccess);
        session->api().cuMemFree(device);
    }
    return out;
}

// Visits every tile of the buffer's CPU view, fetched as unsigned and as signed BGRA bytes.
template <typename Visit>
void forEachTile(const glyptora::CPUBuffer_Base& buffer, Visit&& visit) {
    auto run = [&](const glyptora_internal::CPUViewBase& view) {
        const float metric[3] = {view.weights[0], view.weights[1], view.weights[2]};
        for (uint32_t t = 0; t < view.tileCount; ++t) {
            uint8_t bgra[64];
            int8_t sbgra[64];
            view.fetchBGRA8(t, bgra);
            view.fetchSignedBGRA8(t, sbgra);
            visit(t, bgra, sbgra, metric);
        }
    };
    if (auto* u8 = dynamic_cast<const glyptora::U8TileBuffer*>(&buffer)) run(u8->view());
    if (auto* s8 = dynamic_cast<const glyptora::S8TileBuffer*>(&buffer)) run(s8->view());
    if (auto* f32 = dynamic_cast<const glyptora::F32TileBuffer*>(&buffer)) run(f32->view());
}

// The blocks the GPU path must write: the high-quality colour fit for BC1 to BC3, the fast
// encoders for BC4 and BC5 (the qualities at which the entries use the GPU).
inline std::vector<uint8_t> expectedBlocks(const EncoderEntry& entry, const glyptora::CPUBuffer_Base& buffer) {
    using namespace glyptora_dxt;
    std::vector<uint8_t> out(size_t(buffer.tileCount) * size_t(entry.blockBytes));
    forEachTile(buffer, [&](uint32_t t, const uint8_t* bgra, const int8_t* sbgra, const float* metric) {
        uint8_t* block = out.data() + size_t(t) * size_t(entry.blockBytes);
        if (&entry == &table::kBC1a) encodeBC1aBlockHighQuality(bgra, metric, block);
        if (&entry == &table::kBC2) encodeBC2BlockHighQuality(bgra, metric, block);
        if (&entry == &table::kBC3) encodeBC3BlockHighQuality(bgra, metric, block);
        if (&entry == &table::kBC4) encodeBC4BlockFast(bgra, block);
        if (&entry == &table::kBC4S) encodeBC4SBlockFast(sbgra, block);
        if (&entry == &table::kBC5) encodeBC5BlockFast(bgra, block);
        if (&entry == &table::kBC5S) encodeBC5SBlockFast(sbgra, block);
    });
    return out;
}

// Aggregate PSNR (peak 255) of BC1a, BC2 or BC3 blocks against the fetched pixels they
// encode, colour and alpha.
inline double colourBlocksPsnr(const EncoderEntry& entry, const glyptora::CPUBuffer_Base& buffer,
                               const uint8_t* blocks) {
    using namespace glyptora_dxt;
    double squared = 0;
    uint64_t samples = 0;
    auto add = [&](int a, int b) {
        squared += double(a - b) * double(a - b);
        ++samples;
    };
    const bool bc1a = &entry == &table::kBC1a;
    forEachTile(buffer, [&](uint32_t t, const uint8_t* bgra, const int8_t*, const float*) {
        const uint8_t* block = blocks + size_t(t) * size_t(entry.blockBytes);
        uint8_t rgba[64], alpha[16];
        decodeBC1Block(block + (bc1a ? 0 : 8), rgba, bc1a);
        for (int i = 0; i < 16; ++i) alpha[i] = rgba[4 * i + 3];
        if (&entry == &table::kBC2) decodeExplicitAlphaBlock(block, alpha);
        if (&entry == &table::kBC3) decodeInterpolatedBlock(block, alpha);
        for (int i = 0; i < 16; ++i) {
            const int source = bgra[4 * i + 3];
            if (!bc1a || source != 0)  // BC1a colour counts where the source is visible
                for (int c = 0; c < 3; ++c) add(rgba[4 * i + c], bgra[4 * i + 2 - c]);
            add(alpha[i], bc1a ? (source ? 255 : 0) : source);  // BC1a alpha is punch-through
        }
    });
    return 10.0 * std::log10(255.0 * 255.0 * double(samples) / squared);
}

// Runs an encoder entry at the quality where it uses the GPU (fast and slow flags clear),
// on the GPU or the CPU, into a zeroed host output. BC4S and BC5S are signed in any case.
inline std::vector<uint8_t> entryBlocks(const EncoderEntry& entry, const glyptora::CPUInputBuffer& input, bool gpu,
                                        bool imageHasAlpha = false, bool isSigned = false) {
    std::vector<uint8_t> out(size_t(input.tileCount()) * size_t(entry.blockBytes), 0);
    isSigned |= &entry == &table::kBC4S || &entry == &table::kBC5S;
    EXPECT_TRUE(runEncoderEntry(entry, input, 0, isSigned, imageHasAlpha, out.data(), gpu, false, nullptr));
    return out;
}

// Every entry with kernels in every value type, asked for the GPU, writes the kernels' blocks:
// without a colour fit (BC4, BC5) the arithmetic is integer and the blocks are the CPU
// entry's very own; with it, within a tenth of a decibel of the CPU entry's.
inline void checkEntriesGiveTheKernelBlocksAtTheCpuQuality() {
    const std::vector<SourceImage> images = {makeSource(256, 128, 11), makeSource(37, 23, 12)};
    for (const EncoderEntry* entry : gpuEntries())
        for (int32_t valueType : kValueTypes) {
            SCOPED_TRACE(caseName(*entry, valueType));
            auto input = makeInput(images, valueType, {0.2126f, 0.7152f, 0.0722f, 1.0f});
            const glyptora::CPUBuffer_Base& buffer = *input->buffer();
            const std::vector<uint8_t> gpu = entryBlocks(*entry, *input, true);
            EXPECT_EQ(gpu, expectedBlocks(*entry, buffer));
            const std::vector<uint8_t> cpu = entryBlocks(*entry, *input, false);
            if (!entry->gpu->colourKernel) {
                EXPECT_EQ(gpu, cpu);
                continue;
            }
            const double gpuPsnr = colourBlocksPsnr(*entry, buffer, gpu.data());
            EXPECT_GT(gpuPsnr, 20.0);
            EXPECT_NEAR(gpuPsnr, colourBlocksPsnr(*entry, buffer, cpu.data()), 0.1);
            size_t differing = 0;
            for (size_t i = 0; i < gpu.size(); i += size_t(entry->blockBytes))
                differing += !std::equal(&gpu[i], &gpu[i] + entry->blockBytes, &cpu[i]);
            ::testing::Test::RecordProperty(caseName(*entry, valueType) + " blocks differing from the CPU",
                                            int(differing));
        }
}

}  // namespace gpu_quality
