// glyptora: converts images to block-compressed textures (.dds, .ktx2, .astc) with the library,
// decodes such textures back to images and describes them.
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "bc7/bc7_decoder.h"
#include "frontend/request_decoding.h"
#include "glyptora.h"
#include "tools/alpha_coverage.h"
#include "tools/block_decode.h"
#include "tools/command_line.h"
#include "tools/containers.h"
#include "tools/decompress_command.h"
#include "tools/formats.h"
#include "tools/image_io.h"
#include "tools/info_command.h"
#include "tools/ktx2_zstd.h"
#include "tools/mip_chain.h"
#include "tools/normal_maps.h"
#include "tools/output_file.h"
#include "tools/premultiplied_alpha.h"
#include "tools/quality_metrics.h"

using namespace glyptora_tools;

namespace {

const char* const kUsage =
    "usage: glyptora convert INPUT... (-o OUTPUT | --output-dir DIR) -f FORMAT [options]\n"
    "       glyptora decompress INPUT -o OUTPUT.(png|exr) [--level N] [--strip]\n"
    "       glyptora info FILE...\n"
    "       glyptora formats\n"
    "\n"
    "convert reads PNG, JPEG, TGA, BMP, PSD, HDR and EXR images and writes block-compressed\n"
    "textures. The output container follows the extension: .dds, .ktx2 or .astc (ASTC formats,\n"
    "level 0 only). decompress decodes a texture back to PNG or EXR images (see 'glyptora\n"
    "decompress --help'); info prints what a texture file holds.\n"
#ifndef GLYPTORA_TOOLS_HAVE_OPENEXR
    "This build has no OpenEXR (the Windows build never has): it reads and writes no EXR images.\n"
#endif
    "\n"
    "  -o, --output FILE       output file (one input, or the inputs of --array / --cubemap)\n"
    "  --output-dir DIR        write INPUT's name with the container extension into DIR\n"
    "  --ext dds|ktx2|astc     container used with --output-dir (default: dds; ktx2 for ASTC)\n"
    "  -f, --format FORMAT     destination format: a library word (unorm_bc1, srgb_bc7,\n"
    "                          unorm_astc_6x6, ...) or an alias (bc1 ... bc7, bc4s, bc5s, bc6h,\n"
    "                          bc7_srgb, astc6x6, ...); 'glyptora formats' lists them\n"
    "  -q, --quality Q         fastest, normal (default), production, highest, or 0-3\n"
    "  --perceptual            weigh colour error by luminance (BC1, BC2, BC3)\n"
    "  --no-mips               level 0 only (default: the full chain down to 1x1)\n"
    "  --array                 the inputs, all of one size, become the layers of one array texture\n"
    "  --cubemap               six square inputs become a cube map: +X -X +Y -Y +Z -Z; with\n"
    "                          --array, every six inputs make one cube of a cube map array\n"
    "  --normal-map            the inputs are normal maps (RGB = (n + 1) / 2): every level's\n"
    "                          vectors are renormalised; BC5 keeps X and Y\n"
    "  --premultiply           multiply colour by alpha before the levels are made\n"
    "  --alpha-coverage REF    keep the fraction of texels with alpha above REF (0 to 1, e.g. 0.5)\n"
    "                          equal on every level, for alpha-tested textures\n"
    "  --zstd LEVEL            .ktx2: Zstandard supercompression of every level, LEVEL 1 to 22\n"
    "  --gpu                   encode on the GPU where the format has a GPU path\n"
    "  --gpu-fallback          like --gpu, but encode on the CPU when no usable GPU is present\n"
    "  --stats                 decode what was written and print the PSNR of level 0\n";

struct Settings {
    std::vector<std::string> inputs;
    std::string output;
    std::string outputDir;
    std::string ext;
    const FormatDesc* format = nullptr;
    int quality = 1;
    bool perceptual = false;
    bool noMips = false;
    bool gpu = false;
    bool gpuFallback = false;
    bool stats = false;
    bool array = false;
    bool cubemap = false;
    bool normalMap = false;
    bool premultiply = false;
    float alphaCoverage = -1.0f;  // below 0: not kept
    int zstdLevel = 0;            // 0: no supercompression
};

std::wstring widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

std::string formatPsnr(double db) {
    if (std::isinf(db)) return "inf dB";
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.3f dB", db);
    return buffer;
}

double millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// Share of each BC7 block mode in level 0, e.g. "BC7 modes 1 20.5%, 6 79.5%".
void printBC7Modes(const uint8_t* blocks, uint64_t count) {
    glyptora_bc7::BC7ModeStats modes;
    glyptora_bc7::accumulateBC7ModeStats(blocks, size_t(count), modes);
    const double total = double(modes.total());
    if (total <= 0) return;
    std::string line = "  stats: BC7 modes";
    char part[48];
    const char* separator = " ";
    for (int m = 0; m < 8; ++m) {
        if (!modes.blocks[m]) continue;
        std::snprintf(part, sizeof part, "%s%d %.1f%%", separator, m, 100.0 * double(modes.blocks[m]) / total);
        line += part;
        separator = ", ";
    }
    if (modes.reserved) {
        std::snprintf(part, sizeof part, "%sreserved %.1f%%", separator, 100.0 * double(modes.reserved) / total);
        line += part;
    }
    std::printf("%s\n", line.c_str());
}

// The images of one texture, loaded and checked against each other: one size, one kind of
// pixels, square cube faces. False after printing the one error line.
bool loadSlices(const Settings& s, const std::vector<std::string>& inputs, std::vector<Image>& images) {
    images.resize(inputs.size());
    std::string error;
    for (size_t i = 0; i < inputs.size(); ++i) {
        if (!loadImage(inputs[i], images[i], error)) {
            fail(inputs[i], error);
            return false;
        }
        const Image& first = images[0];
        const Image& image = images[i];
        const auto size = [](const Image& im) { return std::to_string(im.width) + "x" + std::to_string(im.height); };
        if (image.width != first.width || image.height != first.height) {
            fail(inputs[i], "is " + size(image) + ", " + inputs[0] + " is " + size(first) +
                                ": the layers and faces of a texture take one size");
            return false;
        }
        if (image.isFloat != first.isFloat) {
            fail(inputs[i], std::string("is ") + (image.isFloat ? "a float" : "an 8-bit") + " image, " + inputs[0] +
                                " is not: the layers and faces of a texture take one kind of pixels");
            return false;
        }
        if (s.cubemap && image.width != image.height) {
            fail(inputs[i], "is " + size(image) + ": cube map faces must be square");
            return false;
        }
    }
    return true;
}

// The level chain of one slice, with the normal-map, premultiplied-alpha and alpha-coverage
// treatments the settings ask for.
SourceChain prepareChain(const Settings& s, Image& image, uint32_t levels) {
    if (s.premultiply) premultiplyAlpha(image, s.format->isSrgb);
    SourceChain chain = buildSourceChain(image, levels, s.format->isSrgb);
    if (s.normalMap) renormaliseNormals(chain);
    if (s.alphaCoverage >= 0.0f) preserveAlphaCoverage(chain, s.alphaCoverage, s.premultiply);
    return chain;
}

// Every slice's chain as the library takes them: level after level, slice after slice.
std::vector<uint8_t> interleaveLevels(const std::vector<SourceChain>& chains) {
    std::vector<uint8_t> bytes;
    bytes.reserve(chains[0].bytes.size() * chains.size());
    const SourceChain& first = chains[0];
    for (uint32_t m = 0; m < first.levels; ++m) {
        const uint64_t end = m + 1 < first.levels ? first.levelOffsets[m + 1] : first.bytes.size();
        for (const SourceChain& chain : chains)
            bytes.insert(bytes.end(), chain.bytes.begin() + ptrdiff_t(chain.levelOffsets[m]),
                         chain.bytes.begin() + ptrdiff_t(end));
    }
    return bytes;
}

// "PNG", "array of 3 PNG layers", "PNG cube map", "array of 2 PNG cube maps".
std::string describeSlices(const EncodedTexture& t, const char* kind) {
    const std::string k = kind;
    if (!t.isArray) return t.faces == 6 ? k + " cube map" : k;
    return "array of " + std::to_string(t.layers) + " " + k + (t.faces == 6 ? " cube map" : " layer") +
           (t.layers == 1 ? "" : "s");
}

void printStats(const Settings& s, const EncodedTexture& texture, const std::vector<SourceChain>& chains,
                bool imageHasAlpha) {
    const FormatDesc& format = *s.format;
    const uint32_t width = texture.width, height = texture.height;
    const size_t pixels = size_t(width) * height;
    if (format.family == BlockFamily::BC6H) {
        HdrErrorSum error;
        for (uint32_t slice = 0; slice < texture.slices(); ++slice) {
            std::vector<float> decoded;
            decodeLevelFloat(format, texture.slice(0, slice), width, height, decoded);
            const std::vector<float> reference = floatReference(chains[slice], 0);
            error.add(compareHdr(reference.data(), decoded.data(), pixels, format.isSigned));
        }
        std::printf("  stats: level 0 RMSLE RGB %.5f, PSNR RGB clamped to [0, 1] %s\n", error.rmsle(),
                    formatPsnr(error.clampedPsnr()).c_str());
        return;
    }
    const unsigned channels = primaryChannels(format);
    ErrorSum main, all;
    for (uint32_t slice = 0; slice < texture.slices(); ++slice) {
        std::vector<uint8_t> decoded;
        if (!decodeLevel(format, texture.slice(0, slice), width, height, decoded)) {
            std::printf("  stats: no block decoder for %s\n", format.word);
            return;
        }
        const std::vector<uint8_t> reference = encoderReference(chains[slice], 0, format);
        main.add(compareRgba8(reference.data(), decoded.data(), pixels, channels, format.isSigned));
        all.add(compareRgba8(reference.data(), decoded.data(), pixels, kChannelsRGBA, false));
    }
    const char* label = channels == kChannelsR ? "R" : channels == kChannelsRG ? "RG" : "RGB";
    std::string line = std::string("  stats: level 0 PSNR ") + label + " " + formatPsnr(main.psnr());
    if (channels == kChannelsRGB && imageHasAlpha) line += ", RGBA " + formatPsnr(all.psnr());
    std::printf("%s\n", line.c_str());
    if (format.family == BlockFamily::BC7) printBC7Modes(texture.blocks.data(), texture.levelSizes[0] / 16);
}

// Converts the inputs of one texture (one image, or the layers and faces of an array or cube
// map) into `output`; false after printing the one error line.
bool convertTexture(const Settings& s, const std::vector<std::string>& inputs, const std::string& output,
                    Container container, bool gpuAvailable) {
    const FormatDesc& format = *s.format;
    const std::string& input = inputs[0];
    const auto start = std::chrono::steady_clock::now();

    EncodedTexture texture;
    texture.format = &format;
    texture.faces = s.cubemap ? 6 : 1;
    texture.layers = uint32_t(inputs.size()) / texture.faces;
    texture.isArray = s.array;
    texture.premultiplied = s.premultiply;
    std::string error;
    if (!containerHoldsSlices(container, texture, error)) {
        fail(output, error);
        return false;
    }

    std::vector<Image> images;
    if (!loadSlices(s, inputs, images)) return false;
    const uint32_t width = images[0].width, height = images[0].height;
    const bool isFloat = images[0].isFloat;
    const uint32_t levels = (s.noMips || container == Container::ASTC) ? 1 : fullLevelCount(width, height);
    if (sourceChainBytes(width, height, levels, isFloat) * images.size() > kMaxSourceBytes) {
        fail(input, "image is " + std::to_string(width) + "x" + std::to_string(height) +
                        (images.size() > 1 ? " in " + std::to_string(images.size()) + " slices" : "") +
                        "; its level chain would take more than " + std::to_string(kMaxSourceBytes >> 20) + " MiB");
        return false;
    }

    PendingOutput pending;
    if (!pending.open(output, error)) {
        fail(output, error);
        return false;
    }

    bool imageHasAlpha = false;
    const char* kind = images[0].kind;
    std::vector<SourceChain> chains;
    for (Image& image : images) {
        imageHasAlpha = imageHasAlpha || image.hasAlpha();
        chains.push_back(prepareChain(s, image, levels));
        image = Image();  // the chain holds the pixels now
    }
    std::vector<uint8_t> interleaved;
    if (chains.size() > 1) interleaved = interleaveLevels(chains);
    const uint8_t* pixels = chains.size() > 1 ? interleaved.data() : chains[0].bytes.data();
    if (!s.stats && chains.size() > 1) chains.clear();

    texture.width = width;
    texture.height = height;
    texture.levels = levels;
    layoutLevels(texture);
    if (glyptora_internal::levelChainSize(glyptora_internal::geometryOf(format), 0, width, height, texture.slices(),
                                          levels) != texture.blocks.size()) {
        fail(input, "internal error: the library sizes " + std::string(format.word) + " differently");
        return false;
    }

    const std::wstring destination = widen(format.word);
    const std::wstring source =
        widen(isFloat ? "float_32_32_32_32" : (format.isSrgb ? "srgb_8_8_8_8" : "unorm_8_8_8_8"));
    const std::wstring options = widen(std::string(kQualityWords[s.quality]) + (s.perceptual ? " perceptual" : ""));
    uint32_t flags = 0;
    if (s.gpu || s.gpuFallback) flags |= GLYPTORA_FLAG_GPU;
    if (s.gpuFallback) flags |= GLYPTORA_FLAG_GPU_FALLBACK;

    // Refused before the library is asked, so that the user reads one line, the tool's.
    const char* autoFallback = std::getenv("HALVORAN_GLYPTORA_GPU_ENCODING_AUTO");
    if (s.gpu && !s.gpuFallback && !gpuAvailable && !(autoFallback && std::string(autoFallback) == "1")) {
        fail(input, "no usable CUDA GPU for --gpu (add --gpu-fallback to encode on the CPU)");
        return false;
    }

    const auto encodeStart = std::chrono::steady_clock::now();
    const uint32_t ok = GlyptoraConvert(texture.blocks.data(), pixels, destination.c_str(), source.c_str(),
                                        options.c_str(), flags, 0, width, height, texture.slices(), levels);
    const double encodeMs = millisecondsSince(encodeStart);
    if (!ok) {
        fail(input, "the library could not convert the image to " + std::string(format.word));
        return false;
    }

    std::vector<uint8_t> file;
    if (s.zstdLevel > 0) {
        if (!serialiseKtx2Zstd(texture, s.zstdLevel, file, error)) {
            fail(output, error);
            return false;
        }
    } else {
        file = serialise(container, texture);
    }
    if (!pending.commit(file, error)) {
        fail(output, error);
        return false;
    }
    const double totalMs = millisecondsSince(start);

    const bool onGpu = (flags & GLYPTORA_FLAG_GPU) && gpuAvailable;
    const std::string label = inputs.size() > 1 ? input + " and " + std::to_string(inputs.size() - 1) + " more" : input;
    std::printf("%s -> %s: %ux%u %s, %s, quality %s, %u level%s, %s, %s, encode %.1f ms, total %.1f ms\n",
                label.c_str(), output.c_str(), width, height, describeSlices(texture, kind).c_str(), format.word,
                kQualityWords[s.quality], levels, levels == 1 ? "" : "s", formatBytes(file.size()).c_str(),
                onGpu ? "gpu" : "cpu", encodeMs, totalMs);
    if (s.stats) printStats(s, texture, chains, imageHasAlpha);
    std::fflush(stdout);
    return true;
}

int listFormats() {
    std::printf("%-18s %-10s %-7s %s\n", "format", "block", "bytes", "state");
    for (const FormatDesc& f : allFormats()) {
        const std::string block = std::to_string(f.blockWidth) + "x" + std::to_string(f.blockHeight);
        const char* why = unavailableReason(f);
        std::string state = why ? std::string("not available (") + why + ")" : "available";
        if (!why && f.note) state += std::string(" (") + f.note + ")";
        std::printf("%-18s %-10s %-7d %s\n", f.word, block.c_str(), f.blockBytes(), state.c_str());
    }
    std::printf("aliases: bc1 bc1_srgb bc2 bc2_srgb bc3 bc3_srgb bc4 bc4s bc5 bc5s bc6h bc6hs bc7 bc7_srgb "
                "astcWxH astcWxH_srgb (e.g. astc6x6)\n");
    return kExitOk;
}

int runConvert(int argc, char** argv) {
    Settings s;
    std::string formatName, quality, coverage, zstd;
    bool endOfOptions = false;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (endOfOptions || arg.empty() || arg[0] != '-' || arg == "-") {
            s.inputs.push_back(arg);
            continue;
        }
        if (arg == "--") {
            endOfOptions = true;
            continue;
        }
        if (arg == "--perceptual") { s.perceptual = true; continue; }
        if (arg == "--no-mips") { s.noMips = true; continue; }
        if (arg == "--gpu") { s.gpu = true; continue; }
        if (arg == "--gpu-fallback") { s.gpuFallback = true; continue; }
        if (arg == "--stats") { s.stats = true; continue; }
        if (arg == "--array") { s.array = true; continue; }
        if (arg == "--cubemap") { s.cubemap = true; continue; }
        if (arg == "--normal-map") { s.normalMap = true; continue; }
        if (arg == "--premultiply") { s.premultiply = true; continue; }
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        struct Valued {
            const char* shortName;
            const char* longName;
            std::string* target;
        } valued[] = {{"-o", "--output", &s.output},
                      {nullptr, "--output-dir", &s.outputDir},
                      {nullptr, "--ext", &s.ext},
                      {"-f", "--format", &formatName},
                      {"-q", "--quality", &quality},
                      {nullptr, "--alpha-coverage", &coverage},
                      {nullptr, "--zstd", &zstd}};
        bool known = false;
        for (const Valued& v : valued) {
            bool matched = false;
            std::string error;
            if (!optionValue(argc, argv, i, v.shortName, v.longName, *v.target, matched, error)) return usageError(error);
            if (matched) {
                known = true;
                break;
            }
        }
        if (!known) return usageError("unknown option '" + arg + "' (see 'glyptora --help')");
    }

