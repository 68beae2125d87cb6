// Module start-up and shut-down, the settings, and the message table.
#include <gtest/gtest.h>

#include "lifecycle/Messages.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Module.h"
#include "mc/MC_StuffData.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class Lifecycle : public ModuleTest {};

TEST_F(Lifecycle, BirthLogsAndCreatesTheGlobalBag) {
    ASSERT_TRUE(bag_);
    EXPECT_EQ(bag_->GetAppVersion(), kAppVersion);
    auto logs = host().LogLines();
    ASSERT_FALSE(logs.empty());
    EXPECT_EQ(logs[0].level, 10);
    EXPECT_EQ(logs[0].category, "MC");
    EXPECT_EQ(logs[0].text, "MC Birth");
    EXPECT_TRUE(host().HasMemoryClient());
}

TEST_F(Lifecycle, DeathLeavesNoBagAndNoFactories) {
    TestPayload::RegisterFactory();
    std::vector<uint8_t> header(8, 0);
    ASSERT_TRUE(MC_StuffData::CreateSubclass(TestPayload::kMatchname, header));
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    bag_.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_FALSE(MC_GlobalBag());
    EXPECT_FALSE(MC_StuffData::CreateSubclass(TestPayload::kMatchname, header));
    EXPECT_TRUE(stuff->GetBag().expired());
    EXPECT_FALSE(host().HasMemoryClient());
    MC_Birth(false, kAppVersion, false);  // TearDown stops and kills it again
}

TEST_F(Lifecycle, AppVersionDropsTheTopBit) {
    MC_Bag bag(0x80000001u);
    EXPECT_EQ(bag.GetAppVersion(), 1u);
}

TEST_F(Lifecycle, MaxCacheSizeIsATenthOfTheMediaBudget) {
    host().SetMediaBudget(10'000'000'000ull);
    EXPECT_EQ(MC_GetMaxMCCacheSize(), 1'000'000'000ull);
    host().SetDebugEntry("Graphics.DefaultMCCacheLimitForQuilletsMultiplier", "1.5");
    mc_settings::ResetForTesting();
    host().SetMediaBudget(1ull << 63);
    EXPECT_EQ(MC_GetMaxMCCacheSize(), (1ull << 63) + (1ull << 62));
}

TEST_F(Lifecycle, MinimumSizeComparesTheBagWithTheLimitAndTraces) {
    host().SetMemUsageLimits(1000, 4000);
    host().SetTraceLevel("MC", 7);
    EXPECT_FALSE(MC_IsGlobalBagSizeAboveMinimum());
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 100);
    stuff->AddToBagAndSortDir(bag_);
    host().ClearRecords();
    EXPECT_TRUE(MC_IsGlobalBagSizeAboveMinimum());
    auto lines = host().TraceLines("MC");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text.rfind("(memCacheSize, minMemCacheSize, memCacheAboveMin): ", 0), 0u);
    EXPECT_NE(lines[0].text.find(", true"), std::string::npos);
    host().SetMemUsageLimits(1000, 4000, /*result=*/-5);
    EXPECT_THROW(MC_IsGlobalBagSizeAboveMinimum(), int);
}

TEST_F(Lifecycle, DebugEntriesDefaultAndParse) {
    EXPECT_TRUE(mc_settings::UseMediaMap());
    EXPECT_DOUBLE_EQ(mc_settings::LowPriorityFactor(), 2.0);
    EXPECT_EQ(mc_settings::ReadDiskDelayMs(), 0);
    host().SetDebugEntry("MC.UseMediaMap1", "false");
    host().SetDebugEntry("ZK.MC.LowPriorityFactorR", "3.5");
    host().SetDebugEntry("ZK.MC.ReadDiskDelayInMsR", "2147483648");  // overflows: default
    host().SetDebugEntry("ZK.MC.WriteDiskDelayInMsR", "12");
    // Read once per process: nothing changes until the settings are read again.
    EXPECT_TRUE(mc_settings::UseMediaMap());
    mc_settings::ResetForTesting();
    EXPECT_FALSE(mc_settings::UseMediaMap());
    EXPECT_DOUBLE_EQ(mc_settings::LowPriorityFactor(), 3.5);
    EXPECT_EQ(mc_settings::ReadDiskDelayMs(), 0);
    EXPECT_EQ(mc_settings::WriteDiskDelayMs(), 12);
}

