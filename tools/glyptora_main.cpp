// glyptora: converts images to block-compressed textures (.dds, .ktx2, .astc) with the library.
#include <chrono>
#include <cmath>
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
#include "tools/block_decode.h"
#include "tools/containers.h"
#include "tools/formats.h"
#include "tools/image_io.h"
#include "tools/mip_chain.h"
#include "tools/output_file.h"
#include "tools/quality_metrics.h"

using namespace glyptora_tools;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

const char* const kUsage =
    "usage: glyptora convert INPUT... (-o OUTPUT | --output-dir DIR) -f FORMAT [options]\n"
    "       glyptora formats\n"
    "\n"
    "Reads PNG, JPEG, TGA, BMP, PSD, HDR and EXR images and writes block-compressed textures.\n"
    "The output container follows the extension: .dds, .ktx2 or .astc (ASTC formats, level 0 only).\n"
    "\n"
    "  -o, --output FILE       output file (one input only)\n"
    "  --output-dir DIR        write INPUT's name with the container extension into DIR\n"
    "  --ext dds|ktx2|astc     container used with --output-dir (default: dds; ktx2 for ASTC)\n"
    "  -f, --format FORMAT     destination format: a library word (unorm_bc1, srgb_bc7,\n"
    "                          unorm_astc_6x6, ...) or an alias (bc1 ... bc7, bc4s, bc5s, bc6h,\n"
    "                          bc7_srgb, astc6x6, ...); 'glyptora formats' lists them\n"
    "  -q, --quality Q         fastest, normal (default), production, highest, or 0-3\n"
    "  --perceptual            weigh colour error by luminance (BC1, BC2, BC3)\n"
    "  --no-mips               level 0 only (default: the full chain down to 1x1)\n"
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
};

void fail(const std::string& file, const std::string& reason) {
    std::fprintf(stderr, "glyptora: %s: %s\n", file.c_str(), reason.c_str());
    std::fflush(stderr);
}

int usageError(const std::string& reason) {
    std::fprintf(stderr, "glyptora: %s\n", reason.c_str());
    return kExitUsage;
}

std::wstring widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

std::string baseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string stem(const std::string& path) {
    std::string name = baseName(path);
    const size_t dot = name.find_last_of('.');
    if (dot != std::string::npos && dot > 0) name.resize(dot);
    return name;
}

std::string formatBytes(uint64_t bytes) {
    char buffer[64];
    if (bytes < 10 * 1024) std::snprintf(buffer, sizeof buffer, "%llu bytes", static_cast<unsigned long long>(bytes));
    else if (bytes < 10ull * 1024 * 1024) std::snprintf(buffer, sizeof buffer, "%.1f KiB", double(bytes) / 1024.0);
    else std::snprintf(buffer, sizeof buffer, "%.1f MiB", double(bytes) / (1024.0 * 1024.0));
    return buffer;
}

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

