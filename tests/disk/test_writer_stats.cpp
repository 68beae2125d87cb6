// The disk speed model: the moving average, its cap, the merging of overlapping operations, the
// warm-up before maxima are tracked; and the busy-time trackers.
#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <thread>
#include <vector>

#include "disk/DiskSettings.h"
#include "disk/DiskStats.h"
#include "mc/host/Time.h"

namespace {

constexpr double kInitial = MCp_DiskSpeedStat::kInitialAverage;

void Pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

class SpeedStat : public ::testing::Test {
  protected:
    void TearDown() override {
        mc_disk_settings::SetSpeedCapBytesPerSecond(
            mc_disk_settings::kDefaultSpeedCapBytesPerSecond);
    }
    MCp_DiskSpeedStat stat_;
};

TEST_F(SpeedStat, StartsAtFiveHundredTwelveMebibytesPerSecond) {
    EXPECT_DOUBLE_EQ(stat_.GetAverage(), 536870912.0);
    EXPECT_EQ(stat_.GetSampleCount(), 0);
    EXPECT_DOUBLE_EQ(stat_.GetMaxAverage(), 0.0);
    EXPECT_DOUBLE_EQ(stat_.GetMaxSpeed(), 0.0);
}

TEST_F(SpeedStat, SampleMovesTheAverageByTwoPercent) {
    stat_.AddSample(100'000'000, 1.0);  // 1e8 B/s
    EXPECT_DOUBLE_EQ(stat_.GetAverage(), 0.98 * kInitial + 0.02 * 1e8);
    EXPECT_EQ(stat_.GetSampleCount(), 1);
}

TEST_F(SpeedStat, SpeedsAboveTheCapAreLeftOut) {
    stat_.AddSample(20'000'000'000ull, 1.0);  // 20 GB/s, above 10 GiB/s
    EXPECT_DOUBLE_EQ(stat_.GetAverage(), kInitial);
    EXPECT_EQ(stat_.GetSampleCount(), 0);
}

TEST_F(SpeedStat, ASpeedExactlyAtTheCapIsLeftOut) {
    mc_disk_settings::SetSpeedCapBytesPerSecond(1e9);
    stat_.AddSample(500'000'000, 0.5);
    EXPECT_EQ(stat_.GetSampleCount(), 0);
    Pause();
    stat_.AddSample(250'000'000, 0.5e-3 * 0.5);  // far above
    EXPECT_EQ(stat_.GetSampleCount(), 0);
    EXPECT_DOUBLE_EQ(stat_.GetAverage(), kInitial);
}

TEST_F(SpeedStat, ACappedSampleStillMergesWithTheNextOverlappingOne) {
    stat_.AddSample(20'000'000'000ull, 1.0);
    // Took 10 s and ended just now: it overlapped the previous one, and together they ran at
    // about 21 GB/s, which is above the cap again, so nothing is averaged.
    stat_.AddSample(1'000'000'000, 10.0);
    EXPECT_EQ(stat_.GetSampleCount(), 0);
    EXPECT_DOUBLE_EQ(stat_.GetAverage(), kInitial);
}

TEST_F(SpeedStat, OverlappingOperationsCountAtTheirCombinedSpeed) {
    stat_.AddSample(100'000'000, 1.0);
    const double afterFirst = stat_.GetAverage();
    stat_.AddSample(100'000'000, 2.0);  // overlapped: about 2e8 B/s together, not 5e7
    const double merged = stat_.GetAverage();
    EXPECT_GT(merged, 0.98 * afterFirst + 0.02 * 1.9e8);
    EXPECT_LE(merged, 0.98 * afterFirst + 0.02 * 2e8);
}

TEST_F(SpeedStat, SeparateOperationsAreNotMerged) {
    stat_.AddSample(100'000'000, 1.0);
    const double afterFirst = stat_.GetAverage();
    Pause();
    stat_.AddSample(100'000, 0.001);  // 1e8 B/s, after a gap longer than itself
    EXPECT_NEAR(stat_.GetAverage(), 0.98 * afterFirst + 0.02 * 1e8, 1.0);
}

TEST_F(SpeedStat, MaximaAreTrackedOnlyAfterFiftySamples) {
    for (int i = 0; i < 50; ++i) {
        Pause();
        stat_.AddSample(1000, 1e-6);  // 1e9 B/s each, never overlapping
    }
    EXPECT_EQ(stat_.GetSampleCount(), 50);
    EXPECT_DOUBLE_EQ(stat_.GetMaxAverage(), 0.0);
    EXPECT_DOUBLE_EQ(stat_.GetMaxSpeed(), 0.0);
    Pause();
    stat_.AddSample(1000, 1e-6);
    EXPECT_DOUBLE_EQ(stat_.GetMaxAverage(), stat_.GetAverage());
    EXPECT_NEAR(stat_.GetMaxSpeed(), 1e9, 1.0);
}

TEST_F(SpeedStat, ConcurrentSamplesAreAllCountedExactly) {
    // Overlapping samples merge into ever faster ones; lift the cap so that all are counted.
    mc_disk_settings::SetSpeedCapBytesPerSecond(1e300);
    constexpr int kThreads = 8;
    constexpr int kSamples = 20000;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < kSamples; ++i) stat_.AddSample(1000, 1e-6);
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(stat_.GetSampleCount(), int64_t{kThreads} * kSamples);
}

// --- busy-time trackers ----------------------------------------------------------------------

TEST(BusyTracker, ClosedIntervalCountsItsOverlapWithTheSpan) {
    MCp_BusyTracker tracker;
    velacore::Timer outer;
    {
        MCp_ScBusyInterval busy(tracker);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const double outerSeconds = outer.GetElapsedSeconds();
    const double share = tracker.PercentBusy(100.0);
    EXPECT_GE(share, 0.020 / 100.0);
    EXPECT_LE(share, outerSeconds / 100.0);
}

TEST(BusyTracker, OpenIntervalCountsUpToNowAndAtMostTheSpan) {
    MCp_BusyTracker tracker;
    const uint64_t id = tracker.Begin();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_DOUBLE_EQ(tracker.PercentBusy(0.01), 1.0);  // busy for the whole last 10 ms
    EXPECT_GT(tracker.PercentBusy(100.0), 0.0);
    tracker.End(id);
}

TEST(BusyTracker, IntervalsOverBeforeTheSpanDoNotCount) {
    MCp_BusyTracker tracker;
    tracker.End(tracker.Begin());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_DOUBLE_EQ(tracker.PercentBusy(0.01), 0.0);
    EXPECT_DOUBLE_EQ(tracker.PercentBusy(0.0), 0.0);
}

TEST(BusyTracker, TwoOverlappingOperationsCanExceedOne) {
    MCp_BusyTracker tracker;
    const uint64_t a = tracker.Begin();
    const uint64_t b = tracker.Begin();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_DOUBLE_EQ(tracker.PercentBusy(0.01), 2.0);
    tracker.End(a);
    tracker.End(b);
}

}  // namespace
