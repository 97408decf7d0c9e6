#pragma once
// Rough endpoint fit of the BC7 mode encoders: a float endpoint pair per region
// along the principal axis of the region's texels.

namespace BC7Modes {

// Float endpoints of one region (0..255 per channel for BC7).
struct FltEndpts {
    float A[4] = {};
    float B[4] = {};
};

// Fits `np` (at most 16) pixels in the channels [firstChannel, endChannel)
// of A and B (the other channels are left as they are):
// - no pixel: the channels are 0; one pixel: both endpoints on it; two
//   pixels: one endpoint on each;
// - otherwise the endpoints are the extremes of the pixels projected on the
//   dominant eigenvector of their covariance, through the mean (both on the
//   mean when every variance is exactly 0).
// Every fitted channel is clamped to clampLow..clampHigh (BC7: 0..255; BC6H fits
// half-float bit patterns with wider bounds). Returns false when the
// eigen-solver did not settle and a fixed axis was taken instead.
bool fit_region(const float pixels[][4], int np, int firstChannel, int endChannel, FltEndpts& endpts,
                float clampLow = 0.0f, float clampHigh = 255.0f);

// fit_region of up to four pixel sets over channels 0 .. channels - 1 (BC7
// bounds), the same results; the eigen-solver works on them side by side.
// `settled` receives each result.
void fit_regions(const float (*const pixels[])[4], const int np[], int count, int channels, FltEndpts* const endpts[],
                 bool settled[]);

// True when channel ch of the np (> 0) pixels equals their mean exactly as
// fit_region computes it (`mean`). Such a last channel adds only zeros to the
// covariance, which the eigen-solver never rotates: when the fit of the
// channels before it settled, the fit of them all is that fit with both
// endpoints of ch at the clamped mean.
bool constant_channel(const float pixels[][4], int np, int ch, float& mean);
float clamp255(float v);
inline float clamp_to(float v, float lowest, float highest) { return v < lowest ? lowest : (v > highest ? highest : v); }

// Unit eigenvector of the largest eigenvalue of a symmetric n x n matrix
// (n <= 4), by cyclic Jacobi rotations of at most 32 sweeps. Returns false,
// leaving `axis` alone, when the sweeps do not converge.
bool dominant_eigenvector(const float matrix[4][4], int n, float axis[4]);

}  // namespace BC7Modes
