#pragma once
// Colour endpoint modes: how the unquantised colour values of one partition (0..255 each)
// become its two RGBA8 endpoints. Only the low-dynamic-range modes are decoded; the HDR
// modes (2, 3, 7, 11, 14, 15) make an LDR decoder give the error colour.
#include <cstdint>

#include "core/host_device.h"

namespace glyptora_astc {

// Colour values a mode reads: 2, 4, 6 or 8.
GLYPTORA_HD inline int astcEndpointValueCount(int cem) { return 2 * ((cem >> 2) + 1); }

GLYPTORA_HD inline bool astcIsHdrEndpointMode(int cem) {
    return cem == 2 || cem == 3 || cem == 7 || cem == 11 || cem == 14 || cem == 15;
}

namespace endpoint_detail {

GLYPTORA_HD inline int clampUnorm8(int v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

// Moves the top bit of b's partner into a and turns a into a signed 6-bit offset: a is the
// offset's source value, b the base's.
GLYPTORA_HD inline void bitTransferSigned(int& a, int& b) {
    b >>= 1;
    b |= a & 0x80;
    a >>= 1;
    a &= 0x3F;
    if (a & 0x20) a -= 0x40;
}

GLYPTORA_HD inline void set(int* e, int r, int g, int b, int a) { e[0] = r, e[1] = g, e[2] = b, e[3] = a; }

// Pulls red and green halfway to blue: the swapped-endpoint form of the RGB modes spends
// its precision around blue.
GLYPTORA_HD inline void setBlueContracted(int* e, int r, int g, int b, int a) {
    set(e, (r + b) >> 1, (g + b) >> 1, b, a);
}

}  // namespace endpoint_detail

// Endpoints of an LDR mode from its values `v`; false (endpoints untouched) for HDR modes.
GLYPTORA_HD inline bool decodeAstcEndpoints(int cem, const uint8_t* v, uint8_t e0[4], uint8_t e1[4]) {
    using namespace endpoint_detail;
    int x[8];
    for (int i = 0; i < astcEndpointValueCount(cem) && i < 8; ++i) x[i] = v[i];
    int a[4] = {0, 0, 0, 255}, b[4] = {0, 0, 0, 255};
    switch (cem) {
        case 0: set(a, x[0], x[0], x[0], 255), set(b, x[1], x[1], x[1], 255); break;
        case 1: {
            const int l0 = (x[0] >> 2) | (x[1] & 0xC0);
            const int l1 = l0 + (x[1] & 0x3F);
            set(a, l0, l0, l0, 255), set(b, l1, l1, l1, 255);
            break;
        }
        case 4: set(a, x[0], x[0], x[0], x[2]), set(b, x[1], x[1], x[1], x[3]); break;
        case 5:
            bitTransferSigned(x[1], x[0]);
            bitTransferSigned(x[3], x[2]);
            set(a, x[0], x[0], x[0], x[2]);
            set(b, x[0] + x[1], x[0] + x[1], x[0] + x[1], x[2] + x[3]);
            break;
        case 6:
            set(a, (x[0] * x[3]) >> 8, (x[1] * x[3]) >> 8, (x[2] * x[3]) >> 8, 255);
            set(b, x[0], x[1], x[2], 255);
            break;
        case 10:
            set(a, (x[0] * x[3]) >> 8, (x[1] * x[3]) >> 8, (x[2] * x[3]) >> 8, x[4]);
            set(b, x[0], x[1], x[2], x[5]);
            break;
        case 8:
        case 12: {
            const int a0 = cem == 12 ? x[6] : 255, a1 = cem == 12 ? x[7] : 255;
            if (x[1] + x[3] + x[5] >= x[0] + x[2] + x[4]) {
                set(a, x[0], x[2], x[4], a0), set(b, x[1], x[3], x[5], a1);
            } else {
                setBlueContracted(a, x[1], x[3], x[5], a1);
                setBlueContracted(b, x[0], x[2], x[4], a0);
            }
            break;
        }
        case 9:
        case 13: {
            for (int i = 0; i < (cem == 13 ? 8 : 6); i += 2) bitTransferSigned(x[i + 1], x[i]);
            const int a0 = cem == 13 ? x[6] : 255, a1 = cem == 13 ? x[6] + x[7] : 255;
            if (x[1] + x[3] + x[5] >= 0) {
                set(a, x[0], x[2], x[4], a0), set(b, x[0] + x[1], x[2] + x[3], x[4] + x[5], a1);
            } else {
                setBlueContracted(a, x[0] + x[1], x[2] + x[3], x[4] + x[5], a1);
                setBlueContracted(b, x[0], x[2], x[4], a0);
            }
            break;
        }
        default: return false;
    }
    for (int c = 0; c < 4; ++c) e0[c] = uint8_t(clampUnorm8(a[c])), e1[c] = uint8_t(clampUnorm8(b[c]));
    return true;
}

}  // namespace glyptora_astc
