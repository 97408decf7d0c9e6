#include "tools/image_io.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

#include <sys/stat.h>

#include <stb/stb_image.h>

#ifdef GLYPTORA_TOOLS_HAVE_OPENEXR
#include <ImfArray.h>
#include <ImfRgbaFile.h>
#endif

namespace glyptora_tools {

bool Image::hasAlpha() const {
    const uint64_t count = uint64_t(width) * height;
    if (isFloat) {
        for (uint64_t i = 0; i < count; ++i)
            if (!(f32[i * 4 + 3] == 1.0f)) return true;
        return false;
    }
    for (uint64_t i = 0; i < count; ++i)
        if (u8[i * 4 + 3] < 255) return true;
    return false;
}

namespace {

bool readWholeFile(const std::string& path, std::vector<uint8_t>& bytes, std::string& error) {
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) {
        error = std::string("cannot open: ") + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = "not a regular file";
        return false;
    }
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        error = std::string("cannot open: ") + std::strerror(errno);
        return false;
    }
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> guard(f, std::fclose);
    if (std::fseek(f, 0, SEEK_END) != 0) {
        error = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    const long size = std::ftell(f);
    if (size < 0) {
        error = std::string("cannot read: ") + std::strerror(errno);
        return false;
    }
    if (size == 0) {
        error = "empty file";
        return false;
    }
    if (uint64_t(size) >= uint64_t(INT_MAX)) {
        error = "file too large (2 GiB or more)";
        return false;
    }
    std::rewind(f);
    bytes.resize(size_t(size));
    if (std::fread(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
        error = std::ferror(f) ? std::string("cannot read: ") + std::strerror(errno) : "cannot read: file shrank";
        return false;
    }
    return true;
}

bool startsWith(const std::vector<uint8_t>& b, const char* magic, size_t n) {
    return b.size() >= n && std::memcmp(b.data(), magic, n) == 0;
}

const char* detectKind(const std::vector<uint8_t>& b) {
    if (startsWith(b, "\x89PNG\r\n\x1a\n", 8)) return "PNG";
    if (startsWith(b, "\xff\xd8\xff", 3)) return "JPEG";
    if (startsWith(b, "BM", 2)) return "BMP";
    if (startsWith(b, "8BPS", 4)) return "PSD";
    if (startsWith(b, "#?RADIANCE", 10) || startsWith(b, "#?RGBE", 6)) return "HDR";
    if (startsWith(b, "\x76\x2f\x31\x01", 4)) return "EXR";
    if (startsWith(b, "GIF8", 4)) return "GIF";
    return "TGA";  // TGA has no signature; the decoder's own checks decide
}

// Refuses empty and oversized images before their pixels are decoded.
bool checkDimensions(uint64_t width, uint64_t height, uint64_t bytesPerPixel, std::string& error) {
    if (width == 0 || height == 0) {
        error = "image has no pixels (" + std::to_string(width) + "x" + std::to_string(height) + ")";
        return false;
    }
    if (width > kMaxImageSide || height > kMaxImageSide) {
        error = "image is " + std::to_string(width) + "x" + std::to_string(height) + "; the largest side accepted is " +
                std::to_string(kMaxImageSide);
        return false;
    }
    if (width * height * bytesPerPixel > kMaxSourceBytes) {
        error = "image is " + std::to_string(width) + "x" + std::to_string(height) + "; its pixels would take more than " +
                std::to_string(kMaxSourceBytes >> 20) + " MiB";
        return false;
    }
    return true;
}

// Non-finite float values would spread through the mip filter: NaN and -inf read as 0,
// +inf as the largest half-float value.
float sanitise(float v) {
    if (std::isnan(v)) return 0.0f;
    if (std::isinf(v)) return v > 0 ? 65504.0f : 0.0f;
    return v;
}

bool loadWithStb(const std::vector<uint8_t>& bytes, const char* kind, Image& image, std::string& error) {
    const int len = int(bytes.size());
    int w = 0, h = 0, comp = 0;
    if (!stbi_info_from_memory(bytes.data(), len, &w, &h, &comp)) {
        const char* why = stbi_failure_reason();
        error = std::string("not a supported image (PNG, JPEG, TGA, BMP, PSD, HDR, EXR)") +
                (why ? std::string(": ") + why : std::string());
        return false;
    }
    const bool hdr = stbi_is_hdr_from_memory(bytes.data(), len) != 0;
    if (!checkDimensions(uint64_t(w < 0 ? 0 : w), uint64_t(h < 0 ? 0 : h), hdr ? 16 : 4, error)) return false;
    image.kind = kind;
    if (hdr) {
        float* p = stbi_loadf_from_memory(bytes.data(), len, &w, &h, &comp, 4);
        if (!p) {
            const char* why = stbi_failure_reason();
            error = std::string("cannot decode ") + kind + " image" + (why ? std::string(": ") + why : std::string());
            return false;
        }
        if (!checkDimensions(uint64_t(w), uint64_t(h), 16, error)) {
            stbi_image_free(p);
            return false;
        }
        image.width = uint32_t(w);
        image.height = uint32_t(h);
        image.isFloat = true;
        image.f32.resize(size_t(w) * size_t(h) * 4);
        for (size_t i = 0; i < image.f32.size(); ++i) image.f32[i] = sanitise(p[i]);
        stbi_image_free(p);
        return true;
    }
    stbi_uc* p = stbi_load_from_memory(bytes.data(), len, &w, &h, &comp, 4);
    if (!p) {
        const char* why = stbi_failure_reason();
        error = std::string("cannot decode ") + kind + " image" + (why ? std::string(": ") + why : std::string());
        return false;
    }
    if (!checkDimensions(uint64_t(w), uint64_t(h), 4, error)) {
        stbi_image_free(p);
        return false;
    }
    image.width = uint32_t(w);
    image.height = uint32_t(h);
    image.isFloat = false;
    image.u8.assign(p, p + size_t(w) * size_t(h) * 4);
    stbi_image_free(p);
    return true;
}

bool loadExr(const std::string& path, Image& image, std::string& error) {
#ifdef GLYPTORA_TOOLS_HAVE_OPENEXR
    try {
        Imf::RgbaInputFile file(path.c_str());
        const Imath::Box2i window = file.dataWindow();
        const int64_t w = int64_t(window.max.x) - int64_t(window.min.x) + 1;
        const int64_t h = int64_t(window.max.y) - int64_t(window.min.y) + 1;
        if (!checkDimensions(uint64_t(w < 0 ? 0 : w), uint64_t(h < 0 ? 0 : h), 16, error)) return false;
        Imf::Array2D<Imf::Rgba> pixels(h, w);
        // The frame buffer is addressed by data-window coordinates.
        file.setFrameBuffer(&pixels[0][0] - int64_t(window.min.x) - int64_t(window.min.y) * w, 1, size_t(w));
        file.readPixels(window.min.y, window.max.y);
        image.width = uint32_t(w);
        image.height = uint32_t(h);
        image.isFloat = true;
        image.kind = "EXR";
        image.f32.resize(size_t(w) * size_t(h) * 4);
        float* out = image.f32.data();
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x, out += 4) {
                const Imf::Rgba& px = pixels[y][x];
                out[0] = sanitise(float(px.r));
                out[1] = sanitise(float(px.g));
                out[2] = sanitise(float(px.b));
                out[3] = sanitise(float(px.a));
            }
        return true;
    } catch (const std::exception& e) {
        std::string what = e.what();
        const size_t newline = what.find('\n');
        if (newline != std::string::npos) what.resize(newline);
        error = "cannot decode EXR image: " + what;
        return false;
    } catch (...) {
        error = "cannot decode EXR image";
        return false;
    }
#else
    (void)path;
    (void)image;
    error = "EXR images are not supported by this build (OpenEXR was not found)";
    return false;
#endif
}

}  // namespace

bool loadImage(const std::string& path, Image& image, std::string& error) {
    image = Image();
    std::vector<uint8_t> bytes;
    if (!readWholeFile(path, bytes, error)) return false;
    const char* kind = detectKind(bytes);
    if (std::strcmp(kind, "EXR") == 0) {
        bytes = std::vector<uint8_t>();
        return loadExr(path, image, error);
    }
    return loadWithStb(bytes, kind, image, error);
}

}  // namespace glyptora_tools
