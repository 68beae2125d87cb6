// Module start-up and shut-down, the sizes derived from the host's limits, and the settings.
#include <gtest/gtest.h>

#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Module.h"
#include "mc/MC_StuffData.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class Lifecycle : public ModuleTest {};

TEST_F(Lifecycle, BirthAndDeathSetUpAndTearDownEverything) {
    ASSERT_TRUE(bag_);
    EXPECT_EQ(bag_->GetAppVersion(), kAppVersion);
    EXPECT_EQ(MC_Bag(0x80000001u).GetAppVersion(), 1u);  // the top bit is dropped
    EXPECT_TRUE(host().HasMemoryClient());
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);  // not interactive: no media map

    TestPayload::RegisterFactory();
    std::vector<uint8_t> header(8, 0);
    ASSERT_TRUE(MC_StuffData::CreateSubclass(TestPayload::kMatchname, header));
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    bag_.reset();
    MC_StopAllAsyncWork();
    EXPECT_TRUE(MCp_StopRequested());
    MC_Death();
    EXPECT_FALSE(MC_GlobalBag());
    EXPECT_FALSE(MC_StuffData::CreateSubclass(TestPayload::kMatchname, header));
    EXPECT_TRUE(stuff->GetBag().expired());
    EXPECT_FALSE(host().HasMemoryClient());
    MC_Birth(false, kAppVersion, false);  // TearDown stops and kills it again
}

TEST_F(Lifecycle, SizesFollowTheHostsLimits) {
    host().SetMediaBudget(10'000'000'000ull);
    EXPECT_EQ(MC_GetMaxMCCacheSize(), 1'000'000'000ull);  // a tenth of the media budget
    host().SetDebugEntry("Graphics.DefaultMCCacheLimitForQuilletsMultiplier", "1.5");
    mc_settings::ResetForTesting();
    host().SetMediaBudget(1ull << 63);
    EXPECT_EQ(MC_GetMaxMCCacheSize(), (1ull << 63) + (1ull << 62));  // no overflow

    host().SetMemUsageLimits(1000, 4000);  // minimum: a tenth of the limit
    EXPECT_FALSE(MC_IsGlobalBagSizeAboveMinimum());
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 100);
    stuff->AddToBagAndSortDir(bag_);
    EXPECT_TRUE(MC_IsGlobalBagSizeAboveMinimum());
    host().SetMemUsageLimits(1000, 4000, /*result=*/-5);
    EXPECT_THROW(MC_IsGlobalBagSizeAboveMinimum(), int);
}

}  // namespace
