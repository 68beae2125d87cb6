// With the mirror off (a non-interactive birth, or the debug entry switched off) nothing of the
// cache's life reaches the media manager and the media map's size reads 0.
#include <gtest/gtest.h>

#include "MediaMapTestUtil.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"

using namespace mediamap_test;

namespace {

// Runs a little of everything the mirror would follow: adding, check-out and check-in, a memory
// purge, a purge from the media map, removal.
void ExerciseTheCache(const std::shared_ptr<MC_Bag>& bag, mctest::RecordingHostServices& host) {
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 1; k <= 6; ++k) {
        items.push_back(mctest::MakeItem(k, 100 * k));
        items.back()->AddToBagAndSortDir(bag);
    }
    {
        MC_ScCheckout receipt(items[0], MC_CheckoutFlag_ReadOnly);
        ASSERT_TRUE(receipt.DidCheckout());
    }
    MC_ScCheckout found;
    EXPECT_EQ(found.FindAndCheckout(mctest::MakeRequest(42), MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    found.GetStuffPtr()->SetStuffDataFromPendingRender(
        IntrusivePtr<MC_StuffData>(new mctest::TestPayload(42, 700)), 0.1);
    found.Checkin();
    host.SetMemUsageLimits(1000, 4000);
    host.SetAmountToPurge(300);
    EXPECT_GT(bag->FreeUpSomeMemory(0), 0);
    items[3]->PurgeFromMediaMap();
    items[4]->RemoveFromBagAndSortDir();
    for (const auto& stuff : items) {
        EXPECT_TRUE(stuff->GetMediaMapGuid().IsNull());
        EXPECT_EQ(stuff->GetMediaMapID(), 0u);
    }
}

class MirrorOffNotInteractive : public MirrorTest {
  protected:
    bool Interactive() const override { return false; }
};

TEST_F(MirrorOffNotInteractive, NothingReachesTheManager) {
    EXPECT_FALSE(MCp_MediaMapEnabled());
    EXPECT_FALSE(MCp_MediaMap());
    ExerciseTheCache(bag_, host());
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);
    EXPECT_EQ(MCp_MediaMapEntryCount(), 0u);
    EXPECT_EQ(recorder_->Calls(), 0);
}

class MirrorOffByEntry : public MirrorTest {
  protected:
    void ConfigureHost(mctest::RecordingHostServices& h) override {
        MirrorTest::ConfigureHost(h);
        h.SetDebugEntry("MC.UseMediaMap1", "false");
    }
};

TEST_F(MirrorOffByEntry, NothingReachesTheManager) {
    EXPECT_FALSE(MCp_MediaMapEnabled());
    ExerciseTheCache(bag_, host());
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);
    EXPECT_EQ(recorder_->Calls(), 0);
}

// The same workload with the mirror on does reach the manager (so the tests above can fail).
TEST_F(MirrorTest, TheSameWorkloadReachesTheManagerWithTheMirrorOn) {
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 1; k <= 3; ++k) items.push_back(AddItem(k, 100));
    EXPECT_GT(recorder_->Calls(), 0);
    EXPECT_EQ(MC_GetMediaMapSize(), 300u);
}

}  // namespace
