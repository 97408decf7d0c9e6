/* The stb image decoders and PNG writer for Windows builds of the tools: Debian's libstb
 * (libstb-dev) is a Linux library, so cross builds compile its two headers here. */
#define STB_IMAGE_IMPLEMENTATION
#include <stb/stb_image.h>
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image_write.h>
