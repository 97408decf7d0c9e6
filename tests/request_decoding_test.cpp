#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <optional>
#include <string>

#include "frontend/request_decoding.h"

using namespace glyptora_internal;

namespace {

// Sets an environment variable (unsets it for nullptr) for one scope, then restores the previous state.
struct ScopedEnv {
    const char* name;
    std::optional<std::string> old;
    ScopedEnv(const char* n, const char* value) : name(n) {
        if (const char* o = std::getenv(n)) old = o;
        value ? setenv(n, value, 1) : unsetenv(n);
    }
    ~ScopedEnv() { old ? setenv(name, old->c_str(), 1) : unsetenv(name); }
};

const FormatRow& row(const char* destination) { return *decodeDestination(destination); }

void weightsFor(const char* destination, const char* options, uint32_t flags, float weights[4]) {
    decodeChannelWeights(row(destination), findFormatRow(destination), options, flags, weights);
}

}  // namespace

TEST(FormatDecoding, EveryRowOfTheFormatTable) {
    const struct {
        const char* name;
        int code;
    } cases[] = {
        {"unorm_bc1", 2}, {"srgb_bc1", 2}, {"snorm_bc1", 2}, {"unorm_bc2", 3}, {"srgb_bc2", 3},
        {"unorm_bc3", 4}, {"srgb_bc3", 4}, {"unorm_bc4", 6}, {"snorm_bc4", 7}, {"unorm_bc5", 9},
        {"snorm_bc5", 10}, {"ufloat_bc6", 13}, {"float_bc6", 14}, {"unorm_bc7", 15}, {"srgb_bc7", 15},
        {"unorm_bc6", 31}, {"srgb_bc4", 31}, {"srgb_bc5", 31}, {"unorm_bc4x", 31}, {"float_bc6h", 31},
        {"UNORM_BC1", 31}, {"bc1", 31}, {"", 31}, {"unorm_8_8_8_8", 31}, {"unorm_bc17", 2},
        {"unorm_astc", 31}, {"srgb_astc_10x10", 28}, {"unorm_astc_4x4", 17}, {"unorm_astc_5x4", 18},
        {"unorm_astc_5x5", 19}, {"unorm_astc_6x5", 20}, {"unorm_astc_6x6", 21}, {"unorm_astc_8x5", 22},
        {"unorm_astc_8x6", 23}, {"unorm_astc_8x8", 24}, {"unorm_astc_10x5", 25}, {"unorm_astc_10x6", 26},
        {"unorm_astc_10x8", 27}, {"unorm_astc_10x10", 28}, {"unorm_astc_12x10", 29}, {"unorm_astc_12x12", 30},
        {"snorm_astc_4x4", 31}, {"unorm_astc_3x3", 31},
        // Footprints are searched in table order: "4x4" is found inside "14x4".
        {"unorm_astc_14x4", 17},
    };
    for (const auto& c : cases) EXPECT_EQ(decodeFormatCode(c.name), c.code) << c.name;
}

TEST(FormatDecoding, TableRowsAndTheirGeometry) {
    // Every row's word decodes to its own code, and words sharing a code share the row's geometry.
    for (const FormatRow& row : allFormatRows()) {
        const FormatRow* decoded = decodeDestination(row.word);
        ASSERT_NE(decoded, nullptr) << row.word;
        EXPECT_EQ(decoded->code, row.code) << row.word;
        EXPECT_EQ(decoded->blockWidth, row.blockWidth);
        EXPECT_EQ(decoded->blockBytes(), row.blockBytes());
        EXPECT_EQ(findFormatRow(row.word), &row);
    }
    // 8-byte blocks: BC1 and BC4; the ASTC footprints are named by their rows.
    for (const char* word : {"unorm_bc1", "srgb_bc1", "unorm_bc4", "snorm_bc4"})
        EXPECT_EQ(findFormatRow(word)->blockBytes(), 8) << word;
    EXPECT_EQ(findFormatRow("unorm_bc7")->blockBytes(), 16);
    for (auto [code, w, h] : {std::array{29, 12, 10}, std::array{22, 8, 5}})
        EXPECT_EQ(std::pair(int(formatRowForCode(code)->blockWidth), int(formatRowForCode(code)->blockHeight)), std::pair(w, h));
}

