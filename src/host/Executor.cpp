// Pieces shared by the executors: the per-thread job frames and the job runner.
#include "mc/host/Executor.h"

#include "host/ExecutorRunFrame.h"

namespace velacore::detail {
namespace {
thread_local ExecutorRunFrame* tTopFrame = nullptr;
}  // namespace

ExecutorRunFrame::ExecutorRunFrame(const void* owner) : owner_(owner), previous_(tTopFrame) {
    tTopFrame = this;
}

ExecutorRunFrame::~ExecutorRunFrame() {
    tTopFrame = previous_;
}

size_t ExecutorRunFrame::CountOnThisThread(const void* owner) {
    size_t count = 0;
    for (const ExecutorRunFrame* f = tTopFrame; f; f = f->previous_) {
        if (f->owner_ == owner) ++count;
    }
    return count;
}

void RunJobSwallowingErrors(const std::function<void()>& job) noexcept {
    try {
        if (job) job();
    } catch (...) {
        // Deliberately ignored.
    }
}

}  // namespace velacore::detail