    if (s.inputs.empty()) return usageError("no input image given (see 'glyptora --help')");
    if (formatName.empty()) return usageError("no format given: add -f FORMAT (see 'glyptora formats')");
    s.format = findFormat(formatName);
    if (!s.format) return usageError("unknown format '" + formatName + "' (see 'glyptora formats')");
    if (const char* why = unavailableReason(*s.format))
        return usageError("format '" + formatName + "' (" + s.format->word + ") is not available: " + why);
    if (!quality.empty()) {
        s.quality = parseQuality(quality);
        if (s.quality < 0)
            return usageError("unknown quality '" + quality + "' (fastest, normal, production, highest or 0-3)");
    }
    if (s.output.empty() == s.outputDir.empty())
        return usageError("give either -o OUTPUT or --output-dir DIR");
    const bool oneTexture = s.array || s.cubemap;
    if (oneTexture && s.output.empty()) return usageError("--array and --cubemap write one texture: give -o OUTPUT");
    if (!s.output.empty() && s.inputs.size() > 1 && !oneTexture)
        return usageError("-o takes one input; use --output-dir DIR for several, or --array for one array texture");
    if (s.cubemap && (s.array ? s.inputs.size() % 6 != 0 : s.inputs.size() != 6))
        return usageError(std::string("--cubemap takes ") + (s.array ? "six inputs a cube" : "six inputs") +
                          " (+X -X +Y -Y +Z -Z); " + std::to_string(s.inputs.size()) + " given");
    if (s.normalMap && s.format->isSrgb)
        return usageError(std::string("--normal-map needs a linear format; ") + s.format->word + " is sRGB");
    if (!coverage.empty()) {
        char* end = nullptr;
        s.alphaCoverage = std::strtof(coverage.c_str(), &end);
        if (*end != '\0' || !(s.alphaCoverage > 0.0f && s.alphaCoverage < 1.0f))
            return usageError("--alpha-coverage takes an alpha value between 0 and 1 (e.g. 0.5), not '" + coverage + "'");
    }
    if (!zstd.empty()) {
        long level = 0;
        if (!zstdAvailable()) return usageError("--zstd: Zstandard is not supported by this build (libzstd was not found)");
        if (!parseInteger(zstd, 1, zstdMaxLevel(), level))
            return usageError("--zstd takes a level from 1 to " + std::to_string(zstdMaxLevel()) + ", not '" + zstd + "'");
        s.zstdLevel = int(level);
    }

