// GPU availability without a GPU: the driver check, device choice, compute-capability check,
// kernel module loading and the cached availability, run against stand-ins for the CUDA
// driver library (tests/support_fake_cuda).
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "gpu/kernel_image.h"
#include "gpu_fake_driver_fixture.h"

using namespace glyptora_internal;

namespace {

class GpuDriverTest : public FakeDriverBase {
protected:
    // Runs the availability query from a clean state; returns what it printed.
    static std::string availability(bool expected) {
        gpu_testing::resetGpuState();
        testing::internal::CaptureStdout();
        EXPECT_EQ(isGpuEncodingAvailable(), expected);
        return testing::internal::GetCapturedStdout();
    }

    static void setDevice(int index, int clockRate, int multiProcessors, int major, int minor) {
        fake_cuda().config.devices[index] = FakeCudaDevice{clockRate, multiProcessors, major, minor, 4ull << 30};
    }
};

}  // namespace

TEST_F(GpuDriverTest, MissingDriverOrEntryPointsAreReportedInOrder) {
    const std::pair<const char*, const char*> drivers[] = {
        {"/nonexistent/glyptora/libcuda.so.1", "*** CUDA driver not found.\n"},
        {GLYPTORA_CUDA_BEFORE_2_0, "*** CUDA driver version < 2.0.\n"},
        {GLYPTORA_CUDA_BEFORE_2_1, "*** CUDA driver version < 2.1.\n"},
        {GLYPTORA_CUDA_BEFORE_2_2, "*** CUDA driver version < 2.2.\n"}};
    for (const auto& [path, message] : drivers) {
        gpu_testing::setDriverLibraryPath(path);
        EXPECT_EQ(availability(false), message);
    }
}

TEST_F(GpuDriverTest, DriverVersionMustReachTheKernels) {
    const int runtime = cudaKernelRuntimeVersion();
    EXPECT_GE(runtime, 13000);
    for (int driver : {runtime, runtime + 1000, runtime - 10, 12000}) {
        fake_cuda_reset(driver);
        EXPECT_EQ(availability(driver >= runtime), driver >= runtime ? "" : "*** CUDA driver version " +
                  std::to_string(driver) + " < runtime version " + std::to_string(runtime) + ".\n");
    }
    fake_cuda_reset(runtime).config.driverVersionResult = 999;
    EXPECT_EQ(availability(false), "*** Error querying driver version: 'fake error 999'.\n");
}

TEST(GpuDeviceChoice, HighestClockTimesMultiprocessorsWinsAmongDevicesOfKnownCapability) {
    using P = CudaDeviceProperties;
    auto choose = [](const std::vector<P>& devices) {
        return chooseCudaDevice(int(devices.size()), [&](int i) { return devices[size_t(i)]; });
    };
    EXPECT_EQ(choose({{1000, 10, 8, 0, 0}, {2000, 10, 8, 0, 0}, {1500, 12, 8, 0, 0}}), 1);
    EXPECT_EQ(choose({{1000, 10, 8, 0, 0}, {2000, 10, 8, 0, 0}, {1000, 20, 9, 0, 0}, {4000, 5, 8, 6, 0}}), 1);  // ties
    EXPECT_EQ(choose({{9000, 90, -1, 0, 0}, {1000, 10, 8, 0, 0}, {9000, 90, 8, -1, 0}, {900, 10, 7, 5, 0}}), 1);
    EXPECT_EQ(choose({{1000, 10, -1, -1, 0}, {2000, 10, 8, -1, 0}}), 0);  // none qualifies
    int queried = 0;
    auto count = [&](int) {
        ++queried;
        return P{};
    };
    EXPECT_EQ(chooseCudaDevice(0, count), 0);
    EXPECT_EQ(chooseCudaDevice(-1, count), 0);  // a failed count query
    EXPECT_EQ(queried, 0);
}

