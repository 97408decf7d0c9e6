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

#include "fnv1a.h"
#include "glyptora.h"
#include "pinned_conversions.h"

namespace {

double wave(uint32_t x, uint32_t y, int c) {
    return 0.5 + 0.3 * std::sin(0.37 * x + 0.11 * y * (c + 1)) + 0.2 * std::cos(0.23 * y - 0.5 * c) *
                                                                      std::sin(1.7 * (x ^ y) + c);
}

// Smooth pictures with texture, one with varying alpha, in every source type: a value of the
// wave at (x + 3 level, y + 5 slice).
std::vector<pinned::Source> sources() {
    using P = uint32_t;
    auto at = [](auto value) { return [value](P x, P y, P z, P m, int c) { return value(x + 3 * m, y + 5 * z, c); }; };
    return {pinned::makeSource<uint8_t>(L"unorm_8_8_8_8", 37, 29, 1, 3, 0, at([](P x, P y, int c) {
                return uint8_t(c == 3 ? 255 : std::clamp(wave(x, y, c), 0.0, 1.0) * 255);
            })),
            pinned::makeSource<uint8_t>(L"srgb_8_8_8_8", 16, 12, 2, 2, 1, at([](P x, P y, int c) {
                return uint8_t(std::clamp(wave(y, x, c), 0.0, 1.0) * 255);
            })),
            pinned::makeSource<int8_t>(L"snorm_8_8_8_8", 9, 11, 1, 2, 0, at([](P x, P y, int c) {
                return int8_t(std::lround((wave(x, y, c) * 2 - 1) * 127));
            })),
            pinned::makeSource<float>(L"float_32_32_32_32", 10, 6, 4, 2, 2,  // beyond [0, 1] both ways
                                      at([](P x, P y, int c) { return float(wave(x, y, c) * 1.6 - 0.3); }))};
}

uint64_t hashConversions(const std::wstring& format, const std::wstring& options, uint32_t blockBytes) {
    uint64_t h = kFnv1aStart;
    for (const pinned::Source& s : sources()) {
        std::vector<uint8_t> out(pinned::chainBytes(s, blockBytes), 0xA5);
        EXPECT_EQ(GlyptoraConvert(out.data(), s.bytes.data(), format.c_str(), s.format, options.c_str(), 0,
                                  s.dimension, s.width, s.height, s.depth, s.levels),
                  1u);
        h = fnv1a(h, out.data(), out.size());
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
