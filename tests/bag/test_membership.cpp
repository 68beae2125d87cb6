// Bag membership, recency order (also when the host runs the update late) and byte accounting.
#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <vector>

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
    for (const auto& call : misuse) {
        try {
            call();
            ADD_FAILURE() << "no throw";
        } catch (int code) {
            EXPECT_EQ(code, 3);
        }
    }
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

}  // namespace
