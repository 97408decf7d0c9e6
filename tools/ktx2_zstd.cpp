#include "tools/ktx2_zstd.h"

#ifdef GLYPTORA_TOOLS_HAVE_ZSTD
#include <zstd.h>
#endif

namespace glyptora_tools {

#ifdef GLYPTORA_TOOLS_HAVE_ZSTD

bool zstdAvailable() { return true; }

int zstdMaxLevel() { return ZSTD_maxCLevel(); }

bool serialiseKtx2Zstd(const EncodedTexture& t, int level, std::vector<uint8_t>& file, std::string& error) {
    std::vector<std::vector<uint8_t>> stored(t.levels);
    for (uint32_t m = 0; m < t.levels; ++m) {
        const size_t size = size_t(t.levelSizes[m]);
        stored[m].resize(ZSTD_compressBound(size));
        const size_t written =
            ZSTD_compress(stored[m].data(), stored[m].size(), t.blocks.data() + t.levelOffsets[m], size, level);
        if (ZSTD_isError(written)) {
            error = std::string("Zstandard compression failed: ") + ZSTD_getErrorName(written);
            return false;
        }
        stored[m].resize(written);
    }
    file = serialiseKtx2(t, kKtx2Zstandard, stored);
    return true;
}

bool inflateZstdLevel(const uint8_t* data, uint64_t size, uint64_t expected, std::vector<uint8_t>& out,
                      std::string& error) {
    out.resize(size_t(expected));
    const size_t got = ZSTD_decompress(out.data(), out.size(), data, size_t(size));
    if (ZSTD_isError(got)) {
        error = std::string("corrupt Zstandard data (") + ZSTD_getErrorName(got) + ")";
        return false;
    }
    if (got != expected) {
        error = "Zstandard data holds " + std::to_string(got) + " bytes instead of " + std::to_string(expected);
        return false;
    }
    return true;
}

#else

namespace {
const char* const kNoZstd = "Zstandard is not supported by this build (libzstd was not found)";
}

bool zstdAvailable() { return false; }

int zstdMaxLevel() { return 0; }

bool serialiseKtx2Zstd(const EncodedTexture&, int, std::vector<uint8_t>&, std::string& error) {
    error = kNoZstd;
    return false;
}

bool inflateZstdLevel(const uint8_t*, uint64_t, uint64_t, std::vector<uint8_t>&, std::string& error) {
    error = kNoZstd;
    return false;
}

#endif

}  // namespace glyptora_tools
