// The BC6H GPU path without a GPU: the launch sequence runs against the stand-in CUDA driver
// (tests/support_fake_cuda), which checks each launch's shape and carries out the functions
// of gpu/bc6h_gpu_stages.h on the CPU. Covers the launch order and counts for every source
// type and signedness, scratch freed, complete output over poison (host and device memory),
// odd sizes, launch splits, the entry's routing and failures; the blocks must be the CPU
// fast encoder's, HDR float sources included.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "gpu/bc6h_gpu_encode.h"
#include "gpu/gpu_kernel_names.h"
#include "gpu_fake_driver_fixture.h"

using namespace glyptora_internal;
using namespace gpu_quality;

namespace {

class GpuBC6HHostTest : public FakeDriverTest {};

// 65 tiles with partial tiles on both edges, HDR: values over many octaves, negatives, values
// past the largest half, infinity, NaN and denormals, beside the test images' gradients and noise.
std::unique_ptr<glyptora::CPUInputBuffer> oddInput(int32_t valueType) {
    static const std::vector<SourceImage> images = [] {
        const float specials[] = {70000.0f, -3.5f, std::numeric_limits<float>::infinity(),
                                  std::numeric_limits<float>::quiet_NaN(), 1.0e-6f, -2.0e-7f, 65504.0f, 0.0f};
        std::vector<SourceImage> hdr = oddSizedImages();
        for (SourceImage& image : hdr)
            for (size_t i = 0; i < image.f32.size(); ++i) {
                float& v = image.f32[i];
                const size_t texel = i / 4;
                if (texel % 5 == 1) v = v * v * 900.0f - 20.0f;  // bright and dark, both signs
                if (texel % 37 == 3) v = specials[(texel / 37 + i % 4) % 8];
            }
        return hdr;
    }();
    return makeInput(images, valueType);
}

// The kernels one sequence launches, in order.
std::vector<std::string> sequenceKernels(int32_t valueType, bool isSigned) {
    const int texels = valueType == glyptora::kValueU8 ? 0 : valueType == glyptora::kValueS8 ? 1 : 2;
    return {kernel_names::kBC6HTexels[texels], kernel_names::kFillFltMax, kernel_names::kBC6HEncode[isSigned ? 1 : 0]};
}

}  // namespace

TEST_F(GpuBC6HHostTest, SequenceLaunchesInOrderAndWritesTheCpuFastBlocks) {
    for (int32_t valueType : kValueTypes)
        for (bool isSigned : {false, true}) {
            SCOPED_TRACE(caseName(format_table::kBC6H, valueType) + (isSigned ? " signed" : " unsigned"));
            auto input = oddInput(valueType);
            ASSERT_EQ(input->tileCount(), 65u);
            fake_cuda().launches.clear();
            gpuEncode(format_table::kBC6H, *input->buffer(), 0x00, false, nullptr, nullptr, false, isSigned);
            for (const FakeCudaLaunch& l : fake_cuda().launches) EXPECT_EQ(l.tiles, 65u);  // the whole chunk
            // 4 chunks (17, 16, 16, 16 tiles) of 6 launches, each launch one whole sequence.
            expectSequenceAndBlocks({format_table::kBC6H, false, isSigned, "bc6h_encode_gpu()", 20, 3, 24},
                                    *input->buffer(), entryBlocks(format_table::kBC6H, *input, false, false, isSigned),
                                    sequenceKernels(valueType, isSigned));
        }
}

TEST_F(GpuBC6HHostTest, EntryRoutesTheDefaultQualitiesToTheGpuAndKeepsTheSlowOneOnTheCpu) {
    for (bool isSigned : {false, true})
        expectOnlyTheDefaultQualityOnTheGpu(format_table::kBC6H, *oddInput(glyptora::kValueF32), false, isSigned,
                                            sequenceKernels(glyptora::kValueF32, isSigned),
                                            "BC6H Compressor: no slow-mode for bc6-gpu, using cpu instead.\n");
}

TEST_F(GpuBC6HHostTest, FailuresAreReportedOnceAndFreeTheScratch) {
    auto input = oddInput(glyptora::kValueS8);
    const DeviceFailure failures[] = {
        {700, 0, nullptr, "*** GPU encoding failed at kernel launch: 'fake error 700'.\n", 1},
        {0, 0, kernel_names::kBC6HEncode[1],
         "*** GPU kernel glyptora_bc6h_encode_signed is missing from the kernel module.\n", 2},
        {0, 0, kernel_names::kFillFltMax, "*** GPU kernel glyptora_g_fill_flt_max is missing from the kernel module.\n",
         1}};
    for (const DeviceFailure& f : failures) {
        gpu_testing::resetGpuState();  // a new session, which has looked up no kernel yet
        expectDeviceFailure(f, format_table::kBC6H, *input->buffer(), false, true);
    }
}
