// Thread primitives. MultiTenantRecursiveMutex: re-entrance and usage errors, writer preference,
// wake-ups, and a randomized many-thread run with invariants checked. WeakPtr against the last
// release.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bag/Eventually.h"
#include "mc/host/IntrusivePtr.h"
#include "mc/host/MultiTenantRecursiveMutex.h"

namespace velacore {
namespace {

using mctest::Eventually;

using Read = ScopedReadLockWrapper;
using Upgrade = ScopedUpgradeLockWrapper;
using Write = ScopedWriteLockWrapper;

void WriteElsewhere(MultiTenantRecursiveMutex& m) {
    std::thread([&] { Write w(m); }).join();
}

TEST(Mutex, EveryModeNestsAndMisuseThrows) {
    MultiTenantRecursiveMutex m;
    EXPECT_THROW(m.UnlockWrite(), std::logic_error);
    m.LockUpgrade();
    m.LockRead();
    m.LockWrite();  // only our own read is in: no wait
    m.LockWrite();
    m.UnlockWrite();
    EXPECT_TRUE(m.IsWriteLockedByCurrentThread());  // counted: one more unlock needed
    m.UnlockWrite();
    m.UnlockUpgrade();
    EXPECT_THROW(m.LockUpgrade(), std::logic_error);  // a read-only holder would deadlock
    std::thread([&] { EXPECT_THROW(m.UnlockRead(), std::logic_error); }).join();
    std::thread([&] { Read r(m); }).join();
    m.UnlockRead();
    WriteElsewhere(m);  // fully released
}

// An upgrader asking write waits for the other readers; while it waits, newcomers queue behind it
// but a thread that already reads re-enters at once (queueing it would deadlock).
TEST(Mutex, WaitingWriterGoesBeforeNewcomersButNotBeforeAReentrantReader) {
    MultiTenantRecursiveMutex m;
    std::atomic<bool> mainReads{true}, writerDone{false}, mainReadsAtWrite{true};
    std::atomic<int> newcomersAfterWriter{0};
    m.LockRead();
    std::thread writer([&] {
        Upgrade u(m);  // shared with our read: no wait
        Read r(m);     // its own read does not hold it back
        Write w(m);
        mainReadsAtWrite = mainReads.load();
        writerDone = true;
    });
    ASSERT_TRUE(Eventually([&] { return m.HasWaitingWriter(); }));
    std::thread reader([&] {
        Read r(m);
        newcomersAfterWriter += writerDone.load();
    });
    std::thread upgrader([&] {
        Upgrade u(m);
        newcomersAfterWriter += writerDone.load();
    });
    ASSERT_TRUE(Eventually([&] { return m.BlockedThreads() == 3; }));
    m.LockRead();
    m.UnlockRead();
    mainReads = false;
    m.UnlockRead();
    for (auto* t : {&writer, &reader, &upgrader}) t->join();
    EXPECT_FALSE(mainReadsAtWrite.load());
    EXPECT_EQ(newcomersAfterWriter.load(), 2);
    EXPECT_FALSE(m.HasWaitingWriter());
}

// Each round waiters of every kind line up behind the main thread's write; when it leaves, every
// one of them must get through (a lost wake-up hangs the round).
TEST(Mutex, EveryBlockedWaiterWakesWhenTheWriterLeaves) {
    MultiTenantRecursiveMutex m;
    constexpr int kRounds = 200, kWaiters = 5;
    std::atomic<int> round{-1}, passed{0};
    std::thread waiters(mctest::RunThreads, kWaiters, [&](int kind) {
        for (int r = 0; r < kRounds; ++r) {
            Eventually([&] { return round.load() >= r; });
            if (kind <= 1) Read l(m);
            if (kind == 2) Upgrade l(m);
            if (kind == 3) Write l(m);
            if (kind == 4) {
                Upgrade u(m);
                Write w(m);
            }
            passed.fetch_add(1);
        }
    });
    for (int r = 0; r < kRounds; ++r) {
        m.LockWrite();
        round = r;
        ASSERT_TRUE(Eventually([&] { return m.BlockedThreads() == kWaiters; }));
        m.UnlockWrite();
        ASSERT_TRUE(Eventually([&] { return passed.load() == (r + 1) * kWaiters; }));
    }
    waiters.join();
}

// Locks share the condition variables they sleep on (by address), so a wake-up for one lock
// also reaches the sleepers of others. With more locks than shares, some surely share; every
// sleeper must still wake when its own lock is let go, in whatever order the locks go. The main
// thread holds all of them at once, far more than a thread's table of holds keeps inline.
TEST(Mutex, SleepersOnSharedWakeUpsAllWake) {
    constexpr int kLocks = 300, kRounds = 3;
    const auto locks = std::make_unique<MultiTenantRecursiveMutex[]>(kLocks);
    for (int round = 0; round < kRounds; ++round) {
        for (int i = 0; i < kLocks; ++i) locks[i].LockWrite();
        std::atomic<int> passed{0};
        std::vector<std::thread> sleepers;
        for (int i = 0; i < kLocks; ++i)
            sleepers.emplace_back([&, i] {
                if (i % 2) {
                    Read r(locks[i]);
                } else {
                    Write w(locks[i]);
                }
                passed.fetch_add(1);
            });
        for (int i = 0; i < kLocks; ++i)
            EXPECT_TRUE(Eventually([&] { return locks[i].BlockedThreads() == 1; }));
        for (int k = 0; k < kLocks; ++k) locks[(k * 7 + round * 13) % kLocks].UnlockWrite();
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (passed.load() < kLocks && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        EXPECT_EQ(passed.load(), kLocks) << "sleepers left asleep in round " << round;
        while (passed.load() < kLocks)  // wake the ones left behind, so that they can be joined
            for (int i = 0; i < kLocks; ++i) Write w(locks[i]);
        for (std::thread& t : sleepers) t.join();
    }
}

// Eight threads take random nested modes; counters of who is inside check every rule.
TEST(Mutex, RandomNestedModesKeepTheInvariants) {
    MultiTenantRecursiveMutex m;
    std::atomic<int> readers{0}, upgraders{0}, writers{0}, violations{0};
    long guarded = 0;  // written under write only; TSAN reports a race if exclusion fails
    auto check = [&](bool ok) { violations += ok ? 0 : 1; };
    auto body = [&](unsigned seed) {
        std::mt19937 rng(seed);
        for (int i = 0; i < 3000; ++i) {
            const unsigned pick = rng() % 10;
            if (pick < 5) {
                Read r(m);
                readers.fetch_add(1);
                check(writers.load() == 0);
                if (rng() % 2) Read again(m);
                volatile long seen = guarded;
                (void)seen;
                readers.fetch_sub(1);
            } else if (pick < 8) {
                Upgrade u(m);
                check(upgraders.fetch_add(1) == 0 && writers.load() == 0);
                if (rng() % 2) Read r(m);
                if (rng() % 2) {
                    Write w(m);
                    check(writers.fetch_add(1) == 0 && readers.load() == 0);
                    ++guarded;
                    writers.fetch_sub(1);
                }
                upgraders.fetch_sub(1);
            } else {
                Write w(m);
                check(writers.fetch_add(1) == 0 && readers.load() == 0 && upgraders.load() == 0);
                if (rng() % 2) Upgrade u(m);
                ++guarded;
                writers.fetch_sub(1);
            }
        }
    };
    mctest::RunThreads(8, [&](int t) { body(1234u + t); });
    EXPECT_EQ(violations.load(), 0);
    WriteElsewhere(m);
}

// Weak references racing the last release: every Lock gets a live object of this round or null,
// and the object is destroyed exactly once (run it under TSAN and ASan too).
struct Watched : RefCountedObjectWithWeakPtr {
    Watched(std::atomic<int>* d, int v) : destroyed(d), value(v) {}
    ~Watched() override { destroyed->fetch_add(1); }
    std::atomic<int>* destroyed;
    int value;
};

TEST(WeakPtr, LockRacesTheLastRelease) {
#ifdef __MINGW32__
    GTEST_SKIP() << "std::barrier can lose a wake-up with MinGW's libstdc++ 12 (no futex)";
#endif
    constexpr int kRounds = 2000;
    std::atomic<int> destroyed{0}, badValues{0};
    std::barrier barrier(4);
    WeakPtr<Watched> shared;  // written by the main thread between the two barriers
    int round = 0;
    std::vector<std::thread> lockers;
    for (int t = 0; t < 3; ++t) {
        lockers.emplace_back([&] {
            for (barrier.arrive_and_wait(); round < kRounds; barrier.arrive_and_wait()) {
                for (int i = 0; i < 20; ++i) {
                    IntrusivePtr<Watched> got = shared.Lock();
                    if (!got) break;
                    badValues += got->value != round ? 1 : 0;
                }
                barrier.arrive_and_wait();  // round ends
            }
        });
    }
    for (; round < kRounds; ++round) {
        auto p = MakeIntrusive<Watched>(&destroyed, round);
        shared = WeakPtr<Watched>(p);
        barrier.arrive_and_wait();
        p.reset();  // races the lockers
        barrier.arrive_and_wait();
        ASSERT_FALSE(shared.Lock());
        ASSERT_EQ(destroyed.load(), round + 1);
    }
    barrier.arrive_and_wait();  // lets the lockers see the end
    for (auto& t : lockers) t.join();
    EXPECT_EQ(badValues.load(), 0);
}

}  // namespace
}  // namespace velacore
