#include "tools/decompress_command.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/container_read.h"
#include "tools/image_write.h"
#include "tools/output_file.h"
#include "tools/texture_decode.h"

namespace glyptora_tools {

namespace {

const char* const kDecompressUsage =
    "usage: glyptora decompress INPUT -o OUTPUT.(png|exr) [--level N] [--strip]\n"
    "\n"
    "Decodes a .dds, .ktx2 or .astc file with the library's decoders. Every level, array layer\n"
    "and cube face becomes a file of its own, named OUTPUT with _mipM, _layerL and _px, _nx,\n"
    "_py, _ny, _pz, _nz (the faces +X -X +Y -Y +Z -Z) added before the extension; a texture of\n"
    "one image is written to OUTPUT itself. PNG holds 8-bit RGBA (float formats clamped to\n"
    "0..1; signed formats shifted by 128, so 0 reads 128), EXR half floats (8-bit values / 255).\n"
    "\n"
    "  -o, --output FILE   output image, .png or .exr\n"
    "  --level N           level N only\n"
    "  --strip             the layers and faces of a level side by side in one image\n";

const char* const kFaceNames[6] = {"px", "nx", "py", "ny", "pz", "nz"};

struct Planned {
    std::string path;
    Image image;
    std::vector<uint8_t> bytes;
};

// The slices of one level side by side, slice 0 leftmost.
Image joinSideBySide(const std::vector<Image>& slices) {
    Image strip;
    const Image& first = slices.front();
    strip.width = first.width * uint32_t(slices.size());
    strip.height = first.height;
    strip.isFloat = first.isFloat;
    const size_t valueSize = first.isFloat ? sizeof(float) : 1;
    std::vector<uint8_t> u8;
    std::vector<float> f32;
    if (first.isFloat) f32.resize(size_t(strip.width) * strip.height * 4);
    else u8.resize(size_t(strip.width) * strip.height * 4);
    const size_t rowValues = size_t(first.width) * 4;
    for (size_t s = 0; s < slices.size(); ++s)
        for (uint32_t y = 0; y < first.height; ++y) {
            const size_t to = (size_t(y) * strip.width + s * first.width) * 4, from = y * rowValues;
            if (first.isFloat) std::memcpy(&f32[to], &slices[s].f32[from], rowValues * valueSize);
            else std::memcpy(&u8[to], &slices[s].u8[from], rowValues);
        }
    strip.u8 = std::move(u8);
    strip.f32 = std::move(f32);
    return strip;
}

}  // namespace

int runDecompress(int argc, char** argv) {
    std::string input, output, levelText;
    bool strip = false;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kDecompressUsage, stdout);
            return kExitOk;
        }
        if (arg == "--strip") {
            strip = true;
            continue;
        }
        bool matched = false;
        std::string error;
        if (!optionValue(argc, argv, i, "-o", "--output", output, matched, error)) return usageError(error);
        if (matched) continue;
        if (!optionValue(argc, argv, i, nullptr, "--level", levelText, matched, error)) return usageError(error);
        if (matched) continue;
        if (arg.size() > 1 && arg[0] == '-')
            return usageError("unknown option '" + arg + "' (see 'glyptora decompress --help')");
        if (!input.empty()) return usageError("decompress takes one input file");
        input = arg;
    }
    if (input.empty()) return usageError("no input file given (see 'glyptora decompress --help')");
    if (output.empty()) return usageError("no output given: add -o OUTPUT.png or -o OUTPUT.exr");
    long level = -1;
    if (!levelText.empty() && !parseInteger(levelText, 0, 31, level))
        return usageError("--level takes a level number (0 for the largest), not '" + levelText + "'");
    ImageFileKind kind;
    if (!imageKindForPath(output, kind)) {
        fail(output, "unknown output extension (use .png or .exr)");
        return kExitFailed;
    }

    TextureFile file;
    std::string error;
    if (!readTextureFile(input, file, error)) {
        fail(input, error);
        return kExitFailed;
    }
    const EncodedTexture& t = file.texture;
    if (level >= long(t.levels)) {
        fail(input, "has no level " + std::to_string(level) + " (levels 0 to " + std::to_string(t.levels - 1) + ")");
        return kExitFailed;
    }
    const uint32_t firstLevel = level < 0 ? 0 : uint32_t(level), endLevel = level < 0 ? t.levels : uint32_t(level) + 1;

    // Every image is decoded and encoded before the first file is written.
    std::vector<Planned> planned;
    const std::string base = withoutExtension(output), extension = output.substr(base.size());
    for (uint32_t m = firstLevel; m < endLevel; ++m) {
        std::vector<Image> slices(t.slices());
        for (uint32_t s = 0; s < t.slices(); ++s)
            if (!decodeTextureImage(t, m, s, slices[s], error)) {
                fail(input, error);
                return kExitFailed;
            }
        const std::string mip = endLevel - firstLevel > 1 ? "_mip" + std::to_string(m) : "";
        if (strip || t.slices() == 1) {
            planned.push_back({base + mip + extension, strip ? joinSideBySide(slices) : std::move(slices[0]), {}});
            continue;
        }
        for (uint32_t s = 0; s < t.slices(); ++s) {
            std::string name = base + mip;
            if (t.layers > 1 || t.isArray) name += "_layer" + std::to_string(s / t.faces);
            if (t.faces == 6) name += std::string("_") + kFaceNames[s % 6];
            planned.push_back({name + extension, std::move(slices[s]), {}});
        }
    }
    for (Planned& p : planned) {
        if (!encodeImage(p.image, kind, p.bytes, error)) {
            fail(p.path, error);
            return kExitFailed;
        }
        p.image = Image();
    }

    removePendingOutputOnSignal();
    for (const Planned& p : planned) {
        PendingOutput pending;
        if (!pending.open(p.path, error) || !pending.commit(p.bytes, error)) {
            fail(p.path, error);
            return kExitFailed;
        }
    }
    std::printf("%s -> %s: %s %s, %ux%u, %u level%s", input.c_str(), output.c_str(), containerName(file.container),
                t.format->word, t.width, t.height, t.levels, t.levels == 1 ? "" : "s");
    if (t.slices() > 1) std::printf(", %u layer%s x %u face%s", t.layers, t.layers == 1 ? "" : "s", t.faces, t.faces == 1 ? "" : "s");
    std::printf(", %zu file%s written\n", planned.size(), planned.size() == 1 ? "" : "s");
    return kExitOk;
}

}  // namespace glyptora_tools
