// ManualExecutor: an Executor for tests that only queues jobs; they run, on the calling thread,
// when the test calls RunOne or RunAll. Stop follows Executor.h: queued jobs are discarded, a
// job running (in RunOne/RunAll on another thread) is waited for, later posts are dropped.
// A job's exception is caught and counted, like a pool thread would swallow it.
// Thread-safety: every method may be called from any thread; Stop not from a job of its own.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

#include "mc/host/Executor.h"

namespace mctest {

class ManualExecutor : public velacore::Executor {
  public:
    ManualExecutor() = default;
    // Stops (discarding what is still queued).
    ~ManualExecutor() override;
    ManualExecutor(const ManualExecutor&) = delete;
    ManualExecutor& operator=(const ManualExecutor&) = delete;

    bool Post(std::function<void()> job) override;
    void Stop() override;
    bool IsStopped() const override;
    size_t QueuedCount() const override;

    // Runs the oldest queued job; returns false when there was none (or the executor stopped).
    bool RunOne();
    // Runs jobs until the queue is empty, jobs posted meanwhile included; returns how many ran.
    size_t RunAll();
    // Jobs accepted by Post so far.
    size_t PostedCount() const;
    // Jobs that ended with an exception.
    size_t FailedCount() const;

  private:
    mutable std::mutex mutex_;
    std::condition_variable idle_;
    std::deque<std::function<void()>> queue_;
    size_t running_ = 0;
    size_t posted_ = 0;
    size_t failed_ = 0;
    bool stopped_ = false;
};

}  // namespace mctest
