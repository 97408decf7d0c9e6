// Fuzzes the command's image loaders (PNG, JPEG, TGA, BMP, PSD, HDR, EXR and whatever else
// the bytes claim to be). A load either fails with one line saying why, or gives an image
// within the limits whose buffers hold exactly its pixels, float ones all finite.
//
// The bytes go to an in-memory file, read through its /proc path as the command reads a
// file. The limits are lowered so that no case allocates more than a few MiB; the refusal
// paths are the same code as with the command's limits.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <string>

#include "fuzz_check.h"
#include "tools/image_io.h"

namespace {

constexpr glyptora_tools::ImageLimits kLimits{1024, 8u << 20};

int g_file = -1;
std::string g_path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_file = memfd_create("glyptora-fuzz-image", MFD_CLOEXEC);
    FUZZ_CHECK(g_file >= 0);
    g_path = "/proc/self/fd/" + std::to_string(g_file);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FUZZ_CHECK(ftruncate(g_file, 0) == 0);
    FUZZ_CHECK(size == 0 || pwrite(g_file, data, size, 0) == ssize_t(size));

    glyptora_tools::Image image;
    std::string error;
    if (!glyptora_tools::loadImage(g_path, image, error, kLimits)) {
        FUZZ_CHECK(!error.empty() && error.find('\n') == std::string::npos);
        return 0;
    }
    FUZZ_CHECK(error.empty());
    FUZZ_CHECK(image.width >= 1 && image.width <= kLimits.maxSide);
    FUZZ_CHECK(image.height >= 1 && image.height <= kLimits.maxSide);
    const uint64_t values = uint64_t(image.width) * image.height * 4;
    FUZZ_CHECK(values * (image.isFloat ? 4 : 1) <= kLimits.maxBytes);
    FUZZ_CHECK(image.kind && *image.kind);
    if (image.isFloat) {
        FUZZ_CHECK(image.f32.size() == values && image.u8.empty());
        for (float v : image.f32) FUZZ_CHECK(std::isfinite(v));
    } else {
        FUZZ_CHECK(image.u8.size() == values && image.f32.empty());
    }
    (void)image.hasAlpha();
    return 0;
}
