// Check-out receipts: scoped check-in, reference-only holds, release, swap, suspend/reacquire,
// disk holds, and the abandoning of an unfilled pending render.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "bag/Eventually.h"
#include "mc/MC_ScCheckout.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class Receipts : public ModuleTest {
protected:
    IntrusivePtr<MC_Stuff> AddItem(uint32_t key, uint32_t size = 16) {
        IntrusivePtr<MC_Stuff> stuff = MakeItem(key, size);
        stuff->AddToBagAndSortDir(bag_);
        return stuff;
    }
};

// Destruction checks in, also on another thread; Release hands the check-in to the caller.
TEST_F(Receipts, DestructionReleaseAndHandOver) {
    IntrusivePtr<MC_Stuff> stuff = AddItem(1);
    {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
        EXPECT_EQ(receipt.GetResult(), MC_CheckoutResult_CheckedOut);
        EXPECT_EQ(stuff->GetCheckoutCount(), 1u);
    }
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
    IntrusivePtr<MC_Stuff> released;
    {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
        released = receipt.Release();
        EXPECT_EQ(receipt.GetResult(), MC_CheckoutResult_Failed);
    }
    EXPECT_EQ(released, stuff);
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);
    released->Checkin(0, 0.0);
    auto receipt = std::make_unique<MC_ScCheckout>(stuff, MC_CheckoutFlag_ReadOnly);
    std::thread([&] {
        EXPECT_TRUE(receipt->IsInMemory());
        receipt->Checkin();
    }).join();
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
}

TEST_F(Receipts, ReferenceOnlyHoldsWithoutCheckingOut) {
    IntrusivePtr<MC_Stuff> stuff = AddItem(1);
    {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_ReferenceOnly);
        EXPECT_EQ(receipt.GetResult(), MC_CheckoutResult_HeldOnly);
        EXPECT_TRUE(receipt.DidCheckout());
        EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
        ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    }
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);  // the receipt did not check anything in
    stuff->Checkin(0, 0.0);
    MC_ScCheckout finder;
    EXPECT_EQ(finder.FindAndCheckout(MakeRequest(1), MC_CheckoutFlag_ReferenceOnly),
              MC_CheckoutResult_Failed);
    EXPECT_FALSE(finder.GetStuffPtr());
}

TEST_F(Receipts, SwapExchangesHoldingsButNotFlagsOrSuspension) {
    IntrusivePtr<MC_Stuff> a = AddItem(1), b = AddItem(2);
    MC_ScCheckout ra(a, MC_CheckoutFlag_ReadOnly);
    MC_ScCheckout rb(b, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead);
    ra.SetCheckinFlags(MC_CheckinFlag_DontUpdateLastUsed);
    ra.Swap(rb);
    EXPECT_EQ(ra.GetStuffPtr(), b);
    EXPECT_EQ(rb.GetStuffPtr(), a);
    EXPECT_EQ(rb.GetCheckinFlags(), MC_CheckinFlag_DontUpdateLastUsed);
    EXPECT_EQ(ra.GetCheckinFlags(), 0);
    rb.SuspendCheckout();
    ra.Swap(rb);
    EXPECT_FALSE(ra.HasSuspendedCheckout());  // the suspended item stays with its receipt
    EXPECT_EQ(ra.GetStuffPtr(), nullptr);
}

