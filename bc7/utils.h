#pragma once
// Endpoint arithmetic shared by the BC7 mode encoders: index interpolation,
// endpoint quantisation, premultiplication and the per-pixel error measure.
// The integer routines must agree bit for bit with a BC7 decoder.
#include <atomic>

#include "core/assert.h"

namespace BC7Modes {

// Process-wide error-mode flags. The block entry clears all three before every
// block, so the measure is plain squared error on straight colours; the
// weighted and premultiplied variants stay available to the palette scans.
// Every worker writes them (always the same value), so they are atomic.
extern std::atomic<bool> flag_luma_weights;      // weights 0.299, 0.587, 0.114
extern std::atomic<bool> flag_alt_luma_weights;  // weights 0.3086, 0.6094, 0.082
extern std::atomic<bool> flag_premult;           // alpha-carrying scans compare premultiplied colours

// Interpolation weights of the published format (6-bit fixed point, sum 64).
// 2-bit indices use the 4-bit table at positions 0, 5, 10, 15.
inline constexpr int kWeights4[16] = {0, 4, 9, 13, 17, 21, 26, 30, 34, 38, 43, 47, 51, 55, 60, 64};
inline constexpr int kWeights3[8] = {0, 9, 18, 27, 37, 46, 55, 64};

class Utils {
public:
    // Interpolates two 8-bit endpoint values at index i of `denom` + 1 entries.
    // `bias` is validated but has no effect: rounding is always +32.
    static int lerp(int a, int b, int i, int bias, int denom);
    // The same weights on four float channels, without rounding.
    static void lerp(float out[4], const float a[4], const float b[4], int i, int denom);
    // That float form for every index 0..denom, four channels at a time (the same operations).
    static void lerp_palette(float palette[][4], const float a[4], const float b[4], int denom);

    // 0..255 value to a `prec`-bit code (prec 4..8).
    static int quantize(float unq, int prec);
    // `prec`-bit code back to 8 bits by bit replication.
    static int unquantize(int q, int prec);

    // Premultiplies colour by alpha; channels are whole numbers in 0..255.
    static void premult(float pixel[4]);
    static void premult(const float in[4], float out[4]);
    static void premult(float* pixels, int count);
    // Premultiplies only while flag_premult is set (the alpha-carrying scans call this).
    static void premult_if_enabled(float pixel[4]);

    // Error between a source and a decoded pixel (0..255 scale), honouring the weight flags.
    static float pixel_error(const float a[4], const float b[4]);

    // Resets the three process-wide flags (done before every block).
    static void clear_error_flags();

private:
    static void weights_for(int i, int denom, int& wa, int& wb);
};

}  // namespace BC7Modes
