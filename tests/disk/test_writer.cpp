// The disk writer: the write decision and the check-in hooks, the queue and the two writer
// threads, one-file writes and their failures, and two caches racing in one folder.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "disk/DiskFolder.h"
#include "disk/DiskWriter.h"
#include "disk/SpeedStats.h"
#include "mc/host/Signal.h"
#include "test_writer_fixture.h"

using namespace diskbtest;
using mctest::Fault;
using mctest::FaultInjectingFileSystem;
using mctest::FsOp;

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

// One decision: an item of `size` bytes and `priority` computed in `computeTime` seconds, with
// `queued` entries in the queue, a proclivity multiplier, and a measured read average (0: the
// initial 512 MiB/s).
struct DecisionCase {
    const char* what;
    uint32_t size;
    MC_CachePriority priority;
    double computeTime;
    int32_t queued;
    double proclivity;
    double readAverage;
    bool worth, queueFull, low;  // expected
};

const MC_CachePriority kNormal = MC_CachePriority_Normal;
const MC_CachePriority kLow = MC_CachePriority_Low;
const MC_CachePriority kHigh = MC_CachePriority_High;

const DecisionCase kDecisions[] = {
    // 512 MiB/s reads 100 MiB back in 0.195 s.
    {"100 MiB in 1 s, empty queue", 100 * kMiB, kNormal, 1.0, 0, 1.0, 0, true, false, false},
    // p = 0.25: 32 MiB/s, 3.1 s to read back; without the queue it would be written.
    {"150 queued", 100 * kMiB, kNormal, 1.0, 150, 1.0, 0, false, true, false},
    {"below the 1 ms floor", 1, kNormal, 0.0005, 0, 1.0, 0, false, false, false},
    // Exactly at the floor reading back is as fast as recomputing: not better, not written.
    {"exactly the 1 ms floor", 1, kNormal, 0.001, 0, 1.0, 0, false, false, false},
    {"above the 1 ms floor", 1, kNormal, 0.002, 0, 1.0, 0, true, false, false},
    {"zero compute time", 100 * kMiB, kNormal, 0.0, 0, 1.0, 0, false, false, false},
    {"priority never", 100 * kMiB, MC_CachePriority_Never, 100.0, 0, 1.0, 0, false, false, false},
    // High skips the speed test: even a zero compute time is written while there is room.
    {"high, 199 queued", 100 * kMiB, kHigh, 0.0, 199, 1.0, 0, true, false, false},
    {"high, queue full", 100 * kMiB, kHigh, 100.0, 200, 1.0, 0, false, true, false},
    {"priority 5 as normal", 100 * kMiB, static_cast<MC_CachePriority>(5), 1.0, 0, 1.0, 0, true,
     false, false},
    {"priority 5, too fast to recompute", 100 * kMiB, static_cast<MC_CachePriority>(5), 0.1, 0, 1.0,
     0, false, false, false},
    // Low halves the read speed: 0.39 s against 0.3 s; the queue is empty, so no queue flag.
    {"normal, 0.3 s", 100 * kMiB, kNormal, 0.3, 0, 1.0, 0, true, false, false},
    {"low, 0.3 s", 100 * kMiB, kLow, 0.3, 0, 1.0, 0, false, false, true},
    // Proclivity 4: 128 MiB/s, 0.78 s to read back.
    {"proclivity 4", 100 * kMiB, kNormal, 0.5, 0, 4.0, 0, false, false, false},
    {"proclivity 1", 100 * kMiB, kNormal, 0.5, 0, 1.0, 0, true, false, false},
    // A measured 50 MiB/s: 2 s for 100 MiB.
    {"measured 50 MiB/s, 1 s", 100 * kMiB, kNormal, 1.0, 0, 1.0, 50.0 * kMiB, false, false, false},
    {"measured 50 MiB/s, 3 s", 100 * kMiB, kNormal, 3.0, 0, 1.0, 50.0 * kMiB, true, false, false},
};

