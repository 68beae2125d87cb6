// The disk-cache preferences read by SetDiskCacheInfo, the budget in megabytes, and the
// enable switch.
#include <gtest/gtest.h>

#include <cstdint>

#include "disk/DiskSettings.h"
#include "test_layout_fixture.h"

namespace {

using disktest::DiskModuleTest;
constexpr const char* kSection = "Additional Disk Cache Controls";

class DiskSettingsTest : public DiskModuleTest {};

TEST_F(DiskSettingsTest, DefaultsWhenThePreferencesAreAbsent) {
    mc_disk_settings::SetMinimumVolumeFreeSpaceBytes(1);
    mc_disk_settings::SetProclivityMultiplier(7.0);
    mc_disk_settings::SetSpeedCapBytesPerSecond(3.0);
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(mc_disk_settings::MinimumVolumeFreeSpaceBytes(), 10ull << 30);
    EXPECT_EQ(mc_disk_settings::ProclivityMultiplier(), 1.0);
    EXPECT_EQ(mc_disk_settings::SpeedCapBytesPerSecond(), 10737418240.0);
}

TEST_F(DiskSettingsTest, PreferenceValuesAreStoredAsRead) {
    host().SetPreference(kSection, "Minimum Volume Free Space (Gigabytes)", "3");
    host().SetPreference(kSection, "Proclivity Multiplier 2", "2.5");
    host().SetPreference(kSection, "Dont Include Speeds Above This In Average (bytes/sec) 3",
                         "1000.5");
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(mc_disk_settings::MinimumVolumeFreeSpaceBytes(), 3ull << 30);
    EXPECT_EQ(mc_disk_settings::ProclivityMultiplier(), 2.5);
    EXPECT_EQ(mc_disk_settings::SpeedCapBytesPerSecond(), 1000.5);

    // Read again on every call.
    host().SetPreference(kSection, "Minimum Volume Free Space (Gigabytes)", "0");
    host().SetPreference(kSection, "Proclivity Multiplier 2", "bogus");
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(mc_disk_settings::MinimumVolumeFreeSpaceBytes(), 0u);
    EXPECT_EQ(mc_disk_settings::ProclivityMultiplier(), 1.0);
}

TEST_F(DiskSettingsTest, NegativeOrHugeFreeSpaceIsClamped) {
    host().SetPreference(kSection, "Minimum Volume Free Space (Gigabytes)", "-5");
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(mc_disk_settings::MinimumVolumeFreeSpaceBytes(), 0u);
    host().SetPreference(kSection, "Minimum Volume Free Space (Gigabytes)", "9000000000000");
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(mc_disk_settings::MinimumVolumeFreeSpaceBytes(), UINT64_MAX);
}

TEST_F(DiskSettingsTest, BudgetIsMegabytesAndSaturates) {
    bag_->SetDiskCacheInfo(root_.AsDir(), 0);
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 0u);
    bag_->SetDiskCacheInfo(root_.AsDir(), 4096);
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 4096ull << 20);
    bag_->SetDiskCacheInfo(root_.AsDir(), UINT64_MAX);
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), static_cast<uint64_t>(INT64_MAX));
    EXPECT_GE(bag_->GetCurrentFreeDiskSpace(), 0);
}

TEST_F(DiskSettingsTest, EnableSwitchIsIndependentOfTheFolder) {
    EXPECT_FALSE(bag_->IsDiskCacheEnabled());
    EXPECT_FALSE(bag_->EnableDiskCache(true));  // returns the previous state
    EXPECT_TRUE(bag_->IsDiskCacheEnabled());
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_TRUE(bag_->IsDiskCacheEnabled());
    EXPECT_TRUE(bag_->EnableDiskCache(false));
    EXPECT_FALSE(bag_->IsDiskCacheEnabled());
    EXPECT_FALSE(bag_->GetDiskCacheDirSpec().IsEmpty());
}

}  // namespace
