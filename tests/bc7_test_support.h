#pragma once
// What the BC7 tests share: the squared error of a decoded block, and the check against
// Pillow, an independent decoder: the blocks go into a DX10 DDS with our decoder's pixels
// beside it, and tests/bc7_pillow_check.py compares the two and names any differing block.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bc7/bc7_decoder.h"

namespace bc7_test {

// Squared RGBA error (0..255 scale) of the decoded block over the valid texels of `region`
// (width in the low byte, height in the high byte); texels clamp to [0, 1] as encoders do.
inline double decodedError(const uint8_t block[16], const float tex[64], uint16_t region) {
    uint8_t rgba[64];
    glyptora_bc7::decodeBC7Block(block, rgba);
    double err = 0.0;
    for (int y = 0; y < (region >> 8); ++y)
        for (int x = 0; x < (region & 0xFF); ++x)
            for (int c = 0; c < 4; ++c) {
                float v = tex[(y * 4 + x) * 4 + c];
                v = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;
                const double d = double(rgba[(y * 4 + x) * 4 + c]) - double(v * 255.0f);
                err += d * d;
            }
    return err;
}

inline std::string findPythonWithPillow() {
    const char* env = std::getenv("GLYPTORA_PYTHON");
    for (const std::string python : {env ? env : "python3", "python3", "/usr/bin/python3"})
        if (std::system((python + " -c 'import PIL.DdsImagePlugin' > /dev/null 2>&1").c_str()) == 0) return python;
    return "";
}

// A DX10 DDS holding the blocks as one BC7_UNORM (98) image, `columns` blocks wide.
inline void writeDDS(const std::string& path, const std::vector<uint8_t>& blocks, int columns, int rows) {
    // "DDS ", header size, flags (caps, height, width, pixel format, linear size), height,
    // width, linear size, depth, one level.
    uint32_t header[37] = {0x20534444, 124, 0x1 | 0x2 | 0x4 | 0x1000 | 0x80000, uint32_t(rows * 4),
                           uint32_t(columns * 4), uint32_t(blocks.size()), 0, 1};
    header[19] = 32, header[20] = 0x4, header[21] = 0x30315844;  // pixel format: four-cc "DX10"
    header[27] = 0x1000;                                           // caps: texture
    header[32] = 98, header[33] = 3, header[35] = 1;               // BC7_UNORM, 2D texture, one element
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(header), sizeof header);
    out.write(reinterpret_cast<const char*>(blocks.data()), std::streamsize(blocks.size()));
}

// Skips (after the caller's own checks) when no python3 with Pillow is present.
inline void expectPillowDecodesAsWeDo(std::vector<uint8_t> blocks, const std::vector<std::string>& labels) {
    const std::string python = findPythonWithPillow();
    if (python.empty()) GTEST_SKIP() << "checked against our decoder only: no python3 with Pillow";
    const int columns = 16, rows = (int(labels.size()) + columns - 1) / columns, width = columns * 4;
    while (int(blocks.size()) < rows * columns * 16) blocks.insert(blocks.end(), blocks.end() - 16, blocks.end());
    std::vector<uint8_t> expected(size_t(width) * size_t(rows * 4) * 4);
    for (int b = 0; b < rows * columns; ++b) {
        uint8_t rgba[64];
        glyptora_bc7::decodeBC7Block(&blocks[size_t(b) * 16], rgba);
        const int bx = b % columns, by = b / columns;
        for (int y = 0; y < 4; ++y)
            for (int i = 0; i < 16; ++i) expected[(size_t(by * 4 + y) * width + bx * 4) * 4 + i] = rgba[y * 16 + i];
    }
    std::string dir = ::testing::TempDir() + "bc7_pillow_XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    writeDDS(dir + "/blocks.dds", blocks, columns, rows);
    std::ofstream(dir + "/expected.rgba", std::ios::binary)
        .write(reinterpret_cast<const char*>(expected.data()), std::streamsize(expected.size()));
    std::ofstream labelFile(dir + "/labels.txt");
    for (const std::string& l : labels) labelFile << l << "\n";
    labelFile.close();
    const std::string command = python + " " GLYPTORA_SOURCE_DIR "/tests/bc7_pillow_check.py " + dir;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

}  // namespace bc7_test
