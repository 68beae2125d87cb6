// OpenOnceGate: every waiter released once by a single Open, deadlines honoured while closed.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host/test_prims_util.h"
#include "mc/host/OpenOnceGate.h"

namespace velacore {
namespace {

using namespace std::chrono_literals;

TEST(PrimsOpenOnceGate, OneOpenReleasesEveryWaiterOnce) {
    prims_test::HangGuard guard("gate waiters");
    OpenOnceGate gate;
    std::atomic<int> passed{0};
    std::atomic<int> waiting{0};
    constexpr int kWaiters = 12;
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&, i] {
            waiting.fetch_add(1);
            if (i % 2) {
                gate.Pass();
            } else {
                ASSERT_TRUE(gate.Pass(OpenOnceGate::Clock::now() + prims_test::kHangLimit));
            }
            passed.fetch_add(1);
        });
    }
    ASSERT_TRUE(prims_test::WaitUntil([&] { return waiting.load() == kWaiters; }));
    EXPECT_EQ(passed.load(), 0);
    EXPECT_FALSE(gate.IsOpen());
    // Several openers race; exactly one wins.
    std::atomic<int> winners{0};
    std::vector<std::thread> openers;
    for (int i = 0; i < 4; ++i) {
        openers.emplace_back([&] {
            if (gate.Open()) winners.fetch_add(1);
        });
    }
    for (auto& t : openers) t.join();
    for (auto& t : waiters) t.join();
    EXPECT_EQ(winners.load(), 1);
    EXPECT_EQ(passed.load(), kWaiters);
    EXPECT_TRUE(gate.IsOpen());
    // Once open it stays open: later passes return at once.
    gate.Pass();
    EXPECT_TRUE(gate.Pass(OpenOnceGate::Clock::now() - 1s));
    EXPECT_FALSE(gate.Open());
}

TEST(PrimsOpenOnceGate, DeadlineExpiresWhileClosed) {
    OpenOnceGate gate;
    EXPECT_FALSE(gate.Pass(OpenOnceGate::Clock::now() + 5ms));
    EXPECT_FALSE(gate.Pass(OpenOnceGate::Clock::now() - 1s));
    EXPECT_FALSE(gate.IsOpen());
}

}  // namespace
}  // namespace velacore
