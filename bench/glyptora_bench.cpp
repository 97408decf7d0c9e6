// Compression bench: converts a corpus of photographs and generated images per format and
// quality, and prints a markdown report of throughput (one thread and all threads) and RGB
// PSNR (per image and aggregated over the set). The HDR formats (BC6H) run on a set of EXR
// images instead and report RMSLE and the PSNR of values clamped to [0, 1].
//
// usage: glyptora_bench [--corpus DIR] [--hdr-corpus DIR] [--quality fastest,normal,...]
//                       [--threads N] [--min-time SECONDS] [--photos-only] [FORMAT...]
#include <tbb/global_control.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "frontend/conversion_entry.h"
#include "tools/block_decode.h"
#include "tools/formats.h"
#include "tools/image_io.h"
#include "tools/mip_chain.h"
#include "tools/quality_metrics.h"

using namespace glyptora_tools;

namespace {

struct BenchImage {
    std::string name;
    bool photo = false;
    Image image;
};

// ---------------------------------------------------------------------------------------
// Generated images, 256x256, deterministic.

constexpr uint32_t kGeneratedSide = 256;

uint8_t toByte(double v) { return uint8_t(std::lround(std::clamp(v, 0.0, 1.0) * 255.0)); }

Image blankImage() {
    Image img;
    img.width = img.height = kGeneratedSide;
    img.u8.assign(size_t(kGeneratedSide) * kGeneratedSide * 4, 255);
    img.kind = "generated";
    return img;
}

template <typename Pixel>
Image generate(Pixel&& pixel) {
    Image img = blankImage();
    for (uint32_t y = 0; y < kGeneratedSide; ++y)
        for (uint32_t x = 0; x < kGeneratedSide; ++x) {
            const double u = x / double(kGeneratedSide - 1), v = y / double(kGeneratedSide - 1);
            pixel(u, v, x, y, &img.u8[(size_t(y) * kGeneratedSide + x) * 4]);
        }
    return img;
}

// Smooth ramps in three directions plus a radial falloff.
Image gradientImage() {
    return generate([](double u, double v, uint32_t, uint32_t, uint8_t* p) {
        const double radial = 1.0 - std::hypot(u - 0.5, v - 0.5);
        p[0] = toByte(u);
        p[1] = toByte(v * radial);
        p[2] = toByte(0.5 * (1 - u) + 0.5 * v);
    });
}

// Uniform white noise: the hardest case for every block format.
Image noiseImage() {
    uint32_t state = 0x12345678u;
    return generate([&](double, double, uint32_t, uint32_t, uint8_t* p) {
        for (int c = 0; c < 3; ++c) {
            state = state * 1664525u + 1013904223u;
            p[c] = uint8_t(state >> 24);
        }
    });
}

// Coloured shapes with a soft-edged alpha mask and a fully transparent region.
Image alphaMaskImage() {
    return generate([](double u, double v, uint32_t x, uint32_t y, uint8_t* p) {
        p[0] = toByte(0.8 * u + 0.2);
        p[1] = toByte(0.3 + 0.5 * std::sin(6.0 * v));
        p[2] = toByte(((x / 32 + y / 32) % 2) ? 0.9 : 0.2);
        const double d = std::hypot(u - 0.5, v - 0.5);
        double alpha = std::clamp((0.4 - d) / 0.08, 0.0, 1.0);
        if (u > 0.8) alpha = 0.0;
        p[3] = toByte(alpha);
    });
}

// Tangent-space normals of a field of bumps, stored as n * 0.5 + 0.5.
Image normalMapImage() {
    auto height = [](double u, double v) {
        return 0.08 * std::sin(18.0 * u) * std::cos(14.0 * v) + 0.15 * std::exp(-40.0 * ((u - 0.3) * (u - 0.3) + (v - 0.6) * (v - 0.6)));
    };
    const double h = 1.0 / kGeneratedSide;
    return generate([&](double u, double v, uint32_t, uint32_t, uint8_t* p) {
        const double dx = (height(u + h, v) - height(u - h, v)) / (2 * h);
        const double dy = (height(u, v + h) - height(u, v - h)) / (2 * h);
        const double len = std::sqrt(dx * dx + dy * dy + 1.0);
        p[0] = toByte(0.5 - 0.5 * dx / len);
        p[1] = toByte(0.5 - 0.5 * dy / len);
        p[2] = toByte(0.5 + 0.5 / len);
    });
}

// ---------------------------------------------------------------------------------------

struct Options {
    std::string corpus = "/usr/lib/python3/dist-packages/skimage/data";
    std::string hdrCorpus = "/usr/share/blender/datafiles/studiolights/matcap";
    std::vector<int> qualities = {0, 1, 2, 3};
    unsigned threads = std::max(1u, std::thread::hardware_concurrency());
    double minSeconds = 0.2;
    bool photosOnly = false;  // leave the generated images out (figures comparable to the photos' alone)
    std::vector<const FormatDesc*> formats;
};

// Best time of one conversion, repeated until `minSeconds` have passed (at most 50 runs).
double timeConversion(const std::vector<uint8_t>& source, std::vector<uint8_t>& out, const FormatDesc& format,
                      const char* sourceWord, const char* quality, const Image& img, double minSeconds,
                      bool& ok) {
    double best = 1e30, total = 0;
    for (int run = 0; run < 50 && (run == 0 || total < minSeconds); ++run) {
        const auto start = std::chrono::steady_clock::now();
        ok = glyptora_internal::convertNarrow(out.data(), source.data(), format.word, sourceWord, quality, 0, 0,
                                              img.width, img.height, 1, 1) == glyptora_internal::Status::Ok;
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (!ok) return 0;
        best = std::min(best, s);
        total += s;
    }
    return best;
}

struct Row {
    const FormatDesc* format = nullptr;
    int quality = 0;
    double seconds1 = 0, secondsN = 0;  // summed best times over the corpus
    uint64_t pixels = 0;
    ErrorSum photos, generated;
    ErrorSum alphaImages;  // R, G, B and A over the images that have alpha
    HdrErrorSum hdr;
    std::vector<double> perImage;
    bool isHdr() const { return format->family == BlockFamily::BC6H; }
};

// Every EXR image of `folder`, in name order.
std::vector<BenchImage> loadHdrCorpus(const std::string& folder) {
    std::vector<std::string> paths;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ec))
        if (entry.path().extension() == ".exr") paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    std::vector<BenchImage> images;
    for (const std::string& path : paths) {
        BenchImage b;
        std::string error;
        if (!loadImage(path, b.image, error)) {
            std::fprintf(stderr, "glyptora_bench: %s: %s (skipped)\n", path.c_str(), error.c_str());
            continue;
        }
        b.name = std::filesystem::path(path).stem().string();
        images.push_back(std::move(b));
    }
    return images;
}

