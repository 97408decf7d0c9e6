// Single-thread speed of the BC7 mode search (encodeBC7BlockExhaustive) on blocks
// taken evenly from the bench photographs, and a hash of the blocks it writes, so
// that a faster version can be shown to write the same blocks.
//
// usage: glyptora_bc7_modes_bench --corpus DIR [--blocks N] [--alpha]
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bc7/bc7_modes.h"
#include "bench/block_hash.h"
#include "tools/image_io.h"

namespace {

const char* const kPhotos[] = {"astronaut.png", "chelsea.png", "coffee.png",
                               "logo.png",      "rocket.jpg",  "hubble_deep_field.jpg"};

}  // namespace

int main(int argc, char** argv) {
    std::string corpus = "/usr/lib/python3/dist-packages/skimage/data";
    int perPhoto = 100;
    bool alphaMatters = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--corpus" && i + 1 < argc) corpus = argv[++i];
        else if (arg == "--blocks" && i + 1 < argc) perPhoto = std::max(1, std::atoi(argv[++i]) / 6);
        else if (arg == "--alpha") alphaMatters = true;
        else {
            std::fprintf(stderr, "usage: %s [--corpus DIR] [--blocks N] [--alpha]\n", argv[0]);
            return 2;
        }
    }
    // Blocks spread evenly over each photo, as 0..1 floats.
    std::vector<float> blocks;
    for (const char* name : kPhotos) {
        glyptora_tools::Image image;
        std::string error;
        if (!glyptora_tools::loadImage(corpus + "/" + name, image, error) || image.isFloat) {
            std::fprintf(stderr, "%s: %s\n", name, error.c_str());
            return 1;
        }
        const uint32_t bw = image.width / 4, bh = image.height / 4, total = bw * bh;
        for (int n = 0; n < perPhoto; ++n) {
            const uint32_t b = uint32_t(uint64_t(total) * uint64_t(n) / uint64_t(perPhoto));
            const uint32_t x0 = b % bw * 4, y0 = b / bw * 4;
            for (uint32_t y = 0; y < 4; ++y)
                for (uint32_t x = 0; x < 4; ++x)
                    for (int c = 0; c < 4; ++c)
                        blocks.push_back(image.u8[((y0 + y) * image.width + x0 + x) * 4 + c] / 255.0f);
        }
    }
    const size_t count = blocks.size() / 64;
    std::vector<uint8_t> out(count * 16);
    int modes[8] = {};
    const auto start = std::chrono::steady_clock::now();
    for (size_t b = 0; b < count; ++b)
        glyptora_bc7::encodeBC7BlockExhaustive(&blocks[b * 64], 0x0404, alphaMatters, &out[b * 16]);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // The mode of a block is the position of the lowest set bit of its first byte.
    for (size_t b = 0; b < count; ++b)
        if (out[b * 16] != 0) ++modes[__builtin_ctz(out[b * 16])];
    std::printf("%zu blocks in %.3f s: %.0f blocks/s, %.4f Mpix/s (one thread)\n", count, seconds,
                count / seconds, count * 16 / seconds / 1e6);
    std::printf("modes kept:");
    for (int m = 0; m < 8; ++m) std::printf(" %d:%d", m, modes[m]);
    std::printf("\nblock hash: %016llx\n", (unsigned long long)blockHash(out.data(), out.size()));
    return 0;
}
