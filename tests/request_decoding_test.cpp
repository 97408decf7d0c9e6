#include <gtest/gtest.h>

#include <cstdlib>

#include "frontend/request_decoding.h"

using namespace glyptora_internal;

namespace {

// Sets an environment variable for one scope and restores the previous state.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : m_name(name) {
        const char* old = std::getenv(name);
        m_had = old != nullptr;
        if (old) m_old = old;
        if (value) setenv(name, value, 1);
        else unsetenv(name);
    }
    ~ScopedEnv() {
        if (m_had) setenv(m_name, m_old.c_str(), 1);
        else unsetenv(m_name);
    }

private:
    const char* m_name;
    bool m_had = false;
    std::string m_old;
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
    EXPECT_EQ(formatRowForCode(29)->blockWidth, 12);
    EXPECT_EQ(formatRowForCode(29)->blockHeight, 10);
    EXPECT_EQ(formatRowForCode(22)->blockWidth, 8);
    EXPECT_EQ(formatRowForCode(22)->blockHeight, 5);
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
    EXPECT_TRUE(isAcceptedSourceFormat("unorm_8_8_8_8"));
    EXPECT_TRUE(isAcceptedSourceFormat("snorm_8_8_8_8"));
    EXPECT_TRUE(isAcceptedSourceFormat("srgb_8_8_8_8"));
    EXPECT_TRUE(isAcceptedSourceFormat("float_32_32_32_32"));
    EXPECT_FALSE(isAcceptedSourceFormat("ufloat_32_32_32_32"));
    EXPECT_FALSE(isAcceptedSourceFormat("unorm_8_8_8_8 "));
    EXPECT_EQ(decodeValueType("unorm_8_8_8_8"), glyptora::kValueU8);
    EXPECT_EQ(decodeValueType("srgb_8_8_8_8"), glyptora::kValueU8);
    EXPECT_EQ(decodeValueType("snorm_8_8_8_8"), glyptora::kValueS8);
    EXPECT_EQ(decodeValueType("float_32_32_32_32"), glyptora::kValueF32);
    EXPECT_EQ(decodeValueType("ufloat_16"), glyptora::kValueF32);
}

TEST(QualityDecoding, WordsNumbersAndAstcOffset) {
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "fastest"), 0);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "normal"), 1);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "production"), 2);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "highest"), 3);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "highest perceptual"), 3);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "Highest"), 1);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), ""), 1);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "perceptual"), 1);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "0"), 0);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "2"), 2);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "7"), 3);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "99999999999999999999"), 3);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "-1"), 1);
    EXPECT_EQ(decodeQualityLevel(row("unorm_bc7"), "2fast"), 2);
    EXPECT_EQ(decodeQualityLevel(row("unorm_astc_6x6"), ""), 2);
    EXPECT_EQ(decodeQualityLevel(row("unorm_astc_6x6"), "0"), 1);
    EXPECT_EQ(decodeQualityLevel(row("srgb_astc_6x6"), "2"), 3);
    EXPECT_EQ(decodeQualityLevel(row("unorm_astc_6x6"), "fastest"), 0);
    EXPECT_EQ(decodeQualityLevel(row("unorm_astc_6x6"), "highest"), 3);
}

TEST(ChannelWeights, PerceptualOnlyForTheSixColourNames) {
    float w[4];
    for (const char* name : {"unorm_bc1", "unorm_bc2", "unorm_bc3", "srgb_bc1", "srgb_bc2", "srgb_bc3"}) {
        weightsFor(name, "normal perceptual", 0, w);
        EXPECT_FLOAT_EQ(w[0], 0.2126f) << name;
        EXPECT_FLOAT_EQ(w[1], 0.7152f);
        EXPECT_FLOAT_EQ(w[2], 0.0722f);
        EXPECT_FLOAT_EQ(w[3], 1.0f);
    }
    for (const char* name : {"snorm_bc1", "unorm_bc7", "unorm_bc4"}) {
        weightsFor(name, "perceptual", 0, w);
        EXPECT_FLOAT_EQ(w[0], 1.0f) << name;
        EXPECT_FLOAT_EQ(w[3], 1.0f);
    }
    weightsFor("unorm_bc1", "normal", 0, w);
    EXPECT_FLOAT_EQ(w[1], 1.0f);
}

TEST(ChannelWeights, AstcAlphaWeightAndEnvironment) {
    float w[4];
    {
        ScopedEnv env("HALVORAN_GLYPTORA_ASTC_WEIGHT_A", nullptr);
        weightsFor("unorm_astc_6x6", "", 0, w);
        EXPECT_FLOAT_EQ(w[3], 2.0f);
        EXPECT_FLOAT_EQ(w[0], 1.0f);
        weightsFor("unorm_astc_4x4", "", 0, w);  // 4x4 is left out
        EXPECT_FLOAT_EQ(w[3], 1.0f);
        weightsFor("unorm_astc_12x12", "", kFlagLuminanceAlpha, w);
        EXPECT_FLOAT_EQ(w[3], 1.0f);
        weightsFor("unorm_astc_12x12", "perceptual", 0, w);
        EXPECT_FLOAT_EQ(w[0], 1.0f);
        EXPECT_FLOAT_EQ(w[3], 2.0f);
    }
    {
        ScopedEnv env("HALVORAN_GLYPTORA_ASTC_WEIGHT_A", "3.5");
        weightsFor("unorm_astc_5x4", "", 0, w);
        EXPECT_FLOAT_EQ(w[3], 3.5f);
    }
    for (const char* kept : {"-1", "0", "", "abc"}) {
        ScopedEnv env("HALVORAN_GLYPTORA_ASTC_WEIGHT_A", kept);
        weightsFor("unorm_astc_8x8", "", 0, w);
        EXPECT_FLOAT_EQ(w[3], 2.0f) << kept;
    }
}

TEST(GpuChoice, FallbackFlagAndEnvironment) {
    bool useGpu = true;
    {
        ScopedEnv env("HALVORAN_GLYPTORA_GPU_ENCODING_AUTO", nullptr);
        EXPECT_TRUE(resolveGpuChoice(0, false, &useGpu));
        EXPECT_FALSE(useGpu);
        EXPECT_FALSE(resolveGpuChoice(kFlagGpu, false, &useGpu));
        EXPECT_TRUE(resolveGpuChoice(kFlagGpu | kFlagGpuFallback, false, &useGpu));
        EXPECT_FALSE(useGpu);
        EXPECT_TRUE(resolveGpuChoice(kFlagGpu, true, &useGpu));
        EXPECT_TRUE(useGpu);
        EXPECT_TRUE(resolveGpuChoice(kFlagGpuFallback, false, &useGpu));  // 64 alone asks for nothing
        EXPECT_FALSE(useGpu);
    }
    {
        ScopedEnv env("HALVORAN_GLYPTORA_GPU_ENCODING_AUTO", "1");
        EXPECT_TRUE(resolveGpuChoice(kFlagGpu, false, &useGpu));
        EXPECT_FALSE(useGpu);
    }
    for (const char* value : {"0", "true", "1 ", ""}) {
        ScopedEnv env("HALVORAN_GLYPTORA_GPU_ENCODING_AUTO", value);
        EXPECT_FALSE(resolveGpuChoice(kFlagGpu, false, &useGpu)) << value;
    }
}
