#pragma once
// The colour range of a block layout, looked up rather than searched: the encoder's searches
// ask for it for every block mode and endpoint-mode combination they score.
#include "astc/block_layout.h"

namespace glyptora_astc {

// The same as astcColourRange, from a table of astcColourRangeForBits built once.
inline int astcColourRangeLookup(int partitionCount, int extraCemBits, bool dualPlane, int weightBits, int valueCount) {
    struct Table {
        signed char range[kAstcMaxColourValues + 1][129];
        Table() {
            for (int values = 0; values <= kAstcMaxColourValues; ++values)
                for (int bits = 0; bits <= 128; ++bits) range[values][bits] = (signed char)astcColourRangeForBits(bits, values);
        }
    };
    static const Table table;
    const int available = astcColourBitsAvailable(partitionCount, extraCemBits, dualPlane, weightBits);
    if (valueCount > kAstcMaxColourValues || valueCount < 0 || available < 0) return -1;
    return table.range[valueCount][available > 128 ? 128 : available];
}

}  // namespace glyptora_astc
