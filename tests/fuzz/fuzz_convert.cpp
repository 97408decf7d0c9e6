// Fuzzes the exported GlyptoraConvert: fuzzed format, source and option strings, flags,
// dimension, sizes and pixels, for every format and quality. The call must return 0 or 1,
// must return 1 exactly for the requests the documented rules accept, must write nothing on
// failure and nothing outside the destination the size rule gives (guard bytes around it;
// AddressSanitizer watches the exactly sized source), and every block it writes must be a
// valid block of its format that our decoders decode.
//
// Cases are bounded so that one allocates at most a few MiB and encodes in well under a
// second: sizes beyond the budget of their format and quality are passed over. The server
// route (flag 32) starts processes and has a fuzzer of its own (fuzz_server_request).
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "astc/block_reader.h"
#include "astc/endpoint_decoding.h"
#include "bc7/bc7_decoder.h"
#include "fuzz_assertions.h"
#include "glyptora.h"
#include "size_rule.h"
#include "tools/block_decode.h"
#include "tools/formats.h"

using namespace glyptora_fuzz;

namespace {

const char* const kDestinations[] = {
    "unorm_bc1", "srgb_bc1", "snorm_bc1", "unorm_bc2", "srgb_bc2", "unorm_bc3", "srgb_bc3", "unorm_bc4",
    "snorm_bc4", "unorm_bc5", "snorm_bc5", "ufloat_bc6", "float_bc6", "unorm_bc7", "srgb_bc7", "unorm_bc6",
    "srgb_bc4", "unorm_astc", "unorm_astc_4x4", "srgb_astc_5x4", "unorm_astc_5x5", "srgb_astc_6x5",
    "unorm_astc_6x6", "unorm_astc_8x5", "srgb_astc_8x6", "unorm_astc_8x8", "unorm_astc_10x5", "srgb_astc_10x6",
    "unorm_astc_10x8", "unorm_astc_10x10", "srgb_astc_12x10", "unorm_astc_12x12", "unorm_8_8_8_8", ""};
const char* const kSources[] = {"unorm_8_8_8_8", "snorm_8_8_8_8", "srgb_8_8_8_8", "float_32_32_32_32",
                                "ufloat_32_32_32_32", "UNORM_8_8_8_8", ""};
// Options and the quality level each gives at most (3 when it cannot be told).
const struct {
    const char* text;
    int level;
} kOptions[] = {{"fastest", 0}, {"normal", 1}, {"production", 2}, {"highest", 3}, {"0", 0},
                {"1", 1},       {"2", 2},      {"3", 3},          {"", 1},        {"perceptual", 1},
                {"fastest perceptual", 0},     {"highest perceptual", 3},         {"7", 3}, {"-5", 1}};
const char* const kAstcWeights[] = {nullptr, "0.5", "-1", "junk", "3"};
const char* const kGpuAuto[] = {nullptr, "1", "0"};

constexpr uint32_t kFlagServer = 0x20;

// A name from the list, the list's name with fuzzed text after it, or fuzzed text.
std::string pickName(FuzzedDataProvider& in, const char* const* names, size_t count) {
    const int how = in.ConsumeIntegralInRange(0, 7);
    if (how < 6) return names[in.ConsumeIntegralInRange<size_t>(0, count - 1)];
    if (how == 6) return names[in.ConsumeIntegralInRange<size_t>(0, count - 1)] + in.ConsumeRandomLengthString(8);
    return in.ConsumeRandomLengthString(40);
}

// The text the library sees: the wide string ends at the first zero, and no character
// outside ASCII can take part in a name (it becomes '?' or bytes outside ASCII).
std::wstring widen(const std::string& s) {
    std::wstring w;
    for (unsigned char c : s) {
        if (c == 0) break;
        w.push_back(wchar_t(c < 0x80 ? c : 0x100 + c));
    }
    return w;
}
std::string seenAs(const std::wstring& w) {
    std::string s;
    for (wchar_t c : w) s.push_back(c < 0x80 ? char(c) : '?');
    return s;
}

void setOrClear(const char* name, const char* value) {
    if (value) setenv(name, value, 1);
    else unsetenv(name);
}

// Pixels encoded at most per call, by format and quality: the searches cost far more a block.
uint64_t pixelBudget(Family family, int level) {
    switch (family) {
        case Family::BC6H:
        case Family::BC7: return level >= 2 ? 512 : 4096;
        case Family::ASTC: return level >= 1 ? 256 : 1024;
        default: return 1 << 14;
    }
}

// Float sources: the fuzzed bytes pick values, with every special one among them.
void fillFloatPixels(const std::vector<uint8_t>& bytes, float* out, uint64_t count) {
    static const float kSpecial[] = {NAN, INFINITY, -INFINITY, -0.0f, 1.0f, 0.5f, 65504.0f, 1e-40f,
                                     -1.0f, 2.0f, 1e30f, -1e30f, 0.99999994f, 1.0000001f, 65536.0f, 6e-8f};
    for (uint64_t i = 0; i < count; ++i) {
        const uint8_t b = bytes.empty() ? 0 : bytes[i % bytes.size()];
        out[i] = b < 16 ? kSpecial[b] : float(b - 16) / 200.0f;
    }
}

// Whether a written block is one an LDR decoder of its format decodes.
bool validBlock(Family family, const uint8_t* block, int bw, int bh) {
    switch (family) {
        case Family::BC7: return glyptora_bc7::describeBC7Block(block).mode >= 0;
        case Family::BC6H: {
            // Two-bit modes 00 and 01; of the five-bit ones, 10011, 10111, 11011 and 11111 are reserved.
            const int mode = block[0] & 0x1F;
            return (mode & 2) == 0 || (mode & 0x13) != 0x13;
        }
        case Family::ASTC: {
            glyptora_astc::AstcBlockContent content;
            uint16_t constant[4];
            const auto kind = glyptora_astc::readAstcBlock(block, bw, bh, content, constant);
            if (kind == glyptora_astc::AstcBlockKind::Error) return false;
            if (kind == glyptora_astc::AstcBlockKind::Ordinary)
                for (int p = 0; p < content.partitionCount; ++p)
                    if (glyptora_astc::astcIsHdrEndpointMode(content.cem[p])) return false;
            return true;
        }
        default: return true;  // every bit pattern of BC1 to BC5 is a block
    }
}

// The tool's row for decoding a format (the first of its code, as the library encodes it).
const glyptora_tools::FormatDesc* decodingRow(const BlockFormat& f) {
    for (const auto& row : glyptora_tools::allFormats())
        if (row.code == f.code) return &row;
    return nullptr;
}

// Checks every block of every level and slice, and decodes each slice with our decoders.
void checkBlocks(const BlockFormat& f, const uint8_t* blocks, uint32_t dimension, uint32_t width, uint32_t height,
                 uint32_t depth, uint32_t mipCount) {
    const glyptora_tools::FormatDesc* row = decodingRow(f);
    FUZZ_CHECK(row && glyptora_tools::canDecode(*row));
    const uint8_t* p = blocks;
    for (uint64_t m = 0; m < mipCount; ++m) {
        const uint32_t w = uint32_t(levelSide(width, m)), h = uint32_t(levelSide(height, m));
        const uint64_t d = dimension == 2 ? levelSide(depth, m) : depth;
        const uint64_t sliceBlocks = uint64_t((w + f.blockWidth - 1) / f.blockWidth) * ((h + f.blockHeight - 1) / f.blockHeight);
        for (uint64_t z = 0; z < d; ++z) {
            for (uint64_t b = 0; b < sliceBlocks; ++b)
                FUZZ_CHECK(validBlock(f.family, p + b * f.blockBytes, f.blockWidth, f.blockHeight));
            if (f.family == Family::BC6H) {
                std::vector<float> rgba;
                FUZZ_CHECK(glyptora_tools::decodeLevelFloat(*row, p, w, h, rgba));
                for (size_t i = 0; i < rgba.size(); ++i) FUZZ_CHECK(!std::isnan(rgba[i]));
            } else {
                std::vector<uint8_t> rgba;
                FUZZ_CHECK(glyptora_tools::decodeLevel(*row, p, w, h, rgba));
            }
            p += sliceBlocks * f.blockBytes;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const std::wstring destination = widen(pickName(in, kDestinations, std::size(kDestinations)));
    const std::wstring source = widen(pickName(in, kSources, std::size(kSources)));
    int level = 3;
    std::string optionText;
    if (in.ConsumeIntegralInRange(0, 7) < 7) {
        const auto& o = kOptions[in.ConsumeIntegralInRange<size_t>(0, std::size(kOptions) - 1)];
        optionText = o.text;
        level = o.level;
    } else {
        optionText = in.ConsumeRandomLengthString(40);
    }
    const std::wstring options = widen(optionText);
    const uint32_t flags = in.ConsumeIntegral<uint32_t>() & ~kFlagServer;
    static const uint32_t kDimensions[] = {0, 1, 2, 3, 4, 0xFFFFFFFFu};
    const uint32_t dimension = kDimensions[in.ConsumeIntegralInRange<size_t>(0, std::size(kDimensions) - 1)];
    uint32_t width, height, depth, mipCount;
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:  // small: edge blocks, layers, slices and short chains
            width = in.ConsumeIntegralInRange<uint32_t>(1, 40);
            height = in.ConsumeIntegralInRange<uint32_t>(1, 40);
            depth = in.ConsumeIntegralInRange<uint32_t>(1, 3);
            mipCount = in.ConsumeIntegralInRange<uint32_t>(1, 7);
            break;
        case 1:  // long and thin, chains beyond the last 1x1 level
            width = in.ConsumeIntegralInRange<uint32_t>(1, 4096);
            height = in.ConsumeIntegralInRange<uint32_t>(1, 3);
            depth = in.ConsumeIntegralInRange<uint32_t>(0, 2);
            mipCount = in.ConsumeIntegralInRange<uint32_t>(0, 40);
            break;
        case 2: {  // edge values of 32 bits
            static const uint32_t kEdges[] = {0, 1, 2, 3, 4, 5, 31, 32, 33, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu};
            auto pick = [&] { return kEdges[in.ConsumeIntegralInRange<size_t>(0, std::size(kEdges) - 1)]; };
            width = pick(), height = pick(), depth = pick(), mipCount = pick();
            break;
        }
        default:
            width = in.ConsumeIntegral<uint32_t>(), height = in.ConsumeIntegral<uint32_t>();
            depth = in.ConsumeIntegral<uint32_t>(), mipCount = in.ConsumeIntegral<uint32_t>();
    }
    const char* astcWeight = kAstcWeights[in.ConsumeIntegralInRange<size_t>(0, std::size(kAstcWeights) - 1)];
    const char* gpuAuto = kGpuAuto[in.ConsumeIntegralInRange<size_t>(0, std::size(kGpuAuto) - 1)];
    const std::vector<uint8_t> pixelBytes = in.ConsumeRemainingBytes<uint8_t>();

    // What the documented rules say of this request.
    const std::string destinationText = seenAs(destination), sourceText = seenAs(source);
    const BlockFormat format = decodeDestination(destinationText);
    const bool isFloat = floatSource(sourceText);
    const uint64_t pixels = chainUnits(1, 1, dimension, width, height, depth, mipCount);
    const bool known = format.code != 31;
    if (pixels > pixelBudget(format.family, known && format.family == Family::ASTC ? level + 1 : level)) return -1;
    const uint64_t sourceBytes = pixels * (isFloat ? 16 : 4);
    const uint64_t blocks =
        known ? chainUnits(format.blockWidth, format.blockHeight, dimension, width, height, depth, mipCount) : 0;
    const uint64_t destinationBytes = blocks * uint64_t(format.blockBytes);
    static const bool gpuAvailable = GlyptoraIsGpuEncodingAvailable() != 0;
    const bool gpuOk = !(flags & 0x10) || gpuAvailable || (flags & 0x40) || (gpuAuto && std::strcmp(gpuAuto, "1") == 0);
    const bool withinLimits = width <= 0x7FFFFFFFu && height <= 0x7FFFFFFFu && depth <= 0x7FFFFFFFu;
    const bool expected = known && acceptedSource(sourceText) && gpuOk && withinLimits;

    // The source exactly as large as the rule says (one byte at least: null is refused).
    std::unique_ptr<uint8_t[]> sourceBuffer(new uint8_t[size_t(std::max<uint64_t>(sourceBytes, 1))]);
    if (isFloat) {
        fillFloatPixels(pixelBytes, reinterpret_cast<float*>(sourceBuffer.get()), sourceBytes / 4);
    } else {
        for (uint64_t i = 0; i < sourceBytes; ++i)
            sourceBuffer[i] = pixelBytes.empty() ? uint8_t(i * 37) : pixelBytes[i % pixelBytes.size()];
    }
    // The fill is an invalid block where the format has those (BC7 mode byte 0, reserved ASTC
    // block mode 0, reserved BC6H mode 10011), so that a block left unwritten is found too.
    constexpr size_t kGuard = 64;
    const uint8_t kFill = format.family == Family::BC7 || format.family == Family::ASTC ? 0x00
                          : format.family == Family::BC6H                              ? 0x13
                                                                                       : 0xA5;
    std::vector<uint8_t> destinationBuffer(size_t(destinationBytes) + 2 * kGuard, kFill);

    static const bool verbose = std::getenv("GLYPTORA_FUZZ_VERBOSE") != nullptr;  // for reading a finding
    if (verbose)
        std::fprintf(stderr, "request \"%s\" \"%s\" \"%s\" flags 0x%x dimension %u %ux%ux%u, %u levels: %llu + %llu "
                     "bytes, expect %d\n", destinationText.c_str(), sourceText.c_str(), seenAs(options).c_str(), flags,
                     dimension, width, height, depth, mipCount, (unsigned long long)sourceBytes,
                     (unsigned long long)destinationBytes, int(expected));
    setOrClear("HALVORAN_GLYPTORA_ASTC_WEIGHT_A", astcWeight);
    setOrClear("HALVORAN_GLYPTORA_GPU_ENCODING_AUTO", gpuAuto);
    const uint32_t result = GlyptoraConvert(destinationBuffer.data() + kGuard, sourceBuffer.get(), destination.c_str(),
                                            source.c_str(), options.c_str(), flags, dimension, width, height, depth,
                                            mipCount);

    FUZZ_CHECK(result <= 1);
    FUZZ_CHECK(result == (expected ? 1u : 0u));
    FUZZ_CHECK(holdsOnly(destinationBuffer.data(), kGuard, kFill));
    FUZZ_CHECK(holdsOnly(destinationBuffer.data() + kGuard + destinationBytes, kGuard, kFill));
    if (!result) {
        FUZZ_CHECK(holdsOnly(destinationBuffer.data(), destinationBuffer.size(), kFill));
        return 0;
    }
    if (destinationBytes) checkBlocks(format, destinationBuffer.data() + kGuard, dimension, width, height, depth, mipCount);
    return 0;
}
