// Weak references racing the last release: every Lock gets a live object of this round or null,
// and the object is destroyed exactly once (run it under TSAN and ASan too).
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <thread>
#include <vector>

#include "mc/host/IntrusivePtr.h"

namespace velacore {
namespace {

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
