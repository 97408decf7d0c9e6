#pragma once
// Colour endpoint encoding: a fitted pair of endpoints to the values of one LDR endpoint mode
// at one colour range, and what those values decode to.
#include <cstdint>

namespace glyptora_astc {

struct AstcEncodedEndpoints {
    uint8_t values[8] = {};  // ISE values in stored order
    uint8_t lo[4] = {};      // decoded endpoint at weight 0 of the fit, RGBA 0..255
    uint8_t hi[4] = {};      // decoded endpoint at weight 1 of the fit
    bool invert = false;     // stored swapped: every weight must be mirrored (w -> 64 - w)
};

// How the block's error grows when the endpoints of channel c move by d0, d1 (8-bit units)
// from the fitted ones: a[c] d0^2 + 2 b[c] d0 d1 + c[c] d1^2. With it every mode picks, per
// channel, the best of the levels around each fitted value instead of the nearest: direct and
// luminance values, base-plus-offset bases and offsets, base-plus-scale bases and the scale.
// On low-contrast blocks, where an endpoint step is a large part of the colour range, this
// gains most (+0.05 to +0.1 dB at ASTC levels 2 and 3).
struct AstcEndpointErrorModel {
    float a[4], b[4], c[4];
};

// Encodes `lo` and `hi` (unweighted, 0..255 per channel) in endpoint mode `cem` (0, 4, 6, 8,
// 9, 10, 12 or 13) at colour range `range`. `weights` (channel weights) steer the luminance
// of the luminance modes. The modes whose stored order fixes which endpoint is brighter
// (RGB direct, base plus offset, base plus scale) store the pair swapped when the fit runs
// the other way.
void astcEncodeEndpoints(int cem, int range, const float lo[4], const float hi[4], const float weights[4],
                         AstcEncodedEndpoints& out, const AstcEndpointErrorModel* model = nullptr);

// The RGB direct modes (8 and 12) once more in their blue-contracted form: red and green are
// stored as 2r - b and 2g - b, which the decoder halves back, so that they keep one more bit
// near grey. False (nothing written) when the endpoints do not fit that form.
bool astcEncodeEndpointsBlueContracted(int cem, int range, const float lo[4], const float hi[4],
                                       AstcEncodedEndpoints& out);

}  // namespace glyptora_astc