TEST_F(WriteDecision, Table) {
    for (const DecisionCase& t : kDecisions) {
        SCOPED_TRACE(t.what);
        AdjustQueue(t.queued);
        MCp_DiskFolder::SetProclivityMultiplier(t.proclivity);
        if (t.readAverage > 0) MCp_ReadSpeedStat().SetAverageForTesting(t.readAverage);
        const Decision d = Decide(Sized(t.size, t.priority), t.computeTime);
        AdjustQueue(-t.queued);
        MCp_ReadSpeedStat().Reset();
        EXPECT_EQ(d.worth, t.worth);
        EXPECT_EQ(d.can, t.priority != MC_CachePriority_Never);
        EXPECT_EQ(d.queueFull, t.queueFull);
        EXPECT_EQ(d.low, t.low);
    }
}

TEST_F(WriteDecision, LowPriorityFactorZeroMeansNoDivisionAndNoDataMeansCannot) {
    host().SetDebugEntry("ZK.MC.LowPriorityFactorR", "0");
    mc_settings::ResetForTesting();
    EXPECT_TRUE(Decide(Sized(100 * kMiB, kLow), 0.3).worth);
    const Decision pending = Decide(IntrusivePtr<MC_Stuff>(new MC_Stuff()), 10.0);
    EXPECT_FALSE(pending.worth);
    EXPECT_FALSE(pending.can);
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

class Writer : public DiskCacheTest {
protected:
    // A queued-priority item whose write stops at `gate`, in the bag.
    IntrusivePtr<MC_Stuff> GatedItem(uint32_t key, const std::shared_ptr<GatedPayload::Gate>& gate,
                                     MC_CachePriority priority = MC_CachePriority_High) {
        auto* payload = new GatedPayload(key, 2000, gate);
        payload->SetDiskCacheable(true);
        payload->SetCachePriority(priority);
        IntrusivePtr<MC_Stuff> stuff =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 2.0);
        stuff->SetGuid(mctest::KeyGuid(key));
        bag_->AddToBagAndSortDir(stuff);
        return stuff;
    }
};

// A render completed through a writeable pending check-out is weighed for disk when its data
// arrives, and not again by its check-in: one queue entry and one file per render.
TEST_F(Writer, AWriteableRenderIsQueuedOnce) {
    auto gate = std::make_shared<GatedPayload::Gate>();
    gate->Close();
    const uint64_t queuedBefore = counters().normalWritesQueued.load();
    for (uint32_t key = 1; key <= 4; ++key) {
        MC_ScCheckout receipt;
        ASSERT_EQ(receipt.FindAndCheckout(mctest::MakeRequest(key), MC_CheckoutFlag_CreatePending),
                  MC_CheckoutResult_CreatedNewPending);
        ASSERT_TRUE(receipt.GetStuffPtr()->IsCheckedOutWriteable());
        auto* payload = new GatedPayload(key, 2000, gate);
        payload->SetDiskCacheable(true);
        payload->SetCachePriority(MC_CachePriority_Normal);
        receipt.GetStuffPtr()->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(payload),
                                                             2.0);
        receipt.Checkin(0, 2.0);
    }
    EXPECT_EQ(counters().normalWritesQueued.load() - queuedBefore, 4u);
    gate->Open();
    ASSERT_TRUE(DrainWriter());
    EXPECT_EQ(gate->started, 4);
    EXPECT_EQ(CacheFiles().size(), 4u);
    EXPECT_EQ(MCp_DiskWriteQueue::Get().Count(), 0);
}

