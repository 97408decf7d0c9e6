#pragma once
// Shared by the GPU tests: test images in the three value types, the blocks the GPU must
// produce (the per-block encoders applied to the CPU views' fetches), and the aggregate PSNR
// of a format's blocks against the pixels they encode.
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "bc/alpha_block_bc2_bc3.h"
#include "bc/alpha_block_formats.h"
#include "bc/alpha_decoders.h"
#include "bc/bc1_decoder.h"
#include "bc/colour_block.h"
#include "core/cpu_input_buffer.h"
#include "core/encoder_dispatch.h"
#include "core/image_record.h"
#include "gpu/gpu_encoders.h"

namespace gpu_quality {

using glyptora_internal::GpuFormat;

struct FormatCase {
    GpuFormat format;
    const char* name;
    int blockBytes;
    bool signedBlocks;
};

inline const std::vector<FormatCase>& blockFormats() {
    static const std::vector<FormatCase> formats = {
        {GpuFormat::BC1a, "BC1a", 8, false}, {GpuFormat::BC2, "BC2", 16, false}, {GpuFormat::BC3, "BC3", 16, false},
        {GpuFormat::BC4, "BC4", 8, false},   {GpuFormat::BC4S, "BC4S", 8, true}, {GpuFormat::BC5, "BC5", 16, false},
        {GpuFormat::BC5S, "BC5S", 16, true}};
    return formats;
}

inline const char* valueTypeName(int32_t valueType) {
    return valueType == glyptora::kValueU8 ? "u8" : valueType == glyptora::kValueS8 ? "s8" : "f32";
}

// RGBA pixels on the 0..1 scale (float images reach a little beyond, to exercise clamping):
// smooth gradients, noise, flat areas, hard edges and alpha from opaque to fully transparent.
inline std::vector<float> makePixels(int width, int height, uint32_t seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> noise(-0.08f, 0.08f);
    std::vector<float> p(size_t(width) * size_t(height) * 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            float* px = &p[(size_t(y) * size_t(width) + size_t(x)) * 4];
            const int region = ((x / 8) + (y / 8) * 3) % 5;
            const float u = float(x) / float(width > 1 ? width - 1 : 1);
            const float v = float(y) / float(height > 1 ? height - 1 : 1);
            switch (region) {
                case 0:  // flat
                    px[0] = 0.2f, px[1] = 0.6f, px[2] = 0.9f, px[3] = 1.0f;
                    break;
                case 1:  // gradient
                    px[0] = u, px[1] = v, px[2] = 1.0f - u, px[3] = 0.5f + 0.5f * v;
                    break;
                case 2:  // noisy
                    px[0] = 0.5f + 4 * noise(random), px[1] = 0.4f + 4 * noise(random), px[2] = 0.3f + noise(random);
                    px[3] = (x + y) % 3 == 0 ? 0.0f : 1.0f;  // punch-through holes
                    break;
                case 3:  // hard edge
                    px[0] = (x % 4) < 2 ? 0.95f : 0.05f, px[1] = px[0], px[2] = 1.0f - px[0];
                    px[3] = (y % 4) < 2 ? 1.0f : 0.1f;
                    break;
                default:  // beyond the unit range (clamped by the conversions)
                    px[0] = 1.1f + noise(random), px[1] = -0.1f + noise(random), px[2] = u * 1.2f - 0.1f;
                    px[3] = v;
                    break;
            }
        }
    return p;
}

// One source image in a value type, kept alive for the input buffer built from it.
struct SourceImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> u8;
    std::vector<int8_t> s8;
    std::vector<float> f32;

    glyptora::ImageRecord record(int32_t valueType) const {
        glyptora::ImageRecord r;
        r.width = width;
        r.height = height;
        r.data = valueType == glyptora::kValueU8   ? static_cast<const void*>(u8.data())
                 : valueType == glyptora::kValueS8 ? static_cast<const void*>(s8.data())
                                                   : static_cast<const void*>(f32.data());
        return r;
    }
};

