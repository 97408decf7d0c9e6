#include "dispatch/format_table.h"

#include <cstring>

namespace glyptora_internal {

namespace {

bool startsWith(const char* s, const char* prefix) { return std::strncmp(s, prefix, std::strlen(prefix)) == 0; }

bool isBcName(const char* s) {
    return startsWith(s, "unorm_bc") || startsWith(s, "snorm_bc") || startsWith(s, "srgb_bc") ||
           startsWith(s, "ufloat_bc") || startsWith(s, "float_bc");
}

bool isAstcName(const char* s) { return startsWith(s, "unorm_astc") || startsWith(s, "srgb_astc"); }

bool passes(const FormatRow& row, const char* s) {
    return row.test == NameTest::Equals ? std::strcmp(s, row.pattern) == 0 : std::strstr(s, row.pattern) != nullptr;
}

}  // namespace

const FormatRow* decodeDestination(const char* destination) {
    // A BC prefix is tested first: "unorm_bc..." never reaches the ASTC rows and vice versa.
    const bool bc = isBcName(destination);
    if (!bc && !isAstcName(destination)) return nullptr;
    for (const FormatRow& row : allFormatRows())
        if ((row.family == FormatFamily::ASTC) != bc && passes(row, destination)) return &row;
    return nullptr;
}

const FormatRow* findFormatRow(const char* word) {
    for (const FormatRow& row : allFormatRows())
        if (std::strcmp(row.word, word) == 0) return &row;
    return nullptr;
}

const FormatRow* formatRowForCode(int32_t code) {
    for (const FormatRow& row : allFormatRows())
        if (row.code == code) return &row;
    return nullptr;
}

}  // namespace glyptora_internal
