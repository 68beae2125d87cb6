// The disk budget: making room from the least recently used idle files and stopping at the
// last-use limit, the budget shrink, the drive-space rule, the size across versions and purging
// every disk cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>

#include "DiskFixture.h"
#include "support/ModuleAccess.h"

using namespace diskbtest;
namespace fs = std::filesystem;

namespace {

constexpr uint64_t kAnyTime = std::numeric_limits<uint64_t>::max();
constexpr int64_t kUnit = static_cast<int64_t>(kFileUnit);
using OnDisk = std::vector<bool>;

// A budget of exactly four one-buffer files (4 x 256 KiB = 1 MiB).
class DiskBudget : public DiskCacheTest {
protected:
    uint64_t BudgetMegabytes() const override { return 1; }

    // Four idle items on disk, used at 1000, 2000, 3000 and 4000, oldest first in the bag.
    void SetUp() override {
        DiskCacheTest::SetUp();
        for (uint32_t i = 0; i < 4; ++i) {
            items_.push_back(NewItem(i + 1, 1000));
            MCp_BagAccess::AddWithStamp(*bag_, items_.back(), 1000 * (i + 1));
            WriteNow(items_.back());
            MCp_StuffAccess::SetLastUseTime(*items_.back(), 1000 * (i + 1));
        }
        ASSERT_EQ(bag_->GetCurrentDiskCacheSize(), 4 * kUnit);
    }
    OnDisk Which() const {
        OnDisk v;
        for (const auto& item : items_) v.push_back(item->IsOnDisk());
        return v;
    }

    std::vector<IntrusivePtr<MC_Stuff>> items_;
    std::shared_ptr<MC_Stuff::DiskCacheCheckoutScoper> hold_;
};

// The walk goes in bag order, deletes idle files, skips checked-out and held ones, and ends at
// the first idle file used at or after the limit, even ahead of older ones.
TEST_F(DiskBudget, WalkTable) {
    struct Row {
        const char* what;
        int64_t need;
        uint64_t limit;
        bool room;
        OnDisk after;
        std::function<void()> arrange = {};
    };
    auto usedLast = [this] { MCp_StuffAccess::SetLastUseTime(*items_[0], 5000); };
    auto roomier = [this] { bag_->SetDiskCacheInfo(root_.AsDir(), 2); };
    auto hold = [this] {
        ASSERT_EQ(items_[0]->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
        hold_ = items_[1]->CheckoutDiskCache(true);
    };
    const Row rows[] = {
        {"oldest first", 2 * kUnit, kAnyTime, true, {false, false, true, true}},
        {"stops at the limit", 3 * kUnit, 3000, false, {false, false, true, true}},
        {"limit before every use", 3 * kUnit, 1000, false, {true, true, true, true}},
        {"first in the bag used last", kUnit, 3000, false, {true, true, true, true}, usedLast},
        {"checked out and held skipped", kUnit, kAnyTime, true, {true, true, false, true}, hold},
        {"enough room", kUnit, kAnyTime, true, {true, true, true, true}, roomier},
    };
    for (const Row& t : rows) {
        SCOPED_TRACE(t.what);
        if (t.arrange) t.arrange();
        EXPECT_EQ(bag_->EnsureDiskSpace(t.need, t.limit), t.room);
        EXPECT_EQ(Which(), t.after);
        const auto kept = static_cast<int64_t>(std::count(t.after.begin(), t.after.end(), true));
        EXPECT_EQ(static_cast<int64_t>(CacheFiles().size()), kept);
        EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), kept * kUnit);
        for (const auto& item : items_) EXPECT_TRUE(item->IsInMemory());  // memory untouched
        // Start the next row afresh.
        if (items_[0]->GetCheckoutCount()) items_[0]->Checkin(MC_CheckinFlag_DontUpdateLastUsed, 0);
        hold_.reset();
        items_.clear();
        TearDown();
        fs::remove_all(root_.Path());
        fs::create_directories(root_.Path());
        SetUp();
    }
}

