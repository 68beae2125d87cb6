// The write-to-disk decision: read-back speed against recompute speed, the queue's share, the
// one-millisecond floor, priorities, the low-priority factor and the proclivity multiplier; and
// the check-in hooks that act on it (MaybeWriteToDisk, ReconsiderWriteToDisk).
#include <gtest/gtest.h>

#include "disk/DiskSettings.h"
#include "disk/DiskStats.h"
#include "disk/DiskWriterQueue.h"
#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

constexpr uint32_t kMiB = 1u << 20;

// A payload that only claims a size (nothing is allocated), for sizes like 100 MiB.
class SizedPayload : public MC_StuffData {
  public:
    SizedPayload(uint32_t size, MC_CachePriority priority) : size_(size) {
        SetCachePriority(priority);
    }
    uint32_t GetApproximateMemorySize() const override { return size_; }
    bool PurgeIfPossible(MC_ReleaseList*) override { return false; }
    bool IsInMemory() const override { return true; }
    bool CanDiskCache() const override { return true; }

  private:
    uint32_t size_;
};

IntrusivePtr<MC_Stuff> Sized(uint32_t size, MC_CachePriority priority) {
    return MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new SizedPayload(size, priority)), 1.0);
}

struct Decision {
    bool worth = false;
    bool can = false;
    bool queueFull = false;
    bool low = false;
};

Decision Decide(const IntrusivePtr<MC_Stuff>& stuff, double computeTime) {
    Decision d;
    // Poison the outputs: the decision must set every one of them.
    d.can = !d.can;
    d.queueFull = !d.queueFull;
    d.low = !d.low;
    d.worth = stuff->WorthWritingToDiskCache(computeTime, &d.can, &d.queueFull, &d.low);
    return d;
}

class WriteDecision : public DiskCacheTest {};

TEST_F(WriteDecision, HundredMebibytesInOneSecondIsWorthWritingWithAnEmptyQueue) {
    const Decision d = Decide(Sized(100 * kMiB, MC_CachePriority_Normal), 1.0);
    EXPECT_TRUE(d.worth);  // 512 MiB/s reads it back in 0.195 s
    EXPECT_TRUE(d.can);
    EXPECT_FALSE(d.queueFull);
    EXPECT_FALSE(d.low);
}

TEST_F(WriteDecision, HundredFiftyQueuedWritesMakeItNotWorthButFlagTheQueue) {
    AdjustQueue(150);  // p = 0.25: 32 MiB/s, 3.1 s to read back
    const Decision d = Decide(Sized(100 * kMiB, MC_CachePriority_Normal), 1.0);
    EXPECT_FALSE(d.worth);
    EXPECT_TRUE(d.queueFull);
    EXPECT_TRUE(d.can);
}

TEST_F(WriteDecision, ReadBackTimeIsFlooredAtOneMillisecond) {
    EXPECT_FALSE(Decide(Sized(1, MC_CachePriority_Normal), 0.0005).worth);
    // Exactly at the floor reading back is as fast as recomputing: not better, not written.
    EXPECT_FALSE(Decide(Sized(1, MC_CachePriority_Normal), 0.001).worth);
    EXPECT_TRUE(Decide(Sized(1, MC_CachePriority_Normal), 0.002).worth);
}

TEST_F(WriteDecision, ZeroComputeTimeIsNeverWorthIt) {
    const Decision d = Decide(Sized(100 * kMiB, MC_CachePriority_Normal), 0.0);
    EXPECT_FALSE(d.worth);
    EXPECT_FALSE(d.queueFull);
}

TEST_F(WriteDecision, PriorityZeroIsNeverWritten) {
    const Decision d = Decide(Sized(100 * kMiB, MC_CachePriority_Never), 100.0);
    EXPECT_FALSE(d.worth);
    EXPECT_FALSE(d.can);
    EXPECT_FALSE(d.queueFull);
}

