#pragma once
// Settings of the fast BC7 encoder, kept in one place so that its search
// effort is tuned without touching the code that uses it: the "no block
// yet" error, a large bound for extremes, the refinement rounds, the ratios
// below which a partitioned mode is fitted at all and the search widths.
#include "core/vec4.h"

namespace glyptora_bc7 {
inline namespace GLYPTORA_SIMD_ABI {
namespace fastenc {

constexpr float kNoBlock = 3.4028235e38f;  // FLT_MAX: no block chosen yet
constexpr float kBig = 1.0e30f;

// Search effort: power iterations of the shape statistics; least-squares
// rounds of the chosen shape of mode 1, of mode 3 (modes 3 and 7 share mode
// 1's shape), of the three-subset modes and of the rotations; whether those
// rounds try every p-bit combination; rounds of the mode 6 blend factors.
constexpr int kPowerIterations = 0;
constexpr int kRefineIterations = 1;
constexpr int kRefineIterationsMode3 = 0;
constexpr int kRefineIterations3 = 0;
constexpr int kRotationRefineIterations = 0;
constexpr bool kJointPBits = false;
constexpr int kBlendRounds = 1;
// A partitioned mode's best candidate is fitted only when its modelled error
// is below kRejectRatio times the block's best error so far (mode 7 on an
// opaque block, which rarely beats mode 3: below the best error itself).
constexpr float kRejectRatio = 2.0f;
constexpr float kRejectRatioMode7 = 1.0f;
// Search widths: the shapes of a partitioned mode; the candidates kept for the
// two-subset modes (of all 64 shapes), for mode 0 (of its first 16 shapes) and
// for mode 2 (of all 64); the levels of the rounding model that ranks the
// two-subset candidates (mode 1's 3-bit indices on opaque blocks, mode 7's
// 2-bit ones on translucent blocks).
constexpr int kShapes = 64;
constexpr int kTwoSubsetCandidates = 16;
constexpr int kMode0Shapes = 16;
constexpr int kMode0Candidates = 4;
constexpr int kMode2Candidates = 16;
constexpr int kOpaqueModelLevels = 8;
constexpr int kTranslucentModelLevels = 4;

}  // namespace fastenc
}  // namespace GLYPTORA_SIMD_ABI
}  // namespace glyptora_bc7