TEST_F(Writer, OldestEntriesGoFirstAndAtMostTwoAtATime) {
    auto gate = std::make_shared<GatedPayload::Gate>();
    gate->Close();
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t key = 1; key <= 6; ++key) {
        items.push_back(GatedItem(key, gate));
        items.back()->MaybeWriteToDisk();
    }
    ASSERT_TRUE(gate->WaitStarted(2));
    {
        std::lock_guard<std::mutex> l(gate->mutex);
        EXPECT_EQ(std::set<uint32_t>(gate->order.begin(), gate->order.end()),
                  (std::set<uint32_t>{1, 2}));
    }
    EXPECT_EQ(MCp_DiskWriteQueue::Get().Count(), 4);
    // Queued high-priority items are held checked out, so no purge frees them meanwhile.
    EXPECT_EQ(items[5]->GetCheckoutCount(), 1u);
    gate->Open();
    for (const auto& stuff : items) ASSERT_TRUE(WaitUntil([&] { return stuff->IsOnDisk(); }));
    ASSERT_TRUE(DrainWriter());
    EXPECT_EQ(gate->maxWriting, 2);
    EXPECT_EQ(gate->started, 6);
    EXPECT_EQ(MCp_DiskWriteQueue::Get().Count(), 0);
    for (const auto& stuff : items) EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
    EXPECT_EQ(CacheFiles().size(), 6u);
}

TEST_F(Writer, StopLeavesNoQueuedWriteAndLaterCheckinsQueueNothing) {
    const int32_t lengthBefore = counters().writeQueueLength.load();
    auto gate = std::make_shared<GatedPayload::Gate>();
    gate->Close();
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t key = 1; key <= 6; ++key) {
        items.push_back(GatedItem(key, gate));
        items.back()->MaybeWriteToDisk();
    }
    ASSERT_TRUE(gate->WaitStarted(2));
    std::thread stopper([] { MC_StopAllAsyncWork(); });
    // The stop drops the four waiting entries before it waits for the two running writes.
    ASSERT_TRUE(WaitUntil([] { return MCp_DiskWriteQueue::Get().Count() == 0; }));
    gate->Open();
    stopper.join();

    int onDisk = 0;
    for (const auto& stuff : items) {
        onDisk += stuff->IsOnDisk() ? 1 : 0;
        EXPECT_EQ(stuff->GetCheckoutCount(), 0u);  // every queued receipt was checked in
    }
    EXPECT_EQ(onDisk, 2);
    EXPECT_EQ(gate->started, 2);
    EXPECT_EQ(CacheFiles().size(), 2u);
    EXPECT_EQ(counters().writeQueueLength.load(), lengthBefore);

    // Later check-ins queue and count nothing.
    const uint32_t normalBefore = counters().normalWritesQueued.load();
    const uint32_t busyBefore = counters().reasonCounts[3].load();
    IntrusivePtr<MC_Stuff> late = NewItemInBag(20, 2000, MC_CachePriority_Normal, 5.0);
    late->MaybeWriteToDisk();
    ASSERT_EQ(late->Checkout(0), MC_CheckoutResult_CheckedOut);  // writeable
    late->Checkin(0, 5.0);
    EXPECT_FALSE(late->WasTaggedToWriteToDisk());
    EXPECT_EQ(counters().normalWritesQueued.load(), normalBefore);
    EXPECT_EQ(counters().reasonCounts[3].load(), busyBefore);
    EXPECT_EQ(MCp_DiskWriteQueue::Get().Count(), 0);
    EXPECT_EQ(gate->started, 2);
}

TEST_F(Writer, ASecondWriteOfTheSameItemWritesNothingAndPurgeWaitsItsTurn) {
    auto gate = std::make_shared<GatedPayload::Gate>();
    gate->Close();
    IntrusivePtr<MC_Stuff> stuff = GatedItem(7, gate, MC_CachePriority_Never);
    std::thread first([&] { stuff->PrepAndWrite(bag_); });
    ASSERT_TRUE(gate->WaitStarted(1));
    stuff->PrepAndWrite(bag_);  // returns at once: the first one is writing
    EXPECT_EQ(gate->started, 1);
    // The purge skips an item that is being written.
    stuff->FreeUpAsMuchAsPossible(true, nullptr);
    EXPECT_TRUE(stuff->IsInMemory());
    gate->Open();
    first.join();
    EXPECT_TRUE(stuff->IsOnDisk());
    EXPECT_EQ(gate->started, 1);
    EXPECT_EQ(AllFiles().size(), 1u);  // the final file only, no temporary left
    stuff->FreeUpAsMuchAsPossible(true, nullptr);
    EXPECT_FALSE(stuff->IsInMemory());
    stuff->PrepAndWrite(bag_);  // already on disk: nothing more
    EXPECT_EQ(gate->started, 1);
}

