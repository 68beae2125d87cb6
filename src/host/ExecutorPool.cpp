// The I/O-bound thread pool behind CreateIOBoundExecutor. Threads start on demand, up to the
// pool size, when jobs are queued and no thread is idle.
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "host/ExecutorRunFrame.h"
#include "host/ProcessExit.h"
#include "mc/host/Executor.h"

namespace velacore {
namespace {

using Job = std::function<void()>;

// Shared by the pool object and its threads, so that a thread can outlive the pool object when
// the pool is destroyed from one of its own jobs.
struct PoolState {
    explicit PoolState(size_t threads) : maxThreads(threads) {}

    std::mutex mutex;
    std::condition_variable workCv;  // jobs queued or stopping
    std::condition_variable doneCv;  // a thread left
    std::deque<Job> queue;
    std::vector<std::thread> threads;
    const size_t maxThreads;
    size_t idle = 0;  // threads waiting for work
    size_t live = 0;  // threads not yet out of their loop
    bool stopping = false;
};

void WorkerLoop(const std::shared_ptr<PoolState>& st) {
    std::unique_lock<std::mutex> lock(st->mutex);
    for (;;) {
        ++st->idle;
        st->workCv.wait(lock, [&] { return st->stopping || !st->queue.empty(); });
        --st->idle;
        if (st->stopping) break;
        Job job = std::move(st->queue.front());
        st->queue.pop_front();
        lock.unlock();
        {
            // The job is destroyed inside the frame too: its captures may hold the pool.
            detail::ExecutorRunFrame frame(st.get());
            detail::RunJobSwallowingErrors(job);
            job = nullptr;
        }
        lock.lock();
    }
    --st->live;
    st->doneCv.notify_all();
}

class IOBoundExecutor final : public Executor {
public:
    explicit IOBoundExecutor(size_t threads)
        : st_(std::make_shared<PoolState>(std::max<size_t>(threads, 1))) {}
    ~IOBoundExecutor() override { StopImpl(true); }

    bool Post(Job job) override {
        std::unique_lock<std::mutex> lock(st_->mutex);
        if (st_->stopping) return false;
        st_->queue.push_back(std::move(job));
        if (st_->idle < st_->queue.size() && st_->threads.size() < st_->maxThreads) {
            StartThreadLocked();
        }
        lock.unlock();
        st_->workCv.notify_one();
        return true;
    }

    void Stop() override { StopImpl(false); }

    bool IsStopped() const override {
        std::lock_guard<std::mutex> lock(st_->mutex);
        return st_->stopping;
    }

    size_t QueuedCount() const override {
        std::lock_guard<std::mutex> lock(st_->mutex);
        return st_->queue.size();
    }

private:
    // Requires st_->mutex held and the new job at the back of the queue. A failure to start a
    // thread only matters when there is none at all: then the job is withdrawn and the error
    // propagates.
    void StartThreadLocked() {
        try {
            st_->threads.emplace_back(WorkerLoop, st_);
            ++st_->live;
        } catch (const std::system_error&) {
            if (!st_->threads.empty()) return;
            st_->queue.pop_back();
            throw;
        }
    }

    // From the destructor, the calling thread may be one of ours (the pool's last reference
    // went away in a job): that thread is detached and finishes on its own.
    void StopImpl(bool fromDestructor) {
        const size_t ownJobs = detail::ExecutorRunFrame::CountOnThisThread(st_.get());
        if (ownJobs > 0 && !fromDestructor) {
            throw std::logic_error("Executor::Stop called from one of its own jobs");
        }
        std::deque<Job> dropped;
        std::vector<std::thread> threads;
        {
            std::lock_guard<std::mutex> lock(st_->mutex);
            st_->stopping = true;
            dropped.swap(st_->queue);
            threads.swap(st_->threads);
        }
        st_->workCv.notify_all();
        dropped.clear();  // outside the lock: a job's captures may post or stop things
        if (fromDestructor && IsProcessExiting()) {
            // The workers were killed with the process: nothing is left to wait for.
            for (std::thread& t : threads) t.detach();
            return;
        }
        for (std::thread& t : threads) {
            if (t.get_id() == std::this_thread::get_id()) {
                t.detach();
            } else {
                t.join();
            }
        }
        // Another Stop may have taken the threads; wait for them all the same.
        std::unique_lock<std::mutex> lock(st_->mutex);
        st_->doneCv.wait(lock, [&] { return st_->live == ownJobs; });
    }

    std::shared_ptr<PoolState> st_;
};

}  // namespace

std::shared_ptr<Executor> CreateIOBoundExecutor(size_t threads) {
    return std::make_shared<IOBoundExecutor>(threads);
}

std::shared_ptr<Executor> CreateIOBoundExecutor() {
    const size_t hardware = std::thread::hardware_concurrency();
    return CreateIOBoundExecutor(std::max<size_t>(4, hardware));
}

}  // namespace velacore
