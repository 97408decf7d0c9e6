#include "tools/image_io.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
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

namespace {

bool startsWith(const std::vector<uint8_t>& b, const char* magic, size_t n) {
    return b.size() >= n && std::memcmp(b.data(), magic, n) == 0;
}

// Where a JPEG's segments begin, or 0 when the bytes do not start with a start-of-image
// marker; the decoder takes that marker after any number of 0xFF fill bytes.
size_t jpegStart(const std::vector<uint8_t>& b) {
    size_t i = 0;
    while (i < b.size() && b[i] == 0xFF) ++i;
    return i >= 1 && i < b.size() && b[i] == 0xD8 ? i + 1 : 0;
}

const char* detectKind(const std::vector<uint8_t>& b) {
    if (startsWith(b, "\x89PNG\r\n\x1a\n", 8)) return "PNG";
    if (jpegStart(b)) return "JPEG";
    if (startsWith(b, "BM", 2)) return "BMP";
    if (startsWith(b, "8BPS", 4)) return "PSD";
    if (startsWith(b, "#?RADIANCE", 10) || startsWith(b, "#?RGBE", 6)) return "HDR";
    if (startsWith(b, "\x76\x2f\x31\x01", 4)) return "EXR";
    if (startsWith(b, "GIF8", 4)) return "GIF";
    // Kinds the packaged decoder would take but the command does not read: its 16-bit PNM
    // path reads past its own buffer.
    if (startsWith(b, "P5", 2) || startsWith(b, "P6", 2)) return "PNM";
    if (startsWith(b, "\x53\x80\xf6\x34", 4)) return "PIC";
    return "TGA";  // TGA has no signature; the decoder's own checks decide
}

// Refuses empty and oversized images before their pixels are decoded.
bool checkDimensions(uint64_t width, uint64_t height, uint64_t bytesPerPixel, const ImageLimits& limits,
                     std::string& error) {
    if (width == 0 || height == 0) {
        error = "image has no pixels (" + std::to_string(width) + "x" + std::to_string(height) + ")";
        return false;
    }
    const std::string tooLarge = "image too large (" + std::to_string(width) + " x " + std::to_string(height) + "): ";
    if (width > limits.maxSide || height > limits.maxSide) {
        error = tooLarge + "the largest side accepted is " + std::to_string(limits.maxSide);
        return false;
    }
    if (width * height > limits.maxBytes / bytesPerPixel) {  // sides of up to 32 bits: no overflow
        error = tooLarge + "its pixels would take more than " + std::to_string(limits.maxBytes >> 20) + " MiB";
        return false;
    }
    return true;
}

uint32_t bigEndian32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

// The size a PNG's header claims is checked here: the decoder refuses sides beyond its own
// limit with no more than "unknown image type".
bool checkPngHeader(const std::vector<uint8_t>& b, const ImageLimits& limits, std::string& error) {
    if (b.size() < 24 || std::memcmp(b.data() + 12, "IHDR", 4) != 0) return true;  // the decoder says what is wrong
    return checkDimensions(bigEndian32(b.data() + 16), bigEndian32(b.data() + 20), 4, limits, error);
}

// The packaged PNG decoder sizes its buffer for the compressed data from the lengths the
// chunks claim before it reads them: a corrupt length makes it allocate up to gigabytes for a
// small file. A chunk must fit in the file (length, type, data and checksum).
bool pngChunksFit(const std::vector<uint8_t>& b) {
    size_t at = 8;
    while (at + 8 <= b.size()) {
        const uint64_t length = bigEndian32(b.data() + at);
        if (length + 12 > b.size() - at) return false;
        if (std::memcmp(b.data() + at + 4, "IEND", 4) == 0) return true;
        at += size_t(length) + 12;
    }
    return true;  // a truncated file: the decoder refuses it
}

// The packaged JPEG decoder trusts the symbol count of a Huffman table and writes past the
// table's arrays when it is above 256 (a corrupt or hostile file), even when only asked for
// the image's size; and it decodes a scan with a Huffman table the file never defined from
// uninitialised memory, reading out of bounds. Such files are refused here, from their
// markers, before it sees them.
bool jpegHuffmanTablesFit(const std::vector<uint8_t>& b) {
    bool defined[2][4] = {};  // DC and AC tables by id
    bool progressive = false;
    size_t i = jpegStart(b);
    while (i + 1 < b.size()) {
        if (b[i] != 0xFF) {  // entropy-coded data of a scan: up to the next marker
            ++i;
            continue;
        }
        const uint8_t marker = b[i + 1];
        // Stuffed zero bytes, restart markers and fill bytes carry no segment.
        if (marker == 0x00 || marker == 0xFF || (marker >= 0xD0 && marker <= 0xD7) || marker == 0x01) {
            i += marker == 0xFF ? 1 : 2;
            continue;
        }
        if (marker == 0xD9 || i + 3 >= b.size()) return true;  // end of image
        const size_t length = size_t(b[i + 2]) << 8 | b[i + 3];
        const size_t end = std::min(b.size(), i + 2 + length);
        if (marker == 0xC2) progressive = true;
        if (marker == 0xC4)  // define Huffman tables: class and id, 16 counts, the symbols
            for (size_t t = i + 4; t < end;) {
                size_t symbols = 0;  // the decoder reads missing bytes as 0
                for (size_t k = 1; k <= 16 && t + k < b.size(); ++k) symbols += b[t + k];
                if (symbols > 256) return false;
                const int tableClass = b[t] >> 4, id = b[t] & 15;
                if (tableClass <= 1 && id <= 3) defined[tableClass][id] = true;
                t += 17 + symbols;
            }
        if (marker == 0xDA && i + 4 < end) {  // start of scan: the tables its components use
            const size_t count = b[i + 4];
            const size_t spectralStart = i + 5 + 2 * count;
            if (spectralStart < end) {
                // A progressive scan uses the DC tables (first scan of a band from 0) or the AC
                // tables; a sequential scan both.
                const bool dc = !progressive || b[spectralStart] == 0, ac = !progressive || b[spectralStart] > 0;
                for (size_t k = 0; k < count; ++k) {
                    const uint8_t tables = b[i + 6 + 2 * k];
                    if ((dc && ((tables >> 4) > 3 || !defined[0][tables >> 4])) ||
                        (ac && ((tables & 15) > 3 || !defined[1][tables & 15])))
                        return false;
                }
            }
        }
        i = std::max(end, i + 2);
    }
    return true;
}

// The packaged Radiance decoder never leaves a run-length scanline holding a run of length 0,
// which a truncated or corrupt file gives (it reads 0 past the end). Such files are refused
// here: this walks the scanlines as the decoder does and stops where it would decode them
// flat or refuse them itself.
bool hdrScanlinesEnd(const std::vector<uint8_t>& b) {
    size_t p = 0;
    auto get8 = [&]() -> int { return p < b.size() ? b[p++] : 0; };
    auto line = [&]() {
        std::string text;
        while (p < b.size() && b[p] != '\n') text.push_back(char(b[p++]));
        if (p < b.size()) ++p;
        return text;
    };
    const std::string identifier = line();
    if (identifier != "#?RADIANCE" && identifier != "#?RGBE") return true;
    // The decoder reads each header line as a C string: a line that starts with a NUL byte ends
    // the header as an empty one does.
    for (std::string header = line(); !header.empty() && header[0] != '\0'; header = line()) {
    }
    const std::string resolution = line();
    if (resolution.compare(0, 3, "-Y ") != 0) return true;
    char* rest = nullptr;
    const long height = std::strtol(resolution.c_str() + 3, &rest, 10);
    while (*rest == ' ') ++rest;
    if (std::strncmp(rest, "+X ", 3) != 0) return true;
    const long width = std::strtol(rest + 3, nullptr, 10);
    if (width < 8 || width >= 32768) return true;  // flat scanlines
    for (long y = 0; y < height; ++y) {
        const int c1 = get8(), c2 = get8(), high = get8();
        if (c1 != 2 || c2 != 2 || (high & 0x80)) return true;  // the rest is read flat
        if ((high << 8 | get8()) != width) return true;         // refused by the decoder
        for (int channel = 0; channel < 4; ++channel)
            for (long x = 0; x < width;) {
                int count = get8();
                if (count > 128) {
                    count -= 128;
                    get8();
                } else {
                    for (int i = 0; i < count; ++i) get8();
                }
                if (count == 0) return false;
                if (count > width - x) return true;  // refused by the decoder
                x += count;
            }
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

// A decoder's reason as part of the one error line: the decoder may quote bytes of the file
// (the name of an unknown PNG chunk), so anything but printable ASCII becomes '?'.
std::string decoderReason(const char* why) {
    if (!why) return std::string();
    std::string text = std::string(": ") + why;
    for (char& c : text)
        if (c < 0x20 || c > 0x7E) c = '?';
    return text;
}

bool loadWithStb(const std::vector<uint8_t>& bytes, const char* kind, const ImageLimits& limits, Image& image,
                 std::string& error) {
    if (std::strcmp(kind, "PNG") == 0 && !checkPngHeader(bytes, limits, error)) return false;
    if (std::strcmp(kind, "PNG") == 0 && !pngChunksFit(bytes)) {
        error = "cannot decode PNG image: a chunk is longer than the file";
        return false;
    }
    if (std::strcmp(kind, "JPEG") == 0 && !jpegHuffmanTablesFit(bytes)) {
        error = "cannot decode JPEG image: corrupt or missing Huffman table";
        return false;
    }
    if (std::strcmp(kind, "HDR") == 0 && !hdrScanlinesEnd(bytes)) {
        error = "cannot decode HDR image: corrupt run-length data";
        return false;
    }
    const int len = int(bytes.size());
    int w = 0, h = 0, comp = 0;
    if (!stbi_info_from_memory(bytes.data(), len, &w, &h, &comp)) {
        error = std::string("not a supported image (PNG, JPEG, TGA, BMP, PSD, HDR, EXR)") +
                decoderReason(stbi_failure_reason());
        return false;
    }
    const bool hdr = stbi_is_hdr_from_memory(bytes.data(), len) != 0;
    if (!checkDimensions(uint64_t(w < 0 ? 0 : w), uint64_t(h < 0 ? 0 : h), hdr ? 16 : 4, limits, error)) return false;
    image.kind = kind;
    if (hdr) {
        float* p = stbi_loadf_from_memory(bytes.data(), len, &w, &h, &comp, 4);
        if (!p) {
            error = std::string("cannot decode ") + kind + " image" + decoderReason(stbi_failure_reason());
            return false;
        }
        if (!checkDimensions(uint64_t(w), uint64_t(h), 16, limits, error)) {
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
        error = std::string("cannot decode ") + kind + " image" + decoderReason(stbi_failure_reason());
        return false;
    }
    if (!checkDimensions(uint64_t(w), uint64_t(h), 4, limits, error)) {
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

bool loadExr(const std::string& path, const ImageLimits& limits, Image& image, std::string& error) {
#ifdef GLYPTORA_TOOLS_HAVE_OPENEXR
    try {
        // The reader refuses a larger data window while reading the header, before it
        // allocates anything for it.
        const int side = int(std::min<uint32_t>(limits.maxSide, INT_MAX));
        Imf::Header::setMaxImageSize(side, side);
        Imf::Header::setMaxTileSize(side, side);
        Imf::RgbaInputFile file(path.c_str());
        const Imath::Box2i window = file.dataWindow();
        const int64_t w = int64_t(window.max.x) - int64_t(window.min.x) + 1;
        const int64_t h = int64_t(window.max.y) - int64_t(window.min.y) + 1;
        if (!checkDimensions(uint64_t(w < 0 ? 0 : w), uint64_t(h < 0 ? 0 : h), 16, limits, error)) return false;
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
        error = "cannot decode EXR image" + decoderReason(what.c_str());
        return false;
    } catch (...) {
        error = "cannot decode EXR image";
        return false;
    }
#else
    (void)path;
    (void)limits;
    (void)image;
    error = "EXR images are not supported by this build (OpenEXR was not found)";
    return false;
#endif
}

}  // namespace

bool loadImage(const std::string& path, Image& image, std::string& error, const ImageLimits& limits) {
    image = Image();
    std::vector<uint8_t> bytes;
    if (!readWholeFile(path, bytes, error)) return false;
    const char* kind = detectKind(bytes);
    if (std::strcmp(kind, "PNM") == 0 || std::strcmp(kind, "PIC") == 0) {
        error = std::string("not a supported image (PNG, JPEG, TGA, BMP, PSD, HDR, EXR): ") + kind + " files are not read";
        return false;
    }
    if (std::strcmp(kind, "EXR") == 0) {
        bytes = std::vector<uint8_t>();
        return loadExr(path, limits, image, error);
    }
    return loadWithStb(bytes, kind, limits, image, error);
}

}  // namespace glyptora_tools
