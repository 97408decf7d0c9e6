#pragma once
// Error measures of decoded blocks against the pixels handed to the encoder.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/formats.h"
#include "tools/mip_chain.h"

namespace glyptora_tools {

// Summed squared error over a number of channel values; sums combine over images.
struct ErrorSum {
    double squaredError = 0;
    uint64_t values = 0;
    void add(const ErrorSum& o) {
        squaredError += o.squaredError;
        values += o.values;
    }
    double mse() const { return values ? squaredError / double(values) : 0.0; }
    double psnr() const;  // 8-bit peak 255; +infinity for no error
};

// Bit i set: channel i (R, G, B, A) counts.
constexpr unsigned kChannelsR = 0x1, kChannelsRG = 0x3, kChannelsRGB = 0x7, kChannelsRGBA = 0xF;

// Squared error of the chosen channels. With `isSigned` both arrays hold two's-complement bytes.
ErrorSum compareRgba8(const uint8_t* reference, const uint8_t* decoded, size_t pixels, unsigned channels,
                      bool isSigned);

// Level m of a source chain as the encoder reads it for `format`: 8-bit RGBA, two's
// complement for signed formats (with the library's unsigned-to-signed and float rules).
std::vector<uint8_t> encoderReference(const SourceChain& chain, uint32_t m, const FormatDesc& format);

// Error of decoded float (HDR) pixels over R, G and B: the RMSLE of sign(x) log2(1 + |x|),
// which weighs dark and bright values by their relative error, and the squared error of the
// values clamped to [0, 1], which shows what a display sees.
struct HdrErrorSum {
    double logSquared = 0;
    double clampedSquared = 0;
    uint64_t values = 0;
    void add(const HdrErrorSum& o) {
        logSquared += o.logSquared;
        clampedSquared += o.clampedSquared;
        values += o.values;
    }
    double rmsle() const;
    double clampedPsnr() const;  // peak 1; +infinity for no error
};

// Both arrays RGBA floats. Reference values count as the encoder stores them: beyond the
// largest half-float (65504), NaN included, as that value; negatives as 0 unless signed.
HdrErrorSum compareHdr(const float* reference, const float* decoded, size_t pixels, bool isSigned);

// Level m of a source chain as the float encoders read it: RGBA floats (8-bit values / 255).
std::vector<float> floatReference(const SourceChain& chain, uint32_t m);

// The channels that a format keeps: R for BC4, RG for BC5, RGB or RGBA for the others.
unsigned primaryChannels(const FormatDesc& format);

}  // namespace glyptora_tools
