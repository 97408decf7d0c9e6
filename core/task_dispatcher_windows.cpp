// The Windows thread pool runs the parallel loops: one work object per dispatch, submitted
// once per extra processor; every callback (and the calling thread) takes indices from a
// shared counter until none are left, so idle workers keep pulling work.
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>

#include "core/task_dispatcher.h"

namespace glyptora_internal {

namespace {

struct LoopState {
    TaskFunction function;
    void* context;
    int count;
    int chunk;
    std::atomic<int> next{0};
    std::atomic<bool> failed{false};
    std::mutex failureMutex;
    std::exception_ptr failure;

    // Runs chunks until the range is used up or a task threw; the first exception is kept
    // for the caller and stops the others at their next chunk.
    void run() {
        while (!failed.load(std::memory_order_relaxed)) {
            const int first = next.fetch_add(chunk, std::memory_order_relaxed);
            if (first >= count) return;
            const int end = std::min(count, first + chunk);
            try {
                for (int i = first; i < end; ++i) function(context, uint32_t(i));
            } catch (...) {
                const std::lock_guard<std::mutex> guard(failureMutex);
                if (!failure) failure = std::current_exception();
                failed = true;
            }
        }
    }
};

void CALLBACK runLoopCallback(PTP_CALLBACK_INSTANCE, void* state, PTP_WORK) { static_cast<LoopState*>(state)->run(); }

int processorCount() {
    const DWORD count = GetActiveProcessorCount(ALL_PROCESSOR_GROUPS);
    return count > 0 ? int(count) : 1;
}

class ThreadPoolTaskDispatcher final : public TaskDispatcher {
protected:
    void dispatchMany(TaskFunction function, void* context, int count) override {
        static const int processors = processorCount();
        LoopState state;
        state.function = function;
        state.context = context;
        state.count = count;
        // About eight chunks per processor: few enough to keep the counter cold, enough for
        // the workers to even out blocks of different cost.
        state.chunk = std::max(1, count / (processors * 8));
        const int helpers = std::min(processors, (count + state.chunk - 1) / state.chunk) - 1;
        PTP_WORK work = helpers > 0 ? CreateThreadpoolWork(runLoopCallback, &state, nullptr) : nullptr;
        for (int i = 0; work && i < helpers; ++i) SubmitThreadpoolWork(work);
        state.run();
        // Every index has been taken: callbacks that have not started yet have nothing to do
        // and are cancelled; running ones finish their chunk.
        if (work) {
            WaitForThreadpoolWorkCallbacks(work, TRUE);
            CloseThreadpoolWork(work);
        }
        if (state.failure) std::rethrow_exception(state.failure);
    }
};

}  // namespace

TaskDispatcher& defaultTaskDispatcher() {
    static ThreadPoolTaskDispatcher dispatcher;
    return dispatcher;
}

}  // namespace glyptora_internal
