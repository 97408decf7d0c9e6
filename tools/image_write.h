#pragma once
// Writing of decoded images: PNG (8-bit RGBA) and OpenEXR (half-float RGBA), encoded in memory
// so that the caller can write the file all-or-nothing.
#include <cstdint>
#include <string>
#include <vector>

#include "tools/image_io.h"

namespace glyptora_tools {

enum class ImageFileKind { PNG, EXR };

// Kind chosen by the file extension (".png", ".exr", any case); false when unknown.
bool imageKindForPath(const std::string& path, ImageFileKind& kind);

// The file's bytes. Float pixels become PNG values clamped to 0..1 and rounded; 8-bit pixels
// become EXR values / 255. False with a reason (EXR without OpenEXR in the build, too large).
bool encodeImage(const Image& image, ImageFileKind kind, std::vector<uint8_t>& bytes, std::string& error);

}  // namespace glyptora_tools
