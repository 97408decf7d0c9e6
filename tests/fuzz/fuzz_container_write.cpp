// Fuzzes the command's container writers (DDS, KTX2, .astc) with every format, fuzzed sizes,
// level counts and block bytes, and the choice of container by file name. What is written is
// read back here from the published layouts: header fields, and every level's blocks found
// whole at the place the file says.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_assertions.h"
#include "tools/containers.h"
#include "tools/image_io.h"

using namespace glyptora_fuzz;
using namespace glyptora_tools;

namespace {

uint32_t u32(const std::vector<uint8_t>& f, size_t at) {
    FUZZ_CHECK(at + 4 <= f.size());
    uint32_t v;
    std::memcpy(&v, f.data() + at, 4);
    return v;
}
uint64_t u64(const std::vector<uint8_t>& f, size_t at) {
    FUZZ_CHECK(at + 8 <= f.size());
    uint64_t v;
    std::memcpy(&v, f.data() + at, 8);
    return v;
}
bool holds(const std::vector<uint8_t>& f, uint64_t at, const EncodedTexture& t, uint32_t m) {
    return at <= f.size() && t.levelSizes[m] <= f.size() - at &&
           std::equal(f.begin() + ptrdiff_t(at), f.begin() + ptrdiff_t(at + t.levelSizes[m]),
                      t.blocks.begin() + ptrdiff_t(t.levelOffsets[m]));
}

void checkDds(const std::vector<uint8_t>& f, const EncodedTexture& t) {
    const bool dx10 = t.format->fourCC == nullptr;
    const size_t start = dx10 ? 148 : 128;
    FUZZ_CHECK(f.size() == start + t.blocks.size());
    FUZZ_CHECK(std::memcmp(f.data(), "DDS ", 4) == 0 && u32(f, 4) == 124);
    FUZZ_CHECK(u32(f, 12) == t.height && u32(f, 16) == t.width && u32(f, 20) == t.levelSizes[0]);
    FUZZ_CHECK(u32(f, 28) == t.levels && u32(f, 76) == 32);
    FUZZ_CHECK(std::memcmp(f.data() + 84, dx10 ? "DX10" : t.format->fourCC, 4) == 0);
    if (dx10) FUZZ_CHECK(u32(f, 128) == t.format->dxgiFormat && u32(f, 140) == 1);
    FUZZ_CHECK(std::equal(t.blocks.begin(), t.blocks.end(), f.begin() + ptrdiff_t(start)));
}

void checkKtx2(const std::vector<uint8_t>& f, const EncodedTexture& t) {
    FUZZ_CHECK(f.size() >= 80 && std::memcmp(f.data(), kKtx2Identifier, 12) == 0);
    FUZZ_CHECK(u32(f, 12) == t.format->vkFormat && u32(f, 20) == t.width && u32(f, 24) == t.height);
    FUZZ_CHECK(u32(f, 40) == t.levels && u32(f, 44) == 0);
    const uint64_t dfdOffset = u32(f, 48), dfdLength = u32(f, 52), kvdOffset = u32(f, 56), kvdLength = u32(f, 60);
    const uint64_t indexEnd = 80 + 24 * uint64_t(t.levels);
    FUZZ_CHECK(dfdOffset >= indexEnd && dfdOffset + dfdLength <= f.size() && u32(f, dfdOffset) == dfdLength);
    FUZZ_CHECK(kvdOffset >= dfdOffset + dfdLength && kvdOffset + kvdLength <= f.size());
    uint64_t previous = f.size();  // levels are stored from the smallest, level 0 last
    for (uint32_t m = 0; m < t.levels; ++m) {
        const uint64_t at = u64(f, 80 + 24 * m), length = u64(f, 88 + 24 * m);
        FUZZ_CHECK(length == t.levelSizes[m] && u64(f, 96 + 24 * m) == length);
        FUZZ_CHECK(at % uint64_t(t.format->blockBytes()) == 0 && at >= kvdOffset + kvdLength);
        FUZZ_CHECK(at + length <= previous && holds(f, at, t, m));
        previous = at;
    }
    FUZZ_CHECK(u64(f, 80) + t.levelSizes[0] == f.size());
}

void checkAstc(const std::vector<uint8_t>& f, const EncodedTexture& t) {
    FUZZ_CHECK(f.size() == 16 + t.levelSizes[0] && u32(f, 0) == 0x5CA1AB13u);
    FUZZ_CHECK(f[4] == t.format->blockWidth && f[5] == t.format->blockHeight && f[6] == 1);
    auto u24 = [&](size_t at) { return uint32_t(f[at]) | uint32_t(f[at + 1]) << 8 | uint32_t(f[at + 2]) << 16; };
    FUZZ_CHECK(u24(7) == t.width && u24(10) == t.height && u24(13) == 1);
    FUZZ_CHECK(holds(f, 16, t, 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);

    // The container a file name selects: its extension, in any case.
    const std::string path = in.ConsumeRandomLengthString(24);
    Container byName;
    std::string ext;
    const size_t dot = path.find_last_of('.'), slash = path.find_last_of('/');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) ext = path.substr(dot);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    const bool knownExtension = ext == ".dds" || ext == ".ktx2" || ext == ".astc";
    FUZZ_CHECK(containerForPath(path, byName) == knownExtension);
    if (knownExtension) FUZZ_CHECK(containerExtension(byName) == ext);

    const auto formats = allFormats();
    EncodedTexture t;
    t.format = &formats[in.ConsumeIntegralInRange<size_t>(0, formats.size() - 1)];
    const Container container = Container(in.ConsumeIntegralInRange(0, 2));
    t.width = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(1, 64)
                               : in.ConsumeIntegralInRange<uint32_t>(1, kMaxImageSide);
    t.height = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(1, 64)
                                : in.ConsumeIntegralInRange<uint32_t>(1, kMaxImageSide);
    const uint64_t blocks = uint64_t((t.width + t.format->blockWidth - 1) / t.format->blockWidth) *
                            ((t.height + t.format->blockHeight - 1) / t.format->blockHeight);
    if (blocks > (1u << 16)) return -1;  // a few MiB at most
    t.levels = in.ConsumeIntegralInRange<uint32_t>(1, fullLevelCount(t.width, t.height));

    std::string reason;
    const bool accepted = containerAccepts(container, *t.format, reason);
    const bool astc = t.format->family == BlockFamily::ASTC;
    FUZZ_CHECK(accepted == (container == Container::KTX2 || (container == Container::ASTC) == astc));
    if (!accepted) {
        FUZZ_CHECK(!reason.empty());
        return 0;
    }
    layoutLevels(t);
    uint64_t offset = 0;
    for (uint32_t m = 0; m < t.levels; ++m) {
        FUZZ_CHECK(t.levelOffsets[m] == offset);
        offset += t.levelSizes[m];
    }
    FUZZ_CHECK(t.blocks.size() == offset);
    const std::vector<uint8_t> fill = in.ConsumeRemainingBytes<uint8_t>();
    for (size_t i = 0; i < t.blocks.size(); ++i) t.blocks[i] = fill.empty() ? uint8_t(i) : fill[i % fill.size()];

    const std::vector<uint8_t> file = serialise(container, t);
    switch (container) {
        case Container::DDS: checkDds(file, t); break;
        case Container::KTX2: checkKtx2(file, t); break;
        case Container::ASTC: checkAstc(file, t); break;
    }
    return 0;
}
