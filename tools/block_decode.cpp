#include "tools/block_decode.h"

#include <algorithm>
#include <cstring>

#include "astc/decoder.h"
#include "bc/alpha_decoders.h"
#include "bc/bc1_decoder.h"
#include "bc6h/bc6h_decoder.h"
#include "bc6h/half_float.h"
#include "bc7/bc7_decoder.h"

namespace glyptora_tools {

namespace {

// Decodes one block into its texels as RGBA8, row by row.
using BlockDecoder = void (*)(const uint8_t* block, uint8_t* texels);

void decodeBC1(const uint8_t* block, uint8_t* texels) { glyptora_dxt::decodeBC1Block(block, texels, true); }

// BC2 and BC3: alpha half first, then a colour half that is always read in 4-colour mode.
void decodeBC2(const uint8_t* block, uint8_t* texels) {
    uint8_t alpha[16];
    glyptora_dxt::decodeExplicitAlphaBlock(block, alpha);
    glyptora_dxt::decodeBC1Block(block + 8, texels, false);
    for (int i = 0; i < 16; ++i) texels[i * 4 + 3] = alpha[i];
}

void decodeBC3(const uint8_t* block, uint8_t* texels) {
    uint8_t alpha[16];
    glyptora_dxt::decodeInterpolatedBlock(block, alpha);
    glyptora_dxt::decodeBC1Block(block + 8, texels, false);
    for (int i = 0; i < 16; ++i) texels[i * 4 + 3] = alpha[i];
}

// Single- and two-channel formats: missing colour channels read 0, alpha full coverage.
void fillRest(uint8_t* texels, int firstMissing, uint8_t opaque) {
    for (int i = 0; i < 16; ++i) {
        for (int c = firstMissing; c < 3; ++c) texels[i * 4 + c] = 0;
        texels[i * 4 + 3] = opaque;
    }
}

void decodeBC4(const uint8_t* block, uint8_t* texels) {
    uint8_t red[16];
    glyptora_dxt::decodeInterpolatedBlock(block, red);
    for (int i = 0; i < 16; ++i) texels[i * 4] = red[i];
    fillRest(texels, 1, 255);
}

void decodeBC4S(const uint8_t* block, uint8_t* texels) {
    int8_t red[16];
    glyptora_dxt::decodeSignedInterpolatedBlock(block, red);
    for (int i = 0; i < 16; ++i) texels[i * 4] = uint8_t(red[i]);
    fillRest(texels, 1, 127);
}

void decodeBC5(const uint8_t* block, uint8_t* texels) {
    uint8_t red[16], green[16];
    glyptora_dxt::decodeInterpolatedBlock(block, red);
    glyptora_dxt::decodeInterpolatedBlock(block + 8, green);
    for (int i = 0; i < 16; ++i) {
        texels[i * 4] = red[i];
        texels[i * 4 + 1] = green[i];
    }
    fillRest(texels, 2, 255);
}

void decodeBC5S(const uint8_t* block, uint8_t* texels) {
    int8_t red[16], green[16];
    glyptora_dxt::decodeSignedInterpolatedBlock(block, red);
    glyptora_dxt::decodeSignedInterpolatedBlock(block + 8, green);
    for (int i = 0; i < 16; ++i) {
        texels[i * 4] = uint8_t(red[i]);
        texels[i * 4 + 1] = uint8_t(green[i]);
    }
    fillRest(texels, 2, 127);
}

void decodeBC7(const uint8_t* block, uint8_t* texels) { glyptora_bc7::decodeBC7Block(block, texels); }

BlockDecoder decoderFor(const FormatDesc& format) {
    switch (format.family) {
        case BlockFamily::BC1: return decodeBC1;
        case BlockFamily::BC2: return decodeBC2;
        case BlockFamily::BC3: return decodeBC3;
        case BlockFamily::BC4: return format.isSigned ? decodeBC4S : decodeBC4;
        case BlockFamily::BC5: return format.isSigned ? decodeBC5S : decodeBC5;
        case BlockFamily::BC7: return decodeBC7;
        default: return nullptr;
    }
}

}  // namespace

bool canDecode(const FormatDesc& format) {
    return decoderFor(format) != nullptr || format.family == BlockFamily::BC6H || format.family == BlockFamily::ASTC;
}

namespace {

// Decodes every block of a level with `decode` (one block into its texels, row by row, four
// values a texel) and copies the texels inside the image into `pixels`.
template <typename T, typename Decode>
void decodeBlocks(const FormatDesc& format, const uint8_t* blocks, uint32_t width, uint32_t height, Decode&& decode,
                  std::vector<T>& pixels) {
    const uint32_t bw = uint32_t(format.blockWidth), bh = uint32_t(format.blockHeight);
    const uint32_t across = blocksAcross(width, format.blockWidth), down = blocksAcross(height, format.blockHeight);
    pixels.assign(size_t(width) * height * 4, T(0));
    std::vector<T> texels(size_t(bw) * bh * 4);
    for (uint32_t by = 0; by < down; ++by)
        for (uint32_t bx = 0; bx < across; ++bx) {
            decode(blocks + (size_t(by) * across + bx) * size_t(format.blockBytes()), texels.data());
            const uint32_t rows = std::min(bh, height - by * bh), cols = std::min(bw, width - bx * bw);
            for (uint32_t y = 0; y < rows; ++y)
                std::memcpy(&pixels[((size_t(by) * bh + y) * width + size_t(bx) * bw) * 4],
                            &texels[size_t(y) * bw * 4], size_t(cols) * 4 * sizeof(T));
        }
}

}  // namespace

bool decodeLevel(const FormatDesc& format, const uint8_t* blocks, uint32_t width, uint32_t height,
                 std::vector<uint8_t>& rgba) {
    if (format.family == BlockFamily::ASTC) {
        // sRGB footprints decode like the unorm ones: the statistics compare stored values.
        glyptora_astc::decodeAstcImage(blocks, width, height, {format.blockWidth, format.blockHeight}, rgba);
        return true;
    }
    const BlockDecoder decode = decoderFor(format);
    if (!decode) return false;
    decodeBlocks(format, blocks, width, height, decode, rgba);
    return true;
}

bool decodeLevelFloat(const FormatDesc& format, const uint8_t* blocks, uint32_t width, uint32_t height,
                      std::vector<float>& rgba) {
    if (format.family != BlockFamily::BC6H) return false;
    const auto decode = [&](const uint8_t* block, float* texels) {
        uint16_t halves[16][3];
        glyptora_bc6h::decodeBC6HBlock(block, format.isSigned, halves);
        for (int i = 0; i < 16; ++i) {
            for (int c = 0; c < 3; ++c) texels[i * 4 + c] = glyptora_bc6h::halfToFloat(halves[i][c]);
            texels[i * 4 + 3] = 1.0f;
        }
    };
    decodeBlocks(format, blocks, width, height, decode, rgba);
    return true;
}

}  // namespace glyptora_tools