TEST_F(WriteDecision, HighPriorityIsWrittenUnlessTheQueueIsFull) {
    // The speed test is skipped: even a zero compute time is written.
    IntrusivePtr<MC_Stuff> high = Sized(100 * kMiB, MC_CachePriority_High);
    AdjustQueue(199);
    EXPECT_TRUE(Decide(high, 0.0).worth);
    AdjustQueue(1);
    const Decision d = Decide(high, 100.0);
    EXPECT_FALSE(d.worth);
    EXPECT_TRUE(d.queueFull);
    EXPECT_TRUE(d.can);
}

TEST_F(WriteDecision, PrioritiesAboveThreeBehaveLikeNormal) {
    IntrusivePtr<MC_Stuff> five = Sized(100 * kMiB, static_cast<MC_CachePriority>(5));
    EXPECT_TRUE(Decide(five, 1.0).worth);
    EXPECT_FALSE(Decide(five, 0.1).worth);
    EXPECT_FALSE(Decide(five, 1.0).low);
}

TEST_F(WriteDecision, LowPriorityDividesTheReadSpeedByItsFactor) {
    // 100 MiB: 0.195 s at 512 MiB/s, 0.39 s at 256 MiB/s; recomputing takes 0.3 s.
    EXPECT_TRUE(Decide(Sized(100 * kMiB, MC_CachePriority_Normal), 0.3).worth);
    const Decision low = Decide(Sized(100 * kMiB, MC_CachePriority_Low), 0.3);
    EXPECT_FALSE(low.worth);
    EXPECT_TRUE(low.low);
    EXPECT_FALSE(low.queueFull);  // the queue is empty: it is the priority that says no

    host().SetDebugEntry("ZK.MC.LowPriorityFactorR", "0");  // 0: no division
    mc_settings::ResetForTesting();
    EXPECT_TRUE(Decide(Sized(100 * kMiB, MC_CachePriority_Low), 0.3).worth);
}

TEST_F(WriteDecision, ProclivityMultiplierMakesWritingLessLikely) {
    mc_disk_settings::SetProclivityMultiplier(4.0);  // 128 MiB/s: 0.78 s to read back
    EXPECT_FALSE(Decide(Sized(100 * kMiB, MC_CachePriority_Normal), 0.5).worth);
    mc_disk_settings::SetProclivityMultiplier(1.0);
    EXPECT_TRUE(Decide(Sized(100 * kMiB, MC_CachePriority_Normal), 0.5).worth);
}

TEST_F(WriteDecision, MeasuredReadSpeedDrivesTheDecision) {
    MCp_ReadSpeedStat().SetAverageForTesting(50.0 * kMiB);  // 2 s for 100 MiB
    EXPECT_FALSE(Decide(Sized(100 * kMiB, MC_CachePriority_Normal), 1.0).worth);
    EXPECT_TRUE(Decide(Sized(100 * kMiB, MC_CachePriority_Normal), 3.0).worth);
}

TEST_F(WriteDecision, AnItemWithoutDataCannotBeWritten) {
    IntrusivePtr<MC_Stuff> pending(new MC_Stuff());
    const Decision d = Decide(pending, 10.0);
    EXPECT_FALSE(d.worth);
    EXPECT_FALSE(d.can);
}

TEST_F(WriteDecision, QueueFullnessAndSaturationFigures) {
    EXPECT_DOUBLE_EQ(bag_->GetDiskWriteQueueSizePercentFull(), 0.0);
    AdjustQueue(100);
    EXPECT_DOUBLE_EQ(bag_->GetDiskWriteQueueSizePercentFull(), 0.5);
    EXPECT_DOUBLE_EQ(bag_->GetAdjustedWriteTimePercent(10.0, 0.4), 2.0);  // fuller than 40 %
    EXPECT_LT(bag_->GetAdjustedWriteTimePercent(10.0, 0.6), 2.0);
    AdjustQueue(150);
    EXPECT_DOUBLE_EQ(bag_->GetDiskWriteQueueSizePercentFull(), 1.0);
    AdjustQueue(-260);
    EXPECT_DOUBLE_EQ(bag_->GetDiskWriteQueueSizePercentFull(), 0.0);
}