TEST(SizeRule, ExamplesAndLevelChains) {
    const BlockGeometry bc1 = geometryOf(*formatRowForCode(2)), bc7 = geometryOf(*formatRowForCode(15));
    EXPECT_EQ(levelChainSize(bc1, 0, 5, 3, 1, 1), 16u);
    EXPECT_EQ(levelChainSize(geometryOf(*formatRowForCode(30)), 0, 5, 3, 1, 1), 16u);
    EXPECT_EQ(levelChainSize(kUncompressedGeometry, 0, 4, 4, 1, 1) * 4, 256u);  // float source: 16 bytes a pixel
    EXPECT_EQ(levelChainSize(bc1, 0, 5, 3, 1, 0), 0u);
    EXPECT_EQ(levelChainSize(bc1, 0, 5, 3, 1, 0xFFFFFFFFu), 0u);  // negative as a signed count
    // 16x16x8, three levels: array keeps 8 layers, volume halves the depth.
    EXPECT_EQ(levelChainSize(bc7, 0, 16, 16, 8, 3), (16u + 4u + 1u) * 8u * 16u);
    EXPECT_EQ(levelChainSize(bc7, 2, 16, 16, 8, 3), (16u * 8u + 4u * 4u + 1u * 2u) * 16u);
    // Width 0 counts as 1 pixel; levels beyond the 1x1 level keep counting one block each.
    EXPECT_EQ(levelChainSize(bc1, 0, 0, 0, 1, 5), 5u * 8u);
    // A chain larger than 4 GiB needs the 64-bit count.
    EXPECT_EQ(levelChainSize(kUncompressedGeometry, 0, 65536, 65536, 2, 1), 65536ull * 65536ull * 2ull * 4ull);
}

TEST(SourceFormat, AcceptedNamesAndValueTypes) {
    for (const char* name : {"unorm_8_8_8_8", "snorm_8_8_8_8", "srgb_8_8_8_8", "float_32_32_32_32"})
        EXPECT_TRUE(isAcceptedSourceFormat(name)) << name;
    EXPECT_FALSE(isAcceptedSourceFormat("ufloat_32_32_32_32"));
    EXPECT_FALSE(isAcceptedSourceFormat("unorm_8_8_8_8 "));
    const std::pair<const char*, int32_t> types[] = {{"unorm_8_8_8_8", glyptora::kValueU8},
        {"srgb_8_8_8_8", glyptora::kValueU8}, {"snorm_8_8_8_8", glyptora::kValueS8},
        {"float_32_32_32_32", glyptora::kValueF32}, {"ufloat_16", glyptora::kValueF32}};
    for (const auto& [name, type] : types) EXPECT_EQ(decodeValueType(name), type) << name;
}

TEST(QualityDecoding, WordsNumbersAndAstcOffset) {
    const struct {
        const char *format, *words;
        int level;
    } cases[] = {{"unorm_bc7", "fastest", 0}, {"unorm_bc7", "normal", 1}, {"unorm_bc7", "production", 2},
                 {"unorm_bc7", "highest", 3}, {"unorm_bc7", "highest perceptual", 3}, {"unorm_bc7", "Highest", 1},
                 {"unorm_bc7", "", 1}, {"unorm_bc7", "perceptual", 1}, {"unorm_bc7", "0", 0}, {"unorm_bc7", "2", 2},
                 {"unorm_bc7", "7", 3}, {"unorm_bc7", "99999999999999999999", 3}, {"unorm_bc7", "-1", 1},
                 {"unorm_bc7", "2fast", 2}, {"unorm_astc_6x6", "", 2}, {"unorm_astc_6x6", "0", 1},
                 {"srgb_astc_6x6", "2", 3}, {"unorm_astc_6x6", "fastest", 0}, {"unorm_astc_6x6", "highest", 3}};
    for (const auto& c : cases) EXPECT_EQ(decodeQualityLevel(row(c.format), c.words), c.level) << c.format << " " << c.words;
}