TEST(SettingsParsers, IntegersRejectOverflowAndJunk) {
    EXPECT_EQ(mc_settings::ParseInt32("2147483647"), 2147483647);
    EXPECT_FALSE(mc_settings::ParseInt32("2147483648"));
    EXPECT_FALSE(mc_settings::ParseInt32("99999999999999999999"));
    EXPECT_FALSE(mc_settings::ParseInt32(""));
    EXPECT_FALSE(mc_settings::ParseInt32("12ms"));
    EXPECT_FALSE(mc_settings::ParseInt32("-3"));
    EXPECT_EQ(mc_settings::ParseBool("TRUE"), true);
    EXPECT_FALSE(mc_settings::ParseBool("maybe"));
    EXPECT_FALSE(mc_settings::ParseDouble("1.5x"));
}

TEST_F(Lifecycle, MessageTableHasItsEntriesAndTerminator) {
    EXPECT_EQ(MCp_Message(11), u"cached item already checked-out read/write");
    EXPECT_EQ(MCp_Message(23), u"This Computer");
    EXPECT_EQ(MCp_Message(0), u"");
    EXPECT_EQ(MC_G_zref[27].text, nullptr);
    EXPECT_EQ(MC_G_zref[27].a, ~uintptr_t{0});
    EXPECT_EQ(MC_G_zref[27].c, 0u);
    EXPECT_STREQ(MC_G_zref[26].text,
                 "$$$/ZK/MC/LStr/0026=Unable to write to Disk Cache folder, so disk caching will "
                 "be disabled. Please check your settings in Memory & Cache Preferences.");
}

TEST_F(Lifecycle, StopAllAsyncWorkDropsTheDiskExecutor) {
    MC_StopAllAsyncWork();
    EXPECT_FALSE(MCp_StopRequested() == false);
    auto logs = host().LogLines();
    EXPECT_EQ(logs.back().text, "MC_StopAllAsyncWork");
}

class QuilletOnLifecycle : public ModuleTest {
protected:
    void ConfigureHost(RecordingHostServices& h) override {
        h.SetFeatureEnabled("Graphics.SetMCCacheLimitForQuillets", true);
    }
    bool Interactive() const override { return true; }
    bool QuilletMode() const override { return Quillet; }
    bool Quillet = true;
};

TEST_F(QuilletOnLifecycle, FeatureAndQuilletModeSkipMemoryLimitsAndTheMediaMap) {
    host().SetMemUsageLimits(0, 0, /*result=*/-7);  // would throw if asked
    EXPECT_TRUE(MC_IsSetMCCacheLimitForQuilletsEnabled());
    EXPECT_TRUE(MC_IsGlobalBagSizeAboveMinimum());
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);
}

class InteractiveWithoutMap : public ModuleTest {
protected:
    void ConfigureHost(RecordingHostServices& h) override {
        h.SetDebugEntry("MC.UseMediaMap1", "false");
    }
    bool Interactive() const override { return true; }
};

TEST_F(InteractiveWithoutMap, MediaMapStaysOff) { EXPECT_EQ(MC_GetMediaMapSize(), 0u); }

TEST(BetaFeature, RegisteredAtLoad) {
    auto services = std::make_shared<RecordingHostServices>();
    ScopedHostServices scoped(services);
    bool found = false;
    for (const auto& f : services->RegisteredBetaFeatures())
        if (f.name == "Graphics.SetMCCacheLimitForQuillets") found = true;
    EXPECT_TRUE(found);
}

}  // namespace
