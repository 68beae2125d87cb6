// Check-out state machine of one item: pending renders and their waiters, read-only and
// writeable check-outs, refusal counting, and the misuse guards.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class CheckoutState : public ModuleTest {};

IntrusivePtr<MC_Stuff> NewPendingInBag(const std::shared_ptr<MC_Bag>& bag) {
    IntrusivePtr<MC_Stuff> stuff(new MC_Stuff());
    stuff->SetGuid(KeyGuid(7));
    stuff->SetFindKeyData(TestPayload::Request(7));
    bag->AddToBagAndSortDir(stuff);
    return stuff;
}

TEST_F(CheckoutState, PendingRenderReleasesEveryWaiterOnce) {
    IntrusivePtr<MC_Stuff> stuff = NewPendingInBag(bag_);
    const uint32_t waitsBefore = counters().pendingWaits.load();
    std::atomic<int> released{0};
    std::atomic<int> sawData{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 6; ++i) {
        waiters.emplace_back([&] {
            IntrusivePtr<MC_StuffData> data = stuff->GetDataWaitIfPending();
            released.fetch_add(1);
            if (data) sawData.fetch_add(1);
        });
    }
    // Nobody is released before the render completes.
    for (int i = 0; i < 20 && counters().pendingWaits.load() - waitsBefore < 6; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(released.load(), 0);
    stuff->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(new TestPayload(7, 100)), 2.0);
    for (auto& t : waiters) t.join();
    EXPECT_EQ(released.load(), 6);
    EXPECT_EQ(sawData.load(), 6);
    EXPECT_FALSE(stuff->IsPendingRender());
    EXPECT_DOUBLE_EQ(stuff->GetComputeTime(), 2.0);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 100);

    // A second completion is ignored.
    stuff->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(new TestPayload(7, 999)), 9.0);
    EXPECT_EQ(stuff->GetApproximateMemorySize(), 100u);
    EXPECT_DOUBLE_EQ(stuff->GetComputeTime(), 2.0);
}

TEST_F(CheckoutState, AbandonedRenderRemovesItemAndStillReleasesWaiters) {
    IntrusivePtr<MC_Stuff> stuff = NewPendingInBag(bag_);
    ASSERT_EQ(bag_->GetNumItems(), 1);
    std::atomic<int> nullData{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            if (!stuff->GetDataWaitIfPending()) nullData.fetch_add(1);
        });
    stuff->SetStuffDataFromPendingRender(nullptr, 0.0);
    for (auto& t : waiters) t.join();
    EXPECT_EQ(nullData.load(), 4);
    EXPECT_EQ(bag_->GetNumItems(), 0);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
    EXPECT_TRUE(stuff->GetBag().expired());
}

TEST_F(CheckoutState, PendingItemNeedsAWaitFlag) {
    IntrusivePtr<MC_Stuff> stuff = NewPendingInBag(bag_);
    std::thread other([&] {
        EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_Failed);
        EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_WaitIfPending),
                  MC_CheckoutResult_CheckedOut);
    });
    other.join();
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);
    stuff->Checkin(0, 0.0);
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
}

TEST_F(CheckoutState, NotifyLockHolderRefusesPendingAndIsCounted) {
    IntrusivePtr<MC_Stuff> stuff = NewPendingInBag(bag_);
    const uint32_t before = counters().pendingRefusals.load();
    std::thread other([&] {
        host().SetHoldingNotifyLock(true);
        EXPECT_EQ(
            stuff->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_WaitIfPendingUnlessLocked),
            MC_CheckoutResult_Failed);
        host().SetHoldingNotifyLock(false);
        EXPECT_EQ(
            stuff->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_WaitIfPendingUnlessLocked),
            MC_CheckoutResult_CheckedOut);
        stuff->Checkin(0, 0.0);
    });
    other.join();
    EXPECT_EQ(counters().pendingRefusals.load() - before, 1u);
}

TEST_F(CheckoutState, CreatorThreadIsRefusedOnItsOwnPendingItem) {
    IntrusivePtr<MC_Stuff> stuff = NewPendingInBag(bag_);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_WaitIfPending),
              MC_CheckoutResult_CheckedOut);
    // The creator holds it: checking out again would wait on itself.
    EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_WaitIfPending),
              MC_CheckoutResult_Failed);
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);
    stuff->Checkin(0, 0.0);
}

TEST_F(CheckoutState, ReadOnlyManyWriteableAlone) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 64);
    stuff->AddToBagAndSortDir(bag_);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(stuff->Checkout(0), MC_CheckoutResult_Failed);  // writeable needs it alone
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(stuff->Checkout(0), MC_CheckoutResult_Failed);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 64);
    stuff->Checkin(0, 0.0);
    stuff->Checkin(0, 0.0);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);

    ASSERT_EQ(stuff->Checkout(0), MC_CheckoutResult_CheckedOut);
    EXPECT_TRUE(stuff->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);  // out of the directory while writeable
    EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_Failed);
    host().ClearRecords();
    host().SetTraceLevel("MC_Stuff", 6);
    stuff->Checkin(0, 0.0);
    EXPECT_FALSE(stuff->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
    auto lines = host().TraceLines("MC_Stuff");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "check-in updated w/ guid:" + stuff->GetGuid().AsString());
}

