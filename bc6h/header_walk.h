#pragma once
// The walk over a BC6H mode's header layout string, bit by bit in storage order. The header
// writer and reader (bc6h_format.cpp) and the compile-time run tables of the fast block
// writer (fast_block_writer.h) are built on it, so both read one description of each mode.
namespace glyptora_bc6h {

namespace header_walk {

// Reads the decimal number that ends just before `end`, moving `end` to its first digit.
constexpr int numberBefore(const char* layout, int& end) {
    int value = 0;
    for (int scale = 1; end > 0 && layout[end - 1] >= '0' && layout[end - 1] <= '9'; scale *= 10) {
        --end;
        value += (layout[end] - '0') * scale;
    }
    return value;
}

}  // namespace header_walk

// Calls visit(name0, name1, bit) for every header bit in storage order: the layout is walked
// from its end (the first stored field) back to its start, each range from its right-hand
// bit number to its left-hand one. name1 is 0 for the one-letter fields m and d.
template <typename Visit>
constexpr void forEachHeaderBit(const char* layout, Visit&& visit) {
    int end = 0;
    while (layout[end]) ++end;
    while (end > 0) {
        --end;  // ']'
        const int right = header_walk::numberBefore(layout, end);
        int left = right;
        if (layout[end - 1] == ':') {
            --end;
            left = header_walk::numberBefore(layout, end);
        }
        --end;  // '['
        int start = end;
        while (start > 0 && layout[start - 1] != ',') --start;
        const char name0 = layout[start];
        const char name1 = end - start > 1 ? layout[start + 1] : 0;
        const int step = left >= right ? 1 : -1;
        for (int bit = right;; bit += step) {
            visit(name0, name1, bit);
            if (bit == left) break;
        }
        end = start > 0 ? start - 1 : 0;  // skip the ','
    }
}

// Header field letters: channel r, g, b and endpoint w, x, y, z.
constexpr int channelOf(char name) { return name == 'r' ? 0 : name == 'g' ? 1 : 2; }
constexpr int endpointOf(char name) { return name - 'w'; }

}  // namespace glyptora_bc6h
