// The kernels travel inside the library: with nvcc at build time the core carries the CUDA fat
// binary, and so does the shared library; the exported availability query answers without
// crashing whether or not a driver is present.
#include <gtest/gtest.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "dispatch/format_table.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu/kernel_image.h"

using namespace glyptora_internal;

#if defined(GLYPTORA_HAVE_CUDA_KERNELS)

namespace {

std::vector<char> readFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

bool contains(const std::vector<char>& haystack, const void* needle, size_t size) {
    const char* n = static_cast<const char*>(needle);
    return std::search(haystack.begin(), haystack.end(), n, n + size) != haystack.end();
}

}  // namespace

TEST(GpuEmbedding, CoreAndSharedLibraryCarryTheFatBinaryOfTheKernels) {
    const KernelImage image = embeddedKernelImage();
    ASSERT_NE(image.data, nullptr);
    ASSERT_GT(image.size, 4096u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(image.data) % 8, 0u) << "the driver wants an aligned image";
    uint32_t magic = 0;
    std::memcpy(&magic, image.data, sizeof magic);
    EXPECT_EQ(magic, 0xBA55ED50u);  // CUDA fat binary
    const std::vector<char> bytes(static_cast<const char*>(image.data),
                                  static_cast<const char*>(image.data) + image.size);
    // Every kernel a GPU plan of the format table launches, and the element conversions.
    std::vector<const char*> names = {kernel_names::kF32ToU8, kernel_names::kS8ToU8, kernel_names::kF32ToS8,
                                      kernel_names::kU8ToS8};
    for (const FormatRow& row : allFormatRows())
        if (const GpuPlan* plan = row.entry->gpu)
            for (const char* name : {plan->channelKernel, plan->colourKernel})
                if (name) names.push_back(name);
    for (const char* name : names)
        EXPECT_TRUE(contains(bytes, name, std::strlen(name) + 1)) << name;
    // The shared library file holds the fat binary's start and end.
    const std::vector<char> library = readFile(GLYPTORA_SHARED_LIBRARY);
    ASSERT_FALSE(library.empty());
    EXPECT_TRUE(contains(library, image.data, 4096));
    EXPECT_TRUE(contains(library, static_cast<const char*>(image.data) + image.size - 4096, 4096));
}

#else

TEST(GpuEmbedding, BuildWithoutNvccCarriesNoKernels) {
    const KernelImage image = embeddedKernelImage();
    EXPECT_EQ(image.size, 0u);
}

#endif

TEST(GpuEmbedding, ExportedAvailabilityQueryAnswersWithoutCrashing) {
    void* library = dlopen(GLYPTORA_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    using Query = uint32_t (*)();
    auto query = reinterpret_cast<Query>(dlsym(library, "GlyptoraIsGpuEncodingAvailable"));
    ASSERT_NE(query, nullptr);
    testing::internal::CaptureStdout();
    const uint32_t first = query();
    const uint32_t second = query();  // cached
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(first, second);
    EXPECT_LE(first, 1u);

    void* driver = dlopen("libcuda.so.1", RTLD_NOW | RTLD_LOCAL);
    if (!driver) {
        EXPECT_EQ(first, 0u);
        EXPECT_EQ(printed, "*** CUDA driver not found.\n");
    } else {
        dlclose(driver);
        // Same answer as the core linked into this test (its own cached copy).
        testing::internal::CaptureStdout();
        const bool core = isGpuEncodingAvailable();
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(first, core ? 1u : 0u);
    }
    dlclose(library);
}
