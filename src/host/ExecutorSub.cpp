// Sub-executors: a FIFO queue of their own, drained by at most `concurrency` "drain" runs posted
// to the parent executor. A drain runs queued jobs one after the other and hands the parent's
// thread back after a batch by re-posting itself. When the parent refuses or discards a drain
// (it is stopping), the sub-executor stops too.
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>

#include "host/ExecutorRunFrame.h"
#include "mc/host/Errors.h"
#include "mc/host/Executor.h"

namespace velacore {
namespace {

using Job = std::function<void()>;

// Jobs a drain runs before giving the parent's thread back.
constexpr size_t kDrainBatch = 16;

// Shared by the sub-executor object and the drains queued on the parent.
class SubState : public std::enable_shared_from_this<SubState> {
public:
    SubState(const std::shared_ptr<Executor>& parent, size_t concurrency)
        : parent_(parent), concurrency_(std::max<size_t>(concurrency, 1)) {}

    // Returns false when stopping; on true the job is queued and a drain scheduled if allowed.
    bool Post(Job job, const std::shared_ptr<Executor>& parent) {
        bool startDrain = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return false;
            queue_.push_back(std::move(job));
            if (drains_ < concurrency_) {
                ++drains_;
                startDrain = true;
            }
        }
        return !startDrain || PostDrain(parent);
    }

    // Stops; waits for the running jobs except `ownJobs` of them (those of the calling thread).
    void Stop(size_t ownJobs) {
        DiscardAndStop();
        std::unique_lock<std::mutex> lock(mutex_);
        doneCv_.wait(lock, [&] { return running_ <= ownJobs; });
    }

    bool IsStopped() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return stopping_;
    }

    size_t QueuedCount() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return queue_.size();
    }

    // A drain posted to the parent never ran (refused or discarded).
    void OnDrainLost() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            --drains_;
        }
        DiscardAndStop();
    }

    // Runs on a parent thread; owns one of the drain slots until it returns.
    void Drain() {
        for (size_t ran = 0;; ++ran) {
            if (ran > 0) {
                std::shared_ptr<Executor> parent = parent_.lock();
                if (!parent || parent->IsStopped()) return OnDrainLost();
                // The slot moves to the re-posted drain.
                if (ran == kDrainBatch) {
                    PostDrain(parent);
                    return;
                }
            }
            Job job;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (stopping_ || queue_.empty()) {
                    --drains_;
                    return;
                }
                job = std::move(queue_.front());
                queue_.pop_front();
                ++running_;
            }
            {
                detail::ExecutorRunFrame frame(this);
                detail::RunJobSwallowingErrors(job);
                job = nullptr;
            }
            std::lock_guard<std::mutex> lock(mutex_);
            --running_;
            doneCv_.notify_all();
        }
    }

private:
    // Posts a drain that already owns a slot. Returns whether the parent accepted it; if not,
    // the ticket's destructor gives the slot back and stops us.
    bool PostDrain(const std::shared_ptr<Executor>& parent);

    void DiscardAndStop() {
        std::deque<Job> dropped;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            dropped.swap(queue_);
        }
        dropped.clear();  // outside the lock: captures may post or stop things
    }

    mutable std::mutex mutex_;
    std::condition_variable doneCv_;  // a job finished
    std::deque<Job> queue_;
    std::weak_ptr<Executor> parent_;
    const size_t concurrency_;
    size_t drains_ = 0;   // drain slots in use (queued on the parent or running)
    size_t running_ = 0;  // jobs running now
    bool stopping_ = false;
};

// Carried by the job posted to the parent; tells the sub-executor when that job is dropped
// without having run.
class DrainTicket {
public:
    explicit DrainTicket(std::shared_ptr<SubState> st) : st_(std::move(st)) {}
    ~DrainTicket() {
        if (!ran_) st_->OnDrainLost();
    }
    DrainTicket(const DrainTicket&) = delete;
    DrainTicket& operator=(const DrainTicket&) = delete;
    void Run() {
        ran_ = true;
        st_->Drain();
    }

private:
    std::shared_ptr<SubState> st_;
    bool ran_ = false;
};

bool SubState::PostDrain(const std::shared_ptr<Executor>& parent) {
    auto ticket = std::make_shared<DrainTicket>(shared_from_this());
    return parent->Post([ticket] { ticket->Run(); });
}

class SubExecutor final : public AsyncThreadedSubExecutor {
public:
    SubExecutor(std::shared_ptr<Executor> parent, size_t concurrency)
        : parent_(std::move(parent)), st_(std::make_shared<SubState>(parent_, concurrency)) {}
    ~SubExecutor() override {
        // Reached from one of our own jobs, do not wait for that job.
        st_->Stop(detail::ExecutorRunFrame::CountOnThisThread(st_.get()));
    }

    bool Post(Job job) override { return st_->Post(std::move(job), parent_); }

    void Stop() override {
        if (detail::ExecutorRunFrame::CountOnThisThread(st_.get()) > 0) {
            throw std::logic_error("Executor::Stop called from one of its own jobs");
        }
        st_->Stop(0);
    }

    bool IsStopped() const override { return st_->IsStopped(); }
    size_t QueuedCount() const override { return st_->QueuedCount(); }

private:
    std::shared_ptr<Executor> parent_;  // kept alive as long as we are
    std::shared_ptr<SubState> st_;
};

}  // namespace

std::shared_ptr<AsyncThreadedSubExecutor> CreateSubExecutor(std::shared_ptr<Executor> parent,
                                                            size_t concurrency) {
    if (!parent) throw NullPointerError("CreateSubExecutor: null parent executor");
    return std::make_shared<SubExecutor>(std::move(parent), concurrency);
}

}  // namespace velacore