// Converts one input; false after printing the one error line.
bool convertOne(const Settings& s, const std::string& input, const std::string& output, Container container,
                bool gpuAvailable) {
    const FormatDesc& format = *s.format;
    const auto start = std::chrono::steady_clock::now();

    Image image;
    std::string error;
    if (!loadImage(input, image, error)) {
        fail(input, error);
        return false;
    }

    const uint32_t levels = (s.noMips || container == Container::ASTC) ? 1 : fullLevelCount(image.width, image.height);
    if (sourceChainBytes(image.width, image.height, levels, image.isFloat) > kMaxSourceBytes) {
        fail(input, "image is " + std::to_string(image.width) + "x" + std::to_string(image.height) +
                        "; its level chain would take more than " + std::to_string(kMaxSourceBytes >> 20) + " MiB");
        return false;
    }

    PendingOutput pending;
    if (!pending.open(output, error)) {
        fail(output, error);
        return false;
    }

    const SourceChain chain = buildSourceChain(image, levels, format.isSrgb);
    const bool imageHasAlpha = image.hasAlpha();
    const char* kind = image.kind;
    image = Image();  // the chain holds the pixels now

    EncodedTexture texture;
    texture.format = &format;
    texture.width = chain.width;
    texture.height = chain.height;
    texture.levels = levels;
    layoutLevels(texture);
    if (glyptora_internal::levelChainSize(glyptora_internal::geometryOf(format), 0, chain.width, chain.height, 1,
                                          levels) != texture.blocks.size()) {
        fail(input, "internal error: the library sizes " + std::string(format.word) + " differently");
        return false;
    }

    const std::wstring destination = widen(format.word);
    const std::wstring source =
        widen(chain.isFloat ? "float_32_32_32_32" : (format.isSrgb ? "srgb_8_8_8_8" : "unorm_8_8_8_8"));
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
    const uint32_t ok = GlyptoraConvert(texture.blocks.data(), chain.bytes.data(), destination.c_str(), source.c_str(),
                                        options.c_str(), flags, 0, chain.width, chain.height, 1, levels);
    const double encodeMs = millisecondsSince(encodeStart);
    if (!ok) {
        fail(input, "the library could not convert the image to " + std::string(format.word));
        return false;
    }

    const std::vector<uint8_t> file = serialise(container, texture);
    if (!pending.commit(file, error)) {
        fail(output, error);
        return false;
    }
    const double totalMs = millisecondsSince(start);

    const bool onGpu = (flags & GLYPTORA_FLAG_GPU) && gpuAvailable;
    std::printf("%s -> %s: %ux%u %s, %s, quality %s, %u level%s, %s, %s, encode %.1f ms, total %.1f ms\n",
                input.c_str(), output.c_str(), chain.width, chain.height, kind, format.word,
                kQualityWords[s.quality], levels, levels == 1 ? "" : "s", formatBytes(file.size()).c_str(),
                onGpu ? "gpu" : "cpu", encodeMs, totalMs);

    if (s.stats && format.family == BlockFamily::BC6H) {
        std::vector<float> decoded;
        decodeLevelFloat(format, texture.blocks.data() + texture.levelOffsets[0], chain.width, chain.height, decoded);
        const std::vector<float> reference = floatReference(chain, 0);
        const HdrErrorSum error = compareHdr(reference.data(), decoded.data(), size_t(chain.width) * chain.height,
                                               format.isSigned);
        std::printf("  stats: level 0 RMSLE RGB %.5f, PSNR RGB clamped to [0, 1] %s\n", error.rmsle(),
                    formatPsnr(error.clampedPsnr()).c_str());
    } else if (s.stats) {
        std::vector<uint8_t> decoded;
        if (!decodeLevel(format, texture.blocks.data() + texture.levelOffsets[0], chain.width, chain.height,
                         decoded)) {
            std::printf("  stats: no block decoder for %s\n", format.word);
        } else {
            const std::vector<uint8_t> reference = encoderReference(chain, 0, format);
            const size_t pixels = size_t(chain.width) * chain.height;
            const unsigned channels = primaryChannels(format);
            const ErrorSum main = compareRgba8(reference.data(), decoded.data(), pixels, channels, format.isSigned);
            const char* label = channels == kChannelsR ? "R" : channels == kChannelsRG ? "RG" : "RGB";
            std::string line = std::string("  stats: level 0 PSNR ") + label + " " + formatPsnr(main.psnr());
            if (channels == kChannelsRGB && imageHasAlpha) {
                const ErrorSum all = compareRgba8(reference.data(), decoded.data(), pixels, kChannelsRGBA, false);
                line += ", RGBA " + formatPsnr(all.psnr());
            }
            std::printf("%s\n", line.c_str());
            if (format.family == BlockFamily::BC7) printBC7Modes(texture.blocks.data(), texture.levelSizes[0] / 16);
        }
    }
    std::fflush(stdout);
    return true;
}

// Reads the value of an option given as "--name VALUE" or "--name=VALUE".
bool optionValue(int argc, char** argv, int& i, const char* shortName, const char* longName, std::string& value,
                 bool& matched, std::string& error) {
    const std::string arg = argv[i];
    matched = false;
    const std::string longEq = std::string(longName) + "=";
    if (arg.rfind(longEq, 0) == 0) {
        matched = true;
        value = arg.substr(longEq.size());
        return true;
    }
    if (arg == longName || (shortName && arg == shortName)) {
        matched = true;
        if (i + 1 >= argc) {
            error = "option " + arg + " needs a value";
            return false;
        }
        value = argv[++i];
        return true;
    }
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
    std::string formatName, quality;
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
                      {"-q", "--quality", &quality}};
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
    if (!s.output.empty() && s.inputs.size() > 1)
        return usageError("-o takes one input; use --output-dir DIR for several");

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
    int failures = 0;
    const size_t total = s.inputs.size();
    for (size_t i = 0; i < total; ++i) {
        const std::string& input = s.inputs[i];
        const std::string output =
            !s.output.empty() ? s.output : s.outputDir + "/" + stem(input) + containerExtension(container);
        if (total > 1) {
            std::printf("[%zu/%zu] %s ...\n", i + 1, total, input.c_str());
            std::fflush(stdout);
        }
        bool ok = false;
        try {
            ok = convertOne(s, input, output, container, gpuAvailable);
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
