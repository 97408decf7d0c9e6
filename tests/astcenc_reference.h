#pragma once
// The reference ASTC decoder, Debian's astcenc run as a program only (astcenc -dl): whether it
// is installed, and its RGBA8 image of a run of blocks. Each test executable includes this once:
// it also compiles the PNG reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wunused-function"
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#include <stb/stb_image.h>
#pragma GCC diagnostic pop

inline bool haveAstcenc() {
    static const bool installed = std::system("command -v astcenc > /dev/null 2>&1") == 0;
    return installed;
}

// Writes `blocks` of a bw x bh footprint as a w x h .astc file and reads back astcenc's decode;
// on failure returns false and says why.
inline bool astcencDecode(const std::vector<uint8_t>& blocks, int bw, int bh, uint32_t w, uint32_t h,
                          std::vector<uint8_t>& rgba, std::string& why) {
    std::string dir = ::testing::TempDir() + "astcenc_XXXXXX";
    if (!mkdtemp(dir.data())) return why = "no temporary folder", false;
    const uint8_t header[16] = {0x13, 0xAB, 0xA1, 0x5C, uint8_t(bw), uint8_t(bh), 1,
                                uint8_t(w), uint8_t(w >> 8), uint8_t(w >> 16),
                                uint8_t(h), uint8_t(h >> 8), uint8_t(h >> 16), 1, 0, 0};
    std::ofstream file(dir + "/blocks.astc", std::ios::binary);
    file.write(reinterpret_cast<const char*>(header), 16);
    file.write(reinterpret_cast<const char*>(blocks.data()), std::streamsize(blocks.size()));
    file.close();
    const std::string command = "astcenc -dl " + dir + "/blocks.astc " + dir + "/out.png > " + dir + "/log.txt 2>&1";
    int x = 0, y = 0, n = 0;
    stbi_uc* pixels = std::system(command.c_str()) == 0 ? stbi_load((dir + "/out.png").c_str(), &x, &y, &n, 4) : nullptr;
    const bool ok = pixels && uint32_t(x) == w && uint32_t(y) == h;
    if (ok) rgba.assign(pixels, pixels + size_t(w) * h * 4);
    else why = "no readable output of " + command;
    stbi_image_free(pixels);
    std::system(("rm -rf " + dir).c_str());
    return ok;
}

// Where astcenc is installed, its decode of a w x h image of `blocks` must be `ours`.
inline void expectAstcencDecodesAs(const std::vector<uint8_t>& blocks, int bw, int bh, uint32_t w, uint32_t h,
                                   const std::vector<uint8_t>& ours) {
    std::vector<uint8_t> reference;
    std::string why;
    if (!haveAstcenc()) return;
    ASSERT_TRUE(astcencDecode(blocks, bw, bh, w, h, reference, why)) << why;
    EXPECT_TRUE(ours == reference);
}
