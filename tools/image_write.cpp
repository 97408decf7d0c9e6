#include "tools/image_write.h"

#include "tools/containers.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>

#include <stb/stb_image_write.h>

#ifdef GLYPTORA_TOOLS_HAVE_OPENEXR
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfRgbaFile.h>
#endif

namespace glyptora_tools {

namespace {

uint8_t unitToByte(float v) {
    const float c = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;  // NaN reads 0
    return uint8_t(int(c * 255.0f + 0.5f));
}

void appendBytes(void* context, void* data, int size) {
    auto* out = static_cast<std::vector<uint8_t>*>(context);
    const auto* p = static_cast<const uint8_t*>(data);
    out->insert(out->end(), p, p + size);
}

bool encodePng(const Image& image, std::vector<uint8_t>& bytes, std::string& error) {
    if (uint64_t(image.width) * 4 > uint64_t(INT_MAX) / std::max<uint64_t>(image.height, 1)) {
        error = "image too large for PNG";
        return false;
    }
    std::vector<uint8_t> converted;
    const uint8_t* pixels = image.u8.data();
    if (image.isFloat) {
        converted.resize(image.f32.size());
        std::transform(image.f32.begin(), image.f32.end(), converted.begin(), unitToByte);
        pixels = converted.data();
    }
    bytes.clear();
    if (!stbi_write_png_to_func(appendBytes, &bytes, int(image.width), int(image.height), 4, pixels,
                                int(image.width) * 4)) {
        error = "cannot encode PNG";
        return false;
    }
    return true;
}

#ifdef GLYPTORA_TOOLS_HAVE_OPENEXR
// An EXR output stream into memory.
class MemoryStream : public Imf::OStream {
public:
    explicit MemoryStream(std::vector<uint8_t>& out) : Imf::OStream("memory"), m_out(out) {}
    void write(const char c[], int n) override {
        if (m_at + size_t(n) > m_out.size()) m_out.resize(m_at + size_t(n));
        std::memcpy(m_out.data() + m_at, c, size_t(n));
        m_at += size_t(n);
    }
    uint64_t tellp() override { return m_at; }
    void seekp(uint64_t pos) override { m_at = size_t(pos); }

private:
    std::vector<uint8_t>& m_out;
    size_t m_at = 0;
};
#endif

bool encodeExr(const Image& image, std::vector<uint8_t>& bytes, std::string& error) {
#ifdef GLYPTORA_TOOLS_HAVE_OPENEXR
    try {
        std::vector<Imf::Rgba> pixels(size_t(image.width) * image.height);
        for (size_t i = 0; i < pixels.size(); ++i) {
            float v[4];
            for (int c = 0; c < 4; ++c) v[c] = image.isFloat ? image.f32[i * 4 + c] : float(image.u8[i * 4 + c]) / 255.0f;
            pixels[i] = Imf::Rgba(v[0], v[1], v[2], v[3]);
        }
        bytes.clear();
        MemoryStream stream(bytes);
        Imf::RgbaOutputFile file(stream, Imf::Header(int(image.width), int(image.height)), Imf::WRITE_RGBA);
        file.setFrameBuffer(pixels.data(), 1, image.width);
        file.writePixels(int(image.height));
        return true;
    } catch (const std::exception& e) {
        error = std::string("cannot encode EXR: ") + e.what();
        const size_t newline = error.find('\n');
        if (newline != std::string::npos) error.resize(newline);
        return false;
    }
#else
    (void)image;
    (void)bytes;
    error = "EXR output is not supported by this build (OpenEXR was not found)";
    return false;
#endif
}

}  // namespace

bool imageKindForPath(const std::string& path, ImageFileKind& kind) {
    const std::string ext = lowerExtension(path);
    if (ext == ".png") kind = ImageFileKind::PNG;
    else if (ext == ".exr") kind = ImageFileKind::EXR;
    else return false;
    return true;
}

bool encodeImage(const Image& image, ImageFileKind kind, std::vector<uint8_t>& bytes, std::string& error) {
    return kind == ImageFileKind::PNG ? encodePng(image, bytes, error) : encodeExr(image, bytes, error);
}

}  // namespace glyptora_tools
