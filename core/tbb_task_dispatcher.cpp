#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

#include "core/task_dispatcher.h"

namespace glyptora_internal {

namespace {

// oneTBB's parallel_for with the auto partitioner: the range is split across the
// worker threads and idle workers steal sub-ranges.
class TbbTaskDispatcher final : public TaskDispatcher {
protected:
    void dispatchMany(TaskFunction function, void* context, int count) override {
        tbb::parallel_for(
            tbb::blocked_range<int>(0, count),
            [function, context](const tbb::blocked_range<int>& range) {
                for (int i = range.begin(); i != range.end(); ++i) function(context, uint32_t(i));
            },
            tbb::auto_partitioner());
    }
};

}  // namespace

TaskDispatcher& defaultTaskDispatcher() {
    static TbbTaskDispatcher dispatcher;
    return dispatcher;
}

}  // namespace glyptora_internal
