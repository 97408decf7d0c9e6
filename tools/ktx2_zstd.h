#pragma once
// Zstandard supercompression of KTX2 files: every level compressed on its own as one
// Zstandard frame (supercompression scheme 2), and the inverse for the reader.
#include <cstdint>
#include <string>
#include <vector>

#include "tools/containers.h"

namespace glyptora_tools {

// Whether this build has Zstandard (libzstd); without it the functions below fail with a reason.
bool zstdAvailable();
// The compression levels accepted: 1 to the library's maximum (22).
int zstdMaxLevel();

// The KTX2 file of `texture` with each level compressed at `level`.
bool serialiseKtx2Zstd(const EncodedTexture& texture, int level, std::vector<uint8_t>& file, std::string& error);

// Decompresses one stored level into exactly `expected` bytes; false with a reason when the
// data is not one Zstandard frame of that size.
bool inflateZstdLevel(const uint8_t* data, uint64_t size, uint64_t expected, std::vector<uint8_t>& out,
                      std::string& error);

}  // namespace glyptora_tools