TEST_F(Writer, ForcedCheckinWriteRunsOnTheWriterThreadAndSkipsTheQueue) {
    auto gate = std::make_shared<GatedPayload::Gate>();
    IntrusivePtr<MC_Stuff> stuff = GatedItem(8, gate, MC_CachePriority_Never);
    const uint32_t normalBefore = counters().normalWritesQueued.load();
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    stuff->Checkin(MC_CheckinFlag_ForceWriteToDisk, 0.0);  // the decision would say no
    ASSERT_TRUE(WaitUntil([&] { return stuff->IsOnDisk(); }));
    std::lock_guard<std::mutex> l(gate->mutex);
    ASSERT_EQ(gate->threads.size(), 1u);
    EXPECT_NE(gate->threads[0], std::this_thread::get_id());
    EXPECT_EQ(counters().normalWritesQueued.load(), normalBefore);
}

TEST_F(Writer, FinishedWriteAccountsThePaddedFileAndSignals) {
    IntrusivePtr<MC_Stuff> stuff = NewItemInBag(9, 10, MC_CachePriority_Never, 1.25);
    stuff->SetCachedComputeTimeSavings(0.5);
    std::vector<std::pair<bool, bool>> signals;
    velacore::SignalConnection connection = stuff->GetMemDiskChangedSignal().connect(
        [&](bool inMemory, bool onDisk) { signals.emplace_back(inMemory, onDisk); });
    const uint64_t writtenBefore = counters().bytesWritten.load();
    const uint32_t onDiskBefore = MC_Stuff::GetNumStuffsOnDisk();

    WriteNow(stuff);

    ASSERT_TRUE(stuff->IsOnDisk());
    const velacore::File file = stuff->GetDiskCacheFile();
    EXPECT_EQ(file.GetName(), MCp_CacheFile::BuildName(mctest::KeyGuid(9), TestPayload::kMatchname,
                                                       256, {9, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(file.Size(), kFileUnit);  // a 10-byte payload fills one whole buffer
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(kFileUnit));
    EXPECT_EQ(counters().bytesWritten.load() - writtenBefore, kFileUnit);
    EXPECT_EQ(MC_Stuff::GetNumStuffsOnDisk(), onDiskBefore + 1);
    EXPECT_EQ(signals, (std::vector<std::pair<bool, bool>>{{true, true}}));
    EXPECT_EQ(AllFiles().size(), 1u);

    const std::vector<uint8_t> bytes = mctest::ReadWholeFile(file.GetFullPath());
    const CacheFileHeader header = CacheFileHeader::Decode(bytes.data());
    EXPECT_EQ(header.magic, kCacheFileMagic);
    EXPECT_EQ(header.appVersion, 256u);
    EXPECT_DOUBLE_EQ(header.computeTime, 1.25);
    EXPECT_DOUBLE_EQ(header.savings, 0.5);

    // The speed model learnt from it, the reads too while they have few samples of their own.
    EXPECT_EQ(MCp_WriteSpeedStat().GetSampleCount(), 1);
    EXPECT_EQ(MCp_ReadSpeedStat().GetSampleCount(), 1);
    EXPECT_GT(bag_->GetPercentTimeWritingToDisk(3600.0), 0.0);
}

TEST_F(Writer, NoRoomInTheBudgetWritesNothingAndRaisesTheSignal) {
    int raised = 0;
    velacore::SignalConnection connection =
        bag_->GetDiskOutOfSpaceSignal().connect([&] { ++raised; });
    bag_->SetDiskCacheInfo(root_.AsDir(), 0);  // no budget at all
    IntrusivePtr<MC_Stuff> stuff = NewItemInBag(10, 1000);
    WriteNow(stuff);
    EXPECT_FALSE(stuff->IsOnDisk());
    EXPECT_TRUE(stuff->IsInMemory());
    EXPECT_EQ(raised, 1);
    EXPECT_TRUE(AllFiles().empty());
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
}

struct WriteFault {
    FsOp op;
    uint64_t nth;
    Fault fault;
    const char* label;
};

void PrintTo(const WriteFault& f, std::ostream* os) {
    *os << f.label;
}

class WriteFaults : public DiskCacheTest, public ::testing::WithParamInterface<WriteFault> {};

TEST_P(WriteFaults, LeaveNothingBehindAndAccountNothing) {
    const WriteFault& f = GetParam();
    IntrusivePtr<MC_Stuff> stuff = NewItemInBag(1, 1u << 20);  // 1 MiB: five buffers
    const uint64_t writtenBefore = counters().bytesWritten.load();
    const uint32_t failuresBefore = counters().writeFailures.load();
    {
        auto faults = std::make_shared<FaultInjectingFileSystem>(fs_);
        mctest::ScopedFileSystem installed(faults);
        faults->FailNth(f.op, f.nth, f.fault);
        WriteNow(stuff);
        EXPECT_EQ(faults->FaultCount(f.op), 1u) << "the fault was not reached";
    }
    EXPECT_FALSE(stuff->IsOnDisk());
    EXPECT_TRUE(stuff->IsInMemory());
    EXPECT_TRUE(AllFiles().empty());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    EXPECT_EQ(counters().bytesWritten.load(), writtenBefore);
    EXPECT_EQ(counters().writeFailures.load(), failuresBefore + 1);
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);

    // Nothing stays claimed: the next attempt writes the file.
    WriteNow(stuff);
    ASSERT_TRUE(stuff->IsOnDisk());
    EXPECT_EQ(CacheFiles().size(), 1u);
    EXPECT_EQ(AllFiles().size(), 1u);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(5 * kFileUnit));
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, WriteFaults,
    ::testing::Values(WriteFault{FsOp::kCreateFile, 1, Fault::kNoSpace, "NoSpaceForTemporary"},
                      WriteFault{FsOp::kOpenForDirectWrite, 1, Fault::kIoError, "OpenFails"},
                      WriteFault{FsOp::kAppend, 1, Fault::kIoError, "FirstBlockIoError"},
                      WriteFault{FsOp::kAppend, 3, Fault::kShortWrite, "ShortWriteHalfway"},
                      WriteFault{FsOp::kAppend, 3, Fault::kNoSpace, "NoSpaceHalfway"},
                      WriteFault{FsOp::kAppend, 5, Fault::kIoError, "LastBlockIoError"},
                      WriteFault{FsOp::kClose, 1, Fault::kIoError, "CloseFails"},
                      WriteFault{FsOp::kRename, 1, Fault::kIoError, "CommitFails"}),
    [](const ::testing::TestParamInfo<WriteFault>& info) { return std::string(info.param.label); });

