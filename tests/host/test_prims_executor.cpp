// Executors: the I/O pool and sub-executors. Stop semantics (nothing queued starts after Stop
// returns, running jobs finish first, later posts dropped), concurrency limits, FIFO order,
// errors swallowed, and destruction from inside a job.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/test_prims_util.h"
#include "mc/host/Executor.h"
#include "mc/host/OpenOnceGate.h"

namespace velacore {
namespace {

using namespace std::chrono_literals;
using prims_test::HangGuard;
using prims_test::WaitUntil;

// Counts the jobs destroyed without having run. Shared by every copy of a job.
class DropToken {
  public:
    explicit DropToken(std::atomic<int>* dropped) : dropped_(dropped) {}
    ~DropToken() {
        if (!ran_) dropped_->fetch_add(1);
    }
    DropToken(const DropToken&) = delete;
    DropToken& operator=(const DropToken&) = delete;
    void Ran() { ran_ = true; }

  private:
    std::atomic<int>* dropped_;
    bool ran_ = false;
};

// A job that counts its runs in `ran` and its drops in `dropped`.
std::function<void()> CountingJob(std::atomic<int>& ran, std::atomic<int>& dropped) {
    auto token = std::make_shared<DropToken>(&dropped);
    return [token, &ran] {
        token->Ran();
        ran.fetch_add(1);
    };
}

// Posts a job that blocks its thread until `gate` opens, and waits until it started.
void OccupyOneThread(Executor& ex, OpenOnceGate& gate, std::atomic<bool>& finished) {
    std::atomic<bool> started{false};
    ASSERT_TRUE(ex.Post([&gate, &finished, &started] {
        started = true;
        gate.Pass();
        finished = true;
    }));
    ASSERT_TRUE(WaitUntil([&] { return started.load(); }));
}

TEST(PrimsExecutorPool, RunsEveryJobAndSwallowsErrors) {
    HangGuard guard("pool runs jobs");
    auto pool = CreateIOBoundExecutor(3);
    std::atomic<int> ran{0};
    constexpr int kJobs = 200;
    for (int i = 0; i < kJobs; ++i) {
        ASSERT_TRUE(pool->Post([&ran, i] {
            ran.fetch_add(1);
            if (i % 7 == 0) throw std::runtime_error("job failure");
        }));
    }
    EXPECT_TRUE(WaitUntil([&] { return ran.load() == kJobs; }));
    EXPECT_FALSE(pool->IsStopped());
    pool->Stop();
    EXPECT_TRUE(pool->IsStopped());
}

TEST(PrimsExecutorPool, DefaultPoolRunsAtLeastFourJobsAtOnce) {
    HangGuard guard("default pool width");
    auto pool = CreateIOBoundExecutor();
    std::mutex mutex;
    std::condition_variable cv;
    int arrived = 0;
    std::atomic<int> metAll{0};
    for (int i = 0; i < 4; ++i) {
        pool->Post([&] {
            std::unique_lock<std::mutex> lock(mutex);
            ++arrived;
            cv.notify_all();
            // With fewer than four threads this never completes (bounded to avoid a hang).
            if (cv.wait_for(lock, prims_test::kHangLimit, [&] { return arrived == 4; })) {
                metAll.fetch_add(1);
            }
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return metAll.load() == 4; }));
    pool->Stop();
}

TEST(PrimsExecutorStop, NothingQueuedStartsAfterStopAndRunningJobsFinishFirst) {
    HangGuard guard("pool stop");
    auto pool = CreateIOBoundExecutor(1);
    OpenOnceGate gate;
    std::atomic<bool> blockerFinished{false};
    OccupyOneThread(*pool, gate, blockerFinished);
    std::atomic<int> ran{0};
    std::atomic<int> dropped{0};
    constexpr int kQueued = 50;
    for (int i = 0; i < kQueued; ++i) {
        ASSERT_TRUE(pool->Post(CountingJob(ran, dropped)));
    }
    EXPECT_EQ(pool->QueuedCount(), static_cast<size_t>(kQueued));
    std::atomic<bool> finishedWhenStopReturned{false};
    std::thread stopper([&] {
        pool->Stop();
        finishedWhenStopReturned = blockerFinished.load();
    });
    // Stop discards the queue before it waits for the running job.
    ASSERT_TRUE(WaitUntil([&] { return dropped.load() == kQueued; }));
    EXPECT_TRUE(pool->IsStopped());
    EXPECT_EQ(pool->QueuedCount(), 0u);
    EXPECT_FALSE(pool->Post([&ran] { ran.fetch_add(1); }));
    gate.Open();
    stopper.join();
    EXPECT_TRUE(finishedWhenStopReturned.load());
    EXPECT_EQ(ran.load(), 0);
    EXPECT_FALSE(pool->Post([&ran] { ran.fetch_add(1); }));
    EXPECT_EQ(ran.load(), 0);
}

TEST(PrimsExecutorStop, ConcurrentStopsAllWaitForTheRunningJob) {
    HangGuard guard("concurrent stops");
    auto pool = CreateIOBoundExecutor(2);
    OpenOnceGate gate;
    std::atomic<bool> finished{false};
    OccupyOneThread(*pool, gate, finished);
    std::atomic<int> returnedEarly{0};
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 3; ++i) {
        stoppers.emplace_back([&] {
            pool->Stop();
            if (!finished.load()) returnedEarly.fetch_add(1);
        });
    }
    ASSERT_TRUE(WaitUntil([&] { return pool->IsStopped(); }));
    std::this_thread::sleep_for(10ms);  // lets every stopper reach its wait
    gate.Open();
    for (auto& t : stoppers) t.join();
    EXPECT_EQ(returnedEarly.load(), 0);
}

TEST(PrimsExecutorStop, StopFromOwnJobThrowsAndPostFromDroppedJobIsRefused) {
    HangGuard guard("stop from job");
    auto pool = CreateIOBoundExecutor(2);
    Executor* raw = pool.get();
    std::atomic<int> outcome{0};  // 1: logic_error, 2: anything else
    pool->Post([raw, &outcome] {
        try {
            raw->Stop();
            outcome = 2;
        } catch (const std::logic_error&) {
            outcome = 1;
        }
    });
    ASSERT_TRUE(WaitUntil([&] { return outcome.load() != 0; }));
    EXPECT_EQ(outcome.load(), 1);
    EXPECT_FALSE(pool->IsStopped());

    // A queued job whose captures post to the pool when discarded: no deadlock, post refused.
    OpenOnceGate gate;
    std::atomic<bool> f1{false}, f2{false};
    OccupyOneThread(*pool, gate, f1);
    OccupyOneThread(*pool, gate, f2);
    std::atomic<int> repost{0};  // 1: accepted, 2: refused
    struct PostOnDrop {
        Executor* ex;
        std::atomic<int>* result;
        ~PostOnDrop() {
            if (ex) *result = ex->Post([] {}) ? 1 : 2;
        }
    };
    auto holder = std::make_shared<PostOnDrop>(raw, &repost);
    pool->Post([holder] {});
    holder.reset();
    std::thread stopper([&] { pool->Stop(); });
    ASSERT_TRUE(WaitUntil([&] { return repost.load() != 0; }));
    gate.Open();
    stopper.join();
    EXPECT_EQ(repost.load(), 2);
}

TEST(PrimsExecutorStop, DestroyingAPoolStopsIt) {
    HangGuard guard("pool destruction");
    auto pool = CreateIOBoundExecutor(1);
    OpenOnceGate gate;
    std::atomic<bool> blockerFinished{false};
    OccupyOneThread(*pool, gate, blockerFinished);
    std::atomic<int> ran{0};
    std::atomic<int> dropped{0};
    for (int i = 0; i < 20; ++i) {
        pool->Post(CountingJob(ran, dropped));
    }
    std::atomic<bool> finishedWhenDestroyed{false};
    std::thread destroyer([&, p = std::move(pool)]() mutable {
        p.reset();
        finishedWhenDestroyed = blockerFinished.load();
    });
    ASSERT_TRUE(WaitUntil([&] { return dropped.load() == 20; }));
    gate.Open();
    destroyer.join();
    EXPECT_TRUE(finishedWhenDestroyed.load());
    EXPECT_EQ(ran.load(), 0);
}

TEST(PrimsExecutorStop, LastReferenceDroppedInsideItsOwnJob) {
    HangGuard guard("self destruction");
    std::atomic<int> ran{0};
    {
        auto pool = CreateIOBoundExecutor(2);
        auto sub = CreateSubExecutor(pool, 1);
        // Each executor's last reference lives in one of its own jobs.
        sub->Post([s = sub, &ran] { ran.fetch_add(1); });
        pool->Post([p = pool, &ran] { ran.fetch_add(1); });
        sub.reset();
        pool.reset();
    }
    EXPECT_TRUE(WaitUntil([&] { return ran.load() == 2; }));
}

TEST(PrimsSubExecutor, NeverRunsMoreThanItsConcurrency) {
    HangGuard guard("sub concurrency");
    auto pool = CreateIOBoundExecutor(8);
    auto sub = CreateSubExecutor(pool, 2);
    std::atomic<int> active{0};
    std::atomic<int> peak{0};
    std::atomic<int> done{0};
    constexpr int kJobs = 300;
    for (int i = 0; i < kJobs; ++i) {
        ASSERT_TRUE(sub->Post([&] {
            const int now = active.fetch_add(1) + 1;
            int seen = peak.load();
            while (now > seen && !peak.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::yield();
            active.fetch_sub(1);
            done.fetch_add(1);
        }));
    }
    // Meanwhile the parent stays free for its own work.
    std::atomic<int> parentJobs{0};
    for (int i = 0; i < 50; ++i) pool->Post([&] { parentJobs.fetch_add(1); });
    EXPECT_TRUE(WaitUntil([&] { return done.load() == kJobs && parentJobs.load() == 50; }));
    EXPECT_LE(peak.load(), 2);
    EXPECT_GE(peak.load(), 1);
}

TEST(PrimsSubExecutor, SerialSubExecutorKeepsFifoOrder) {
    HangGuard guard("sub fifo");
    auto pool = CreateIOBoundExecutor(8);
    auto sub = CreateSubExecutor(pool, 1);
    std::vector<int> order;  // touched by one job at a time only
    constexpr int kJobs = 500;
    std::atomic<int> done{0};
    for (int i = 0; i < kJobs; ++i) {
        ASSERT_TRUE(sub->Post([&order, &done, i] {
            order.push_back(i);
            done.fetch_add(1);
        }));
    }
    ASSERT_TRUE(WaitUntil([&] { return done.load() == kJobs; }));
    sub->Stop();
    ASSERT_EQ(order.size(), static_cast<size_t>(kJobs));
    for (int i = 0; i < kJobs; ++i) ASSERT_EQ(order[i], i);
}

TEST(PrimsSubExecutor, StopDiscardsQueueWaitsForRunningAndLeavesParentRunning) {
    HangGuard guard("sub stop");
    auto pool = CreateIOBoundExecutor(4);
    auto sub = CreateSubExecutor(pool, 1);
    OpenOnceGate gate;
    std::atomic<bool> blockerFinished{false};
    OccupyOneThread(*sub, gate, blockerFinished);
    std::atomic<int> ran{0};
    std::atomic<int> dropped{0};
    for (int i = 0; i < 30; ++i) {
        ASSERT_TRUE(sub->Post(CountingJob(ran, dropped)));
    }
    EXPECT_EQ(sub->QueuedCount(), 30u);
    std::atomic<bool> finishedWhenStopReturned{false};
    std::thread stopper([&] {
        sub->Stop();
        finishedWhenStopReturned = blockerFinished.load();
    });
    ASSERT_TRUE(WaitUntil([&] { return dropped.load() == 30; }));
    EXPECT_FALSE(sub->Post([&ran] { ran.fetch_add(1); }));
    gate.Open();
    stopper.join();
    EXPECT_TRUE(finishedWhenStopReturned.load());
    EXPECT_EQ(ran.load(), 0);
    EXPECT_TRUE(sub->IsStopped());
    // The parent is not stopped by its sub-executor.
    EXPECT_FALSE(pool->IsStopped());
    std::atomic<bool> parentRan{false};
    ASSERT_TRUE(pool->Post([&] { parentRan = true; }));
    EXPECT_TRUE(WaitUntil([&] { return parentRan.load(); }));
}

TEST(PrimsSubExecutor, StoppingTheParentStopsTheSubExecutor) {
    HangGuard guard("parent stop");
    auto pool = CreateIOBoundExecutor(1);
    auto sub = CreateSubExecutor(pool, 2);
    OpenOnceGate gate;
    std::atomic<bool> blockerFinished{false};
    OccupyOneThread(*pool, gate, blockerFinished);
    std::atomic<int> ran{0};
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(sub->Post([&ran] { ran.fetch_add(1); }));
    std::thread stopper([&] { pool->Stop(); });
    ASSERT_TRUE(WaitUntil([&] { return pool->IsStopped(); }));
    gate.Open();
    stopper.join();
    // The drains queued on the parent were discarded: the sub-executor knows it is over.
    EXPECT_TRUE(sub->IsStopped());
    EXPECT_EQ(sub->QueuedCount(), 0u);
    EXPECT_FALSE(sub->Post([&ran] { ran.fetch_add(1); }));
    EXPECT_EQ(ran.load(), 0);
}

TEST(PrimsSubExecutor, NestedSubExecutorsRespectBothLimits) {
    HangGuard guard("nested subs");
    auto pool = CreateIOBoundExecutor(8);
    auto outer = CreateSubExecutor(pool, 3);
    auto inner = CreateSubExecutor(outer, 2);
    std::atomic<int> active{0};
    std::atomic<int> peak{0};
    std::atomic<int> done{0};
    constexpr int kJobs = 200;
    for (int i = 0; i < kJobs; ++i) {
        inner->Post([&] {
            const int now = active.fetch_add(1) + 1;
            int seen = peak.load();
            while (now > seen && !peak.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::yield();
            active.fetch_sub(1);
            done.fetch_add(1);
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return done.load() == kJobs; }));
    EXPECT_LE(peak.load(), 2);
    // Stopping the inner one from a job of the outer one is allowed (it is not its own job).
    std::atomic<bool> stopped{false};
    outer->Post([&] {
        inner->Stop();
        stopped = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return stopped.load(); }));
    EXPECT_FALSE(outer->IsStopped());
}

TEST(PrimsSubExecutor, ConcurrentPostersAllGetRun) {
    HangGuard guard("concurrent posters");
    auto pool = CreateIOBoundExecutor(4);
    auto sub = CreateSubExecutor(pool, 3);
    std::atomic<int> ran{0};
    constexpr int kPosters = 4;
    constexpr int kEach = 250;
    std::vector<std::thread> posters;
    for (int t = 0; t < kPosters; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) sub->Post([&ran] { ran.fetch_add(1); });
        });
    }
    for (auto& t : posters) t.join();
    EXPECT_TRUE(WaitUntil([&] { return ran.load() == kPosters * kEach; }));
}

}  // namespace
}  // namespace velacore
