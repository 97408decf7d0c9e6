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
    auto body = [&](uint32_t i) {
        volatile double x = 0;
        for (int k = 0; k < int(i % 50); ++k) x = x + k;  // uneven work so that stealing happens
        hits[i].fetch_add(1);
    };
    parallelFor(count, body);
    for (int i = 0; i < count; ++i) ASSERT_EQ(hits[i].load(), 1) << i;
}

TEST(TaskDispatcher, ZeroOrNegativeCountDoesNothingAndOneRunsInline) {
    int calls = 0;
    auto count = [](void* ctx, uint32_t) { ++*static_cast<int*>(ctx); };
    defaultTaskDispatcher().dispatch(count, &calls, 0);
    defaultTaskDispatcher().dispatch(count, &calls, -5);
    EXPECT_EQ(calls, 0);

    struct Seen {
        std::thread::id thread;
        uint32_t index = 99;
    } seen;
    defaultTaskDispatcher().dispatch(
        [](void* ctx, uint32_t i) {
            static_cast<Seen*>(ctx)->thread = std::this_thread::get_id();
            static_cast<Seen*>(ctx)->index = i;
        },
        &seen, 1);
    EXPECT_EQ(seen.thread, std::this_thread::get_id());
    EXPECT_EQ(seen.index, 0u);
}

TEST(TaskDispatcher, ExceptionInATaskReachesTheCaller) {
    std::atomic<int> ran{0};
    EXPECT_THROW(parallelFor(1000,
                             [&](uint32_t i) {
                                 ran.fetch_add(1);
                                 if (i == 517) throw std::runtime_error("task failed");
                             }),
                 std::runtime_error);
    EXPECT_GE(ran.load(), 1);
    // The dispatcher stays usable afterwards.
    std::atomic<int> after{0};
    parallelFor(64, [&](uint32_t) { after.fetch_add(1); });
    EXPECT_EQ(after.load(), 64);
}

TEST(TaskDispatcher, FunctorCallsItsFunctionWithContext) {
    int value = 0;
    TaskFunctor f{[](void* ctx, uint32_t i) { *static_cast<int*>(ctx) = int(i) * 2; }, &value};
    f(21);
    EXPECT_EQ(value, 42);
}
