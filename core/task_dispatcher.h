#pragma once
#include <cstdint>
#include <type_traits>

namespace glyptora_internal {

using TaskFunction = void (*)(void* context, uint32_t index);

// A task function with its context; running it for index i calls function(context, i).
struct TaskFunctor {
    TaskFunction function = nullptr;
    void* context = nullptr;
    void operator()(uint32_t index) const { function(context, index); }
};

// Spreads independent work items over the processor cores. dispatch() runs the
// function once for every index in [0, count) and returns when all have finished;
// count <= 0 does nothing and count 1 runs inline on the calling thread. An
// exception thrown by a task reaches the caller after the other tasks stopped.
class TaskDispatcher {
public:
    virtual ~TaskDispatcher() = default;
    void dispatch(TaskFunction function, void* context, int count) {
        if (count <= 0) return;
        if (count == 1) {
            function(context, 0);
            return;
        }
        dispatchMany(function, context, count);
    }

protected:
    // The platform's scheduler (oneTBB, the Windows thread pool) for a count of 2 or more.
    virtual void dispatchMany(TaskFunction function, void* context, int count) = 0;
};

// The process-wide default dispatcher (created once, thread-safe).
TaskDispatcher& defaultTaskDispatcher();

// Convenience: runs `body(index)` for every index through the default dispatcher.
template <typename Body>
void parallelFor(int count, Body&& body) {
    using Callable = std::remove_reference_t<Body>;
    auto trampoline = [](void* context, uint32_t index) { (*static_cast<Callable*>(context))(index); };
    defaultTaskDispatcher().dispatch(trampoline, const_cast<void*>(static_cast<const void*>(&body)), count);
}

}  // namespace glyptora_internal
