// The disk budget: room, making room from the least recently used idle files and stopping at
// the last-use limit, the budget shrink, the drive-space rule, the size across versions and
// purging every disk cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "disk/DiskFolder.h"
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
    MCp_DiskFolder::SetMinimumVolumeFreeSpaceBytes(10ull << 30);
    fs_->freeSpace.store((10ull << 30) + (2 << 20));  // minimum plus more than the 1 MiB room
    EXPECT_FALSE(bag_->IsDiskCacheLimitedDueToDriveSpace());
    fs_->freeSpace.store((10ull << 30) + (1 << 19));  // less than minimum plus the room
    EXPECT_TRUE(bag_->IsDiskCacheLimitedDueToDriveSpace());
    fs_->freeSpace.store(1ull << 40);
    MCp_DiskFolder::SetMinimumVolumeFreeSpaceBytes(0);
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

namespace fs = std::filesystem;

class DiskPurge : public DiskCacheTest {
protected:
    void SetUp() override {
        DiskCacheTest::SetUp();
        product_ = root_.Path() / "Ostrel" / "Tessaline";
        otherMachine_ = product_ / "0.9" / "Disk Cache - diskb-host.noindex";
        PutFile(otherMachine_ / "AB" / "old.zkcache", 100);
        foreignMachine_ = product_ / "0.9" / "Disk Cache - elsewhere.noindex" / "x.zkcache";
        PutFile(foreignMachine_, 100);
        resident_ = NewItemInBag(1, 1000);
        WriteNow(resident_);
        diskOnly_ = NewItemInBag(2, 1000);
        WriteNow(diskOnly_);
        diskOnly_->FreeUpAsMuchAsPossible(true, nullptr);
        memoryOnly_ = NewItemInBag(3, 1000);
    }

    void Purge(bool includeOtherVersions) {
        bag_->PurgeAllDiskCaches([this](unsigned d, unsigned t) { progress_.emplace_back(d, t); },
                                 includeOtherVersions, done_, total_);
    }

    bool Traced(const std::string& prefix) const {
        for (const auto& line : services_->TraceLines("DiskCache"))
            if (line.text.rfind(prefix, 0) == 0) return true;
        return false;
    }

    bool InBag(const IntrusivePtr<MC_Stuff>& stuff) const {
        const auto items = bag_->SnapshotItems();
        return std::find(items.begin(), items.end(), stuff) != items.end();
    }

    fs::path product_, otherMachine_, foreignMachine_;
    IntrusivePtr<MC_Stuff> resident_, diskOnly_, memoryOnly_;
    unsigned done_ = 0, total_ = 2;
    std::vector<std::pair<unsigned, unsigned>> progress_;
};

TEST_F(DiskPurge, CurrentFolderIsEmptiedAndTheBagForgetsItsFiles) {
    Purge(false);
    EXPECT_TRUE(fs::is_directory(Folder().GetFullPath()));
    EXPECT_TRUE(AllFiles().empty());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);

    EXPECT_TRUE(InBag(resident_));  // still in memory: stays, without a file
    EXPECT_FALSE(resident_->IsOnDisk());
    EXPECT_TRUE(resident_->IsInMemory());
    EXPECT_FALSE(InBag(diskOnly_));  // nothing left of it
    EXPECT_TRUE(InBag(memoryOnly_));

    EXPECT_TRUE(fs::exists(otherMachine_ / "AB" / "old.zkcache"));  // other versions untouched
    EXPECT_TRUE(fs::exists(foreignMachine_));
    EXPECT_EQ(progress_, (std::vector<std::pair<unsigned, unsigned>>{{1, 2}}));
    EXPECT_EQ(done_, 1u);
    EXPECT_EQ(total_, 2u);
    EXPECT_TRUE(Traced("PurgeAllDiskCaches: found match curr "));
    EXPECT_TRUE(Traced("PurgeAllDiskCaches: ignoring: "));
    EXPECT_TRUE(Traced("PurgeAllDiskCaches: Finished\n"));
    EXPECT_FALSE(Traced("PurgeAllDiskCaches THREW"));

    // The cache goes on working in the emptied folder.
    IntrusivePtr<MC_Stuff> again = NewItemInBag(4, 1000);
    WriteNow(again);
    EXPECT_TRUE(again->IsOnDisk());
}

TEST_F(DiskPurge, OtherVersionsOfThisMachineAreEmptiedOnRequest) {
    Purge(true);
    EXPECT_TRUE(fs::is_directory(otherMachine_));
    EXPECT_TRUE(fs::is_empty(otherMachine_));
    EXPECT_TRUE(fs::exists(foreignMachine_));  // another machine's folder is not ours
    EXPECT_TRUE(AllFiles().empty());
    EXPECT_EQ(progress_, (std::vector<std::pair<unsigned, unsigned>>{{1, 2}, {2, 2}}));
    EXPECT_EQ(done_, 2u);
    EXPECT_TRUE(Traced("PurgeAllDiskCaches: staged to clear: "));
    EXPECT_TRUE(Traced("MCp_PurgeDiskCacheFiles_NoBag "));
}

TEST_F(DiskPurge, AFolderThatNoLongerMatchesTheRootIsNotPurged) {
    host().SetClientVersion("2.0");  // the folder would now be computed under "2.0"
    Purge(true);
    EXPECT_TRUE(
        Traced("PurgeAllDiskCaches: Failed:  Unexpected mismatch of calculated disk cache from "
               "root path"));
    EXPECT_TRUE(resident_->IsOnDisk());
    EXPECT_EQ(CacheFiles().size(), 2u);
    EXPECT_TRUE(fs::exists(otherMachine_ / "AB" / "old.zkcache"));
    EXPECT_TRUE(progress_.empty());
    EXPECT_EQ(done_, 0u);
}

// The standalone host's rule: client version "major.minor" is application version
// major * 256 + minor. Here the module was started as 300 while the host says "1.0" (256).
class DiskPurgeVersionMismatch : public DiskPurge {
protected:
    unsigned AppVersion() const override { return 300; }
};

TEST_F(DiskPurgeVersionMismatch, ClientAndApplicationVersionsMustAgree) {
    Purge(true);
    EXPECT_TRUE(
        Traced("PurgeAllDiskCaches: Failed:  Expecting GetClientInternalVersion and app "
               "version to match"));
    EXPECT_TRUE(resident_->IsOnDisk());
    EXPECT_TRUE(diskOnly_->IsOnDisk());
    EXPECT_EQ(CacheFiles().size(), 2u);
    EXPECT_TRUE(fs::exists(otherMachine_ / "AB" / "old.zkcache"));
    EXPECT_TRUE(progress_.empty());
    EXPECT_EQ(done_, 0u);
}

}  // namespace
