#include "tools/formats.h"

#include "tools/block_decode.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace glyptora_tools {

const char* const kQualityWords[4] = {"fastest", "normal", "production", "highest"};

namespace {

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

const char* unavailableReason(const FormatDesc& format) {
    if (!format.hasEncoder()) return "its encoder is not part of this build yet";
    if (!canDecode(format)) return "the library has no block decoder for it yet";
    return nullptr;
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
           uint64_t(format.blockBytes());
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
