#pragma once
// Consistency checks of the BC7 mode encoders. The search and block-writing
// routines are shared between the modes, so a failed check names the mode it
// ran for ("bc7_mode0" ... "bc7_mode7") in place of the file it sits in; in
// every other respect it is GLYPTORA_ASSERT and goes to the same handler.
#include "core/assert.h"

namespace BC7Modes {

inline const char* modeSourceName(int mode) {
    static const char* const kNames[8] = {"bc7_mode0", "bc7_mode1", "bc7_mode2", "bc7_mode3",
                                          "bc7_mode4", "bc7_mode5", "bc7_mode6", "bc7_mode7"};
    return mode >= 0 && mode < 8 ? kNames[mode] : "bc7_modes";
}

}  // namespace BC7Modes

// The expression is macro-expanded before it is quoted, so that a check written
// with REGION() reports the table access it stands for.
#define BC7_MODE_ASSERT(for_mode, expression) BC7_MODE_ASSERT_QUOTED(for_mode, expression)
#define BC7_MODE_ASSERT_QUOTED(for_mode, expression)                                                       \
    do {                                                                                                   \
        if (!(expression) && ::glyptora_internal::reportAssertion(#expression, ::BC7Modes::modeSourceName(for_mode), \
                                                                  __LINE__, __func__, nullptr) == 1)       \
            ::glyptora_internal::debugBreak();                                                             \
    } while (false)
