// The image decoder of the command's loaders, compiled into the fuzzers with their
// instrumentation (the command itself links the packaged libstb).
#define STB_IMAGE_IMPLEMENTATION
#include <stb/stb_image.h>
