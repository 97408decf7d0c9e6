// glyptora_server_bench: what the server route (flag 0x20) adds per request against converting
// in process, for a small (64x64) and a large (4096x4096) BC1 "fastest" texture: round-trip
// latency (median and mean) and throughput. Runs its own server in a private runtime
// directory.  Usage: glyptora_server_bench [small iterations] [large iterations]
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "glyptora.h"

namespace {

using Clock = std::chrono::steady_clock;

double convertMs(uint32_t size, const std::vector<uint8_t>& source, std::vector<uint8_t>& blocks, uint32_t flags) {
    const auto start = Clock::now();
    if (!GlyptoraConvert(blocks.data(), source.data(), L"unorm_bc1", L"unorm_8_8_8_8", L"fastest", flags, 0, size, size,
                         1, 1)) {
        std::fprintf(stderr, "conversion failed\n");
        std::exit(1);
    }
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

double mean(const std::vector<double>& values) {
    double total = 0;
    for (double v : values) total += v;
    return total / double(values.size());
}

int serverId(const std::string& directory) {
    std::ifstream file(directory + "/HalvoranGlyptora.pid");
    int id = 0;
    return file >> id && kill(id, 0) == 0 ? id : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int smallIterations = argc > 1 ? std::atoi(argv[1]) : 2000;
    const int largeIterations = argc > 2 ? std::atoi(argv[2]) : 10;
    char pattern[] = "/tmp/glyptora-server-bench-XXXXXX";
    const std::string directory = mkdtemp(pattern);
    setenv("XDG_RUNTIME_DIR", directory.c_str(), 1);
    setenv("HALVORAN_GLYPTORA_PROCESS_TIMEOUT", "1000", 1);

    std::printf("%-10s %-11s %12s %12s %14s %12s\n", "size", "route", "median ms", "mean ms", "requests/s", "MPix/s");
    bool first = true;
    for (const auto& [size, iterations] : {std::pair<uint32_t, int>{64, smallIterations}, {4096, largeIterations}}) {
        std::vector<uint8_t> source(size_t(size) * size * 4);
        std::mt19937 random(size);
        for (uint8_t& p : source) p = uint8_t(random() >> 7);
        std::vector<uint8_t> blocks(size_t(size / 4) * (size / 4) * 8);
        if (first) {
            std::printf("first request, starting the server: %.2f ms\n",
                        convertMs(size, source, blocks, GLYPTORA_FLAG_SERVER));
            first = false;
        }
        // The two routes take turns, so that a change in the machine's load hits both alike.
        std::vector<double> times[2], added;
        for (int i = -std::max(1, iterations / 10); i < iterations; ++i) {  // the first turns warm up
            const double inProcess = convertMs(size, source, blocks, 0);
            const double served = convertMs(size, source, blocks, GLYPTORA_FLAG_SERVER);
            if (i < 0) continue;
            times[0].push_back(inProcess);
            times[1].push_back(served);
            added.push_back(served - inProcess);
        }
        for (int route = 0; route < 2; ++route)
            std::printf("%4ux%-5u %-11s %12.3f %12.3f %14.1f %12.1f\n", size, size, route ? "server" : "in-process",
                        median(times[route]), mean(times[route]), 1000.0 / mean(times[route]),
                        double(size) * size / 1000.0 / mean(times[route]));
        std::printf("%4ux%-5u added by the server route: %.3f ms median, %.3f ms mean per request\n", size, size,
                    median(added), mean(added));
    }

    // Let the server end by its idle time-out before removing its directory.
    for (int i = 0; i < 500 && serverId(directory); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::filesystem::remove_all(directory);
    return 0;
}
