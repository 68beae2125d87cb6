// The media manager over budget: it has the cache purge its oldest idle items through the
// mirror, from its own thread, and never a checked-out or pinned one; the three totals (the
// manager's, the map's and the bag's in-memory bytes) agree once things settle, also under load
// from several threads and across shut-down.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "MediaMapTestUtil.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"

using namespace mediamap_test;
using mctest::MakeItem;
using mctest::MakeRequest;
using mctest::TestPayload;

namespace {

class BudgetTest : public MirrorTest {
protected:
    BudgetTest() { recorder_ = std::make_unique<RecordingMediaManager>(3000); }
    RecordingMediaManager& Manager() { return *recorder_; }
    void Settle() { ASSERT_TRUE(Manager().WaitUntilSettled(50s)); }
};

// Over budget the oldest idle item goes; never a checked-out, pinned or refusing one.
TEST_F(BudgetTest, OverBudgetPurgesTheOldestIdleItemOnly) {
    IntrusivePtr<MC_Stuff> pinnedItem = MakeItem(9, 500);
    const uint64_t pinned =
        Map()->Insert({velacore::Guid::CreateUnique(), 0},
                      std::make_shared<zk::MC_MediaMapData>(pinnedItem, 500), true);
    IntrusivePtr<MC_Stuff> a = AddItem(1, 500);
    IntrusivePtr<MC_Stuff> refusing = AddItem(2, 500);
    static_cast<TestPayload&>(*refusing->GetDataPtr()).SetAllowPurge(false);
    IntrusivePtr<MC_Stuff> b = AddItem(3, 500);
    IntrusivePtr<MC_Stuff> c = AddItem(4, 500);
    IntrusivePtr<MC_Stuff> d = AddItem(5, 500);
    Settle();
    EXPECT_EQ(Manager().PurgedCount(), 0u);  // 3000 fits
    EXPECT_EQ(MC_GetMediaMapSize(), 2500u);  // the manager counts the inserted entry, the map not

    auto hold = std::make_unique<MC_ScCheckout>(a, MC_CheckoutFlag_ReadOnly);
    IntrusivePtr<MC_Stuff> e = AddItem(6, 500);
    Settle();
    EXPECT_TRUE(pinnedItem->IsInMemory() && a->IsInMemory() && refusing->IsInMemory());
    EXPECT_NE(Map()->SequenceOf(refusing), 0u);
    EXPECT_FALSE(b->IsInMemory());
    EXPECT_TRUE(b->GetBag().expired());  // nothing left of it: it left the cache
    EXPECT_TRUE(c->IsInMemory() && d->IsInMemory() && e->IsInMemory());

    hold.reset();  // check-in re-registers a as the youngest entry
    Map()->MakePurgeable(pinned);
    AddItem(7, 500);  // over again: now the unpinned entry is the oldest and goes
    Settle();
    EXPECT_FALSE(Map()->IsNonPurgeable(pinned));
    EXPECT_TRUE(a->IsInMemory() && c->IsInMemory());
    EXPECT_EQ(Manager().PurgedCount(), 2u);
    EXPECT_EQ(Manager().GetRegisteredBytes(), 3000u);
    EXPECT_EQ(MC_GetMediaMapSize(), 3000u);
    // The pinned item never joined the bag but, alive and in memory, counts against the global
    // bag; its purge through the map could not free it (no bag), its release does.
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 3500);
    pinnedItem.reset();
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 3000);
}

// Renders and reads frames from several threads while the manager purges. A check-out must
// keep its payload in memory throughout; at rest the totals agree and fit the budget.
TEST_F(BudgetTest, ConcurrentRendersStayWithinBudgetAndKeepCheckedOutFramesResident) {
    constexpr uint32_t kKeys = 40, kFrameBytes = 1000;
    Manager().SetBudget(10 * kFrameBytes);  // purges start while the threads render
    std::atomic<int> lostWhileHeld{0}, renders{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(t * 7919u + 1u);
            for (int i = 0; i < 250; ++i) {
                const uint32_t key = rng() % kKeys;
                MC_ScCheckout r;
                const MC_CheckoutResult res = r.FindAndCheckout(
                    MakeRequest(key), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                          MC_CheckoutFlag_WaitIfPendingUnlessLocked);
                if (res == MC_CheckoutResult_CreatedNewPending) {
                    r.GetStuffPtr()->SetStuffDataFromPendingRender(
                        IntrusivePtr<MC_StuffData>(new TestPayload(key, kFrameBytes)), 0.01);
                    renders.fetch_add(1);
                } else if (res == MC_CheckoutResult_CheckedOut) {
                    auto data = StaticPointerCast<TestPayload>(r.GetStuffPtr()->GetDataPtr());
                    for (int spin = 0; spin < 3; ++spin, std::this_thread::yield())
                        lostWhileHeld.fetch_add(!data || !data->Bytes());
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    Settle();
    EXPECT_EQ(lostWhileHeld.load(), 0);
    EXPECT_GT(Manager().PurgedCount(), 0u);
    EXPECT_GT(renders.load(), static_cast<int>(kKeys));  // frames were purged and rendered again
    EXPECT_LE(Manager().GetRegisteredBytes(), 10u * kFrameBytes);
    EXPECT_EQ(MC_GetMediaMapSize(), Manager().GetRegisteredBytes());
    EXPECT_EQ(MC_GetMediaMapSize(),
              static_cast<uint64_t>(bag_->GetInMemoryCacheSizeInBytes_LockFree()));
    EXPECT_EQ(Map()->EntryCount(), Manager().EntryCount());
}

// Shut-down while the manager's thread is busy purging through the mirror: Death waits for the
// call in flight and leaves nothing registered.
TEST_F(BudgetTest, DeathWhilePurgingLeavesNothingBehind) {
    Manager().SetBudget(1);
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 0; k < 50; ++k) items.push_back(AddItem(k, 100));
    bag_.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_EQ(Manager().EntryCount(), 0u);
    EXPECT_EQ(Manager().GetRegisteredBytes(), 0u);
    for (const auto& stuff : items) EXPECT_TRUE(stuff->GetBag().expired());
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);
    MC_Birth(true, kAppVersion, false);  // TearDown stops and kills it again
    bag_ = MC_GlobalBag();
    EXPECT_EQ(AddItem(9, 10)->GetMediaMapID(), 1u);  // a new map numbers from one
}

}  // namespace