std::string psnrText(double db) {
    if (std::isinf(db)) return "inf";
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.2f", db);
    return buffer;
}

std::string cpuName() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("model name", 0) == 0) {
            const size_t colon = line.find(':');
            if (colon != std::string::npos) return line.substr(colon + 2);
        }
    return "unknown CPU";
}

int usage(const char* why) {
    std::fprintf(stderr, "glyptora_bench: %s\n", why);
    std::fprintf(stderr,
                 "usage: glyptora_bench [--corpus DIR] [--hdr-corpus DIR] [--quality fastest,normal,...] [--threads N] "
                 "[--min-time SECONDS] [--photos-only] [FORMAT...]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (arg == "--corpus" || arg == "--hdr-corpus") {
            const char* v = value();
            if (!v) return usage((arg + " needs a folder").c_str());
            (arg == "--corpus" ? opt.corpus : opt.hdrCorpus) = v;
        } else if (arg == "--quality") {
            const char* v = value();
            if (!v) return usage("--quality needs a list");
            opt.qualities.clear();
            std::string list = v;
            size_t start = 0;
            while (start <= list.size()) {
                const size_t comma = std::min(list.find(',', start), list.size());
                const int q = parseQuality(list.substr(start, comma - start));
                if (q < 0) return usage("unknown quality in --quality");
                opt.qualities.push_back(q);
                start = comma + 1;
            }
        } else if (arg == "--threads") {
            const char* v = value();
            if (!v || std::atoi(v) < 1) return usage("--threads needs a count");
            opt.threads = unsigned(std::atoi(v));
        } else if (arg == "--min-time") {
            const char* v = value();
            if (!v) return usage("--min-time needs seconds");
            opt.minSeconds = std::atof(v);
        } else if (arg == "--photos-only") {
            opt.photosOnly = true;
        } else if (arg == "--list") {
            for (const FormatDesc& f : allFormats())
                if (!unavailableReason(f)) std::printf("%s\n", f.word);
            return 0;
        } else if (!arg.empty() && arg[0] == '-') {
            return usage(("unknown option " + arg).c_str());
        } else {
            const FormatDesc* f = findFormat(arg);
            if (!f) return usage(("unknown format " + arg).c_str());
            if (const char* why = unavailableReason(*f)) {
                std::fprintf(stderr, "glyptora_bench: %s is not available: %s\n", f->word, why);
                return 1;
            }
            opt.formats.push_back(f);
        }
    }
    if (opt.formats.empty())
        for (const FormatDesc& f : allFormats())
            if (!unavailableReason(f)) opt.formats.push_back(&f);

    // Corpus: the colour photographs, then the generated images.
    std::vector<BenchImage> corpus;
    const char* const kPhotos[] = {"astronaut.png", "chelsea.png", "coffee.png",
                                   "logo.png",      "rocket.jpg",  "hubble_deep_field.jpg"};
    for (const char* name : kPhotos) {
        BenchImage b;
        std::string error;
        if (!loadImage(opt.corpus + "/" + name, b.image, error)) {
            std::fprintf(stderr, "glyptora_bench: %s/%s: %s (skipped)\n", opt.corpus.c_str(), name, error.c_str());
            continue;
        }
        b.name = name;
        b.name.resize(b.name.find('.'));
        b.photo = true;
        corpus.push_back(std::move(b));
    }
    if (!opt.photosOnly) {
        corpus.push_back({"gradient", false, gradientImage()});
        corpus.push_back({"noise", false, noiseImage()});
        corpus.push_back({"alpha_mask", false, alphaMaskImage()});
        corpus.push_back({"normal_map", false, normalMapImage()});
    }
    std::vector<BenchImage> hdrCorpus;
    if (std::any_of(opt.formats.begin(), opt.formats.end(),
                    [](const FormatDesc* f) { return f->family == BlockFamily::BC6H; })) {
        hdrCorpus = loadHdrCorpus(opt.hdrCorpus);
        if (hdrCorpus.empty()) {
            std::fprintf(stderr, "glyptora_bench: no EXR images in %s (install blender-data)\n", opt.hdrCorpus.c_str());
            return 1;
        }
    }

    std::vector<Row> rows;
    for (const FormatDesc* format : opt.formats)
        for (int quality : opt.qualities) {
            Row row;
            row.format = format;
            row.quality = quality;
            const char* qualityWord = kQualityWords[quality];
            std::fprintf(stderr, "%s %s ...\n", format->word, qualityWord);
            for (const BenchImage& b : row.isHdr() ? hdrCorpus : corpus) {
                const SourceChain chain = buildSourceChain(b.image, 1, format->isSrgb);
                const char* sourceWord =
                    chain.isFloat ? "float_32_32_32_32" : (format->isSrgb ? "srgb_8_8_8_8" : "unorm_8_8_8_8");
                std::vector<uint8_t> out(size_t(levelBytes(*format, chain.width, chain.height)));
                bool ok = true;
                {
                    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, 1);
                    row.seconds1 += timeConversion(chain.bytes, out, *format, sourceWord, qualityWord, b.image,
                                                   opt.minSeconds, ok);
                }
                if (ok) {
                    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, opt.threads);
                    row.secondsN += timeConversion(chain.bytes, out, *format, sourceWord, qualityWord, b.image,
                                                   opt.minSeconds, ok);
                }
                if (!ok) {
                    std::fprintf(stderr, "glyptora_bench: %s: the library refused %s\n", b.name.c_str(),
                                 format->word);
                    return 1;
                }
                row.pixels += uint64_t(chain.width) * chain.height;
                if (row.isHdr()) {
                    std::vector<float> decoded;
                    decodeLevelFloat(*format, out.data(), chain.width, chain.height, decoded);
                    const std::vector<float> reference = floatReference(chain, 0);
                    row.hdr.add(compareHdr(reference.data(), decoded.data(), size_t(chain.width) * chain.height,
                                           format->isSigned));
                    continue;
                }
                std::vector<uint8_t> decoded;
                decodeLevel(*format, out.data(), chain.width, chain.height, decoded);
                const std::vector<uint8_t> reference = encoderReference(chain, 0, *format);
                const ErrorSum e = compareRgba8(reference.data(), decoded.data(), size_t(chain.width) * chain.height,
                                                primaryChannels(*format), format->isSigned);
                (b.photo ? row.photos : row.generated).add(e);
                row.perImage.push_back(e.psnr());
                if (b.image.hasAlpha() && primaryChannels(*format) == kChannelsRGB)
                    row.alphaImages.add(compareRgba8(reference.data(), decoded.data(),
                                                     size_t(chain.width) * chain.height, kChannelsRGBA, false));
            }
            rows.push_back(std::move(row));
        }

    const unsigned threads = opt.threads;
    std::printf("# Glyptora bench\n\n");
    std::printf("CPU: %s, %u hardware threads; all-threads columns use %u. Level 0 only; times are the best of "
                "repeated runs of the whole conversion call. PSNR over R, G, B (R for BC4, R and G for BC5); "
                "aggregate PSNR is that of the summed squared error over the set; the last column adds alpha "
                "over the images that have it.\n\n",
                cpuName().c_str(), std::thread::hardware_concurrency(), threads);
    std::printf("## Throughput and aggregate PSNR\n\n");
    std::printf("| format | quality | MP/s, 1 thread | MP/s, %u threads | PSNR photos (dB) | PSNR generated (dB) | "
                "PSNR RGBA, images with alpha (dB) |\n",
                threads);
    std::printf("|---|---|---:|---:|---:|---:|---:|\n");
    // Megapixels per second with three significant digits below 1 (the slow searches).
    const auto mps = [](const Row& r, double seconds) {
        const double v = seconds > 0 ? double(r.pixels) / seconds * 1e-6 : 0.0;
        char text[32];
        std::snprintf(text, sizeof text, v >= 1 || v == 0 ? "%.2f" : "%.3g", v);
        return std::string(text);
    };
    for (const Row& r : rows)
        if (!r.isHdr())
            std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", r.format->word, kQualityWords[r.quality],
                        mps(r, r.seconds1).c_str(), mps(r, r.secondsN).c_str(), psnrText(r.photos.psnr()).c_str(),
                        r.generated.values ? psnrText(r.generated.psnr()).c_str() : "-",
                        r.alphaImages.values ? psnrText(r.alphaImages.psnr()).c_str() : "-");
    if (!hdrCorpus.empty()) {
        std::printf("\n## HDR formats on %zu EXR images\n\nRMSLE of log2(1 + x) over R, G, B (lower is better); "
                    "PSNR of the values clamped to [0, 1].\n\n",
                    hdrCorpus.size());
        std::printf("| format | quality | MP/s, 1 thread | MP/s, %u threads | RMSLE | PSNR clamped (dB) |\n", threads);
        std::printf("|---|---|---:|---:|---:|---:|\n");
        for (const Row& r : rows)
            if (r.isHdr())
                std::printf("| %s | %s | %s | %s | %.5f | %s |\n", r.format->word, kQualityWords[r.quality],
                            mps(r, r.seconds1).c_str(), mps(r, r.secondsN).c_str(), r.hdr.rmsle(),
                            psnrText(r.hdr.clampedPsnr()).c_str());
    }

    std::printf("\n## PSNR per image (dB)\n\n| format | quality |");
    for (const BenchImage& b : corpus) std::printf(" %s |", b.name.c_str());
    std::printf("\n|---|---|");
    for (size_t i = 0; i < corpus.size(); ++i) std::printf("---:|");
    std::printf("\n");
    for (const Row& r : rows) {
        if (r.isHdr()) continue;
        std::printf("| %s | %s |", r.format->word, kQualityWords[r.quality]);
        for (double db : r.perImage) std::printf(" %s |", psnrText(db).c_str());
        std::printf("\n");
    }
    if (std::any_of(rows.begin(), rows.end(), [](const Row& r) { return r.format->family == BlockFamily::BC1; }))
        std::printf("\nBC1 keeps one bit of alpha and decodes pixels with alpha below one half as transparent black, "
                    "so its RGB PSNR on alpha_mask counts the colour of those pixels as lost.\n");
    std::printf("\nImages:");
    for (size_t i = 0; i < corpus.size(); ++i)
        std::printf("%s %s %ux%u", i ? "," : "", corpus[i].name.c_str(), corpus[i].image.width,
                    corpus[i].image.height);
    std::printf(".\n");
    return 0;
}
