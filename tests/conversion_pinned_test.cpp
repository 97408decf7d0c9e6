// Pins the blocks of every format that has an encoder, at every quality, for a few source
// images and value types, as a hash per (format, options). Any change to routing, fix-ups,
// weights or an encoder that alters one block fails here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <string>
#include <vector>

#include "glyptora.h"
#include "pinned_conversions.h"

namespace {

struct Source {
    const wchar_t* format;
    std::vector<uint8_t> bytes;
    uint32_t width, height, depth, levels, dimension;
};

uint64_t fnv1a(uint64_t h, const std::vector<uint8_t>& bytes) {
    for (uint8_t b : bytes) h = (h ^ b) * 0x100000001b3ull;
    return h;
}

// A source in `format`: `value(x, y, c)` of type T for every level of a chain.
template <typename T, typename Value>
Source source(const wchar_t* format, uint32_t w, uint32_t h, uint32_t depth, uint32_t levels, uint32_t dimension,
              Value value) {
    std::vector<T> values;
    for (uint32_t m = 0; m < levels; ++m) {
        const uint32_t lw = std::max(w >> m, 1u), lh = std::max(h >> m, 1u);
        const uint32_t ld = dimension == 2 ? std::max(depth >> m, 1u) : depth;
        for (uint32_t z = 0; z < ld; ++z)
            for (uint32_t y = 0; y < lh; ++y)
                for (uint32_t x = 0; x < lw; ++x)
                    for (int c = 0; c < 4; ++c) values.push_back(value(x + 3 * m, y + 5 * z, c));
    }
    std::vector<uint8_t> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return {format, bytes, w, h, depth, levels, dimension};
}

double wave(uint32_t x, uint32_t y, int c) {
    return 0.5 + 0.3 * std::sin(0.37 * x + 0.11 * y * (c + 1)) + 0.2 * std::cos(0.23 * y - 0.5 * c) *
                                                                      std::sin(1.7 * (x ^ y) + c);
}

// Smooth pictures with texture, one with varying alpha, in every source type.
std::vector<Source> sources() {
    using P = uint32_t;
    return {source<uint8_t>(L"unorm_8_8_8_8", 37, 29, 1, 3, 0,
                            [](P x, P y, int c) {
                                return uint8_t(c == 3 ? 255 : std::clamp(wave(x, y, c), 0.0, 1.0) * 255);
                            }),
            source<uint8_t>(L"srgb_8_8_8_8", 16, 12, 2, 2, 1,
                            [](P x, P y, int c) { return uint8_t(std::clamp(wave(y, x, c), 0.0, 1.0) * 255); }),
            source<int8_t>(L"snorm_8_8_8_8", 9, 11, 1, 2, 0,
                           [](P x, P y, int c) { return int8_t(std::lround((wave(x, y, c) * 2 - 1) * 127)); }),
            source<float>(L"float_32_32_32_32", 10, 6, 4, 2, 2,  // beyond [0, 1] both ways
                          [](P x, P y, int c) { return float(wave(x, y, c) * 1.6 - 0.3); })};
}

uint64_t chainBytes(uint32_t blockBytes, const Source& s) {
    uint64_t total = 0;
    for (uint32_t m = 0; m < s.levels; ++m) {
        const uint64_t w = (std::max(s.width >> m, 1u) + 3) / 4, h = (std::max(s.height >> m, 1u) + 3) / 4;
        const uint64_t d = s.dimension == 2 ? std::max(s.depth >> m, 1u) : s.depth;
        total += w * h * d * blockBytes;
    }
    return total;
}

uint64_t hashConversions(const std::wstring& format, const std::wstring& options, uint32_t blockBytes) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (const Source& s : sources()) {
        std::vector<uint8_t> out(chainBytes(blockBytes, s), 0xA5);
        EXPECT_EQ(GlyptoraConvert(out.data(), s.bytes.data(), format.c_str(), s.format, options.c_str(), 0,
                                  s.dimension, s.width, s.height, s.depth, s.levels),
                  1u);
        h = fnv1a(h, out);
    }
    return h;
}

}  // namespace

TEST(ConversionPinned, EveryFormatAndQualityKeepsItsBlocks) {
    std::string actual;  // the table as it would read now, printed on a failure
    for (const pinned::Row& p : pinned::kRows) {
        char text[160];
        std::snprintf(text, sizeof text, "    {L\"%ls\", %u, {", p.format, p.blockBytes);
        actual += text;
        for (int i = 0; i < p.count(); ++i) {
            const uint64_t h = hashConversions(p.format, p.optionsAt(i), p.blockBytes);
            EXPECT_EQ(h, p.hashes[i]) << p.format << " / " << p.optionsAt(i);
            std::snprintf(text, sizeof text, "%s0x%016llx", i ? ", " : "", static_cast<unsigned long long>(h));
            actual += text;
        }
        if (p.options) std::snprintf(text, sizeof text, "}, L\"%ls\"},\n", p.options);
        actual += p.options ? text : "}},\n";
    }
    if (HasFailure()) std::printf("Actual hashes:\n%s", actual.c_str());
}
