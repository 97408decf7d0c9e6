#pragma once
#include <cstdint>

namespace glyptora {

// One mip level (all its slices) handed to the input buffer.
struct ImageRecord {
    const void* data = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    int32_t depth = 1;
    int32_t channelCount = 4;
    // Output channel k reads source channel channelOrder[k]; 4 = constant 0, 5 = constant 1.
    uint32_t channelOrder[4] = {0, 1, 2, 3};
    // Interleaved: channels of a pixel are adjacent. Planar: each channel is one plane of depth*width*height values.
    bool interleaved = true;
};

enum ValueType : int32_t { kValueU8 = 0, kValueS8 = 1, kValueF32 = 2 };

}  // namespace glyptora