TEST_F(Receipts, SwapCarriesThePendingGuardWithoutAbandoningTheRender) {
    MC_ScCheckout creator, other;
    ASSERT_EQ(creator.FindAndCheckout(MakeRequest(7),
                                      MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    const IntrusivePtr<MC_Stuff> pending = creator.GetStuffPtr();
    creator.Swap(other);
    EXPECT_TRUE(pending->IsPendingRender());
}

// A suspended receipt keeps its result but not the check-out: the item may be purged. It
// reacquires the item, or an equivalent one by key, or ends empty.
TEST_F(Receipts, SuspendAndReacquire) {
    IntrusivePtr<MC_Stuff> stuff = AddItem(1, 100);
    MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
    receipt.SuspendCheckout();
    EXPECT_EQ(receipt.GetResult(), MC_CheckoutResult_CheckedOut);
    EXPECT_TRUE(receipt.HasSuspendedCheckout());
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
    EXPECT_TRUE(receipt.ReacquireSuspendedCheckout());
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);
    EXPECT_FALSE(receipt.HasSuspendedCheckout());

    receipt.SuspendCheckout();
    EXPECT_EQ(stuff->FreeUpAsMuchAsPossible(true, nullptr), 100u);
    IntrusivePtr<MC_Stuff> replacement = AddItem(1, 100);  // same key, resident
    EXPECT_TRUE(receipt.ReacquireSuspendedCheckout());
    EXPECT_EQ(receipt.GetStuffPtr(), replacement);

    receipt.SuspendCheckout();
    EXPECT_EQ(replacement->FreeUpAsMuchAsPossible(true, nullptr), 100u);
    EXPECT_FALSE(receipt.ReacquireSuspendedCheckout());  // nothing in memory, no disk file
    EXPECT_EQ(receipt.GetStuffPtr(), nullptr);

    MC_ScCheckout other(AddItem(2), MC_CheckoutFlag_ReadOnly);
    other.SuspendCheckout();
    other.ReleaseSuspendedCheckout();
    EXPECT_EQ(other.GetResult(), MC_CheckoutResult_Failed);
    EXPECT_FALSE(other.HasSuspendedCheckout());
}

TEST_F(Receipts, DiskHoldCountsFollowTheHold) {
    IntrusivePtr<MC_Stuff> stuff = AddItem(1);
    const uint32_t global = MC_Stuff::GetNumDiskCacheCheckouts();
    {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
        receipt.AcquireDiskHold();
        EXPECT_EQ(stuff->GetDiskCacheCheckoutCount(), 1u);
        EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), global + 1);
        EXPECT_FALSE(receipt.HasDiskHold());  // no disk file to protect
        EXPECT_TRUE(receipt.HasDiskHoldIfWanted());
    }
    EXPECT_EQ(stuff->GetDiskCacheCheckoutCount(), 0u);
    EXPECT_EQ(stuff->CheckoutDiskCache(true), nullptr);  // no file: no hold, no count
    EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), global);
}

TEST_F(Receipts, AbandonedPendingRenderWakesWaitersAndLeavesTheBag) {
    std::atomic<bool> waiterDone{false};
    IntrusivePtr<MC_Stuff> pending;
    std::thread waiter;
    {
        MC_ScCheckout creator;
        ASSERT_EQ(creator.FindAndCheckout(MakeRequest(3),
                                          MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
                  MC_CheckoutResult_CreatedNewPending);
        EXPECT_TRUE(creator.DidCreateNewPending());
        pending = creator.GetStuffPtr();
        const uint32_t waits = counters().pendingWaits.load();
        waiter = std::thread([&] {
            MC_ScCheckout r;
            // Waits on the pending item, sees it abandoned, retries and finds nothing.
            EXPECT_EQ(
                r.FindAndCheckout(MakeRequest(3), MC_CheckoutFlag_ReadOnly |
                                                      MC_CheckoutFlag_WaitIfPendingUnlessLocked),
                MC_CheckoutResult_Failed);
            waiterDone.store(true);
        });
        // The waiter counts its wait before it blocks: from here on it is blocked.
        EXPECT_TRUE(mctest::Eventually([&] { return counters().pendingWaits == waits + 1; }));
        EXPECT_FALSE(waiterDone.load());
    }  // the receipt dies before anything was rendered
    waiter.join();
    EXPECT_FALSE(pending->IsPendingRender());
    EXPECT_EQ(bag_->GetNumItems(), 0);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
}

}  // namespace
