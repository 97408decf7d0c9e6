#pragma once
// The client side of the server route: the conversion runs in this user's conversion server
// process, which the first client starts.
#include <cstdint>

namespace glyptora_internal {

struct ServerConversion {
    void* destination;
    const void* source;
    uint64_t destinationBytes;
    uint64_t sourceBytes;
    const char* destinationFormat;
    const char* sourceFormat;
    const char* options;
    uint32_t flags, dimension, width, height, depth, mipCount;
};

// Copies the source into a shared section, has the server convert it and, when it answers
// "Success", copies the result to the destination (which is not touched otherwise). Any
// failure prints one "Error: " line on standard error and returns false; a server that cannot
// be started, does not accept the request within 10 seconds or dies while converting gives
// "Error: Server does not respond (<reason>)".
bool convertInServer(const ServerConversion& conversion);

}  // namespace glyptora_internal