// The choice's rules are checked above; here, that the driver's attributes reach it.
TEST_F(GpuDriverTest, ChosenDeviceIsMadeCurrent) {
    fake_cuda().config.deviceCount = 4;
    setDevice(0, 3000000, 80, -1, 0);  // unknown capability: never chosen
    setDevice(1, 1000000, 20, 8, 6);
    setDevice(2, 1000000, 40, 8, 9);  // 40e6, the best
    setDevice(3, 2000000, 20, 9, 0);  // 40e6 as well: a tie keeps device 2
    EXPECT_EQ(availability(true), "");
    EXPECT_EQ(fake_cuda().counters.retainedDevice, 2);
}

TEST_F(GpuDriverTest, ComputeCapabilityBelowTheKernelsIsRefused) {
    const std::pair<int, const char*> refused[] = {{61, "6 < 7"}, {20, "2 < 7"}, {70, "7.0 < 7.5"}, {74, "7.4 < 7.5"}};
    for (const auto& [capability, message] : refused) {
        setDevice(0, 1500000, 20, capability / 10, capability % 10);
        EXPECT_EQ(availability(false), "*** Device compute capability = " + std::string(message) + ".\n");
    }
    EXPECT_EQ(fake_cuda().counters.retainCalls, 0);
    setDevice(0, 1500000, 20, 7, 5);
    EXPECT_EQ(availability(true), "");
}

TEST_F(GpuDriverTest, FailingDriverDevicesOrModuleMakeGpuUnavailable) {
    fake_cuda().config.initResult = 100;
    EXPECT_EQ(availability(false), "*** CUDA driver initialisation failed: 'fake error 100'.\n");
    fake_cuda_reset(cudaKernelRuntimeVersion()).config.deviceCountResult = 100;
    availability(false);
    fake_cuda_reset(cudaKernelRuntimeVersion()).config.deviceCount = 0;
    availability(false);
    EXPECT_EQ(fake_cuda().counters.moduleLoads, 0);
    fake_cuda_reset(cudaKernelRuntimeVersion()).config.moduleLoadResult = 209;  // no kernel image for the device
    EXPECT_EQ(availability(false), "*** Cannot load the GPU kernels: 'fake error 209'.\n");
}

TEST_F(GpuDriverTest, EmbeddedKernelsAreLoadedOrTheirAbsenceIsReported) {
    gpu_testing::setKernelImage(nullptr, 0);
#if defined(GLYPTORA_HAVE_CUDA_KERNELS)
    EXPECT_EQ(availability(true), "");
    EXPECT_EQ(fake_cuda().counters.loadedImageFirstWord, 0xBA55ED50u);  // a CUDA fat binary's magic word
#else
    EXPECT_EQ(availability(false), "*** GPU kernels are not part of this build.\n");
#endif
}

TEST_F(GpuDriverTest, AvailabilityIsComputedOnceAndCachedUntilReset) {
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(isGpuEncodingAvailable());
    const FakeCudaCounters& counters = fake_cuda().counters;
    EXPECT_EQ(std::vector<int>({counters.driverVersionCalls, counters.initCalls, counters.retainCalls,
                                counters.moduleLoads}),
              std::vector<int>(4, 1));
    EXPECT_EQ(counters.loadedImageFirstWord, kTestKernelImage[0]);
    gpu_testing::resetGpuState();  // releases the context and the module
    EXPECT_EQ(counters.releaseCalls, 1);
    EXPECT_EQ(counters.moduleUnloads, 1);

    // A refusal is cached as well: the driver is not asked again, nothing is printed again.
    fake_cuda_reset(12000);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(isGpuEncodingAvailable());
    EXPECT_FALSE(isGpuEncodingAvailable());
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(output.find("***"), output.rfind("***"));
    EXPECT_NE(output.find("***"), std::string::npos);
    EXPECT_EQ(fake_cuda().counters.driverVersionCalls, 1);
}