TEST(ChannelWeights, PerceptualOnlyForTheSixColourNames) {
    float w[4];
    for (const char* name : {"unorm_bc1", "unorm_bc2", "unorm_bc3", "srgb_bc1", "srgb_bc2", "srgb_bc3"}) {
        weightsFor(name, "normal perceptual", 0, w);
        const float perceptual[4] = {0.2126f, 0.7152f, 0.0722f, 1.0f};
        for (int c = 0; c < 4; ++c) EXPECT_FLOAT_EQ(w[c], perceptual[c]) << name << " " << c;
    }
    for (const char* name : {"snorm_bc1", "unorm_bc7", "unorm_bc4"}) {
        weightsFor(name, "perceptual", 0, w);
        EXPECT_FLOAT_EQ(w[0], 1.0f) << name;
        EXPECT_FLOAT_EQ(w[3], 1.0f);
    }
    weightsFor("unorm_bc1", "normal", 0, w);
    EXPECT_FLOAT_EQ(w[1], 1.0f);
}

// The alpha weight of ASTC rows (4x4 and luminance-alpha left out) and its environment override;
// values that are not positive numbers keep the default.
TEST(ChannelWeights, AstcAlphaWeightAndEnvironment) {
    const struct {
        const char *env, *format, *options;
        uint32_t flags;
        int channel;
        float weight;
    } cases[] = {{nullptr, "unorm_astc_6x6", "", 0, 3, 2}, {nullptr, "unorm_astc_6x6", "", 0, 0, 1},
                 {nullptr, "unorm_astc_4x4", "", 0, 3, 1}, {nullptr, "unorm_astc_12x12", "", kFlagLuminanceAlpha, 3, 1},
                 {nullptr, "unorm_astc_12x12", "perceptual", 0, 0, 1}, {nullptr, "unorm_astc_12x12", "perceptual", 0, 3, 2},
                 {"3.5", "unorm_astc_5x4", "", 0, 3, 3.5f}, {"-1", "unorm_astc_8x8", "", 0, 3, 2},
                 {"0", "unorm_astc_8x8", "", 0, 3, 2}, {"", "unorm_astc_8x8", "", 0, 3, 2}, {"abc", "unorm_astc_8x8", "", 0, 3, 2}};
    for (const auto& c : cases) {
        ScopedEnv env("HALVORAN_GLYPTORA_ASTC_WEIGHT_A", c.env);
        float w[4];
        weightsFor(c.format, c.options, c.flags, w);
        EXPECT_FLOAT_EQ(w[c.channel], c.weight) << (c.env ? c.env : "unset") << " " << c.format << " " << c.channel;
    }
}

// Without GPU_ENCODING_AUTO=1, asking for the GPU without a usable one fails unless the fallback
// flag is set; the fallback flag alone asks for nothing. `use` -1: not checked.
TEST(GpuChoice, FallbackFlagAndEnvironment) {
    const struct {
        const char* env;
        uint32_t flags;
        bool available, ok;
        int use;
    } cases[] = {{nullptr, 0, false, true, 0}, {nullptr, kFlagGpu, false, false, -1},
                 {nullptr, kFlagGpu | kFlagGpuFallback, false, true, 0}, {nullptr, kFlagGpu, true, true, 1},
                 {nullptr, kFlagGpuFallback, false, true, 0}, {"1", kFlagGpu, false, true, 0},
                 {"0", kFlagGpu, false, false, -1}, {"true", kFlagGpu, false, false, -1},
                 {"1 ", kFlagGpu, false, false, -1}, {"", kFlagGpu, false, false, -1}};
    for (const auto& c : cases) {
        ScopedEnv env("HALVORAN_GLYPTORA_GPU_ENCODING_AUTO", c.env);
        bool useGpu = c.use != 1;  // the opposite of what must be written
        EXPECT_EQ(resolveGpuChoice(c.flags, c.available, &useGpu), c.ok) << (c.env ? c.env : "unset") << " " << c.flags;
        if (c.use >= 0) {
            EXPECT_EQ(useGpu, c.use == 1) << (c.env ? c.env : "unset") << " " << c.flags;
        }
    }
}
