// GPU availability without a GPU: the driver check, device choice, compute-capability check,
// kernel module loading and the cached availability, run against a scripted stand-in for the
// CUDA driver library (tests/support_fake_cuda).
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fake_cuda.h"
#include "gpu/cuda_driver.h"
#include "gpu/gpu_encoders.h"
#include "gpu/gpu_testing.h"
#include "gpu/kernel_image.h"

using namespace glyptora_internal;

namespace {

// Stands in for the kernel module where a test needs availability to succeed in every build.
alignas(64) const uint32_t kTestKernelImage[4] = {0x7E57CAFEu, 1, 2, 3};

class GpuDriverTest : public ::testing::Test {
protected:
    void SetUp() override {
        fake_cuda_reset(cudaKernelRuntimeVersion());
        gpu_testing::setDriverLibraryPath(GLYPTORA_FAKE_CUDA);
        gpu_testing::setKernelImage(kTestKernelImage, sizeof kTestKernelImage);
        gpu_testing::resetGpuState();
    }
    void TearDown() override {
        gpu_testing::resetGpuState();
        gpu_testing::setDriverLibraryPath(nullptr);
        gpu_testing::setKernelImage(nullptr, 0);
    }

    // Runs the availability query from a clean state and returns what it printed.
    static std::string availabilityOutput(bool* available) {
        gpu_testing::resetGpuState();
        testing::internal::CaptureStdout();
        *available = isGpuEncodingAvailable();
        return testing::internal::GetCapturedStdout();
    }