TEST_F(DiskBudget, WritingIntoAFullBudgetEvictsOlderFilesOnlyAndAShrinkFreesTheRest) {
    IntrusivePtr<MC_Stuff> young = NewItem(9, 1000);
    MCp_BagAccess::AddWithStamp(*bag_, young, 2500);
    WriteNow(young);  // room for one file: the oldest idle file goes
    EXPECT_TRUE(young->IsOnDisk());
    EXPECT_EQ(Which(), (OnDisk{false, true, true, true}));
    IntrusivePtr<MC_Stuff> old = NewItem(10, 1000);
    MCp_BagAccess::AddWithStamp(*bag_, old, 500);
    WriteNow(old);  // older than everything on disk: nothing is evicted for it
    EXPECT_FALSE(old->IsOnDisk());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 4 * kUnit);

    bag_->SetDiskCacheInfo(root_.AsDir(), 2);
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(Which(), (OnDisk{false, true, true, true}));  // it still fits
    bag_->SetDiskCacheInfo(root_.AsDir(), 0);
    EXPECT_EQ(Which(), (OnDisk{false, false, false, false}));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    EXPECT_TRUE(CacheFiles().empty());
}

TEST_F(DiskBudget, DriveSpaceLimitsTheBudgetWhenTheVolumeIsShort) {
    MCp_DiskFolder::SetMinimumVolumeFreeSpaceBytes(10ull << 30);
    fs_->freeSpace.store((10ull << 30) + 1);  // the budget is full: no room needed
    EXPECT_FALSE(bag_->IsDiskCacheLimitedDueToDriveSpace());
    fs_->freeSpace.store((10ull << 30) - 1);  // less than the minimum
    EXPECT_TRUE(bag_->IsDiskCacheLimitedDueToDriveSpace());
    MCp_DiskFolder::SetMinimumVolumeFreeSpaceBytes(0);
}

// Every version's folder of this machine: its size; the purge empties the current folder (a
// disk-only item goes, one in memory stays), other versions' only on request, never another
// machine's.
TEST_F(DiskBudget, AcrossVersionsSizeAndPurge) {
    const fs::path product = root_.Path() / "Ostrel" / "Tessaline" / "0.9";
    const fs::path old = product / "Disk Cache - diskb-host.noindex" / "AB" / "x.zkcache";
    const fs::path foreign = product / "Disk Cache - elsewhere.noindex" / "z.zkcache";
    for (const auto& [path, size] : {std::pair{old, 1000}, std::pair{foreign, 5000}}) {
        fs::create_directories(path.parent_path());
        mctest::WriteWholeFile(path, std::vector<uint8_t>(size));
    }
    unsigned folders = 0, done = 0, total = 2;
    EXPECT_EQ(bag_->FindDiskCacheSizeAcrossVersions(folders), 4 * kFileUnit + 1000);
    EXPECT_EQ(folders, 2u);
    items_[0]->FreeUpAsMuchAsPossible(true, nullptr);
    std::vector<unsigned> progress;
    for (const bool others : {false, true}) {
        done = 0;
        bag_->PurgeAllDiskCaches([&](unsigned d, unsigned) { progress.push_back(d); }, others, done,
                                 total);
        EXPECT_EQ(fs::exists(old), !others);
    }
    EXPECT_EQ(progress, (std::vector<unsigned>{1, 1, 2}));
    EXPECT_TRUE(fs::exists(foreign) && AllFiles().empty());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    EXPECT_TRUE(items_[1]->IsInMemory() && !items_[1]->IsOnDisk());
    EXPECT_EQ(bag_->SnapshotItems().size(), 3u);
    WriteNow(items_[2]);  // the emptied folder still works
    EXPECT_TRUE(items_[2]->IsOnDisk());
}

}  // namespace
