// The disk budget: the room figure, making room from the least recently used idle files and
// stopping at the last-use limit, the budget shrink of SetDiskCacheInfo, the drive-space rule,
// and the size of every version's folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <vector>

#include "disk/DiskSettings.h"
#include "support/ModuleAccess.h"
#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

constexpr uint64_t kAnyTime = std::numeric_limits<uint64_t>::max();
constexpr int64_t kUnit = static_cast<int64_t>(kFileUnit);

// A budget of exactly four one-buffer files (4 x 256 KiB = 1 MiB).
class DiskBudget : public DiskCacheTest {
  protected:
    uint64_t BudgetMegabytes() const override { return 1; }

    // Four idle items on disk, used at 1000, 2000, 3000 and 4000, oldest first in the bag.
    void FillBudget() {
        for (uint32_t i = 0; i < 4; ++i) {
            IntrusivePtr<MC_Stuff> item = NewItem(i + 1, 1000);
            MCp_BagAccess::AddWithStamp(*bag_, item, 1000 * (i + 1));
            WriteNow(item);
            ASSERT_TRUE(item->IsOnDisk());
            MCp_StuffAccess::SetLastUseTime(*item, 1000 * (i + 1));
            items_.push_back(item);
        }
        ASSERT_EQ(bag_->GetCurrentDiskCacheSize(), 4 * kUnit);
    }
    std::vector<bool> OnDisk() const {
        std::vector<bool> v;
        for (const auto& item : items_) v.push_back(item->IsOnDisk());
        return v;
    }

    std::vector<IntrusivePtr<MC_Stuff>> items_;
};

TEST_F(DiskBudget, RoomIsTheBudgetLessWhatIsUsedAndCanBeNegative) {
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), uint64_t{1} << 20);
    EXPECT_EQ(bag_->GetCurrentFreeDiskSpace(), 1 << 20);
    EXPECT_TRUE(bag_->EnsureDiskSpace(0, 0));
    bag_->AdjustOnDiskCacheSize(3 << 20);
    EXPECT_EQ(bag_->GetCurrentFreeDiskSpace(), -(2 << 20));
    EXPECT_FALSE(bag_->EnsureDiskSpace(0, kAnyTime));  // nothing to delete
    bag_->AdjustOnDiskCacheSize(-(3 << 20));
}

TEST_F(DiskBudget, MakingRoomDeletesTheOldestIdleFilesFirst) {
    FillBudget();
    ASSERT_EQ(bag_->GetCurrentFreeDiskSpace(), 0);
    EXPECT_TRUE(bag_->EnsureDiskSpace(2 * kUnit, kAnyTime));
    EXPECT_EQ(OnDisk(), (std::vector<bool>{false, false, true, true}));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 2 * kUnit);
    EXPECT_EQ(CacheFiles().size(), 2u);
    for (const auto& item : items_) EXPECT_TRUE(item->IsInMemory());  // memory untouched
}

TEST_F(DiskBudget, TheFirstIdleFileUsedAtOrAfterTheLimitEndsTheWalk) {
    FillBudget();
    EXPECT_FALSE(bag_->EnsureDiskSpace(3 * kUnit, 3000));
    EXPECT_EQ(OnDisk(), (std::vector<bool>{false, false, true, true}));
    // A limit earlier than every last use deletes nothing.
    EXPECT_FALSE(bag_->EnsureDiskSpace(3 * kUnit, 1000));
    EXPECT_EQ(OnDisk(), (std::vector<bool>{false, false, true, true}));
}

TEST_F(DiskBudget, TheWalkGoesInBagOrderAndStopsAtARecentlyUsedItemAheadOfOlderOnes) {
    FillBudget();
    MCp_StuffAccess::SetLastUseTime(*items_[0], 5000);  // first in the bag, used last
    EXPECT_FALSE(bag_->EnsureDiskSpace(kUnit, 3000));
    EXPECT_EQ(OnDisk(), (std::vector<bool>{true, true, true, true}));
}

