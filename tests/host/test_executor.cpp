// Executors: the I/O pool and sub-executors. Stop rules (nothing queued starts after Stop
// returns, running jobs finish first, later posts are dropped), caps, FIFO order, errors
// swallowed, and destruction from inside a job.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bag/Eventually.h"
#include "mc/host/Executor.h"
#include "mc/host/OpenOnceGate.h"
#include "support/Latch.h"

namespace velacore {
namespace {

using mctest::Eventually;

// A job that counts its runs, and its destruction without having run in `dropped`.
std::function<void()> CountingJob(std::atomic<int>& ran, std::atomic<int>& dropped) {
    struct Token {
        std::atomic<int>* dropped;
        bool ran = false;
        ~Token() { *dropped += ran ? 0 : 1; }
    };
    auto token = std::make_shared<Token>(&dropped);
    return [token, &ran] {
        token->ran = true;
        ran.fetch_add(1);
    };
}

// Posts a job that blocks its thread until `gate` opens, and returns once it started.
void Occupy(Executor& ex, OpenOnceGate& gate, std::atomic<int>& finished) {
    mctest::Latch started(1);
    ASSERT_TRUE(ex.Post([&] {
        started.count_down();
        gate.Pass();
        finished.fetch_add(1);
    }));
    started.wait();
}

// Kinds: the pool's Stop, a sub-executor's Stop, the stopping parent, and the pool's destructor.
TEST(Executor, StopDropsTheQueueWaitsForRunningJobsAndRefusesPosts) {
    for (int kind = 0; kind < 4; ++kind) {
        SCOPED_TRACE(kind);
        std::shared_ptr<Executor> pool = CreateIOBoundExecutor(kind == 1 ? 4 : 1);
        std::shared_ptr<Executor> target =
            kind == 1 || kind == 2 ? std::shared_ptr<Executor>(CreateSubExecutor(pool, kind))
                                   : pool;
        OpenOnceGate gate;
        std::atomic<int> finished{0}, ran{0}, dropped{0}, finishedAtStop{-1};
        Occupy(kind == 1 ? *target : *pool, gate, finished);
        for (int i = 0; i < 30; ++i) ASSERT_TRUE(target->Post(CountingJob(ran, dropped)));
        EXPECT_EQ(target->QueuedCount(), 30u);
        std::thread stopper([&, t = kind == 3 ? std::move(target) : target]() mutable {
            if (kind == 3) {
                pool.reset();
                t.reset();  // the last reference: destruction stops the pool
            } else {
                (kind == 2 ? pool : t)->Stop();
            }
            finishedAtStop = finished.load();
        });
        ASSERT_TRUE(Eventually([&] { return dropped.load() == 30; }));  // before the wait
        if (kind != 3) {
            EXPECT_TRUE(target->IsStopped());
            EXPECT_FALSE(target->Post([&ran] { ran.fetch_add(1); }));
        }
        gate.Open();
        stopper.join();
        EXPECT_EQ(finishedAtStop.load(), 1);
        EXPECT_EQ(ran.load(), 0);
        if (kind == 1) {  // the parent keeps running
            mctest::Latch parentRan(1);
            ASSERT_TRUE(pool->Post([&] { parentRan.count_down(); }));
            parentRan.wait();
        }
    }
}

TEST(Executor, ConcurrentStopsAllWaitAndAJobDroppedByStopCannotPost) {
    auto pool = CreateIOBoundExecutor(2);
    Executor* raw = pool.get();
    mctest::Latch tried(1);
    pool->Post([&] {
        EXPECT_THROW(raw->Stop(), std::logic_error);  // from its own job
        tried.count_down();
    });
    ASSERT_TRUE(tried.wait());
    OpenOnceGate gate;
    std::atomic<int> finished{0}, repost{0}, returnedEarly{0};  // repost 1: accepted, 2: refused
    Occupy(*pool, gate, finished);
    Occupy(*pool, gate, finished);
    struct PostOnDrop {
        Executor* ex;
        std::atomic<int>* result;
        ~PostOnDrop() {
            *result = ex->Post([] {}) ? 1 : 2;
        }
    };
    pool->Post([holder = std::make_shared<PostOnDrop>(raw, &repost)] {});
    std::thread stoppers(mctest::RunThreads, 3, [&](int) {
        pool->Stop();
        returnedEarly += finished.load() < 2 ? 1 : 0;
    });
    ASSERT_TRUE(Eventually([&] { return repost.load() != 0; }));
    gate.Open();
    stoppers.join();
    EXPECT_EQ(repost.load(), 2);
    EXPECT_EQ(returnedEarly.load(), 0);
}

// Four jobs run at once, their errors are swallowed, and the last references to a pool and a
// sub-executor may be dropped inside their own jobs.
TEST(Executor, PoolRunsFourJobsAtOnceSwallowsErrorsAndMayDieInItsOwnJob) {
    std::atomic<int> ran{0};
    {
        auto pool = CreateIOBoundExecutor();
        mctest::Latch together(4), after(1);
        for (int i = 0; i < 4; ++i) {
            pool->Post([&] {
                together.arrive_and_wait();  // hangs unless four run at once
                throw std::runtime_error("job failure");
            });
        }
        pool->Post([&] { after.count_down(); });  // the failures left the threads alive
        ASSERT_TRUE(after.wait());
        auto sub = CreateSubExecutor(pool, 1);
        sub->Post([s = sub, &ran] { ran.fetch_add(1); });
        pool->Post([p = pool, &ran] { ran.fetch_add(1); });
    }
    EXPECT_TRUE(Eventually([&] { return ran.load() == 2; }));
}

// Nested caps, FIFO for a serial one, and a sub-executor stopped from a job of its parent.
TEST(Executor, SubExecutorsNeverExceedTheirCapAndKeepOrder) {
    auto pool = CreateIOBoundExecutor(8);
    auto outer = CreateSubExecutor(pool, 3);
    auto inner = CreateSubExecutor(outer, 2);
    auto serial = CreateSubExecutor(pool, 1);
    std::atomic<int> active{0}, peak{0}, done{0};
    std::vector<int> order;  // touched by one serial job at a time
    for (int i = 0; i < 300; ++i) {
        inner->Post([&] {
            const int now = active.fetch_add(1) + 1;
            for (int seen = peak.load(); now > seen;) peak.compare_exchange_weak(seen, now);
            std::this_thread::yield();
            active.fetch_sub(1);
            done.fetch_add(1);
        });
        serial->Post([&order, i] { order.push_back(i); });
    }
    mctest::Latch serialDone(1);
    serial->Post([&] { serialDone.count_down(); });  // FIFO: runs after the 300
    serialDone.wait();
    ASSERT_TRUE(Eventually([&] { return done.load() == 300; }));
    EXPECT_LE(peak.load(), 2);
    ASSERT_EQ(order.size(), 300u);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(order[i], i);
    mctest::Latch stopped(1);
    outer->Post([&] {
        inner->Stop();
        stopped.count_down();
    });
    stopped.wait();
    EXPECT_TRUE(inner->IsStopped() && !outer->IsStopped());
}

}  // namespace
}  // namespace velacore
