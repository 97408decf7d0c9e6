// Throughput of the BC1 and BC3 GPU paths (not a test; built as glyptora_gpu_benchmark).
//
//   glyptora_gpu_benchmark [--size N] [--repeat R] [--cpu]
//
// Encodes an N x N RGBA8 image (default 8192) R times (default 3) per format and prints
// megapixels per second for: the whole GPU encode with host input and host output (tile
// upload, kernels, copy back), the same with the output left in device memory, and the
// kernels alone (the per-chunk encoder scope less its copy back, upload excluded). --cpu adds
// the CPU encoder at the same quality for comparison.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/cpu_input_buffer.h"
#include "core/image_record.h"
#include "core/timing_context.h"
#include "gpu/cuda_driver.h"
#include "dispatch/encoder_entries.h"
#include "gpu/gpu_encoders.h"

using namespace glyptora_internal;

namespace {

std::vector<uint8_t> makeImage(int size) {
    std::vector<uint8_t> p(size_t(size) * size_t(size) * 4);
    uint32_t state = 12345;
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) {
            state = state * 1664525u + 1013904223u;
            uint8_t* px = &p[(size_t(y) * size_t(size) + size_t(x)) * 4];
            px[0] = uint8_t((x * 255) / size + ((state >> 24) & 15));
            px[1] = uint8_t((y * 255) / size);
            px[2] = uint8_t(((x ^ y) & 63) * 4);
            px[3] = uint8_t((x / 16 + y / 16) % 4 == 0 ? 0 : 255 - ((state >> 16) & 31));
        }
    return p;
}

double seconds(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    int size = 8192;
    int repeat = 3;
    bool cpu = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--size") && i + 1 < argc) size = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--repeat") && i + 1 < argc) repeat = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--cpu")) cpu = true;
        else {
            std::fprintf(stderr, "usage: %s [--size N] [--repeat R] [--cpu]\n", argv[0]);
            return 2;
        }
    }
    if (size < 4 || repeat < 1) return 2;

    if (!isGpuEncodingAvailable()) {
        std::fprintf(stderr, "no usable CUDA GPU (see the *** line above)\n");
        return 1;
    }
    const GpuSession* session = currentGpuSession();
    const CudaDeviceProperties& p = session->properties();
    std::printf("device %d: compute %d.%d, %d SMs, %d kHz, %.1f GiB\n", session->deviceIndex(), p.major, p.minor,
                p.multiProcessorCount, p.clockRate, double(p.totalGlobalMem) / double(1ull << 30));

    const std::vector<uint8_t> pixels = makeImage(size);
    glyptora::ImageRecord record;
    record.data = pixels.data();
    record.width = size;
    record.height = size;
    glyptora::CPUInputBuffer input(&record, 1, glyptora::kValueU8, 4, 4, 1, 1, 1, 1);
    const glyptora::CPUBuffer_Base& buffer = *input.buffer();
    const double megapixels = double(size) * double(size) / 1e6;
    std::printf("image %d x %d (%.1f Mpix, %u blocks), best of %d runs\n", size, size, megapixels, buffer.tileCount,
                repeat);

    const EncoderEntry* formats[] = {&format_table::kBC1a, &format_table::kBC3};
    const cuda::DriverApi& api = session->api();
    bool ok = true;
    for (const EncoderEntry* entry : formats) {
        const GpuPlan& plan = *entry->gpu;
        const size_t bytes = size_t(buffer.tileCount) * size_t(plan.blockBytes);
        std::vector<uint8_t> out(bytes);
        cuda::CUdeviceptr device = 0;
        if (api.cuMemAlloc(&device, bytes) != cuda::kSuccess) {
            std::fprintf(stderr, "cannot allocate the device output\n");
            return 1;
        }
        ok = ok && encodeOnGpu(plan, entry->name, buffer, out.data(), false, nullptr);  // warm-up

        double hostBest = 1e30, deviceBest = 1e30, kernelBest = 1e30, uploadBest = 1e30;
        for (int r = 0; r < repeat; ++r) {
            glyptora::TimingContext timing;
            auto start = std::chrono::steady_clock::now();
            ok = ok && encodeOnGpu(plan, entry->name, buffer, out.data(), false, &timing);
            hostBest = std::min(hostBest, seconds(start));
            kernelBest = std::min(kernelBest, timing.total(plan.chunkLabel) - timing.total("device to host"));
            uploadBest = std::min(uploadBest, timing.total("host to device"));

            start = std::chrono::steady_clock::now();
            ok = ok && encodeOnGpu(plan, entry->name, buffer, reinterpret_cast<uint8_t*>(uintptr_t(device)), true, nullptr);
            deviceBest = std::min(deviceBest, seconds(start));
        }
        api.cuMemFree(device);
        std::printf("%s GPU  with copies (host in, host out): %9.1f Mpix/s  (%.3f s)\n", entry->name,
                    megapixels / hostBest, hostBest);
        std::printf("%s GPU  output in device memory:         %9.1f Mpix/s  (%.3f s)\n", entry->name,
                    megapixels / deviceBest, deviceBest);
        std::printf("%s GPU  kernels only (no copies):        %9.1f Mpix/s  (%.3f s; upload %.3f s)\n", entry->name,
                    megapixels / kernelBest, kernelBest, uploadBest);
        if (cpu) {
            auto start = std::chrono::steady_clock::now();
            runEncoderEntry(*entry, input, false, false, false, out.data(), false, false, nullptr);
            const double t = seconds(start);
            std::printf("%s CPU  same quality:                    %9.1f Mpix/s  (%.3f s)\n", entry->name, megapixels / t, t);
        }
    }
    if (!ok) {
        std::fprintf(stderr, "a GPU encode failed\n");
        return 1;
    }
    return 0;
}
