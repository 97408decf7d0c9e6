#include "tools/formats.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace glyptora_tools {

const char* const kQualityWords[4] = {"fastest", "normal", "production", "highest"};

namespace {

constexpr const char* kNotYet = "its encoder is not part of this build yet";
constexpr const char* kBC7SameEncoder =
    "BC7 production and highest quality currently run the same fast encoder as normal";

struct AstcFootprint {
    int w, h;
};
constexpr AstcFootprint kAstcFootprints[14] = {{4, 4}, {5, 4}, {5, 5}, {6, 5},  {6, 6},   {8, 5},   {8, 6},
                                               {8, 8}, {10, 5}, {10, 6}, {10, 8}, {10, 10}, {12, 10}, {12, 12}};

std::vector<FormatDesc> buildTable() {
    // The one table of what the tool offers. A format is available once both its encoder
    // and the block decoder that --stats uses are in the library.
    std::vector<FormatDesc> t = {
        {"unorm_bc1", BlockFamily::BC1, 4, 4, 8, false, false, "DXT1", 71, 133, true, nullptr},
        {"srgb_bc1", BlockFamily::BC1, 4, 4, 8, true, false, nullptr, 72, 134, true, nullptr},
        {"unorm_bc2", BlockFamily::BC2, 4, 4, 16, false, false, "DXT3", 74, 135, true, nullptr},
        {"srgb_bc2", BlockFamily::BC2, 4, 4, 16, true, false, nullptr, 75, 136, true, nullptr},
        {"unorm_bc3", BlockFamily::BC3, 4, 4, 16, false, false, "DXT5", 77, 137, true, nullptr},
        {"srgb_bc3", BlockFamily::BC3, 4, 4, 16, true, false, nullptr, 78, 138, true, nullptr},
        {"unorm_bc4", BlockFamily::BC4, 4, 4, 8, false, false, "ATI1", 80, 139, true, nullptr},
        {"snorm_bc4", BlockFamily::BC4, 4, 4, 8, false, true, nullptr, 81, 140, true, nullptr},
        {"unorm_bc5", BlockFamily::BC5, 4, 4, 16, false, false, "ATI2", 83, 141, true, nullptr},
        {"snorm_bc5", BlockFamily::BC5, 4, 4, 16, false, true, nullptr, 84, 142, true, nullptr},
        {"ufloat_bc6", BlockFamily::BC6H, 4, 4, 16, false, false, nullptr, 95, 143, false, kNotYet},
        {"float_bc6", BlockFamily::BC6H, 4, 4, 16, false, true, nullptr, 96, 144, false, kNotYet},
        {"unorm_bc7", BlockFamily::BC7, 4, 4, 16, false, false, nullptr, 98, 145, true, nullptr},
        {"srgb_bc7", BlockFamily::BC7, 4, 4, 16, true, false, nullptr, 99, 146, true, nullptr},
    };
    // ASTC words; DDS has no commonly read code for them, so they go to .ktx2 or .astc.
    for (int i = 0; i < 14; ++i) {
        const AstcFootprint f = kAstcFootprints[i];
        const std::string size = std::to_string(f.w) + "x" + std::to_string(f.h);
        const uint32_t vk = 157u + 2u * uint32_t(i);
        t.push_back({"unorm_astc_" + size, BlockFamily::ASTC, f.w, f.h, 16, false, false, nullptr, 0, vk, false,
                     kNotYet});
        t.push_back({"srgb_astc_" + size, BlockFamily::ASTC, f.w, f.h, 16, true, false, nullptr, 0, vk + 1, false,
                     kNotYet});
    }
    for (FormatDesc& f : t)
        if (f.family == BlockFamily::BC7 && f.available) f.note = kBC7SameEncoder;
    return t;
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

// Short names → library words.
std::string resolveAlias(const std::string& n) {
    struct Alias {
        const char* alias;
        const char* word;
    };
    static const Alias kAliases[] = {
        {"bc1", "unorm_bc1"},       {"bc1_srgb", "srgb_bc1"},   {"dxt1", "unorm_bc1"},
        {"bc2", "unorm_bc2"},       {"bc2_srgb", "srgb_bc2"},   {"dxt3", "unorm_bc2"},
        {"bc3", "unorm_bc3"},       {"bc3_srgb", "srgb_bc3"},   {"dxt5", "unorm_bc3"},
        {"bc4", "unorm_bc4"},       {"bc4s", "snorm_bc4"},      {"bc4_snorm", "snorm_bc4"},
        {"bc5", "unorm_bc5"},       {"bc5s", "snorm_bc5"},      {"bc5_snorm", "snorm_bc5"},
        {"bc6h", "ufloat_bc6"},     {"bc6", "ufloat_bc6"},      {"bc6h_uf16", "ufloat_bc6"},
        {"bc6hs", "float_bc6"},     {"bc6h_sf16", "float_bc6"}, {"bc7", "unorm_bc7"},
        {"bc7_srgb", "srgb_bc7"},
    };
    for (const Alias& a : kAliases)
        if (n == a.alias) return a.word;
    // astc6x6, astc_6x6, astc6x6_srgb, astc_6x6_srgb
    if (n.rfind("astc", 0) == 0) {
        std::string rest = n.substr(4);
        if (!rest.empty() && rest[0] == '_') rest.erase(0, 1);
        bool srgb = false;
        if (rest.size() > 5 && rest.compare(rest.size() - 5, 5, "_srgb") == 0) {
            srgb = true;
            rest.resize(rest.size() - 5);
        }
        return (srgb ? "srgb_astc_" : "unorm_astc_") + rest;
    }
    return n;
}

}  // namespace

const std::vector<FormatDesc>& allFormats() {
    static const std::vector<FormatDesc> table = buildTable();
    return table;
}

const FormatDesc* findFormat(const std::string& name) {
    const std::string word = resolveAlias(lower(name));
    for (const FormatDesc& f : allFormats())
        if (word == f.word) return &f;
    return nullptr;
}

int parseQuality(const std::string& text) {
    const std::string t = lower(text);
    for (int i = 0; i < 4; ++i)
        if (t == kQualityWords[i]) return i;
    if (t.size() == 1 && t[0] >= '0' && t[0] <= '3') return t[0] - '0';
    return -1;
}

uint64_t levelBytes(const FormatDesc& format, uint32_t width, uint32_t height) {
    return uint64_t(blocksAcross(width, format.blockWidth)) * blocksAcross(height, format.blockHeight) *
           uint64_t(format.blockBytes);
}

uint32_t fullLevelCount(uint32_t width, uint32_t height) {
    uint32_t levels = 1;
    uint32_t m = std::max(width, height);
    while (m > 1) {
        m >>= 1;
        ++levels;
    }
    return levels;
}

}  // namespace glyptora_tools
