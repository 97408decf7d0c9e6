#pragma once
// The caller's side of GlyptoraConvert, written out again for the fuzzers from the documented
// rules rather than taken from the library: which destination strings name which block
// format, and how many bytes the source and the destination of a request hold. The fuzzers
// size their buffers with it and so check the library against it.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace glyptora_fuzz {

enum class Family { Unknown, BC1, BC2, BC3, BC4, BC5, BC6H, BC7, ASTC };

struct BlockFormat {
    int code = 31;  // 31: unknown
    Family family = Family::Unknown;
    int blockWidth = 0, blockHeight = 0, blockBytes = 0;
    bool isSigned = false;
};

inline bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }
inline bool contains(const std::string& s, const char* part) { return s.find(part) != std::string::npos; }

inline BlockFormat blockFormat(int code, Family family, int bw, int bh, bool isSigned = false) {
    const bool eightBytes = code == 1 || code == 2 || code == 6 || code == 7;
    return {code, family, bw, bh, eightBytes ? 8 : 16, isSigned};
}

// The destination format a string decodes to: BC names by their prefix and what they
// contain or equal, ASTC names by the first footprint they contain.
inline BlockFormat decodeDestination(const std::string& s) {
    const bool bc = startsWith(s, "unorm_bc") || startsWith(s, "snorm_bc") || startsWith(s, "srgb_bc") ||
                    startsWith(s, "ufloat_bc") || startsWith(s, "float_bc");
    if (!bc) {
        if (!startsWith(s, "unorm_astc") && !startsWith(s, "srgb_astc")) return {};
        static const char* const kFootprints[] = {"4x4", "5x4", "5x5", "6x5", "6x6", "8x5", "8x6",
                                                  "8x8", "10x5", "10x6", "10x8", "10x10", "12x10", "12x12"};
        for (int i = 0; i < 14; ++i)
            if (contains(s, kFootprints[i])) {
                const char* f = kFootprints[i];
                const int w = std::atoi(f), h = std::atoi(std::strchr(f, 'x') + 1);
                return blockFormat(17 + i, Family::ASTC, w, h);
            }
        return {};
    }
    if (contains(s, "bc1")) return blockFormat(2, Family::BC1, 4, 4);
    if (contains(s, "bc2")) return blockFormat(3, Family::BC2, 4, 4);
    if (contains(s, "bc3")) return blockFormat(4, Family::BC3, 4, 4);
    if (s == "unorm_bc4") return blockFormat(6, Family::BC4, 4, 4);
    if (s == "snorm_bc4") return blockFormat(7, Family::BC4, 4, 4, true);
    if (s == "unorm_bc5") return blockFormat(9, Family::BC5, 4, 4);
    if (s == "snorm_bc5") return blockFormat(10, Family::BC5, 4, 4, true);
    if (s == "ufloat_bc6") return blockFormat(13, Family::BC6H, 4, 4);
    if (s == "float_bc6") return blockFormat(14, Family::BC6H, 4, 4, true);
    if (contains(s, "bc7")) return blockFormat(15, Family::BC7, 4, 4);
    return {};
}

inline bool acceptedSource(const std::string& s) {
    return s == "unorm_8_8_8_8" || s == "snorm_8_8_8_8" || s == "srgb_8_8_8_8" || s == "float_32_32_32_32";
}
inline bool floatSource(const std::string& s) { return startsWith(s, "float_") || startsWith(s, "ufloat_"); }

constexpr uint64_t kHuge = uint64_t(1) << 62;  // stands for every count beyond what a fuzzer allocates

// Level m of a side: max(side >> m, 1), with every level from 32 on at 1.
inline uint64_t levelSide(uint32_t side, uint64_t m) { return m >= 32 ? 1 : std::max<uint64_t>(side >> m, 1); }

// Units (pixels, or blocks of bw x bh) of a whole chain; kHuge when larger. Mip counts below 1
// as signed numbers give none.
inline uint64_t chainUnits(int bw, int bh, uint32_t dimension, uint32_t width, uint32_t height, uint32_t depth,
                           uint32_t mipCount) {
    if (int32_t(mipCount) < 1) return 0;
    unsigned __int128 total = 0;
    for (uint64_t m = 0; m < mipCount; ++m) {
        const uint64_t w = (levelSide(width, m) + bw - 1) / bw, h = (levelSide(height, m) + bh - 1) / bh;
        const uint64_t d = dimension == 2 ? levelSide(depth, m) : depth;
        const unsigned __int128 level = (unsigned __int128)(w * h) * d;
        if (m >= 32) {  // every further level is the same
            total += level * (mipCount - m);
            break;
        }
        total += level;
    }
    return total > kHuge ? kHuge : uint64_t(total);
}

}  // namespace glyptora_fuzz
