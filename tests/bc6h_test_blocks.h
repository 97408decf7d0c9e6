#pragma once
// Varied blocks of the BC6H encoder tests: random HDR texels, smooth gradients, constants,
// two-colour edges along a partition shape, partial edge blocks, values around zero
// (negatives), inf and NaN, and in partial blocks values from half denormals to past the
// largest half with -0 and other specials. bc6h_search_test pins the search's blocks of them.
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "bc7/bc7_tables.h"
#include "lcg.h"

struct BC6HSample {
    float tex[64];
    uint16_t region = 0x0404;
};

inline std::vector<BC6HSample> bc6hSampleBlocks(int perKind) {
    constexpr float kInf = std::numeric_limits<float>::infinity(), kNaN = std::numeric_limits<float>::quiet_NaN();
    const float specials[] = {70000.0f, -0.0f, 1e-7f, -3.0f, 65504.0f};
    Lcg rng{12345};
    std::vector<BC6HSample> samples;
    for (int kind = 0; kind < 8; ++kind)
        for (int n = 0; n < perKind; ++n) {
            BC6HSample s;
            float base[2][3], dx[3], dy[3];
            for (int c = 0; c < 3; ++c) {
                const float m = rng.magnitude();
                base[0][c] = m * rng.unit(), base[1][c] = m * rng.unit() * 4.0f;
                dx[c] = m * (rng.unit() - 0.5f) * 0.3f, dy[c] = m * (rng.unit() - 0.5f) * 0.3f;
            }
            const int shape = int(rng.next() % 64);
            for (int i = 0; i < 16; ++i) {
                const int x = i % 4, y = i / 4;
                for (int c = 0; c < 4; ++c) {
                    float v = 1.0f;
                    if (c < 3) switch (kind) {
                        case 0: v = rng.magnitude() * (rng.unit() < 0.2f ? -1.0f : 1.0f); break;
                        case 1: case 4: v = base[0][c] + dx[c] * float(x) + dy[c] * float(y); break;
                        case 2: v = base[0][c]; break;
                        case 3: v = base[glyptora_bc7::kPartitions2[shape][i]][c]; break;
                        case 5: v = base[0][c] - base[1][c] * 0.25f + dx[c] * float(x + y); break;
                        case 6:
                            v = (i + c) % 5 == 0 ? kInf : (i + c) % 7 == 0 ? kNaN : (i + c) % 3 == 0 ? -kInf : base[1][c];
                            break;
                        default: {
                            const int exponent = int(rng.next() % 33) - 16;
                            const float m = std::ldexp(0.5f + rng.unit(), exponent);
                            v = rng.unit() < 0.2f ? specials[rng.next() % 5] : rng.unit() < 0.4f ? -m : m;
                        }
                    }
                    s.tex[i * 4 + c] = v;
                }
            }
            if (kind == 4 || kind == 7) s.region = uint16_t((1 + rng.next() % 4) | (1 + rng.next() % 4) << 8);
            samples.push_back(s);
        }
    return samples;
}
