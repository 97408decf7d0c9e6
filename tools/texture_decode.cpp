#include "tools/texture_decode.h"

#include <algorithm>

#include "tools/block_decode.h"

namespace glyptora_tools {

bool decodeTextureImage(const EncodedTexture& t, uint32_t m, uint32_t slice, Image& image, std::string& error) {
    image = Image();
    image.width = std::max<uint32_t>(t.width >> m, 1);
    image.height = std::max<uint32_t>(t.height >> m, 1);
    const FormatDesc& format = *t.format;
    const uint8_t* blocks = t.slice(m, slice);
    if (format.family == BlockFamily::BC6H) {
        image.isFloat = true;
        decodeLevelFloat(format, blocks, image.width, image.height, image.f32);
        return true;
    }
    if (!decodeLevel(format, blocks, image.width, image.height, image.u8)) {
        error = std::string("no block decoder for ") + format.word;
        return false;
    }
    if (format.isSigned)
        for (uint8_t& v : image.u8) v = uint8_t(int(int8_t(v)) + 128);
    return true;
}

}  // namespace glyptora_tools
