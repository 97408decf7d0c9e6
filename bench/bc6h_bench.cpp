// Single-thread speed of the BC6H block encoders (fast, or the search with --search) on
// blocks taken evenly from the EXR matcaps, and a hash of the blocks they write, so that
// a faster version can be shown to write the same blocks.
//
// usage: glyptora_bc6h_bench [--corpus DIR] [--blocks N] [--search] [--signed]
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bc6h/bc6h_cpu.h"
#include "bench/block_hash.h"
#include "tools/image_io.h"

int main(int argc, char** argv) {
    std::string corpus = "/usr/share/blender/datafiles/studiolights/matcap";
    int wanted = 2300;
    bool search = false, isSigned = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--corpus" && i + 1 < argc) corpus = argv[++i];
        else if (arg == "--blocks" && i + 1 < argc) wanted = std::max(1, std::atoi(argv[++i]));
        else if (arg == "--search") search = true;
        else if (arg == "--signed") isSigned = true;
        else {
            std::fprintf(stderr, "usage: %s [--corpus DIR] [--blocks N] [--search] [--signed]\n", argv[0]);
            return 2;
        }
    }
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(corpus, ec))
        if (entry.path().extension() == ".exr") names.push_back(entry.path().string());
    std::sort(names.begin(), names.end());
    if (names.empty()) {
        std::fprintf(stderr, "no .exr images in %s (install blender-data)\n", corpus.c_str());
        return 1;
    }
    // Blocks spread evenly over each image. Signed runs shift the values down so that
    // negative texels occur.
    const int perImage = std::max(1, wanted / int(names.size()));
    std::vector<float> blocks;
    for (const std::string& name : names) {
        glyptora_tools::Image image;
        std::string error;
        if (!glyptora_tools::loadImage(name, image, error) || !image.isFloat) {
            std::fprintf(stderr, "%s: %s\n", name.c_str(), error.c_str());
            return 1;
        }
        const uint32_t bw = image.width / 4, bh = image.height / 4, total = bw * bh;
        for (int n = 0; n < perImage; ++n) {
            const uint32_t b = uint32_t(uint64_t(total) * uint64_t(n) / uint64_t(perImage));
            const uint32_t x0 = b % bw * 4, y0 = b / bw * 4;
            for (uint32_t y = 0; y < 4; ++y)
                for (uint32_t x = 0; x < 4; ++x)
                    for (int c = 0; c < 4; ++c) {
                        const float v = image.f32[((y0 + y) * image.width + x0 + x) * 4 + c];
                        blocks.push_back(isSigned && c < 3 ? v - 0.25f : v);
                    }
        }
    }
    const size_t count = blocks.size() / 64;
    std::vector<uint8_t> out(count * 16);
    const auto start = std::chrono::steady_clock::now();
    // The fast encoder is timed over several rounds so that the clock sees enough work.
    const int rounds = search ? 1 : 50;
    for (int r = 0; r < rounds; ++r)
        for (size_t b = 0; b < count; ++b) {
            if (search)
                glyptora_bc6h::encodeBC6HBlockSearch(&blocks[b * 64], 0x0404, isSigned, &out[b * 16]);
            else
                glyptora_bc6h::encodeBC6HBlockFast(&blocks[b * 64], 0x0404, isSigned, &out[b * 16]);
        }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double encoded = double(count) * rounds;
    std::printf("%s %s: %zu blocks x %d in %.3f s: %.0f blocks/s, %.3f Mpix/s (one thread)\n",
                search ? "search" : "fast", isSigned ? "signed" : "unsigned", count, rounds, seconds,
                encoded / seconds, encoded * 16 / seconds / 1e6);
    std::printf("block hash: %016llx\n", (unsigned long long)blockHash(out.data(), out.size()));
    return 0;
}