constexpr uint32_t kKeys = 24;

// Counts how often the body of each key was written, across both caches.
class CountingPayload : public TestPayload {
public:
    CountingPayload(uint32_t key, uint32_t size, std::shared_ptr<std::atomic<int>[]> writes)
        : TestPayload(key, size), writes_(std::move(writes)) {}
    double Write(velacore::OByteStream& out) const override {
        writes_[Key()].fetch_add(1);
        return TestPayload::Write(out);
    }

private:
    std::shared_ptr<std::atomic<int>[]> writes_;
};

class SharedFolder : public DiskCacheTest {
protected:
    void SetUp() override {
        DiskCacheTest::SetUp();
        other_ = std::make_shared<MC_Bag>(AppVersion());
        other_->SetDiskCacheInfo(root_.AsDir(), BudgetMegabytes());
        other_->EnableDiskCache(true);
    }
    void TearDown() override {
        other_->ClearBagAndSortDir();
        other_.reset();
        DiskCacheTest::TearDown();
    }

    static IntrusivePtr<MC_Stuff> Make(MC_StuffData* payload, uint32_t key) {
        IntrusivePtr<MC_Stuff> stuff =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        stuff->SetGuid(mctest::KeyGuid(key));
        return stuff;
    }

    std::shared_ptr<MC_Bag> other_;
};