TEST_F(DiskBudget, CheckedOutAndHeldFilesAreSkippedNotStoppedAt) {
    FillBudget();
    ASSERT_EQ(items_[0]->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    auto hold = items_[1]->CheckoutDiskCache(true);
    EXPECT_TRUE(bag_->EnsureDiskSpace(kUnit, kAnyTime));
    EXPECT_EQ(OnDisk(), (std::vector<bool>{true, true, false, true}));
    items_[0]->Checkin(MC_CheckinFlag_DontUpdateLastUsed, 0.0);
}

TEST_F(DiskBudget, EnoughRoomDeletesNothing) {
    FillBudget();
    bag_->SetDiskCacheInfo(root_.AsDir(), 2);
    EXPECT_TRUE(bag_->EnsureDiskSpace(kUnit, kAnyTime));
    EXPECT_EQ(OnDisk(), (std::vector<bool>{true, true, true, true}));
}

TEST_F(DiskBudget, ShrinkingTheBudgetFreesTheDifferenceAndZeroFreesAll) {
    bag_->SetDiskCacheInfo(root_.AsDir(), 2);
    FillBudget();  // 1 MiB used of 2
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(OnDisk(), (std::vector<bool>{true, true, true, true}));  // it still fits
    bag_->SetDiskCacheInfo(root_.AsDir(), 0);
    EXPECT_EQ(OnDisk(), (std::vector<bool>{false, false, false, false}));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    EXPECT_TRUE(CacheFiles().empty());
}

TEST_F(DiskBudget, WritingIntoAFullBudgetEvictsOlderFilesOnly) {
    FillBudget();
    IntrusivePtr<MC_Stuff> young = NewItem(9, 1000);
    MCp_BagAccess::AddWithStamp(*bag_, young, 2500);
    WriteNow(young);  // room for one file: the oldest idle file goes
    EXPECT_TRUE(young->IsOnDisk());
    EXPECT_EQ(OnDisk(), (std::vector<bool>{false, true, true, true}));

    IntrusivePtr<MC_Stuff> old = NewItem(10, 1000);
    MCp_BagAccess::AddWithStamp(*bag_, old, 500);
    WriteNow(old);  // older than everything on disk: nothing is evicted for it
    EXPECT_FALSE(old->IsOnDisk());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 4 * kUnit);
}

TEST_F(DiskBudget, DriveSpaceLimitsTheBudgetWhenTheVolumeIsShort) {
    mc_disk_settings::SetMinimumVolumeFreeSpaceBytes(10ull << 30);
    fs_->freeSpace.store((10ull << 30) + (2 << 20));  // minimum plus more than the 1 MiB room
    EXPECT_FALSE(bag_->IsDiskCacheLimitedDueToDriveSpace());
    fs_->freeSpace.store((10ull << 30) + (1 << 19));  // less than minimum plus the room
    EXPECT_TRUE(bag_->IsDiskCacheLimitedDueToDriveSpace());
    fs_->freeSpace.store(1ull << 40);
    mc_disk_settings::SetMinimumVolumeFreeSpaceBytes(0);
    EXPECT_FALSE(bag_->IsDiskCacheLimitedDueToDriveSpace());
}

TEST_F(DiskBudget, SizeAcrossVersionsSumsEveryVersionsMachineFolder) {
    FillBudget();
    const std::filesystem::path product = root_.Path() / "Ostrel" / "Tessaline";
    const std::filesystem::path machine = "Disk Cache - diskb-host.noindex";
    PutFile(product / "0.9" / machine / "AB" / "x.zkcache", 1000);
    PutFile(product / "0.9" / machine / "y.bin", 24);
    PutFile(product / "0.9" / "Disk Cache - elsewhere.noindex" / "z.zkcache",
            5000);                                         // another machine's: not counted
    std::filesystem::create_directories(product / "0.8");  // no machine folder: counts 0 bytes
    unsigned folders = 0;
    EXPECT_EQ(bag_->FindDiskCacheSizeAcrossVersions(folders), 4 * kFileUnit + 1024);
    EXPECT_EQ(folders, 3u);
}

}  // namespace
