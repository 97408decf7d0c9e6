#include "bc6h/search_palette.h"

#include <cfloat>
#include <cmath>
#include <vector>

#include "bc6h/bc6h_format.h"
#include "bc7/bc7_tables.h"
#include "core/vec4.h"

namespace BC6HModes {

namespace {

using glyptora_simd::Vec4f;

const int* weightsFor(int indexBits) {
    return indexBits == 3 ? glyptora_bc6h::kWeights3 : glyptora_bc6h::kWeights4;
}

// The float of every interpolated value's finished half pattern (unsigned values 0..65535;
// signed values -32767..32767 at index value + 32767), so that a palette entry costs one
// look-up. Built once from the format's own scaling and halfToFloat.
class FinishedFloats {
public:
    explicit FinishedFloats(bool isSigned) : lowest_(isSigned ? -32767 : 0), highest_(isSigned ? 32767 : 65535) {
        table_.resize(size_t(highest_ - lowest_ + 1));
        for (int v = lowest_; v <= highest_; ++v)
            table_[size_t(v - lowest_)] = glyptora_bc6h::halfToFloat(glyptora_bc6h::finishUnquantize(v, isSigned));
    }
    static const FinishedFloats& of(bool isSigned) {
        static const FinishedFloats unsignedFloats(false), signedFloats(true);
        return isSigned ? signedFloats : unsignedFloats;
    }
    bool covers(int v) const { return v >= lowest_ && v <= highest_; }
    const float* origin() const { return table_.data() - lowest_; }

private:
    int lowest_, highest_;
    std::vector<float> table_;
};

}  // namespace

void makeRegions(const Tile& tile, int regions, int shape, Region out[]) {
    for (int r = 0; r < regions; ++r) out[r].count = 0;
    for (int i = 0; i < Tile::TILE_TOTAL; ++i) {
        Region& region = out[glyptora_bc7::partitionSubset(regions, shape, i)];
        const int k = region.count++;
        region.texel[k] = i;
        for (int c = 0; c < 4; ++c) region.value[k][c] = tile.data[i][c];
        for (int c = 0; c < 3; ++c) region.linear[k][c] = tile.linear[i][c];
        region.weight[k] = tile.importance_map[i];
    }
}

void buildPaletteChannel(const EndpointFormat& format, int a, int b, int ch, Palette& palette) {
    const int* weights = weightsFor(format.indexBits);
    const int entries = 1 << format.indexBits;
    const int ua = glyptora_bc6h::unquantize(a, format.prec, format.isSigned);
    const int ub = glyptora_bc6h::unquantize(b, format.prec, format.isSigned);
    const FinishedFloats& floats = FinishedFloats::of(format.isSigned);
    palette.entries = entries;
    float* out = palette.linear[ch];
    if (floats.covers(ua) && floats.covers(ub)) {
        // Every interpolated value lies between the two.
        const float* table = floats.origin();
        for (int j = 0; j < entries; ++j) out[j] = table[glyptora_bc6h::interpolate(ua, ub, weights[j])];
        return;
    }
    for (int j = 0; j < entries; ++j)
        out[j] = glyptora_bc6h::halfToFloat(
            glyptora_bc6h::finishUnquantize(glyptora_bc6h::interpolate(ua, ub, weights[j]), format.isSigned));
}

void buildPalette(const EndpointFormat& format, const IntEndpoints& endpts, Palette& palette) {
    for (int c = 0; c < 3; ++c) buildPaletteChannel(format, endpts.A[c], endpts.B[c], c, palette);
}

void paletteHalves(const EndpointFormat& format, const IntEndpoints& endpts, uint16_t half[16][3]) {
    const int* weights = weightsFor(format.indexBits);
    for (int c = 0; c < 3; ++c) {
        const int ua = glyptora_bc6h::unquantize(endpts.A[c], format.prec, format.isSigned);
        const int ub = glyptora_bc6h::unquantize(endpts.B[c], format.prec, format.isSigned);
        for (int j = 0; j < (1 << format.indexBits); ++j)
            half[j][c] = glyptora_bc6h::finishUnquantize(glyptora_bc6h::interpolate(ua, ub, weights[j]), format.isSigned);
    }
}

void buildRoughPalette(const FltEndpts& endpts, bool isSigned, int indexBits, Palette& palette) {
    const int* weights = weightsFor(indexBits);
    palette.entries = 1 << indexBits;
    for (int j = 0; j < palette.entries; ++j)
        for (int c = 0; c < 3; ++c) {
            const float value =
                (endpts.A[c] * float(64 - weights[j]) + endpts.B[c] * float(weights[j])) * 0.015625f;
            palette.linear[c][j] = linearValue(int(std::floor(value + 0.5f)), isSigned);
        }
}

namespace {

// The walk over one texel's errors: from entry 0 it keeps going while they do not rise, so
// its best is the last error before the first rise and its index the first entry with that
// error (stopping at a best of 0 changes nothing: no later entry is strictly better). An
// entry 0 above FLT_MAX, the walk's starting best, ends it with no index (only endpoints
// outside every field's range decode to infinities). `error(q)` gives entries 4q..4q+3;
// groups after the one where the walk ends are not computed. Returns the error and sets
// `index`.
template <class GroupError>
inline float walkEntries(int entries, GroupError&& error, int& index) {
    alignas(16) float err[16];
    int rising = 0;
    float before = FLT_MAX;  // nothing rises above the walk's starting best
    for (int q = 0; q < entries / 4; ++q) {
        const Vec4f e = error(q);
        e.store(&err[q * 4]);
        rising |= glyptora_simd::moveMask(glyptora_simd::cmpGreater(e, glyptora_simd::shiftUp(e, before))) << (q * 4);
        if (rising) break;
        before = err[q * 4 + 3];
    }
    const int walked = rising ? __builtin_ctz(unsigned(rising)) : entries;
    if (walked == 0) {
        index = -1;
        return FLT_MAX;
    }
    const float besterr = err[walked - 1];
    index = walked - 1;
    while (index > 0 && err[index - 1] == besterr) --index;
    return besterr;
}

// Adds texel k's error to the running sum; once it exceeds `beat` the scan is abandoned and
// the remaining texels get -1 (false).
inline bool keepTexel(const Region& region, int k, int index, float err, float beat, float& toterr,
                      int indices[Tile::TILE_TOTAL]) {
    indices[region.texel[k]] = index;
    toterr += err;
    if (!(toterr > beat)) return true;
    for (int rest = k + 1; rest < region.count; ++rest) indices[region.texel[rest]] = -1;
    return false;
}

}  // namespace

float scanPalette(const Region& region, const Palette& palette, float beat, int indices[Tile::TILE_TOTAL]) {
    float toterr = 0.0f;
    for (int k = 0; k < region.count; ++k) {
        const Vec4f r(region.linear[k][0]), g(region.linear[k][1]), b(region.linear[k][2]), w(region.weight[k]);
        int index;
        const float err = walkEntries(palette.entries, [&](int q) {
            const Vec4f dr = r - Vec4f::load(&palette.linear[0][q * 4]);
            const Vec4f dg = g - Vec4f::load(&palette.linear[1][q * 4]);
            const Vec4f db = b - Vec4f::load(&palette.linear[2][q * 4]);
            return (dr * dr + dg * dg + db * db) * w;
        }, index);
        if (!keepTexel(region, k, index, err, beat, toterr, indices)) return FLT_MAX;
    }
    return toterr;
}

}  // namespace BC6HModes