    static void setDevice(int index, int clockRate, int multiProcessors, int major, int minor) {
        FakeCudaDevice& d = fake_cuda_config()->devices[index];
        d.clockRate = clockRate;
        d.multiProcessorCount = multiProcessors;
        d.major = major;
        d.minor = minor;
        d.totalMem = 4ull << 30;
    }
};

std::string driverCheckOutput(const char* path, bool* ok) {
    gpu_testing::setDriverLibraryPath(path);
    testing::internal::CaptureStdout();
    *ok = checkCudaDriver();
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST_F(GpuDriverTest, KernelsTargetCuda13) {
    EXPECT_GE(cudaKernelRuntimeVersion(), 13000);
}

TEST_F(GpuDriverTest, MissingDriverLibraryIsReportedAndMakesGpuUnavailable) {
    gpu_testing::setDriverLibraryPath("/nonexistent/glyptora/libcuda.so.1");
    bool available = true;
    EXPECT_EQ(availabilityOutput(&available), "*** CUDA driver not found.\n");
    EXPECT_FALSE(available);
}

TEST_F(GpuDriverTest, MissingEntryPointsAreCheckedInOrder) {
    bool ok = true;
    EXPECT_EQ(driverCheckOutput(GLYPTORA_FAKE_CUDA_WITHOUT_STREAM, &ok), "*** CUDA driver version < 2.0.\n");
    EXPECT_FALSE(ok);
    ok = true;
    EXPECT_EQ(driverCheckOutput(GLYPTORA_FAKE_CUDA_WITHOUT_LOADEX, &ok), "*** CUDA driver version < 2.1.\n");
    EXPECT_FALSE(ok);
    ok = true;
    EXPECT_EQ(driverCheckOutput(GLYPTORA_FAKE_CUDA_WITHOUT_VERSION, &ok), "*** CUDA driver version < 2.2.\n");
    EXPECT_FALSE(ok);
}

TEST_F(GpuDriverTest, MissingEntryPointMakesGpuUnavailable) {
    gpu_testing::setDriverLibraryPath(GLYPTORA_FAKE_CUDA_WITHOUT_LOADEX);
    bool available = true;
    EXPECT_EQ(availabilityOutput(&available), "*** CUDA driver version < 2.1.\n");
    EXPECT_FALSE(available);
}

TEST_F(GpuDriverTest, VersionQueryErrorPrintsTheDriversText) {
    fake_cuda_config()->driverVersionResult = 999;
    bool ok = true;
    EXPECT_EQ(driverCheckOutput(GLYPTORA_FAKE_CUDA, &ok), "*** Error querying driver version: 'fake error 999'.\n");
    EXPECT_FALSE(ok);
}

TEST_F(GpuDriverTest, DriverOlderThanTheKernelsIsRefused) {
    fake_cuda_reset(12000);
    bool available = true;
    const std::string expected =
        "*** CUDA driver version 12000 < runtime version " + std::to_string(cudaKernelRuntimeVersion()) + ".\n";
    EXPECT_EQ(availabilityOutput(&available), expected);
    EXPECT_FALSE(available);

    fake_cuda_reset(cudaKernelRuntimeVersion() - 10);
    bool ok = true;
    EXPECT_NE(driverCheckOutput(GLYPTORA_FAKE_CUDA, &ok), "");
    EXPECT_FALSE(ok);
}

TEST_F(GpuDriverTest, DriverOfTheKernelsVersionOrNewerPassesSilently) {
    bool ok = false;
    EXPECT_EQ(driverCheckOutput(GLYPTORA_FAKE_CUDA, &ok), "");
    EXPECT_TRUE(ok);
    fake_cuda_reset(cudaKernelRuntimeVersion() + 1000);
    ok = false;
    EXPECT_EQ(driverCheckOutput(GLYPTORA_FAKE_CUDA, &ok), "");
    EXPECT_TRUE(ok);
}

TEST(GpuDeviceChoice, HighestClockTimesMultiprocessorsWins) {
    const std::vector<CudaDeviceProperties> devices = {
        {1000, 10, 8, 0, 0}, {2000, 10, 8, 0, 0}, {1500, 12, 8, 0, 0}};
    EXPECT_EQ(chooseCudaDevice(3, [&](int i) { return devices[size_t(i)]; }), 1);
}

TEST(GpuDeviceChoice, EqualScoresKeepTheEarlierDevice) {
    const std::vector<CudaDeviceProperties> devices = {
        {1000, 10, 8, 0, 0}, {2000, 10, 8, 0, 0}, {1000, 20, 9, 0, 0}, {4000, 5, 8, 6, 0}};
    EXPECT_EQ(chooseCudaDevice(4, [&](int i) { return devices[size_t(i)]; }), 1);
}

TEST(GpuDeviceChoice, DevicesWithUnknownCapabilityAreSkipped) {
    const std::vector<CudaDeviceProperties> devices = {
        {9000, 90, -1, 0, 0}, {1000, 10, 8, 0, 0}, {9000, 90, 8, -1, 0}, {900, 10, 7, 5, 0}};
    EXPECT_EQ(chooseCudaDevice(4, [&](int i) { return devices[size_t(i)]; }), 1);
}

TEST(GpuDeviceChoice, NoDeviceOrNoQualifyingDeviceGivesDeviceZero) {
    int queried = 0;
    auto count = [&](int) {
        ++queried;
        return CudaDeviceProperties{};
    };
    EXPECT_EQ(chooseCudaDevice(0, count), 0);
    EXPECT_EQ(chooseCudaDevice(-1, count), 0);
    EXPECT_EQ(queried, 0);
    const std::vector<CudaDeviceProperties> devices = {{1000, 10, -1, -1, 0}, {2000, 10, 8, -1, 0}};
    EXPECT_EQ(chooseCudaDevice(2, [&](int i) { return devices[size_t(i)]; }), 0);
}

TEST_F(GpuDriverTest, ChosenDeviceIsMadeCurrent) {
    fake_cuda_config()->deviceCount = 3;
    setDevice(0, 1000000, 20, 8, 6);
    setDevice(1, 1000000, 40, 8, 9);  // 40e6, the best
    setDevice(2, 2000000, 20, 9, 0);  // 40e6 as well: a tie keeps device 1
    bool available = false;
    EXPECT_EQ(availabilityOutput(&available), "");
    EXPECT_TRUE(available);
    EXPECT_EQ(fake_cuda_counters().retainedDevice, 1);
}

TEST_F(GpuDriverTest, DeviceWithUnknownCapabilityIsNotChosen) {
    fake_cuda_config()->deviceCount = 2;
    setDevice(0, 3000000, 80, -1, 0);
    setDevice(1, 1000000, 10, 7, 5);
    bool available = false;
    EXPECT_EQ(availabilityOutput(&available), "");
    EXPECT_TRUE(available);
    EXPECT_EQ(fake_cuda_counters().retainedDevice, 1);
}

TEST_F(GpuDriverTest, ComputeCapabilityBelowTheKernelsIsRefused) {
    setDevice(0, 1500000, 20, 6, 1);
    bool available = true;
    EXPECT_EQ(availabilityOutput(&available), "*** Device compute capability = 6 < 7.\n");
    EXPECT_FALSE(available);

    setDevice(0, 1500000, 20, 2, 0);
    available = true;
    EXPECT_EQ(availabilityOutput(&available), "*** Device compute capability = 2 < 7.\n");
    EXPECT_FALSE(available);

    setDevice(0, 1500000, 20, 7, 0);
    available = true;
    EXPECT_EQ(availabilityOutput(&available), "*** Device compute capability = 7.0 < 7.5.\n");
    EXPECT_FALSE(available);
    EXPECT_EQ(fake_cuda_counters().retainCalls, 0);

    setDevice(0, 1500000, 20, 7, 5);
    available = false;
    EXPECT_EQ(availabilityOutput(&available), "");
    EXPECT_TRUE(available);
}

TEST_F(GpuDriverTest, FailedDriverInitialisationIsReported) {
    fake_cuda_config()->initResult = 100;
    bool available = true;
    EXPECT_EQ(availabilityOutput(&available), "*** CUDA driver initialisation failed: 'fake error 100'.\n");
    EXPECT_FALSE(available);
}

TEST_F(GpuDriverTest, FailingDeviceCountMakesGpuUnavailable) {
    fake_cuda_config()->deviceCountResult = 100;
    bool available = true;
    availabilityOutput(&available);
    EXPECT_FALSE(available);
}

TEST_F(GpuDriverTest, ZeroDevicesMakeGpuUnavailable) {
    fake_cuda_config()->deviceCount = 0;
    bool available = true;
    availabilityOutput(&available);
    EXPECT_FALSE(available);
    EXPECT_EQ(fake_cuda_counters().moduleLoads, 0);
}

TEST_F(GpuDriverTest, KernelModuleIsLoadedOnce) {
    bool available = false;
    EXPECT_EQ(availabilityOutput(&available), "");
    ASSERT_TRUE(available);
    EXPECT_TRUE(isGpuEncodingAvailable());
    const FakeCudaCounters counters = fake_cuda_counters();
    EXPECT_EQ(counters.moduleLoads, 1);
    EXPECT_EQ(counters.loadedImageFirstWord, kTestKernelImage[0]);
}

TEST_F(GpuDriverTest, ModuleLoadFailureIsReported) {
    fake_cuda_config()->moduleLoadResult = 209;  // no kernel image for the device
    bool available = true;
    EXPECT_EQ(availabilityOutput(&available), "*** Cannot load the GPU kernels: 'fake error 209'.\n");
    EXPECT_FALSE(available);
}

TEST_F(GpuDriverTest, EmbeddedKernelsAreLoadedOrTheirAbsenceIsReported) {
    gpu_testing::setKernelImage(nullptr, 0);
    bool available = false;
    const std::string output = availabilityOutput(&available);
#if defined(GLYPTORA_HAVE_CUDA_KERNELS)
    EXPECT_EQ(output, "");
    EXPECT_TRUE(available);
    // A CUDA fat binary starts with its magic word.
    EXPECT_EQ(fake_cuda_counters().loadedImageFirstWord, 0xBA55ED50u);
#else
    EXPECT_EQ(output, "*** GPU kernels are not part of this build.\n");
    EXPECT_FALSE(available);
#endif
}

TEST_F(GpuDriverTest, AvailabilityIsComputedOnceAndCached) {
    EXPECT_TRUE(isGpuEncodingAvailable());
    EXPECT_TRUE(isGpuEncodingAvailable());
    EXPECT_TRUE(isGpuEncodingAvailable());
    FakeCudaCounters counters = fake_cuda_counters();
    EXPECT_EQ(counters.driverVersionCalls, 1);
    EXPECT_EQ(counters.initCalls, 1);
    EXPECT_EQ(counters.retainCalls, 1);

    // A refusal is cached as well: the driver is not asked again, nothing is printed again.
    fake_cuda_reset(12000);
    gpu_testing::resetGpuState();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(isGpuEncodingAvailable());
    EXPECT_FALSE(isGpuEncodingAvailable());
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(output.find("***"), output.rfind("***"));
    counters = fake_cuda_counters();
    EXPECT_EQ(counters.driverVersionCalls, 1);
}

TEST_F(GpuDriverTest, ResetReleasesTheContextAndTheModule) {
    ASSERT_TRUE(isGpuEncodingAvailable());
    gpu_testing::resetGpuState();
    const FakeCudaCounters counters = fake_cuda_counters();
    EXPECT_EQ(counters.releaseCalls, 1);
    EXPECT_EQ(counters.moduleUnloads, 1);
}
