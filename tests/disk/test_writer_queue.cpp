// The asynchronous writer: oldest entries first and at most two at a time, a stopped writer
// leaves nothing queued or running, one writer per item, forced writes off the caller's thread,
// and what a finished write accounts.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <thread>
#include <vector>

#include "mc/host/Signal.h"
#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

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
    EXPECT_EQ(file.GetName(), BuildCacheFileName(mctest::KeyGuid(9), TestPayload::kMatchname, 256,
                                                 {9, 0, 0, 0, 0, 0, 0, 0}));
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

}  // namespace
