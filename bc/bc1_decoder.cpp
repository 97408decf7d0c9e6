#include "bc/bc1_decoder.h"

namespace glyptora_dxt {

void decodeBC1Block(const uint8_t block[8], uint8_t rgba[64], bool allowThreeColour) {
    const unsigned col0 = unsigned(block[0]) | (unsigned(block[1]) << 8);
    const unsigned col1 = unsigned(block[2]) | (unsigned(block[3]) << 8);
    const uint32_t indices = uint32_t(block[4]) | (uint32_t(block[5]) << 8) | (uint32_t(block[6]) << 16) |
                             (uint32_t(block[7]) << 24);
    int palette[4][4];
    const unsigned cols[2] = {col0, col1};
    for (int e = 0; e < 2; ++e) {
        const int r = int(cols[e] >> 11) & 31, g = int(cols[e] >> 5) & 63, b = int(cols[e]) & 31;
        palette[e][0] = (r << 3) | (r >> 2);
        palette[e][1] = (g << 2) | (g >> 4);
        palette[e][2] = (b << 3) | (b >> 2);
        palette[e][3] = 255;
    }
    if (col0 > col1 || !allowThreeColour) {
        for (int c = 0; c < 3; ++c) {
            palette[2][c] = (2 * palette[0][c] + palette[1][c]) / 3;
            palette[3][c] = (palette[0][c] + 2 * palette[1][c]) / 3;
        }
        palette[2][3] = palette[3][3] = 255;
    } else {
        for (int c = 0; c < 3; ++c) {
            palette[2][c] = (palette[0][c] + palette[1][c]) / 2;
            palette[3][c] = 0;
        }
        palette[2][3] = 255;
        palette[3][3] = 0;
    }
    for (int i = 0; i < 16; ++i) {
        const int index = int(indices >> (2 * i)) & 3;
        for (int c = 0; c < 4; ++c) rgba[4 * i + c] = uint8_t(palette[index][c]);
    }
}

}  // namespace glyptora_dxt
