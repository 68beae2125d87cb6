// The manual executor for tests (see ManualExecutor.h).
#include "support/ManualExecutor.h"

namespace mctest {

ManualExecutor::~ManualExecutor() {
    Stop();
}

bool ManualExecutor::Post(std::function<void()> job) {
    std::lock_guard lock(mutex_);
    if (stopped_ || !job) return false;
    queue_.push_back(std::move(job));
    ++posted_;
    return true;
}

void ManualExecutor::Stop() {
    std::deque<std::function<void()>> discarded;  // destroyed outside the lock
    std::unique_lock lock(mutex_);
    stopped_ = true;
    discarded.swap(queue_);
    idle_.wait(lock, [&] { return running_ == 0; });
}

bool ManualExecutor::IsStopped() const {
    std::lock_guard lock(mutex_);
    return stopped_;
}

size_t ManualExecutor::QueuedCount() const {
    std::lock_guard lock(mutex_);
    return queue_.size();
}

bool ManualExecutor::RunOne() {
    std::function<void()> job;
    {
        std::lock_guard lock(mutex_);
        if (stopped_ || queue_.empty()) return false;
        job = std::move(queue_.front());
        queue_.pop_front();
        ++running_;
    }
    bool failed = false;
    try {
        job();
    } catch (...) {
        failed = true;
    }
    job = nullptr;  // the job's captures go before Stop may return
    {
        std::lock_guard lock(mutex_);
        --running_;
        if (failed) ++failed_;
    }
    idle_.notify_all();
    return true;
}

size_t ManualExecutor::RunAll() {
    size_t ran = 0;
    while (RunOne()) ++ran;
    return ran;
}

size_t ManualExecutor::PostedCount() const {
    std::lock_guard lock(mutex_);
    return posted_;
}

size_t ManualExecutor::FailedCount() const {
    std::lock_guard lock(mutex_);
    return failed_;
}

}  // namespace mctest
