// Bag membership, recency order (also when the host runs the update late) and byte accounting.
// Finding items: identical before satisfying, pending items on a miss, waiting for a render, the
// wait flags under the notify lock, and the sweep of superseded and dead entries.
#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "bag/Eventually.h"
#include "bag/MC_SortDir.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/Errors.h"
#include "support/ModuleAccess.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class BagMembership : public ModuleTest {
protected:
    std::vector<IntrusivePtr<MC_Stuff>> Order() { return bag_->SnapshotItems(); }
    IntrusivePtr<MC_Stuff> Add(uint32_t key, uint32_t size = 100) {
        IntrusivePtr<MC_Stuff> stuff = MakeItem(key, size);
        stuff->AddToBagAndSortDir(bag_);
        return stuff;
    }
    static void UseOnce(const IntrusivePtr<MC_Stuff>& stuff) {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
        ASSERT_TRUE(receipt.DidCheckout());
    }
};

// Code 3 and a report for adding twice, removing a stranger, joining from another bag.
TEST_F(BagMembership, MisuseIsAVerificationFailure) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10), stranger = MakeItem(2, 10);
    auto other = std::make_shared<MC_Bag>(1);
    IntrusivePtr<MC_Stuff> elsewhere = MakeItem(3, 10);
    other->AddStuff(elsewhere);
    bag_->AddStuff(stuff);
    const std::function<void()> misuse[] = {[&] { bag_->AddStuff(stuff); },
                                            [&] { bag_->RemoveStuff(stranger); },
                                            [&] { bag_->AddStuff(elsewhere); }};
    std::vector<int> codes;
    for (const auto& call : misuse) {
        try {
            call();
        } catch (int code) {
            codes.push_back(code);
        }
    }
    EXPECT_EQ(codes, (std::vector<int>{3, 3, 3}));
    EXPECT_EQ(host().FailedVerifications().size(), 3u);
    EXPECT_EQ(bag_->GetNumItems(), 1);
    other->RemoveStuff(elsewhere);
}

// Equal stamps keep insertion order; an update or a check-in moves an item to the young end,
// a DontUpdateLastUsed check-in and a bare re-stamp do not.
TEST_F(BagMembership, RecencyOrder) {
    IntrusivePtr<MC_Stuff> a = MakeItem(1, 10), b = MakeItem(2, 10), c = MakeItem(3, 10);
    for (const auto& s : {a, b, c}) {
        MCp_BagAccess::AddWithStamp(*bag_, s, 1000);
        bag_->GetSortDir()->AddStuff(s);
    }
    using Items = std::vector<IntrusivePtr<MC_Stuff>>;
    EXPECT_EQ(Order(), (Items{a, b, c}));
    StaticPointerCast<TestPayload>(a->GetDataPtr())->Resize(300);  // grown unannounced
    {
        MCp_ScLock lock;
        bag_->UpdateWithNewLastUsedTime(a, lock);
    }
    EXPECT_EQ(Order(), (Items{b, c, a}));
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 320) << "the relink re-syncs sizes";
    bag_->AccountForStuffDataModification(b);
    ASSERT_EQ(b->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    b->Checkin(MC_CheckinFlag_DontUpdateLastUsed, 0.0);
    EXPECT_EQ(Order(), (Items{b, c, a}));
    ASSERT_EQ(b->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    b->Checkin(0, 0.0);
    EXPECT_EQ(Order(), (Items{c, a, b}));
}

// Byte totals: resizes, re-syncs, items outside any bag (counted against the global bag until
// they die).
TEST_F(BagMembership, ByteAccounting) {
    IntrusivePtr<MC_Stuff> a = Add(1, 10), b = Add(2, 20);
    StaticPointerCast<TestPayload>(a->GetDataPtr())->Resize(500);
    bag_->AccountForStuffDataModification(a);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 520);
    EXPECT_EQ(Order().front(), a);
    IntrusivePtr<MC_Stuff> loose = MakeItem(3, 40);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 560);
    loose.reset();
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 520);
    IntrusivePtr<MC_Stuff> empty(new MC_Stuff());
    EXPECT_THROW(bag_->AccountForStuffDataModification(empty), velacore::NullPointerError);

    a->SyncMemorySizeWithBag(460);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 480);
}

TEST_F(BagMembership, CacheSizesAndPercentages) {
    IntrusivePtr<MC_Stuff> a = Add(1), b = Add(2, 50);
    StaticPointerCast<TestPayload>(b->GetDataPtr())->PurgeIfPossible(nullptr);
    uint64_t inMemory = 0, onDisk = 1;
    bag_->GetCacheSizesInBytes(inMemory, onDisk);
    EXPECT_TRUE(inMemory == 100u && onDisk == 0u);
    EXPECT_FLOAT_EQ(bag_->GetPercentOfAvailableMemoryFree(), 1.0f);
    host().SetAmountAvailable(900);
    MC_ScCheckout held(a, MC_CheckoutFlag_ReadOnly);
    // 100 checked out of 900 available + 150 accounted (b was purged behind the cache's back).
    EXPECT_NEAR(bag_->GetPercentOfAvailableMemoryCheckedOut(), 100.0 / 1050.0, 1e-6);
    EXPECT_EQ(bag_->GetCurrentMaxCacheSize(), 1050u);
}

// Check-ins under a host whose top-level runner queues the recency update and runs it after the
// check-in returned, on the same thread or another: the bag stays whole meanwhile (items keep
// their old place, can be purged and removed), and a late update of an item that left the bag, or
// of a bag that died, does nothing.
TEST_F(BagMembership, LateRelinkLeavesTheBagWholeUntilTheRunnerGetsToTheTasks) {
    const std::vector<IntrusivePtr<MC_Stuff>> items = {Add(1), Add(2), Add(3), Add(4)};
    host().SetDeferTopLevelFunctions(true);
    for (const auto& stuff : items) UseOnce(stuff);
    UseOnce(items[0]);  // twice: two tasks for one item
    ASSERT_EQ(bag_->GetNumItems(), 4);
    EXPECT_EQ(bag_->SnapshotItems(), items);  // old places kept

    items[1]->RemoveFromBagAndSortDir();
    EXPECT_EQ(items[2]->FreeUpAsMuchAsPossible(true, nullptr), 100u);  // purged and gone
    ASSERT_EQ(bag_->GetNumItems(), 2);

    // Same thread for part of the tasks, another thread for the rest.
    EXPECT_EQ(host().RunDeferredTopLevelFunctions(), 5u);
    UseOnce(items[3]);
    std::thread([&] { EXPECT_EQ(host().RunDeferredTopLevelFunctions(), 1u); }).join();
    EXPECT_EQ(bag_->SnapshotItems(), (std::vector<IntrusivePtr<MC_Stuff>>{items[0], items[3]}));
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 200);

    // A task that outlives its bag.
    auto local = std::make_shared<MC_Bag>(kAppVersion);
    IntrusivePtr<MC_Stuff> orphan = MakeItem(9, 10);
    local->AddToBagAndSortDir(orphan);
    UseOnce(orphan);
    local.reset();
    EXPECT_TRUE(orphan->GetBag().expired());
    const velacore::WeakPtr<MC_Stuff> watch(orphan);
    orphan.reset();  // the queued task alone holds the item now
    EXPECT_EQ(host().RunDeferredTopLevelFunctions(), 1u);
    EXPECT_FALSE(watch.Lock()) << "the late task let go of its item";
}

using SortDir = BagMembership;

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
