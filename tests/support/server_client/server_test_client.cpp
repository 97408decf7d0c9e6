// A host program for the conversion server tests, run as separate client processes.
//   server_test_client repeat <count> <seed>  converts <count> small random textures through
//       the server and in process; exits 1 at the first difference or failure.
//   server_test_client slow <size>            one slow conversion (BC7 "highest" of a noisy
//       <size> x <size> texture) through the server; exits 1 when it fails.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "glyptora.h"

namespace {

std::vector<uint8_t> noise(std::mt19937& random, size_t bytes) {
    std::vector<uint8_t> pixels(bytes);
    for (uint8_t& p : pixels) p = uint8_t(random());
    return pixels;
}

int repeat(int count, unsigned seed) {
    struct Format {
        const wchar_t* name;
        int blockBytes;
    };
    const Format formats[] = {{L"unorm_bc1", 8}, {L"srgb_bc2", 16},  {L"unorm_bc3", 16},
                              {L"unorm_bc4", 8}, {L"snorm_bc5", 16}, {L"unorm_bc7", 16}};
    std::mt19937 random(seed);
    for (int i = 0; i < count; ++i) {
        const Format& f = formats[random() % 6];
        const uint32_t w = 1 + random() % 16, h = 1 + random() % 16;
        const std::vector<uint8_t> source = noise(random, size_t(w) * h * 4);
        const size_t bytes = size_t((w + 3) / 4) * ((h + 3) / 4) * f.blockBytes;
        std::vector<uint8_t> inProcess(bytes), served(bytes, 0xCD);
        const wchar_t* options = random() % 2 ? L"fastest" : L"normal";
        if (!GlyptoraConvert(inProcess.data(), source.data(), f.name, L"unorm_8_8_8_8", options, 0, 0, w, h, 1, 1) ||
            !GlyptoraConvert(served.data(), source.data(), f.name, L"unorm_8_8_8_8", options, 0x20, 0, w, h, 1, 1) ||
            served != inProcess) {
            std::fprintf(stderr, "request %d (%ls %ux%u) failed or differs\n", i, f.name, w, h);
            return 1;
        }
    }
    return 0;
}

int slow(uint32_t size) {
    std::mt19937 random(size);
    const std::vector<uint8_t> source = noise(random, size_t(size) * size * 4);
    std::vector<uint8_t> destination(size_t((size + 3) / 4) * ((size + 3) / 4) * 16);
    return GlyptoraConvert(destination.data(), source.data(), L"unorm_bc7", L"unorm_8_8_8_8", L"highest", 0x20, 0, size,
                           size, 1, 1)
               ? 0
               : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "repeat") == 0)
        return repeat(std::atoi(argv[2]), unsigned(std::atoi(argv[3])));
    if (argc == 3 && std::strcmp(argv[1], "slow") == 0) return slow(uint32_t(std::atoi(argv[2])));
    std::fprintf(stderr, "usage: %s repeat <count> <seed> | slow <size>\n", argv[0]);
    return 2;
}