TEST_F(CheckoutState, CheckinOfZeroCountStaysAtZero) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    const uint32_t active = counters().activeCheckouts.load();
    stuff->Checkin(0, 0.0);
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
    EXPECT_EQ(counters().activeCheckouts.load(), active);
}

TEST_F(CheckoutState, CheckoutOfAnItemWithNothingFailsUnlessAllowed) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    auto data = StaticPointerCast<TestPayload>(stuff->GetDataPtr());
    MC_ReleaseList list;
    ASSERT_TRUE(data->PurgeIfPossible(&list));
    EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_Failed);
    EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_AllowNoData),
              MC_CheckoutResult_CheckedOut);
    stuff->Checkin(0, 0.0);
}

TEST_F(CheckoutState, ConvertToWriteableGuardsAndCodes) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    // No check-out: 0x3A04 and message 22, reported because this is the main thread.
    try {
        stuff->ConvertToWriteable();
        FAIL() << "expected a throw";
    } catch (int code) {
        EXPECT_EQ(code, 0x3A04);
    }
    auto errs = host().ErrStrings();
    ASSERT_EQ(errs.size(), 1u);
    EXPECT_EQ(errs[0].base, 0x3A0000u);
    EXPECT_EQ(errs[0].severity, 2);
    EXPECT_EQ(errs[0].text, u"can\u2019t convert to writeable when not checked out");

    // Two check-outs: 0x3A03 (message 12).
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    EXPECT_THROW(
        {
            try {
                stuff->ConvertToWriteable();
            } catch (int code) {
                EXPECT_EQ(code, 0x3A03);
                throw;
            }
        },
        int);
    stuff->Checkin(0, 0.0);

    // Exactly one: becomes writeable and leaves the directory.
    stuff->ConvertToWriteable();
    EXPECT_TRUE(stuff->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
    // Already writeable: 0x3A03 (message 11).
    try {
        stuff->ConvertToWriteable();
        FAIL() << "expected a throw";
    } catch (int code) {
        EXPECT_EQ(code, 0x3A03);
    }
    errs = host().ErrStrings();
    EXPECT_EQ(errs.back().text, u"cached item already checked-out read/write");
    stuff->Checkin(0, 0.0);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
}

TEST_F(CheckoutState, MisuseIsReportedOnlyOnTheMainThread) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    std::thread worker([&] {
        try {
            stuff->ConvertToWriteable();
        } catch (int code) {
            EXPECT_EQ(code, 0x3A04);
        }
    });
    worker.join();
    EXPECT_TRUE(host().ErrStrings().empty());
}

// A Remove check-in takes the item out of bag and directory at once (Remove wins over Purge),
// but frees its payload only when the last holder has checked in.
TEST_F(CheckoutState, RemoveCheckinFreesThePayloadAtTheLastCheckinOnly) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    auto data = StaticPointerCast<TestPayload>(stuff->GetDataPtr());
    MC_ScCheckout other(stuff, MC_CheckoutFlag_ReadOnly);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    stuff->Checkin(MC_CheckinFlag_Remove | MC_CheckinFlag_Purge, 0.0);
    EXPECT_EQ(bag_->GetNumItems(), 0);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
    EXPECT_EQ(data->Purges(), 0);  // the other holder still reads it
    ASSERT_NE(data->Bytes(), nullptr);
    EXPECT_EQ(data->Bytes()->size(), 10u);

    other.Checkin();
    EXPECT_EQ(data->Purges(), 1);  // once, by the last check-in
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

TEST_F(CheckoutState, CheckinWithPurgeFreesTheItemsMemory) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    stuff->Checkin(MC_CheckinFlag_Purge, 0.0);
    EXPECT_FALSE(stuff->IsInMemory());
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_EQ(bag_->GetNumItems(), 0);  // nothing left to offer: no disk file, not pending
}

TEST_F(CheckoutState, CheckinAndCheckoutKeepsTheItem) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(stuff->CheckinAndCheckout(0, 0.0, MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);
    stuff->Checkin(0, 0.0);
}

TEST_F(CheckoutState, UpdateWithNewGuidRekeysTheDirectory) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    stuff->UpdateWithNewGuid(KeyGuid(2));
    IntrusivePtr<MC_Stuff> found;
    // A request for key 1 under the new GUID finds it; under the old GUID nothing matches.
    IntrusivePtr<MC_Stuff> request = MakeRequest(1);
    EXPECT_EQ(bag_->FindAndCheckout(request, MC_CheckoutFlag_ReadOnly, &found, nullptr),
              MC_CheckoutResult_Failed);
    request->SetGuid(KeyGuid(2));
    EXPECT_EQ(bag_->FindAndCheckout(request, MC_CheckoutFlag_ReadOnly, &found, nullptr),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(found, stuff);
    found->Checkin(0, 0.0);
}

}  // namespace
