// Finding items: identical before satisfying, pending items on a miss, waiting for a render,
// retry after an abandoned render, and the sweep of superseded and dead entries.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "bag/MC_SortDir.h"
#include "mc/MC_ScCheckout.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class SortDir : public ModuleTest {};

TEST_F(SortDir, IdenticalWinsOverSatisfyingWhateverTheGroupOrder) {
    IntrusivePtr<MC_Stuff> satisfying = MakeItem(1, 10, /*variant=*/5);
    IntrusivePtr<MC_Stuff> identical = MakeItem(1, 10, /*variant=*/2);
    // Add the identical one first so that the satisfying one (added later, variant 5 satisfies
    // variant 2) would sweep it; instead add both as read-only-checked-out to keep them.
    identical->AddToBagAndSortDir(bag_);
    ASSERT_EQ(identical->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    satisfying->AddToBagAndSortDir(bag_);
    // The newer key supersedes the older one: it was detached but its holder keeps it.
    EXPECT_TRUE(identical->GetBag().expired());
    EXPECT_EQ(identical->GetCheckoutCount(), 1u);
    EXPECT_TRUE(identical->IsInMemory());
    identical->Checkin(0, 0.0);

    // Now two that do not supersede each other: variant 2 cannot satisfy 5, and 5 is added
    // first.
    IntrusivePtr<MC_Stuff> exact = MakeItem(1, 10, 2);
    exact->AddToBagAndSortDir(bag_);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
    IntrusivePtr<MC_Stuff> found;
    ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(1, 2), MC_CheckoutFlag_ReadOnly, &found, nullptr),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(found, exact);
    found->Checkin(0, 0.0);
    ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(1, 3), MC_CheckoutFlag_ReadOnly, &found, nullptr),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(found, satisfying);
    found->Checkin(0, 0.0);
}

TEST_F(SortDir, MissWithoutCreateLeavesFoundUntouched) {
    IntrusivePtr<MC_Stuff> sentinel = MakeItem(99, 1);
    IntrusivePtr<MC_Stuff> found = sentinel;
    bool hasFile = true;
    EXPECT_EQ(bag_->FindAndCheckout(MakeRequest(1), MC_CheckoutFlag_ReadOnly, &found, &hasFile),
              MC_CheckoutResult_Failed);
    EXPECT_EQ(found, sentinel);
}

TEST_F(SortDir, MissCreatesAPendingItemInTheGlobalBag) {
    auto other = std::make_shared<MC_Bag>(kAppVersion);
    IntrusivePtr<MC_Stuff> found;
    bool hasFile = true;
    ASSERT_EQ(other->FindAndCheckout(MakeRequest(4),
                                     MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending,
                                     &found, &hasFile),
              MC_CheckoutResult_CreatedNewPending);
    EXPECT_FALSE(hasFile);
    EXPECT_TRUE(found->IsPendingRender());
    EXPECT_EQ(found->GetGuid(), KeyGuid(4));
    EXPECT_EQ(found->GetBag().lock(), bag_);  // the global bag, not the one searched
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
    EXPECT_EQ(found->GetCheckoutCount(), 1u);
    found->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(new TestPayload(4, 8)), 1.0);
    found->Checkin(0, 0.0);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 8);
}

// Eight threads want the same missing frame: exactly one renders, the others wait for it and
// get its payload.
TEST_F(SortDir, OneRendersTheOthersWaitForItsPayload) {
    constexpr int kThreads = 8;
    std::atomic<int> renders{0};
    std::atomic<int> gotPayload{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            MC_ScCheckout receipt;
            const MC_CheckoutResult r = receipt.FindAndCheckout(
                MakeRequest(5), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                    MC_CheckoutFlag_WaitIfPendingUnlessLocked);
            if (r == MC_CheckoutResult_CreatedNewPending) {
                renders.fetch_add(1);
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                receipt.GetStuffPtr()->SetStuffDataFromPendingRender(
                    IntrusivePtr<MC_StuffData>(new TestPayload(5, 64)), 0.03);
            } else if (r == MC_CheckoutResult_CheckedOut) {
                IntrusivePtr<MC_StuffData> data = receipt.GetStuffPtr()->GetDataPtr();
                if (data && data->IsInMemory()) gotPayload.fetch_add(1);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(renders.load(), 1);
    EXPECT_EQ(gotPayload.load(), kThreads - 1);
    EXPECT_EQ(bag_->GetNumItems(), 1);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

TEST_F(SortDir, WaitIsSkippedWhileHoldingTheNotifyLock) {
    MC_ScCheckout creator;
    ASSERT_EQ(creator.FindAndCheckout(MakeRequest(6),
                                      MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    std::thread other([&] {
        host().SetHoldingNotifyLock(true);
        MC_ScCheckout r;
        // With 0x20 and the notify lock held, the pending item is refused, not waited for.
        EXPECT_EQ(r.FindAndCheckout(MakeRequest(6), MC_CheckoutFlag_ReadOnly |
                                                        MC_CheckoutFlag_WaitIfPendingUnlessLocked),
                  MC_CheckoutResult_Failed);
        // With 0x40 (and no bring-back) it is accepted pending, still without waiting.
        EXPECT_EQ(r.FindAndCheckout(MakeRequest(6), MC_CheckoutFlag_ReadOnly |
                                                        MC_CheckoutFlag_MemoryOnly |
                                                        MC_CheckoutFlag_WaitIfPending),
                  MC_CheckoutResult_CheckedOut);
        EXPECT_TRUE(r.IsPendingRender());
        host().SetHoldingNotifyLock(false);
    });
    other.join();
}

TEST_F(SortDir, DeadEntriesAreSweptWhenAnotherItemWithTheirGuidArrives) {
    IntrusivePtr<MC_Stuff> old = MakeItem(7, 10, 9);
    old->AddToBagAndSortDir(bag_);
    ASSERT_TRUE(StaticPointerCast<TestPayload>(old->GetDataPtr())->PurgeIfPossible(nullptr));
    const uint32_t sweeps = counters().supersededSweeps.load();
    IntrusivePtr<MC_Stuff> fresh = MakeItem(7, 10, 0);  // cannot satisfy variant 9, but old is dead
    fresh->AddToBagAndSortDir(bag_);
    EXPECT_EQ(counters().supersededSweeps.load() - sweeps, 1u);
    EXPECT_TRUE(old->GetBag().expired());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
    EXPECT_EQ(bag_->GetNumItems(), 1);
}

TEST_F(SortDir, RemovingWrongDirectoryOrWriteableItemIsAVerificationFailure) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(8, 10);
    stuff->AddToBagAndSortDir(bag_);
    auto other = std::make_shared<MC_Bag>(kAppVersion);
    EXPECT_THROW(other->GetSortDir()->RemoveStuff(stuff), int);
    EXPECT_EQ(host().FailedVerifications().back(), "stuff not in the right sortdir");
    IntrusivePtr<MC_Stuff> never = MakeItem(9, 10);
    EXPECT_NO_THROW(bag_->GetSortDir()->RemoveStuff(never));  // in no directory: nothing
}

}  // namespace
