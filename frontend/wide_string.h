#pragma once
// Platform interface: wide strings to narrow strings of the current code page / locale.
#include <string>

namespace glyptora_internal {
// Characters that cannot be represented become '?'. An empty input gives an empty result.
std::string narrowString(const wchar_t* wide);
}
