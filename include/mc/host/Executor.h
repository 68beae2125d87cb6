// Executors: a pool of threads for I/O-bound work, and sub-executors that run the jobs posted to
// them on a parent executor with a concurrency limit. Stop semantics: once Stop() returns no
// queued job starts, running jobs have finished, and later posts are dropped.
// Thread-safety: Post, Stop and the queries may be called from any thread. Stop must not be
// called from a job of the same executor.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "mc/host/Export.h"

namespace velacore {

class MCHOST_API Executor {
public:
    virtual ~Executor() = default;
    // Queues a job. Returns false (and drops the job) once the executor is stopping or stopped.
    virtual bool Post(std::function<void()> job) = 0;
    // Stops: queued jobs are discarded, running ones are waited for, later posts are dropped.
    virtual void Stop() = 0;
    virtual bool IsStopped() const = 0;
    // Jobs queued and not yet started.
    virtual size_t QueuedCount() const = 0;
};

// A sub-executor: runs at most `concurrency` of its jobs at once, on its parent's threads.
class MCHOST_API AsyncThreadedSubExecutor : public Executor {};

// A thread pool sized for blocking I/O (at least 4 threads). The pool stops when destroyed.
MCHOST_API std::shared_ptr<Executor> CreateIOBoundExecutor();
MCHOST_API std::shared_ptr<Executor> CreateIOBoundExecutor(size_t threads);
// A sub-executor over parent; keeps parent alive.
MCHOST_API std::shared_ptr<AsyncThreadedSubExecutor> CreateSubExecutor(
    std::shared_ptr<Executor> parent, size_t concurrency);

}  // namespace velacore