TEST_F(SharedFolder, EachItemIsWrittenOnceWhenBothCachesRaceForIt) {
    std::shared_ptr<std::atomic<int>[]> writes(new std::atomic<int>[kKeys]());
    std::vector<IntrusivePtr<MC_Stuff>> mine, theirs;
    for (uint32_t key = 0; key < kKeys; ++key) {
        auto* a = new CountingPayload(key, 3000, writes);
        auto* b = new CountingPayload(key, 3000, writes);
        a->SetDiskCacheable(true);
        b->SetDiskCacheable(true);
        mine.push_back(Make(a, key));
        theirs.push_back(Make(b, key));
        bag_->AddToBagAndSortDir(mine.back());
        other_->AddToBagAndSortDir(theirs.back());
    }
    std::atomic<int> start{0};  // not std::latch: MinGW's can lose a wake-up
    auto writeAll = [&](std::vector<IntrusivePtr<MC_Stuff>>& items,
                        const std::shared_ptr<MC_Bag>& bag) {
        for (start.fetch_add(1); start.load() < 2;) std::this_thread::yield();
        for (auto& stuff : items) stuff->PrepAndWrite(bag);
    };
    std::thread a(writeAll, std::ref(mine), bag_);
    std::thread b(writeAll, std::ref(theirs), other_);
    a.join();
    b.join();

    for (uint32_t key = 0; key < kKeys; ++key) {
        EXPECT_EQ(writes[key].load(), 1) << "key " << key;
        EXPECT_NE(mine[key]->IsOnDisk(), theirs[key]->IsOnDisk()) << "key " << key;
    }
    EXPECT_EQ(CacheFiles().size(), kKeys);
    EXPECT_EQ(AllFiles().size(), kKeys);  // no temporary left behind
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize() + other_->GetCurrentDiskCacheSize(),
              static_cast<int64_t>(kKeys * kFileUnit));
}

TEST_F(SharedFolder, APartlyWrittenFileIsNeverVisibleUnderItsCacheName) {
    auto gate = std::make_shared<GatedPayload::Gate>();
    gate->Close();
    auto* slow = new GatedPayload(1, 100000, gate);
    slow->SetDiskCacheable(true);
    IntrusivePtr<MC_Stuff> writer = Make(slow, 1);
    bag_->AddToBagAndSortDir(writer);
    std::thread t([&] { writer->PrepAndWrite(bag_); });
    ASSERT_TRUE(gate->WaitStarted(1));

    // Mid-write: only the temporary exists; the other cache neither sees nor writes the item.
    EXPECT_TRUE(CacheFiles().empty());
    EXPECT_EQ(AllFiles().size(), 1u);
    auto* copy = new TestPayload(1, 100000);
    copy->SetDiskCacheable(true);
    IntrusivePtr<MC_Stuff> reader = Make(copy, 1);
    other_->AddToBagAndSortDir(reader);
    reader->PrepAndWrite(other_);
    EXPECT_FALSE(reader->IsOnDisk());
    EXPECT_EQ(AllFiles().size(), 1u);
    const int adoptedBefore = bag_->GetNumItems();
    bag_->ScanDiskCacheDir();  // a rescan now adopts nothing and leaves the temporary alone
    EXPECT_EQ(bag_->GetNumItems(), adoptedBefore);
    EXPECT_EQ(AllFiles().size(), 1u);

    gate->Open();
    t.join();
    ASSERT_EQ(CacheFiles().size(), 1u);
    EXPECT_EQ(AllFiles().size(), 1u);

    // The other cache reads the finished file back, whole.
    reader->SetDiskCacheFile(writer->GetDiskCacheFile(), true);
    reader->FreeUpAsMuchAsPossible(true, nullptr);
    ASSERT_FALSE(reader->IsInMemory());
    ASSERT_TRUE(reader->EnsureInMemory());
    auto* back = dynamic_cast<TestPayload*>(reader->GetDataPtr().get());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(*back->Bytes(), *slow->Bytes());
    EXPECT_EQ(gate->started, 1);
}

}  // namespace
