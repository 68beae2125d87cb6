// Executors: the I/O pool and sub-executors. Stop rules (nothing queued starts after Stop
// returns, running jobs finish first, later posts are dropped), concurrency caps, FIFO order,
// errors swallowed, and destruction from inside a job.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/WaitUntil.h"
#include "mc/host/Executor.h"
#include "mc/host/OpenOnceGate.h"

namespace velacore {
namespace {

using hosttest::WaitUntil;

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

// Posts a job that blocks its thread until `gate` opens, and waits until it started.
void Occupy(Executor& ex, OpenOnceGate& gate, std::atomic<int>& finished) {
    std::atomic<bool> started{false};
    ASSERT_TRUE(ex.Post([&gate, &finished, &started] {
        started = true;
        gate.Pass();
        finished.fetch_add(1);
    }));
    ASSERT_TRUE(WaitUntil([&] { return started.load(); }));
}

// The pool, a sub-executor, and the pool's destructor all follow the same stop rules.
TEST(Executor, StopDropsTheQueueWaitsForRunningJobsAndRefusesPosts) {
    for (int kind = 0; kind < 3; ++kind) {
        SCOPED_TRACE(kind);
        std::shared_ptr<Executor> pool = CreateIOBoundExecutor(kind == 1 ? 4 : 1);
        std::shared_ptr<Executor> target =
            kind == 1 ? std::shared_ptr<Executor>(CreateSubExecutor(pool, 1)) : pool;
        OpenOnceGate gate;
        std::atomic<int> finished{0}, ran{0}, dropped{0};
        Occupy(*target, gate, finished);
        for (int i = 0; i < 30; ++i) ASSERT_TRUE(target->Post(CountingJob(ran, dropped)));
        EXPECT_EQ(target->QueuedCount(), 30u);
        std::atomic<int> finishedAtStop{-1};
        std::thread stopper([&, t = kind == 2 ? std::move(target) : target]() mutable {
            if (kind == 2) {
                pool.reset();
                t.reset();  // the last reference: destruction stops the pool
            } else {
                t->Stop();
            }
            finishedAtStop = finished.load();
        });
        ASSERT_TRUE(WaitUntil([&] { return dropped.load() == 30; }));  // before the wait
        if (kind != 2) {
            EXPECT_TRUE(target->IsStopped());
            EXPECT_FALSE(target->Post([&ran] { ran.fetch_add(1); }));
        }
        gate.Open();
        stopper.join();
        EXPECT_EQ(finishedAtStop.load(), 1);
        EXPECT_EQ(ran.load(), 0);
        if (kind == 1) {  // the parent keeps running
            std::atomic<bool> parentRan{false};
            ASSERT_TRUE(pool->Post([&] { parentRan = true; }));
            EXPECT_TRUE(WaitUntil([&] { return parentRan.load(); }));
        }
    }
}

TEST(Executor, ConcurrentStopsAllWaitForTheRunningJob) {
    auto pool = CreateIOBoundExecutor(2);
    OpenOnceGate gate;
    std::atomic<int> finished{0}, returnedEarly{0};
    Occupy(*pool, gate, finished);
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 3; ++i) {
        stoppers.emplace_back([&] {
            pool->Stop();
            returnedEarly += finished.load() == 0 ? 1 : 0;
        });
    }
    ASSERT_TRUE(WaitUntil([&] { return pool->IsStopped(); }));
    gate.Open();
    for (auto& t : stoppers) t.join();
    EXPECT_EQ(returnedEarly.load(), 0);
}

TEST(Executor, StopFromOwnJobThrowsAndAJobDroppedByStopCannotPost) {
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
    std::atomic<int> finished{0}, repost{0};  // repost 1: accepted, 2: refused
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
    std::thread stopper([&] { pool->Stop(); });
    ASSERT_TRUE(WaitUntil([&] { return repost.load() != 0; }));
    gate.Open();
    stopper.join();
    EXPECT_EQ(repost.load(), 2);
}

TEST(Executor, PoolRunsFourJobsAtOnceAndSwallowsErrors) {
    auto pool = CreateIOBoundExecutor();
    std::atomic<int> arrived{0}, met{0};
    for (int i = 0; i < 4; ++i) {
        pool->Post([&] {
            arrived.fetch_add(1);
            met += WaitUntil([&] { return arrived.load() == 4; }) ? 1 : 0;
            throw std::runtime_error("job failure");
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return met.load() == 4; }));
    std::atomic<bool> after{false};
    pool->Post([&] { after = true; });  // the failures left every thread alive
    EXPECT_TRUE(WaitUntil([&] { return after.load(); }));
}

TEST(Executor, LastReferenceDroppedInsideItsOwnJob) {
    std::atomic<int> ran{0};
    {
        auto pool = CreateIOBoundExecutor(2);
        auto sub = CreateSubExecutor(pool, 1);
        sub->Post([s = sub, &ran] { ran.fetch_add(1); });
        pool->Post([p = pool, &ran] { ran.fetch_add(1); });
    }
    EXPECT_TRUE(WaitUntil([&] { return ran.load() == 2; }));
}

// Nested caps, FIFO for a serial one, and posts from several threads all run.
TEST(Executor, SubExecutorsNeverExceedTheirCapAndKeepOrder) {
    auto pool = CreateIOBoundExecutor(8);
    auto outer = CreateSubExecutor(pool, 3);
    auto inner = CreateSubExecutor(outer, 2);
    auto serial = CreateSubExecutor(pool, 1);
    std::atomic<int> active{0}, peak{0}, done{0};
    std::vector<int> order;  // touched by one serial job at a time
    std::vector<std::thread> posters;
    for (int t = 0; t < 3; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                inner->Post([&] {
                    const int now = active.fetch_add(1) + 1;
                    for (int seen = peak.load(); now > seen;) peak.compare_exchange_weak(seen, now);
                    std::this_thread::yield();
                    active.fetch_sub(1);
                    done.fetch_add(1);
                });
            }
        });
    }
    for (int i = 0; i < 300; ++i) serial->Post([&order, i] { order.push_back(i); });
    for (auto& t : posters) t.join();
    EXPECT_TRUE(WaitUntil([&] { return done.load() == 300; }));
    EXPECT_LE(peak.load(), 2);
    EXPECT_TRUE(WaitUntil([&] { return serial->QueuedCount() == 0; }));  // Stop drops the queue
    serial->Stop();
    ASSERT_EQ(order.size(), 300u);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(order[i], i);

    // Stopping a sub-executor from a job of its parent is allowed.
    std::atomic<bool> stopped{false};
    outer->Post([&] {
        inner->Stop();
        stopped = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return stopped.load(); }));
    EXPECT_FALSE(outer->IsStopped());
}

TEST(Executor, StoppingTheParentStopsItsSubExecutor) {
    auto pool = CreateIOBoundExecutor(1);
    auto sub = CreateSubExecutor(pool, 2);
    OpenOnceGate gate;
    std::atomic<int> finished{0}, ran{0};
    Occupy(*pool, gate, finished);
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(sub->Post([&ran] { ran.fetch_add(1); }));
    std::thread stopper([&] { pool->Stop(); });
    ASSERT_TRUE(WaitUntil([&] { return pool->IsStopped(); }));
    gate.Open();
    stopper.join();
    EXPECT_TRUE(sub->IsStopped());
    EXPECT_EQ(sub->QueuedCount(), 0u);
    EXPECT_FALSE(sub->Post([&ran] { ran.fetch_add(1); }));
    EXPECT_EQ(ran.load(), 0);
}

}  // namespace
}  // namespace velacore
