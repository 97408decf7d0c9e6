#pragma once
// Loading of source images into four-channel pixels: 8-bit RGBA for PNG, JPEG, TGA, BMP and
// PSD, 32-bit float RGBA for Radiance HDR and OpenEXR.
#include <cstdint>
#include <string>
#include <vector>

namespace glyptora_tools {

// Limits on what is accepted before any pixel is decoded.
constexpr uint32_t kMaxImageSide = 32768;
constexpr uint64_t kMaxSourceBytes = uint64_t(1) << 31;  // the whole level chain as handed to the library

struct Image {
    uint32_t width = 0;
    uint32_t height = 0;
    bool isFloat = false;      // true: f32 holds the pixels, else u8
    std::vector<uint8_t> u8;   // RGBA, row by row
    std::vector<float> f32;    // RGBA, row by row, linear light
    const char* kind = "";     // "PNG", "JPEG", "EXR", ...
    bool hasAlpha() const;     // any alpha below full coverage
};

// What a load accepts; sizes beyond it are refused from the file's header, before any pixel
// is decoded or allocated.
struct ImageLimits {
    uint32_t maxSide = kMaxImageSide;
    uint64_t maxBytes = kMaxSourceBytes;  // of the decoded pixels, 4 bytes a pixel (16 for float)
};

// Reads `path`. On failure returns false and sets `error` to one short reason (one line).
bool loadImage(const std::string& path, Image& image, std::string& error, const ImageLimits& limits = {});

// Reads a whole regular file of less than 2 GiB; false with a one-line reason (missing, not
// a regular file, empty, too large, unreadable).
bool readWholeFile(const std::string& path, std::vector<uint8_t>& bytes, std::string& error);

}  // namespace glyptora_tools
