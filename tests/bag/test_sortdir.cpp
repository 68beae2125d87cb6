// Finding items: identical before satisfying, pending items on a miss, waiting for a render, the
// wait flags under the notify lock, and the sweep of superseded and dead entries.
#include <gtest/gtest.h>

#include <thread>
#include <utility>

#include "bag/Eventually.h"
#include "bag/MC_SortDir.h"
#include "mc/MC_ScCheckout.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class SortDir : public ModuleTest {};

// A newer item sweeps the older ones it satisfies (their holders keep them) and dead ones; a find
// prefers the identical item over a satisfying one.
TEST_F(SortDir, SweepsAndIdenticalBeforeSatisfying) {
    IntrusivePtr<MC_Stuff> identical = MakeItem(1, 10, /*variant=*/2);
    identical->AddToBagAndSortDir(bag_);
    ASSERT_EQ(identical->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    IntrusivePtr<MC_Stuff> satisfying = MakeItem(1, 10, 5);  // 5 satisfies 2
    satisfying->AddToBagAndSortDir(bag_);
    EXPECT_TRUE(identical->GetBag().expired());
    EXPECT_EQ(identical->GetCheckoutCount(), 1u);
    EXPECT_TRUE(identical->IsInMemory());
    identical->Checkin(0, 0.0);

    IntrusivePtr<MC_Stuff> exact = MakeItem(1, 10, 2);  // 2 cannot satisfy 5: both stay
    exact->AddToBagAndSortDir(bag_);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
    for (auto [variant, expected] : {std::pair{2u, exact}, std::pair{3u, satisfying}}) {
        IntrusivePtr<MC_Stuff> found;
        ASSERT_EQ(bag_->FindAndCheckout(MakeRequest(1, variant), MC_CheckoutFlag_ReadOnly, &found,
                                        nullptr),
                  MC_CheckoutResult_CheckedOut);
        EXPECT_EQ(found, expected);
        found->Checkin(0, 0.0);
    }

    ASSERT_TRUE(StaticPointerCast<TestPayload>(exact->GetDataPtr())->PurgeIfPossible(nullptr));
    const uint32_t sweeps = counters().supersededSweeps.load();
    MakeItem(1, 10, 0)->AddToBagAndSortDir(bag_);  // satisfies neither, but exact is dead
    EXPECT_EQ(counters().supersededSweeps.load() - sweeps, 1u);
    EXPECT_TRUE(exact->GetBag().expired());
    EXPECT_EQ(satisfying->GetBag().lock(), bag_);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
    EXPECT_EQ(bag_->GetNumItems(), 2);
}

// A miss leaves `found` alone unless asked to create: then a pending item goes into the global
// bag, whichever bag was searched; only its first completion counts.
TEST_F(SortDir, MissCreatesAPendingItemInTheGlobalBagOnlyWhenAsked) {
    auto other = std::make_shared<MC_Bag>(kAppVersion);
    IntrusivePtr<MC_Stuff> sentinel = MakeItem(99, 1), found = sentinel;
    bool hasFile = true;
    EXPECT_EQ(other->FindAndCheckout(MakeRequest(4), MC_CheckoutFlag_ReadOnly, &found, &hasFile),
              MC_CheckoutResult_Failed);
    EXPECT_EQ(found, sentinel);
    ASSERT_EQ(other->FindAndCheckout(MakeRequest(4),
                                     MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending,
                                     &found, &hasFile),
              MC_CheckoutResult_CreatedNewPending);
    EXPECT_FALSE(hasFile);
    EXPECT_TRUE(found->IsPendingRender());
    EXPECT_EQ(found->GetBag().lock(), bag_);
    found->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(new TestPayload(4, 8)), 1.0);
    found->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(new TestPayload(4, 99)), 9.0);
    found->Checkin(0, 0.0);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 9);  // with the sentinel's byte
    EXPECT_DOUBLE_EQ(found->GetComputeTime(), 1.0) << "a second completion is ignored";
}

// Eight threads want the same missing frame: exactly one renders, and only once the seven others
// wait for it (each counts its wait before blocking); they all get its payload.
TEST_F(SortDir, OneRendersTheOthersWaitForItsPayload) {
    constexpr int kThreads = 8;
    const uint32_t waits = counters().pendingWaits.load();
    std::atomic<int> renders{0}, gotPayload{0};
    RunThreads(kThreads, [&](int) {
        MC_ScCheckout receipt;
        const MC_CheckoutResult r = receipt.FindAndCheckout(
            MakeRequest(5), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                MC_CheckoutFlag_WaitIfPendingUnlessLocked);
        if (r == MC_CheckoutResult_CreatedNewPending) {
            renders.fetch_add(1);
            EXPECT_TRUE(
                Eventually([&] { return counters().pendingWaits - waits == kThreads - 1; }));
            receipt.GetStuffPtr()->SetStuffDataFromPendingRender(
                IntrusivePtr<MC_StuffData>(new TestPayload(5, 64)), 0.03);
        } else if (r == MC_CheckoutResult_CheckedOut) {
            IntrusivePtr<MC_StuffData> data = receipt.GetStuffPtr()->GetDataPtr();
            if (data && data->IsInMemory()) gotPayload.fetch_add(1);
        }
    });
    EXPECT_EQ(renders.load(), 1);
    EXPECT_EQ(gotPayload.load(), kThreads - 1);
    EXPECT_EQ(bag_->GetNumItems(), 1);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

// A pending item: without a wait flag it is refused; under the notify lock 0x20 refuses (the
// only refusal counted) and 0x40 with MemoryOnly takes it pending without waiting; its creator is
// refused rather than waiting on itself.
TEST_F(SortDir, PendingItemWaitFlagsNotifyLockAndCreator) {
    MC_ScCheckout creator;
    ASSERT_EQ(creator.FindAndCheckout(MakeRequest(6),
                                      MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    const uint32_t refusals = counters().pendingRefusals.load();
    auto find = [](int flags, bool pending = false) {
        MC_ScCheckout r;
        const MC_CheckoutResult result =
            r.FindAndCheckout(MakeRequest(6), MC_CheckoutFlag_ReadOnly | flags);
        EXPECT_EQ(r.IsPendingRender(), pending);
        return result;
    };
    std::thread([&] {
        EXPECT_EQ(find(0), MC_CheckoutResult_Failed);
        host().SetHoldingNotifyLock(true);
        EXPECT_EQ(find(MC_CheckoutFlag_WaitIfPendingUnlessLocked), MC_CheckoutResult_Failed);
        EXPECT_EQ(find(MC_CheckoutFlag_MemoryOnly | MC_CheckoutFlag_WaitIfPending, true),
                  MC_CheckoutResult_CheckedOut);
        host().SetHoldingNotifyLock(false);
    }).join();
    EXPECT_EQ(counters().pendingRefusals.load() - refusals, 1u);
    EXPECT_EQ(find(MC_CheckoutFlag_WaitIfPending), MC_CheckoutResult_Failed);
    EXPECT_EQ(creator.GetStuffPtr()->GetCheckoutCount(), 1u);
}

}  // namespace