inline SourceImage makeSource(int width, int height, uint32_t seed) {
    SourceImage image;
    image.width = width;
    image.height = height;
    image.f32 = makePixels(width, height, seed);
    for (float v : image.f32) {
        const float c = v < 0 ? 0 : v > 1 ? 1 : v;
        image.u8.push_back(uint8_t(std::lround(c * 255.0f)));
        const float s = v * 2.0f - 1.0f;
        long q = std::lround(s * 128.0f);
        image.s8.push_back(int8_t(q < -128 ? -128 : q > 127 ? 127 : q));
    }
    return image;
}

// An input buffer of 4x4 tiles over several images (the tile ranges of later images follow
// those of earlier ones).
inline std::unique_ptr<glyptora::CPUInputBuffer> makeInput(const std::vector<SourceImage>& images, int32_t valueType,
                                                           const float weights[4] = nullptr, int tileSize = 4) {
    std::vector<glyptora::ImageRecord> records;
    for (const SourceImage& image : images) records.push_back(image.record(valueType));
    const float w[4] = {weights ? weights[0] : 1.0f, weights ? weights[1] : 1.0f, weights ? weights[2] : 1.0f,
                        weights ? weights[3] : 1.0f};
    return std::make_unique<glyptora::CPUInputBuffer>(records.data(), int(records.size()), valueType, tileSize,
                                                      tileSize, w[0], w[1], w[2], w[3]);
}

template <typename Visit>
void withView(const glyptora::CPUBuffer_Base& buffer, Visit&& visit) {
    if (auto* u8 = dynamic_cast<const glyptora::U8TileBuffer*>(&buffer)) return visit(u8->view());
    if (auto* s8 = dynamic_cast<const glyptora::S8TileBuffer*>(&buffer)) return visit(s8->view());
    if (auto* f32 = dynamic_cast<const glyptora::F32TileBuffer*>(&buffer)) return visit(f32->view());
}

// The blocks the GPU path must write: the block encoders of the GPU qualities (high-quality
// colour fit for BC1 to BC3, fast encoders for BC4 and BC5) over the CPU views' fetches.
inline std::vector<uint8_t> expectedBlocks(GpuFormat format, const glyptora::CPUBuffer_Base& buffer) {
    using namespace glyptora_dxt;
    const FormatCase* info = nullptr;
    for (const FormatCase& f : blockFormats())
        if (f.format == format) info = &f;
    std::vector<uint8_t> out(size_t(buffer.tileCount) * size_t(info->blockBytes));
    withView(buffer, [&](const glyptora_internal::CPUViewBase& view) {
        const float metric[3] = {view.weights[0], view.weights[1], view.weights[2]};
        for (uint32_t t = 0; t < view.tileCount; ++t) {
            uint8_t* block = out.data() + size_t(t) * size_t(info->blockBytes);
            uint8_t bgra[64];
            int8_t sbgra[64];
            if (info->signedBlocks) view.fetchSignedBGRA8(t, sbgra);
            else view.fetchBGRA8(t, bgra);
            switch (format) {
                case GpuFormat::BC1a: encodeBC1aBlockHighQuality(bgra, metric, block); break;
                case GpuFormat::BC2: encodeBC2BlockHighQuality(bgra, metric, block); break;
                case GpuFormat::BC3: encodeBC3BlockHighQuality(bgra, metric, block); break;
                case GpuFormat::BC4: encodeBC4BlockFast(bgra, block); break;
                case GpuFormat::BC4S: encodeBC4SBlockFast(sbgra, block); break;
                case GpuFormat::BC5: encodeBC5BlockFast(bgra, block); break;
                case GpuFormat::BC5S: encodeBC5SBlockFast(sbgra, block); break;
                default: break;
            }
        }
    });
    return out;
}

