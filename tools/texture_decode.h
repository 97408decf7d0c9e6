#pragma once
// Decodes one image (a level of one array layer or cube face) of a compressed texture with
// the library's block decoders.
#include <cstdint>
#include <string>

#include "tools/containers.h"
#include "tools/image_io.h"

namespace glyptora_tools {

// Level `m` of slice `slice` (layer * faces + face). BC6H gives float RGBA; every other format
// 8-bit RGBA as decoded, channels the format lacks 0 and alpha opaque. Signed formats are
// shifted to unsigned bytes: value + 128, so -127 reads 1, 0 reads 128 and 127 reads 255.
bool decodeTextureImage(const EncodedTexture& texture, uint32_t m, uint32_t slice, Image& image, std::string& error);

}  // namespace glyptora_tools
