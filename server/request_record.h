#pragma once
// The fixed 380-byte request a client sends to the conversion server: the names of the two
// shared sections, the three strings of the conversion and seven little-endian 32-bit
// integers, each at a fixed offset.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace glyptora_internal {

inline constexpr size_t kRequestRecordSize = 380;
using RequestRecord = std::array<uint8_t, kRequestRecordSize>;

namespace request_layout {
inline constexpr size_t kDestinationSection = 0;   // 128 bytes, zero-terminated
inline constexpr size_t kSourceSection = 128;      // 128 bytes, zero-terminated
inline constexpr size_t kDestinationFormat = 256;  // 32 bytes, zero-terminated
inline constexpr size_t kSourceFormat = 288;       // 32 bytes, zero-terminated
inline constexpr size_t kOptions = 320;            // 32 bytes, zero-terminated, cut to 31 characters
inline constexpr size_t kIntegers = 352;           // flags, dimension, width, height, depth, mip count, client id
inline constexpr size_t kSectionNameBytes = 128;
inline constexpr size_t kTextBytes = 32;
}  // namespace request_layout

struct ServerRequest {
    std::string destinationSection;
    std::string sourceSection;
    std::string destinationFormat;
    std::string sourceFormat;
    std::string options;
    uint32_t flags = 0;
    uint32_t dimension = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t depth = 0;
    uint32_t mipCount = 0;
    uint32_t clientProcessId = 0;
};

// Fills `record`. Section names and the two formats are copied whole or not at all: one that
// does not fit its field with its terminating zero fails, and `error` says which. Options are
// cut to 31 characters.
bool encodeRequestRecord(const ServerRequest& request, RequestRecord& record, std::string& error);

// Reads a received record of `size` bytes (only the first 380 count). A shorter record, or a
// text field without its terminating zero inside the field, is refused with the reason in
// `error`. Touches nothing but its arguments, so any byte string may be thrown at it.
bool parseRequestRecord(const uint8_t* bytes, size_t size, ServerRequest& request, std::string& error);

}  // namespace glyptora_internal