// Aggregate PSNR (peak 255) of a format's blocks against the fetched pixels they encode,
// over the channels the format carries; +infinity when exact.
inline double blocksPsnr(GpuFormat format, const glyptora::CPUBuffer_Base& buffer, const uint8_t* blocks) {
    using namespace glyptora_dxt;
    double squared = 0;
    uint64_t samples = 0;
    auto add = [&](int a, int b) {
        squared += double(a - b) * double(a - b);
        ++samples;
    };
    withView(buffer, [&](const glyptora_internal::CPUViewBase& view) {
        for (uint32_t t = 0; t < view.tileCount; ++t) {
            uint8_t bgra[64];
            int8_t sbgra[64];
            view.fetchBGRA8(t, bgra);
            view.fetchSignedBGRA8(t, sbgra);
            const uint8_t* block = blocks + size_t(t) * ((format == GpuFormat::BC1a || format == GpuFormat::BC4 ||
                                                          format == GpuFormat::BC4S)
                                                             ? 8
                                                             : 16);
            uint8_t rgba[64];
            uint8_t values[16];
            int8_t signedValues[16];
            switch (format) {
                case GpuFormat::BC1a:
                    decodeBC1Block(block, rgba, true);
                    for (int i = 0; i < 16; ++i) {
                        // Colour counts where the source is visible; alpha is punch-through.
                        if (bgra[4 * i + 3] != 0)
                            for (int c = 0; c < 3; ++c) add(rgba[4 * i + c], bgra[4 * i + 2 - c]);
                        add(rgba[4 * i + 3], bgra[4 * i + 3] == 0 ? 0 : 255);
                    }
                    break;
                case GpuFormat::BC2:
                case GpuFormat::BC3:
                    if (format == GpuFormat::BC2) decodeExplicitAlphaBlock(block, values);
                    else decodeInterpolatedBlock(block, values);
                    decodeBC1Block(block + 8, rgba, false);
                    for (int i = 0; i < 16; ++i) {
                        for (int c = 0; c < 3; ++c) add(rgba[4 * i + c], bgra[4 * i + 2 - c]);
                        add(values[i], bgra[4 * i + 3]);
                    }
                    break;
                case GpuFormat::BC4:
                case GpuFormat::BC5:
                    for (int half = 0; half < (format == GpuFormat::BC5 ? 2 : 1); ++half) {
                        decodeInterpolatedBlock(block + 8 * half, values);
                        for (int i = 0; i < 16; ++i) add(values[i], bgra[4 * i + 2 - half]);
                    }
                    break;
                case GpuFormat::BC4S:
                case GpuFormat::BC5S:
                    for (int half = 0; half < (format == GpuFormat::BC5S ? 2 : 1); ++half) {
                        decodeSignedInterpolatedBlock(block + 8 * half, signedValues);
                        for (int i = 0; i < 16; ++i) {
                            const int source = sbgra[4 * i + 2 - half];
                            add(signedValues[i], source < -127 ? -127 : source);
                        }
                    }
                    break;
                default: break;
            }
        }
    });
    if (squared == 0) return std::numeric_limits<double>::infinity();
    return 10.0 * std::log10(255.0 * 255.0 * double(samples) / squared);
}

// The CPU encoder entry at the quality where the GPU path runs.
inline std::vector<uint8_t> cpuEntryBlocks(const FormatCase& f, const glyptora::CPUInputBuffer& input) {
    std::vector<uint8_t> out(size_t(input.tileCount()) * size_t(f.blockBytes), 0);
    switch (f.format) {
        case GpuFormat::BC1a: glyptora_internal::encodeBC1a(input, false, out.data(), false, false, nullptr); break;
        case GpuFormat::BC2: glyptora_internal::encodeBC2(input, false, out.data(), false, false, nullptr); break;
        case GpuFormat::BC3: glyptora_internal::encodeBC3(input, false, out.data(), false, false, nullptr); break;
        case GpuFormat::BC4: glyptora_internal::encodeBC4(input, false, out.data(), false, false, nullptr); break;
        case GpuFormat::BC4S: glyptora_internal::encodeBC4S(input, false, out.data(), false, false, nullptr); break;
        case GpuFormat::BC5: glyptora_internal::encodeBC5(input, false, out.data(), false, false, nullptr); break;
        case GpuFormat::BC5S: glyptora_internal::encodeBC5S(input, false, out.data(), false, false, nullptr); break;
        default: break;
    }
    return out;
}

}  // namespace gpu_quality
