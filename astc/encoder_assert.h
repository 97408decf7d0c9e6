#pragma once
// Consistency checks of the ASTC block writer and encoder. They report the source
// "astc_encoder" and the fully qualified function name (e.g.
// "glyptora_astc::s_WriteIntegers") so that a report names the ASTC routine that failed
// wherever it was inlined; otherwise they are GLYPTORA_ASSERT and go to the same handler.
#include "core/assert.h"

#if defined(GLYPTORA_ON_DEVICE)
#define GLYPTORA_ASTC_ASSERT(function, expression) ((void)0)
#else
#define GLYPTORA_ASTC_ASSERT(function, expression)                                                               \
    do {                                                                                                         \
        if (!(expression) &&                                                                                     \
            ::glyptora_internal::reportAssertion(#expression, "astc_encoder", __LINE__, function, nullptr) == 1) \
            ::glyptora_internal::debugBreak();                                                                   \
    } while (false)
#endif
