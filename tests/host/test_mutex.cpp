// MultiTenantRecursiveMutex: re-entrance in every mode, usage errors, upgrade to write, writer
// preference, wake-ups, and a randomized many-thread run with invariants checked.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/WaitUntil.h"
#include "mc/host/MultiTenantRecursiveMutex.h"

namespace velacore {
namespace {

using hosttest::WaitUntil;

void TakeWriteOnAnotherThread(MultiTenantRecursiveMutex& m) {
    std::thread([&] { ScopedWriteLockWrapper w(m); }).join();
}

TEST(Mutex, EveryModeNestsOnItsThread) {
    MultiTenantRecursiveMutex m;
    m.LockUpgrade();
    m.LockUpgrade();
    m.LockRead();
    m.LockWrite();  // only our own read is in: no wait
    m.LockWrite();
    EXPECT_TRUE(m.IsWriteLockedByCurrentThread() && m.IsUpgradeLockedByCurrentThread() &&
                m.IsReadLockedByCurrentThread());
    m.UnlockWrite();
    EXPECT_TRUE(m.IsWriteLockedByCurrentThread());  // counted: one more unlock needed
    m.UnlockWrite();
    m.UnlockRead();
    m.UnlockUpgrade();
    EXPECT_TRUE(m.IsUpgradeLockedByCurrentThread());
    m.UnlockUpgrade();
    EXPECT_FALSE(m.IsUpgradeLockedByCurrentThread() || m.IsReadLockedByCurrentThread());
    TakeWriteOnAnotherThread(m);  // fully released

    // Write, then read, then leave write: a reader elsewhere gets in at once.
    m.LockWrite();
    m.LockRead();
    m.UnlockWrite();
    std::thread([&] { ScopedReadLockWrapper r(m); }).join();
    m.UnlockRead();
    TakeWriteOnAnotherThread(m);
}

TEST(Mutex, UsageErrorsThrowAndChangeNothing) {
    MultiTenantRecursiveMutex m;
    EXPECT_THROW(m.UnlockRead(), std::logic_error);
    EXPECT_THROW(m.UnlockWrite(), std::logic_error);
    m.LockRead();
    EXPECT_THROW(m.LockUpgrade(), std::logic_error);  // a read-only holder would deadlock
    EXPECT_THROW(m.LockWrite(), std::logic_error);
    EXPECT_FALSE(m.IsUpgradeLockedByCurrentThread() || m.IsWriteLockedByCurrentThread());
    EXPECT_FALSE(m.HasWaitingWriter());
    std::thread([&] { EXPECT_THROW(m.UnlockRead(), std::logic_error); }).join();
    EXPECT_TRUE(m.IsReadLockedByCurrentThread());
    m.UnlockRead();
    TakeWriteOnAnotherThread(m);
}

TEST(Mutex, UpgraderAskingWriteWaitsForTheOtherReaders) {
    MultiTenantRecursiveMutex m;
    std::atomic<bool> readerInside{true};
    std::atomic<bool> readerInsideAtWrite{true};
    m.LockRead();
    std::thread upgrader([&] {
        ScopedUpgradeLockWrapper u(m);  // shared with our read: no wait
        ScopedReadLockWrapper r(m);     // its own read does not hold it back
        ScopedWriteLockWrapper w(m);    // waits until we leave
        readerInsideAtWrite = readerInside.load();
    });
    ASSERT_TRUE(WaitUntil([&] { return m.HasWaitingWriter(); }));
    readerInside = false;
    m.UnlockRead();
    upgrader.join();
    EXPECT_FALSE(readerInsideAtWrite.load());
    EXPECT_FALSE(m.HasWaitingWriter());
}

// A waiting writer holds back new readers and upgraders, but never a thread that already reads.
TEST(Mutex, WaitingWriterGoesBeforeNewcomersButNotBeforeAReentrantReader) {
    MultiTenantRecursiveMutex m;
    std::atomic<bool> writerDone{false};
    std::atomic<int> newcomersAfterWriter{0};
    m.LockRead();
    std::thread writer([&] {
        ScopedWriteLockWrapper w(m);
        writerDone = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return m.HasWaitingWriter(); }));
    std::thread reader([&] {
        ScopedReadLockWrapper r(m);
        newcomersAfterWriter += writerDone.load();
    });
    std::thread upgrader([&] {
        ScopedUpgradeLockWrapper u(m);
        newcomersAfterWriter += writerDone.load();
    });
    ASSERT_TRUE(WaitUntil([&] { return m.BlockedThreads() == 3; }));  // all three queued
    m.LockRead();  // re-entrant: must not queue behind the writer (that would deadlock)
    EXPECT_TRUE(m.HasWaitingWriter());
    m.UnlockRead();
    m.UnlockRead();
    writer.join();
    reader.join();
    upgrader.join();
    EXPECT_EQ(newcomersAfterWriter.load(), 2);
}

// Each round the main thread holds write while waiters of every kind line up behind it; when it
// leaves, every one of them must get through (a lost wake-up hangs the round).
TEST(Mutex, EveryBlockedWaiterWakesWhenTheWriterLeaves) {
    MultiTenantRecursiveMutex m;
    constexpr int kRounds = 200;
    constexpr int kWaiters = 5;
    std::atomic<int> round{-1};
    std::atomic<int> passed{0};
    auto waiter = [&](int kind) {
        for (int r = 0; r < kRounds; ++r) {
            while (round.load() < r) std::this_thread::yield();  // main holds write now
            if (kind <= 1) {
                ScopedReadLockWrapper l(m);
            } else if (kind == 2) {
                ScopedUpgradeLockWrapper l(m);
            } else if (kind == 3) {
                ScopedWriteLockWrapper l(m);
            } else {
                ScopedUpgradeLockWrapper u(m);
                ScopedWriteLockWrapper w(m);
            }
            passed.fetch_add(1);
        }
    };
    std::vector<std::thread> threads;
    for (int k = 0; k < kWaiters; ++k) threads.emplace_back(waiter, k);
    for (int r = 0; r < kRounds; ++r) {
        m.LockWrite();
        round = r;
        ASSERT_TRUE(WaitUntil([&] { return m.BlockedThreads() == kWaiters; }));  // all queued
        m.UnlockWrite();
        ASSERT_TRUE(WaitUntil([&] { return passed.load() == (r + 1) * kWaiters; }));
    }
    for (auto& th : threads) th.join();
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
                ScopedReadLockWrapper r(m);
                readers.fetch_add(1);
                check(writers.load() == 0);
                if (rng() % 2) ScopedReadLockWrapper again(m);
                volatile long seen = guarded;
                (void)seen;
                readers.fetch_sub(1);
            } else if (pick < 8) {
                ScopedUpgradeLockWrapper u(m);
                check(upgraders.fetch_add(1) == 0 && writers.load() == 0);
                if (rng() % 2) ScopedReadLockWrapper r(m);
                if (rng() % 2) {
                    ScopedWriteLockWrapper w(m);
                    check(writers.fetch_add(1) == 0 && readers.load() == 0);
                    ++guarded;
                    writers.fetch_sub(1);
                }
                upgraders.fetch_sub(1);
            } else {
                ScopedWriteLockWrapper w(m);
                check(writers.fetch_add(1) == 0 && readers.load() == 0 && upgraders.load() == 0);
                if (rng() % 2) ScopedReadLockWrapper r(m);
                if (rng() % 2) ScopedUpgradeLockWrapper u(m);
                ++guarded;
                writers.fetch_sub(1);
            }
        }
    };
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 8; ++t) threads.emplace_back(body, 1234u + t);
    for (auto& th : threads) th.join();
    EXPECT_EQ(violations.load(), 0);
    EXPECT_FALSE(m.HasWaitingWriter());
    TakeWriteOnAnotherThread(m);
}

}  // namespace
}  // namespace velacore
