#pragma once
// Premultiplied alpha: colour multiplied by its alpha before the mip chain is built, so that
// smaller levels do not bleed the colour of transparent texels into their neighbours.
#include "tools/image_io.h"

namespace glyptora_tools {

// Multiplies R, G and B by alpha (clamped to 0..1). With `srgb`, 8-bit colour is taken as
// sRGB-encoded and is multiplied in linear light.
void premultiplyAlpha(Image& image, bool srgb);

}  // namespace glyptora_tools
