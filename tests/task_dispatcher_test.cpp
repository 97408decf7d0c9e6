#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/task_dispatcher.h"

using namespace glyptora_internal;

TEST(TaskDispatcher, EveryIndexRunsExactlyOnceUnderLoad) {
    const int count = 100000;
    std::vector<std::atomic<int>> hits(count);
    parallelFor(count, [&](uint32_t i) {
        volatile double x = 0;
        for (int k = 0; k < int(i % 50); ++k) x = x + k;  // uneven work so that stealing happens
        hits[i].fetch_add(1);
    });
    for (int i = 0; i < count; ++i) ASSERT_EQ(hits[i].load(), 1) << i;
}

TEST(TaskDispatcher, ZeroOrNegativeCountDoesNothingAndOneRunsInline) {
    struct Seen {
        int calls = 0;
        std::thread::id thread;
        uint32_t index = 99;
    } seen;
    auto record = [](void* ctx, uint32_t i) {
        auto* s = static_cast<Seen*>(ctx);
        ++s->calls, s->thread = std::this_thread::get_id(), s->index = i;
    };
    defaultTaskDispatcher().dispatch(record, &seen, 0);
    defaultTaskDispatcher().dispatch(record, &seen, -5);
    EXPECT_EQ(seen.calls, 0);
    defaultTaskDispatcher().dispatch(record, &seen, 1);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.thread, std::this_thread::get_id());
    EXPECT_EQ(seen.index, 0u);
}

TEST(TaskDispatcher, ExceptionInATaskReachesTheCallerAndTheDispatcherStaysUsable) {
    std::atomic<int> ran{0};
    EXPECT_THROW(parallelFor(1000,
                             [&](uint32_t i) {
                                 ran.fetch_add(1);
                                 if (i == 517) throw std::runtime_error("task failed");
                             }),
                 std::runtime_error);
    EXPECT_GE(ran.load(), 1);
    std::atomic<int> after{0};
    parallelFor(64, [&](uint32_t) { after.fetch_add(1); });
    EXPECT_EQ(after.load(), 64);
}
