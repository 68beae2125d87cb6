// Intrusive references and weak references: destruction on the last release, Lock after the
// last release, and races between Lock and the last release (run it under TSAN and ASan).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/test_prims_util.h"
#include "mc/host/IntrusivePtr.h"

namespace velacore {
namespace {

class Counted : public RefCountedObject {
  public:
    explicit Counted(std::atomic<int>* destroyed) : destroyed_(destroyed) {}
    ~Counted() override { destroyed_->fetch_add(1); }

  private:
    std::atomic<int>* destroyed_;
};

class Watched : public RefCountedObjectWithWeakPtr {
  public:
    explicit Watched(std::atomic<int>* destroyed, int value = 0)
        : destroyed_(destroyed), value_(value) {}
    ~Watched() override { destroyed_->fetch_add(1); }
    int Value() const { return value_; }

  private:
    std::atomic<int>* destroyed_;
    int value_;
};

TEST(PrimsRefCounted, LastReleaseDestroysOnce) {
    std::atomic<int> destroyed{0};
    {
        auto p = MakeIntrusive<Counted>(&destroyed);
        EXPECT_EQ(p->GetRefCount(), 1u);
        IntrusivePtr<Counted> q = p;
        EXPECT_EQ(p->GetRefCount(), 2u);
        p.reset();
        EXPECT_EQ(destroyed.load(), 0);
    }
    EXPECT_EQ(destroyed.load(), 1);
}

TEST(PrimsWeakPtr, LockWhileAliveGivesTheObject) {
    std::atomic<int> destroyed{0};
    auto p = MakeIntrusive<Watched>(&destroyed, 42);
    WeakPtr<Watched> w(p);
    auto locked = w.Lock();
    ASSERT_TRUE(locked);
    EXPECT_EQ(locked.get(), p.get());
    EXPECT_EQ(locked->Value(), 42);
    EXPECT_EQ(p->GetRefCount(), 2u);
    EXPECT_FALSE(w.Expired());
}

TEST(PrimsWeakPtr, LockAfterLastReleaseGivesNull) {
    std::atomic<int> destroyed{0};
    auto p = MakeIntrusive<Watched>(&destroyed);
    WeakPtr<Watched> w(p);
    WeakPtr<Watched> copy = w;
    p.reset();
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_FALSE(w.Lock());
    EXPECT_TRUE(copy.Expired());
    w.reset();
    EXPECT_FALSE(w.Lock());
}

TEST(PrimsWeakPtr, ObjectWithoutStrongReferencesCannotBeLocked) {
    std::atomic<int> destroyed{0};
    auto p = MakeIntrusive<Watched>(&destroyed);
    // A weak reference taken from a raw pointer still sees the count.
    WeakPtr<Watched> w(p.get());
    EXPECT_TRUE(w.Lock());
    EXPECT_EQ(p->GetRefCount(), 1u);
}

// One thread drops the last strong reference while others lock weak references: every Lock
// either gets a live object or null, and the object is destroyed exactly once, by whoever
// releases last.
TEST(PrimsWeakPtr, LockRacesLastRelease) {
    prims_test::HangGuard guard("weak race");
    std::atomic<int> destroyed{0};
    std::atomic<int> badValues{0};
    constexpr int kRounds = 2000;
    constexpr int kLockers = 3;
    prims_test::RoundBarrier barrier(kLockers + 1);
    WeakPtr<Watched> shared;  // written by the main thread between the two barriers
    int round = 0;
    std::vector<std::thread> lockers;
    for (int t = 0; t < kLockers; ++t) {
        lockers.emplace_back([&] {
            for (;;) {
                barrier.ArriveAndWait();  // round starts
                if (round == kRounds) return;
                const WeakPtr<Watched> w = shared;
                for (int i = 0; i < 20; ++i) {
                    IntrusivePtr<Watched> got = w.Lock();
                    if (!got) break;
                    if (got->Value() != round) badValues.fetch_add(1);
                }
                barrier.ArriveAndWait();  // round ends
            }
        });
    }
    for (; round < kRounds; ++round) {
        auto p = MakeIntrusive<Watched>(&destroyed, round);
        shared = WeakPtr<Watched>(p);
        barrier.ArriveAndWait();
        p.reset();  // races the lockers
        barrier.ArriveAndWait();
        EXPECT_FALSE(shared.Lock());
    }
    barrier.ArriveAndWait();  // lets the lockers see the last round
    for (auto& t : lockers) t.join();
    EXPECT_EQ(destroyed.load(), kRounds);
    EXPECT_EQ(badValues.load(), 0);
}

TEST(PrimsWeakPtr, ManyThreadsCopyingAndLockingKeepTheCountExact) {
    prims_test::HangGuard guard("weak copies");
    std::atomic<int> destroyed{0};
    auto p = MakeIntrusive<Watched>(&destroyed, 7);
    WeakPtr<Watched> w(p);
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([p, w, &bad] {
            for (int i = 0; i < 2000; ++i) {
                IntrusivePtr<Watched> a = p;
                IntrusivePtr<Watched> b = w.Lock();
                IntrusivePtr<Watched> c = std::move(a);
                if (!b || b != c) bad.fetch_add(1);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(p->GetRefCount(), 1u);
    p.reset();
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_TRUE(w.Expired());
}

}  // namespace
}  // namespace velacore