    Container container = Container::DDS;
    if (!s.output.empty()) {
        if (!containerForPath(s.output, container)) {
            fail(s.output, "unknown output extension (use .dds, .ktx2 or .astc)");
            return kExitFailed;
        }
    } else if (!s.ext.empty()) {
        std::string ext = s.ext[0] == '.' ? s.ext : "." + s.ext;
        if (!containerForPath(ext, container)) return usageError("unknown --ext '" + s.ext + "' (dds, ktx2 or astc)");
    } else if (s.format->family == BlockFamily::ASTC) {
        container = Container::KTX2;
    }
    std::string reason;
    if (s.zstdLevel > 0 && container != Container::KTX2) return usageError("--zstd applies to .ktx2 outputs only");
    if (!containerAccepts(container, *s.format, reason)) {
        if (!s.output.empty()) fail(s.output, reason);
        else std::fprintf(stderr, "glyptora: %s\n", reason.c_str());
        return kExitFailed;
    }

    if (s.format->note && s.quality >= 2) std::printf("note: %s\n", s.format->note);
    if (s.perceptual && s.format->family != BlockFamily::BC1 && s.format->family != BlockFamily::BC2 &&
        s.format->family != BlockFamily::BC3)
        std::printf("note: --perceptual changes BC1, BC2 and BC3 only; %s ignores it\n", s.format->word);
    bool gpuAvailable = false;
    if (s.gpu || s.gpuFallback) {
        gpuAvailable = GlyptoraIsGpuEncodingAvailable() != 0;
        if (!gpuAvailable && s.gpuFallback) std::printf("note: no usable CUDA GPU; encoding on the CPU\n");
    }

