#pragma once
// Per-mode constants of the BC7 mode encoders and the region maps their
// shape checks read.
#include <array>
#include <cstdint>

#include "bc7/bc7_tables.h"

namespace BC7Modes {

enum class PBitKind { None, Shared, PerEndpoint };

struct ModeInfo {
    int mode;
    int regions;          // 1, 2 or 3
    int shapes;           // shapes tried by the rough pass
    int refined;          // best rough shapes that are refined
    int partitionBits;    // 0 for the single-region modes
    int colourBits;       // stored colour precision (before any p-bit)
    int alphaBits;        // stored alpha precision; 0: no alpha endpoints (alpha decodes to 255)
    bool separateAlpha;   // modes 4 and 5: alpha has endpoints and indices of its own
    PBitKind pbits;
    int indexBits;        // modes 4 and 5: the 2-bit index set
    int headerBits;       // bit cursor after mode, partition/rotation fields, endpoints and p-bits
};

inline constexpr ModeInfo kModeInfo[8] = {
    {0, 3, 16, 4, 4, 4, 0, false, PBitKind::PerEndpoint, 3, 83},
    {1, 2, 64, 16, 6, 6, 0, false, PBitKind::Shared, 3, 82},
    {2, 3, 64, 16, 6, 5, 0, false, PBitKind::None, 2, 99},
    {3, 2, 64, 16, 6, 7, 0, false, PBitKind::PerEndpoint, 2, 98},
    {4, 1, 1, 1, 0, 5, 6, true, PBitKind::None, 2, 50},
    {5, 1, 1, 1, 0, 7, 8, true, PBitKind::None, 2, 66},
    {6, 1, 1, 1, 0, 7, 7, false, PBitKind::PerEndpoint, 4, 65},
    {7, 2, 64, 16, 6, 5, 5, false, PBitKind::PerEndpoint, 2, 98},
};

// Mode 4's index mode: which of colour and alpha takes the 3-bit indices.
enum IndexMode { INDEXMODE_ALPHA_IS_3BITS = 0, INDEXMODE_ALPHA_IS_2BITS = 1 };

// The partition shapes laid out as one region map 16 texels wide: four shapes
// side by side, shape s at column (s & 3) * 4 and row (s >> 2) * 4.
template <int Regions>
constexpr std::array<uint8_t, 1024> makeShapeImage() {
    std::array<uint8_t, 1024> image{};
    for (int s = 0; s < 64; ++s)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x)
                image[(s & 3) * 4 + (s >> 2) * 64 + x + y * 16] =
                    Regions == 2 ? glyptora_bc7::kPartitions2[s][y * 4 + x] : glyptora_bc7::kPartitions3[s][y * 4 + x];
    return image;
}
inline constexpr std::array<uint8_t, 1024> kShapes2 = makeShapeImage<2>();
inline constexpr std::array<uint8_t, 1024> kShapes3 = makeShapeImage<3>();

// Texel mask (bit i for texel i) of every region of every shape, for 1, 2
// and 3 regions, and a number for each distinct mask (0 .. distinct - 1).
struct RegionMasks {
    uint16_t mask[4][64][3];
    uint16_t id[4][64][3];
    int distinct;
};
constexpr RegionMasks makeRegionMasks() {
    RegionMasks m{};
    uint16_t seen[1 + 64 * 2 + 64 * 3] = {};
    for (int regions = 1; regions <= 3; ++regions)
        for (int s = 0; s < 64; ++s) {
            for (int i = 0; i < 16; ++i) {
                const int region = regions == 1 ? 0 : regions == 2 ? glyptora_bc7::kPartitions2[s][i]
                                                                    : glyptora_bc7::kPartitions3[s][i];
                m.mask[regions][s][region] = uint16_t(m.mask[regions][s][region] | 1u << i);
            }
            for (int r = 0; r < regions; ++r) {
                int id = 0;
                while (id < m.distinct && seen[id] != m.mask[regions][s][r]) ++id;
                if (id == m.distinct) seen[m.distinct++] = m.mask[regions][s][r];
                m.id[regions][s][r] = uint16_t(id);
            }
        }
    return m;
}
inline constexpr RegionMasks kRegionMasks = makeRegionMasks();

// The single-region modes keep their one shape as a 16-bit mask (bit 15 is texel 0).
inline constexpr uint16_t kShapes1[1] = {0x0000};

}  // namespace BC7Modes

// Region of texel (x, y) in shape `shapeindex`; `shapes` is the region map in scope.
#define REGION(x, y, shapeindex) shapes[((shapeindex)&3)*4+((shapeindex)>>2)*64+(x)+(y)*16]
#define REGION_MASK(x, y, shapeindex) ((shapes[shapeindex]&(1<<(15-(x)-4*(y))))!=0)
