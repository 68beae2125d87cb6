// Check-ins under a host whose top-level runner queues the recency update and runs it after the
// check-in returned, on the same thread or another: the bag stays whole meanwhile (items keep
// their old place, can be purged and removed), and a late update of an item that left the bag, or
// of a bag that died, does nothing.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "mc/MC_ScCheckout.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class LateRelink : public ModuleTest {
protected:
    IntrusivePtr<MC_Stuff> AddItem(uint32_t key) {
        IntrusivePtr<MC_Stuff> stuff = MakeItem(key, 100);
        stuff->AddToBagAndSortDir(bag_);
        return stuff;
    }
    static void UseOnce(const IntrusivePtr<MC_Stuff>& stuff) {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
        ASSERT_TRUE(receipt.DidCheckout());
    }
};

TEST_F(LateRelink, BagStaysWholeUntilTheRunnerGetsToTheTasks) {
    const std::vector<IntrusivePtr<MC_Stuff>> items = {AddItem(1), AddItem(2), AddItem(3),
                                                       AddItem(4)};
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