    removePendingOutputOnSignal();
    // One texture of all inputs, or one texture per input.
    std::vector<std::vector<std::string>> textures;
    if (oneTexture) textures.push_back(s.inputs);
    else
        for (const std::string& input : s.inputs) textures.push_back({input});
    int failures = 0;
    const size_t total = textures.size();
    for (size_t i = 0; i < total; ++i) {
        const std::string& input = textures[i][0];
        const std::string output =
            !s.output.empty() ? s.output : s.outputDir + "/" + stem(input) + containerExtension(container);
        if (total > 1) {
            std::printf("[%zu/%zu] %s ...\n", i + 1, total, input.c_str());
            std::fflush(stdout);
        }
        bool ok = false;
        try {
            ok = convertTexture(s, textures[i], output, container, gpuAvailable);
        } catch (const std::bad_alloc&) {
            fail(input, "out of memory");
        } catch (const std::exception& e) {
            fail(input, e.what());
        }
        if (!ok) ++failures;
    }
    if (total > 1) std::printf("%zu of %zu converted\n", total - size_t(failures), total);
    return failures ? kExitFailed : kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    const std::string command = argv[1];
    if (command == "convert") return runConvert(argc, argv);
    if (command == "formats") return listFormats();
    if (command == "decompress" || command == "info") {
        try {
            return command == "info" ? runInfo(argc, argv) : runDecompress(argc, argv);
        } catch (const std::bad_alloc&) {
            usageError("out of memory");
        } catch (const std::exception& e) {
            usageError(e.what());
        }
        return kExitFailed;
    }
    if (command == "-h" || command == "--help" || command == "help") {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    if (command == "--version") {
        std::printf("glyptora 0.1\n");
        return kExitOk;
    }
    return usageError("unknown command '" + command + "' (see 'glyptora --help')");
}
