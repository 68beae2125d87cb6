// The speed statistics: the moving average, its cap, the merging of overlapping operations, exact
// counts under contention; and the busy-time trackers.
// Time stamps are injected (nanosecond ticks), nothing sleeps.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "disk/DiskFolder.h"
#include "disk/SpeedStats.h"

namespace {

constexpr double kInitial = MCp_DiskSpeedStat::kInitialAverage;
constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kStart = 1000 * kSecond;

class SpeedStat : public ::testing::Test {
protected:
    void TearDown() override {
        MCp_DiskFolder::SetSpeedCapBytesPerSecond(MCp_DiskFolder::kDefaultSpeedCapBytesPerSecond);
    }
    MCp_DiskSpeedStat stat_;
};

// Each sample moves the average by 2 %; overlapping operations count at their combined speed,
// separate ones on their own; speeds at or above the cap are left out, merged or not.
TEST_F(SpeedStat, AverageMergingAndCap) {
    stat_.AddSampleAt(100'000'000, 1.0, kStart);  // 1e8 B/s
    const double first = 0.98 * kInitial + 0.02 * 1e8;
    EXPECT_DOUBLE_EQ(stat_.GetAverage(), first);
    // 2 s long, ended 1 s after the first: 2e8 bytes in 2 s together = 1e8, not 5e7.
    stat_.AddSampleAt(100'000'000, 2.0, kStart + kSecond);
    const double merged = 0.98 * first + 0.02 * 1e8;
    EXPECT_DOUBLE_EQ(stat_.GetAverage(), merged);
    // 1 ms long, 10 s after the last: no overlap, it counts on its own at 1e5 B/s.
    stat_.AddSampleAt(100, 0.001, kStart + 11 * kSecond);
    EXPECT_DOUBLE_EQ(stat_.GetAverage(), 0.98 * merged + 0.02 * 1e5);
    EXPECT_EQ(stat_.GetSampleCount(), 3);

    MCp_DiskFolder::SetSpeedCapBytesPerSecond(1e9);
    stat_.AddSampleAt(500'000'000, 0.5, kStart + 30 * kSecond);  // exactly the cap
    // Overlapping the capped one: together still above the cap.
    stat_.AddSampleAt(1'000'000'000, 1.0, kStart + 30 * kSecond + kSecond / 1000);
    EXPECT_EQ(stat_.GetSampleCount(), 3);
}

TEST_F(SpeedStat, ConcurrentSamplesAreAllCountedExactly) {
    // Overlapping samples merge into ever faster ones; lift the cap so that all are counted.
    MCp_DiskFolder::SetSpeedCapBytesPerSecond(1e300);
    constexpr int kThreads = 8;
    constexpr int kSamples = 200000;
    std::atomic<int> start{0};  // not std::latch: MinGW's can lose a wake-up
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (start.fetch_add(1); start.load() < kThreads;) std::this_thread::yield();
            for (int i = 0; i < kSamples; ++i) stat_.AddSample(1000, 1e-6);
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(stat_.GetSampleCount(), int64_t{kThreads} * kSamples);
}

TEST(BusyTracker, ShareOfTheSpanCountsOverlapsOpenIntervalsAndForgetsOldOnes) {
    MCp_BusyTracker tracker;
    tracker.EndAt(tracker.BeginAt(kStart), kStart + 2 * kSecond);  // 2 s, over at +2 s
    const uint64_t open = tracker.BeginAt(kStart + 5 * kSecond);
    const uint64_t now = kStart + 10 * kSecond;
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(100.0, now), 7.0 / 100.0);      // 2 s + 5 s
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(9.0, now), (1.0 + 5.0) / 9.0);  // 1 s of the first
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(4.0, now), 1.0);  // the open one, at most the span
    const uint64_t second = tracker.BeginAt(kStart + 6 * kSecond);  // overlapping operations
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(4.0, now), 2.0);
    tracker.EndAt(open, now);
    tracker.EndAt(second, now);
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(1.0, now + 3 * kSecond), 0.0);  // all over before
}

}  // namespace