// --- check-in hooks --------------------------------------------------------------------------

class WriteOnCheckin : public DiskCacheTest {};

TEST_F(WriteOnCheckin, WorthwhileItemIsQueuedTaggedCountedAndWritten) {
    const uint32_t normalBefore = counters().normalWritesQueued.load();
    IntrusivePtr<MC_Stuff> stuff = NewItemInBag(1, 1000, MC_CachePriority_Normal, 2.0);
    stuff->MaybeWriteToDisk();
    EXPECT_TRUE(stuff->WasTaggedToWriteToDisk());
    EXPECT_EQ(counters().normalWritesQueued.load(), normalBefore + 1);
    ASSERT_TRUE(WaitUntil([&] { return stuff->IsOnDisk(); }));
    ASSERT_TRUE(DrainWriter());
    EXPECT_EQ(CacheFiles().size(), 1u);
}

TEST_F(WriteOnCheckin, FullQueueRecordsDiskBusyReasonAndCountsIt) {
    const uint32_t busyBefore = counters().reasonCounts[3].load();
    IntrusivePtr<MC_Stuff> stuff = NewItemInBag(2, 1000, MC_CachePriority_High, 2.0);
    AdjustQueue(MCp_DiskWriteQueue::kNominalCapacity);
    stuff->MaybeWriteToDisk();
    EXPECT_FALSE(stuff->WasTaggedToWriteToDisk());
    EXPECT_EQ(stuff->GetDataPtr()->GetReasonWhyNoDiskCache(),
              MC_StuffData::NoDiskCacheReason_DiskBusy);
    EXPECT_EQ(counters().reasonCounts[3].load(), busyBefore + 1);
}

TEST_F(WriteOnCheckin, NothingIsQueuedWithoutComputeTimeBagOrEnabledCache) {
    IntrusivePtr<MC_Stuff> noTime = NewItemInBag(3, 1000, MC_CachePriority_High, 0.0);
    noTime->MaybeWriteToDisk();
    EXPECT_FALSE(noTime->WasTaggedToWriteToDisk());

    IntrusivePtr<MC_Stuff> noBag = NewItem(4, 1000, MC_CachePriority_High, 2.0);
    noBag->MaybeWriteToDisk();
    EXPECT_FALSE(noBag->WasTaggedToWriteToDisk());

    bag_->EnableDiskCache(false);
    IntrusivePtr<MC_Stuff> disabled = NewItemInBag(5, 1000, MC_CachePriority_High, 2.0);
    disabled->MaybeWriteToDisk();
    EXPECT_FALSE(disabled->WasTaggedToWriteToDisk());
    ASSERT_TRUE(DrainWriter());
    EXPECT_TRUE(AllFiles().empty());
}

TEST_F(WriteOnCheckin, ReconsiderGivesReasonFiveItemsALowPriorityChance) {
    IntrusivePtr<MC_Stuff> stuff = NewItemInBag(6, 1000, MC_CachePriority_Never, 2.0);
    IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr();
    data->SetNoDiskCache(MC_StuffData::NoDiskCacheReason_4);
    stuff->ReconsiderWriteToDisk();  // not reason 5: nothing happens
    EXPECT_EQ(data->GetCachePriority(), MC_CachePriority_Never);
    EXPECT_FALSE(stuff->WasTaggedToWriteToDisk());

    const uint32_t lowBefore = counters().lowPriorityWritesQueued.load();
    data->SetNoDiskCache(MC_StuffData::NoDiskCacheReason_5);
    stuff->ReconsiderWriteToDisk();
    EXPECT_EQ(data->GetReasonWhyNoDiskCache(), MC_StuffData::NoDiskCacheReason_None);
    EXPECT_EQ(data->GetCachePriority(), MC_CachePriority_Low);
    EXPECT_TRUE(stuff->WasTaggedToWriteToDisk());
    EXPECT_EQ(counters().lowPriorityWritesQueued.load(), lowBefore + 1);
    ASSERT_TRUE(WaitUntil([&] { return stuff->IsOnDisk(); }));
}

}  // namespace
