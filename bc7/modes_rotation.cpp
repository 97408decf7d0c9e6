// Modes 4 and 5: separate colour and alpha endpoints and index sets, with a
// channel rotation (alpha exchanged with red, green or blue) and, in mode 4, an
// index mode telling which of colour and alpha takes the 3-bit indices.
#include <cfloat>

#include "bc7/bc7_modes.h"
#include "bc7/bits.h"
#include "bc7/modes_assert.h"
#include "bc7/modes_layout.h"
#include "bc7/modes_search.h"
#include "bc7/utils.h"

namespace BC7Modes {

namespace {

constexpr int kTexels = Tile::TILE_TOTAL;
constexpr int INDEXARRAY_RGB = 0;
constexpr int INDEXARRAY_ALPHA = 1;

// A refined block: colour endpoints in channels 0..2 of endpts[INDEXARRAY_RGB],
// alpha endpoints in channel 3 of endpts[INDEXARRAY_ALPHA].
struct RotationBlock {
    float error = 0.0f;
    IntEndpts endpts[2];
    int indices[2][kTexels] = {};
};

int colour_index_bits(const ModeInfo& info, int indexmode) {
    return info.mode == 4 && indexmode == INDEXMODE_ALPHA_IS_2BITS ? 3 : 2;
}
int alpha_index_bits(const ModeInfo& info, int indexmode) {
    return info.mode == 4 && indexmode == INDEXMODE_ALPHA_IS_3BITS ? 3 : 2;
}

// Rotation 1, 2, 3 exchanges alpha with red, green, blue; 0 leaves the tile as it is.
Tile rotate(const Tile& tile, int rotation) {
    Tile rotated = tile;
    if (rotation > 0)
        for (int i = 0; i < kTexels; ++i) {
            rotated.data[i][3] = tile.data[i][rotation - 1];
            rotated.data[i][rotation - 1] = tile.data[i][3];
        }
    return rotated;
}

// The colour part compares colours only and the alpha part alpha only: the
// channels a part does not carry are 0 on both sides of the comparison.
void make_segments(const Tile& tile, const ModeInfo& info, int indexmode, Segment segs[2]) {
    for (int part = 0; part < 2; ++part) {
        Segment& seg = segs[part];
        make_segment(tile, 0xFFFF, seg);
        seg.mode = info.mode;
        seg.firstChannel = part == INDEXARRAY_RGB ? 0 : 3;
        seg.endChannel = part == INDEXARRAY_RGB ? 3 : 4;
        for (int c = 0; c < 4; ++c) seg.prec[c] = c < 3 ? info.colourBits : info.alphaBits;
        seg.hasPBits = false;
        for (int c = 0; c < 4; ++c) seg.fixed[c] = 0.0f;
        for (int k = 0; k < seg.count; ++k)
            for (int c = 0; c < 4; ++c)
                if (c < seg.firstChannel || c >= seg.endChannel) seg.pixel[k][c] = 0.0f;
        seg.indexBits =
            part == INDEXARRAY_RGB ? colour_index_bits(info, indexmode) : alpha_index_bits(info, indexmode);
        seg.alphaWithColour = false;
    }
}

// Colour and alpha fitted on their own over the whole tile, for each
// rotation (the colour fits of the four side by side).
void rough(const Tile rotated[4], FltEndpts endpts[4]) {
    const float(*pixels[4])[4] = {rotated[0].data, rotated[1].data, rotated[2].data, rotated[3].data};
    const int counts[4] = {kTexels, kTexels, kTexels, kTexels};
    FltEndpts* const targets[4] = {&endpts[0], &endpts[1], &endpts[2], &endpts[3]};
    bool settled[4];
    fit_regions(pixels, counts, 4, 3, targets, settled);
    for (int rotation = 0; rotation < 4; ++rotation) fit_region(rotated[rotation].data, kTexels, 3, 4, endpts[rotation]);
}

void compress_one(const ModeInfo& info, const FltEndpts& endpts, IntEndpts compr[2]) {
    compr[INDEXARRAY_RGB] = IntEndpts();
    compr[INDEXARRAY_ALPHA] = IntEndpts();
    for (int j = 0; j < 3; ++j) {
        compr[INDEXARRAY_RGB].A[j] = Utils::quantize(endpts.A[j], info.colourBits);
        compr[INDEXARRAY_RGB].B[j] = Utils::quantize(endpts.B[j], info.colourBits);
    }
    compr[INDEXARRAY_ALPHA].A[3] = Utils::quantize(endpts.A[3], info.alphaBits);
    compr[INDEXARRAY_ALPHA].B[3] = Utils::quantize(endpts.B[3], info.alphaBits);
}

// Texel 0 anchors both index sets: where its index has the top bit set, that
// set's endpoints are exchanged and its indices inverted.
void swap_indices(const ModeInfo& info, int indexmode, IntEndpts endpts[2], int indices[2][kTexels]) {
    const int shapeindex = 0, region = 0, x = 0, y = 0;
    const uint16_t* shapes = kShapes1;
    BC7_MODE_ASSERT(info.mode, REGION_MASK(x, y, shapeindex) == region);
    for (int part = 0; part < 2; ++part) {
        const int bits =
            part == INDEXARRAY_RGB ? colour_index_bits(info, indexmode) : alpha_index_bits(info, indexmode);
        const int entries = 1 << bits;
        if ((indices[part][0] & (entries >> 1)) == 0) continue;
        for (int c = 0; c < 4; ++c) {
            const int t = endpts[part].A[c];
            endpts[part].A[c] = endpts[part].B[c];
            endpts[part].B[c] = t;
        }
        for (int i = 0; i < kTexels; ++i) indices[part][i] = entries - 1 - indices[part][i];
    }
}

// refine_shape for the colour and alpha parts of one index mode: FLT_MAX
// (`out` unfinished) as soon as the block can no longer be below `beat`; the
// optimised block's indices are worked out only when its error is below
// `keep` (otherwise `out` is unfinished too).
float refine(const Tile& tile, const ModeInfo& info, int indexmode, const FltEndpts& rough_endpts,
             RotationBlock& out, float beat, float keep) {
    Segment segs[2];
    make_segments(tile, info, indexmode, segs);

    IntEndpts quantised[2];
    compress_one(info, rough_endpts, quantised);
    IntEndpts orig_endpts[2] = {quantised[0], quantised[1]};
    int orig_indices[2][kTexels];
    float orig_err[2];
    for (int part = 0; part < 2; ++part)
        assign_indices(&segs[part], &orig_endpts[part], 1, orig_indices[part], &orig_err[part]);
    swap_indices(info, indexmode, orig_endpts, orig_indices);

    const float orig_toterr = orig_err[0] + orig_err[1];
    // Each part is optimised on its own (they are independent); errors as in refine_shape.
    IntEndpts opt_endpts[2] = {orig_endpts[0], orig_endpts[1]};
    float opt_err[2] = {}, lower[2] = {};  // the alpha part's line bound is 0
    bool done[2] = {};
    if (beat < FLT_MAX) lower[INDEXARRAY_RGB] = error_lower_bound(segs[INDEXARRAY_RGB]);
    if (cannot_beat(opt_err, lower, done, 2, orig_toterr, beat)) return FLT_MAX;
    int order[2];
    largest_first(orig_err, 2, order);
    for (int k = 0; k < 2; ++k) {
        const int part = order[k];
        opt_err[part] = optimize_one(segs[part], orig_err[part], opt_endpts[part]);
        if (!(opt_err[part] < orig_err[part]) && !same_endpoints(opt_endpts[part], quantised[part])) {
            int indices[kTexels];
            opt_err[part] = map_colors(segs[part], opt_endpts[part], FLT_MAX, indices);
        }
        done[part] = true;
        if (k == 0 && cannot_beat(opt_err, lower, done, 2, orig_toterr, beat)) return FLT_MAX;
    }

    const float opt_toterr = opt_err[0] + opt_err[1];
    const bool optimised = opt_toterr < orig_toterr;
    out.error = optimised ? opt_toterr : orig_toterr;
    if (!(out.error < keep)) return out.error;
    int opt_indices[2][kTexels];
    if (optimised) {
        for (int part = 0; part < 2; ++part)
            assign_indices(&segs[part], &opt_endpts[part], 1, opt_indices[part], &opt_err[part]);
        swap_indices(info, indexmode, opt_endpts, opt_indices);
    }
    for (int part = 0; part < 2; ++part) {
        out.endpts[part] = optimised ? opt_endpts[part] : orig_endpts[part];
        for (int i = 0; i < kTexels; ++i)
            out.indices[part][i] = optimised ? opt_indices[part][i] : orig_indices[part][i];
    }
    return out.error;
}

// Mode, rotation, (mode 4) index mode, colour endpoints R, G, B (A then B
// each), alpha endpoints.
void write_header(const ModeInfo& info, int rotation, int indexmode, const IntEndpts endpts[2], Bits& out) {
    out.write(1 << info.mode, info.mode + 1);
    out.write(rotation, 2);
    if (info.mode == 4) out.write(indexmode, 1);
    for (int c = 0; c < 3; ++c) {
        out.write(endpts[INDEXARRAY_RGB].A[c], info.colourBits);
        out.write(endpts[INDEXARRAY_RGB].B[c], info.colourBits);
    }
    out.write(endpts[INDEXARRAY_ALPHA].A[3], info.alphaBits);
    out.write(endpts[INDEXARRAY_ALPHA].B[3], info.alphaBits);
    if (info.mode == 4)
        BC7_MODE_ASSERT(4, out.getptr() == 50);
    else
        BC7_MODE_ASSERT(5, out.getptr() == 66);
}

// The 2-bit index set first, then the other (3-bit in mode 4); texel 0 of
// each set is written one bit shorter.
void write_indices(const ModeInfo& info, int indexmode, const int indices[2][kTexels], Bits& out) {
    if (info.mode == 4) {
        BC7_MODE_ASSERT(4, (indices[INDEXARRAY_RGB][0] & (1<<((indexmode == INDEXMODE_ALPHA_IS_2BITS ? 3 : 2)-1))) == 0);
        BC7_MODE_ASSERT(4, (indices[INDEXARRAY_ALPHA][0] & (1<<((indexmode == INDEXMODE_ALPHA_IS_3BITS ? 3 : 2)-1))) == 0);
    } else {
        BC7_MODE_ASSERT(5, (indices[INDEXARRAY_RGB][0] & (1<<(2-1))) == 0);
        BC7_MODE_ASSERT(5, (indices[INDEXARRAY_ALPHA][0] & (1<<(2-1))) == 0);
    }
    const int first = indexmode == INDEXMODE_ALPHA_IS_2BITS && info.mode == 4 ? INDEXARRAY_ALPHA : INDEXARRAY_RGB;
    const int second = 1 - first;
    const int firstBits = 2;
    const int secondBits = info.mode == 4 ? 3 : 2;
    for (int i = 0; i < kTexels; ++i) out.write(indices[first][i], i == 0 ? firstBits - 1 : firstBits);
    for (int i = 0; i < kTexels; ++i) out.write(indices[second][i], i == 0 ? secondBits - 1 : secondBits);
}

void emit_block(const ModeInfo& info, int rotation, int indexmode, const RotationBlock& block, uint8_t data[16]) {
    Bits out(data, BITSIZE);
    write_header(info, rotation, indexmode, block.endpts, out);
    write_indices(info, indexmode, block.indices, out);
    BC7_MODE_ASSERT(info.mode, out.getptr() == BC7Modes::BITSIZE);
}

float encode_rotation_mode(const ModeInfo& info, const Tile& tile, uint8_t out[16], float beat) {
    const int indexmodes = info.mode == 4 ? 2 : 1;
    const Tile rotated[4] = {rotate(tile, 0), rotate(tile, 1), rotate(tile, 2), rotate(tile, 3)};
    FltEndpts rough_endpts[4];
    rough(rotated, rough_endpts);
    float best = FLT_MAX;
    for (int rotation = 0; rotation < 4 && best > 0.0f; ++rotation) {
        for (int indexmode = 0; indexmode < indexmodes && best > 0.0f; ++indexmode) {
            RotationBlock block;
            const float limit = best < beat ? best : beat;
            const float err = refine(rotated[rotation], info, indexmode, rough_endpts[rotation], block, limit, best);
            if (err < best) {
                best = err;
                emit_block(info, rotation, indexmode, block, out);
            }
        }
    }
    return best;
}

}  // namespace

float encode_rotation(int mode, const Tile& tile, uint8_t out[16], float beat) {
    return encode_rotation_mode(kModeInfo[mode], tile, out, beat);
}
float encode_mode4(const Tile& tile, uint8_t out[16]) { return encode_rotation_mode(kModeInfo[4], tile, out, FLT_MAX); }
float encode_mode5(const Tile& tile, uint8_t out[16]) { return encode_rotation_mode(kModeInfo[5], tile, out, FLT_MAX); }

}  // namespace BC7Modes
