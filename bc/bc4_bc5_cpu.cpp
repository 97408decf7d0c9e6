// CPU implementations of the BC4, BC4S, BC5 and BC5S entries: one task per 4x4 tile.
#include "bc/bc4_bc5_cpu.h"

#include "bc/alpha_block_formats.h"
#include "core/block_loop.h"

namespace glyptora_dxt {

using glyptora_internal::CPUViewBase;
using glyptora_internal::forEachTile;

namespace {

bool s_IsFourByFour(const CPUViewBase& view) { return view.tileWidth == 4 && view.tileHeight == 4; }

template <int BlockBytes, typename Encode>
void s_EncodeUnsigned(const CPUViewBase& view, uint8_t* out, Encode encode) {
    if (!s_IsFourByFour(view)) return;
    forEachTile(view, out, BlockBytes, [&](uint32_t tile, uint8_t* block) {
        uint8_t bgra[64];
        view.fetchBGRA8(tile, bgra);
        encode(bgra, block);
    });
}

template <int BlockBytes, typename Encode>
void s_EncodeSigned(const CPUViewBase& view, uint8_t* out, Encode encode) {
    if (!s_IsFourByFour(view)) return;
    forEachTile(view, out, BlockBytes, [&](uint32_t tile, uint8_t* block) {
        int8_t bgra[64];
        view.fetchSignedBGRA8(tile, bgra);
        encode(bgra, block);
    });
}

}  // namespace

void encodeBC4CPU(const CPUViewBase& view, bool fast, uint8_t* out) {
    if (fast)
        s_EncodeUnsigned<8>(view, out, encodeBC4BlockFast);
    else
        s_EncodeUnsigned<8>(view, out, encodeBC4BlockHighQuality);
}

void encodeBC4SCPU(const CPUViewBase& view, bool fast, uint8_t* out) {
    if (fast)
        s_EncodeSigned<8>(view, out, encodeBC4SBlockFast);
    else
        s_EncodeSigned<8>(view, out, encodeBC4SBlockHighQuality);
}

void encodeBC5CPU(const CPUViewBase& view, bool fast, uint8_t* out) {
    if (fast)
        s_EncodeUnsigned<16>(view, out, encodeBC5BlockFast);
    else
        s_EncodeUnsigned<16>(view, out, encodeBC5BlockHighQuality);
}

void encodeBC5SCPU(const CPUViewBase& view, bool fast, uint8_t* out) {
    if (fast)
        s_EncodeSigned<16>(view, out, encodeBC5SBlockFast);
    else
        s_EncodeSigned<16>(view, out, encodeBC5SBlockHighQuality);
}

}  // namespace glyptora_dxt
