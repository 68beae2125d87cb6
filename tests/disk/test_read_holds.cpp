// Disk holds and the item's file record: a held or checked-out item keeps its file; the
// conditional delete respects the last-use limit; attaching, forgetting and deleting a file keep
// the bag's disk total right.
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>

#include "mc/host/Signal.h"
#include "support/ModuleAccess.h"
#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

constexpr uint64_t kAnyTime = std::numeric_limits<uint64_t>::max();

class DiskHolds : public DiskCacheTest {
  protected:
    IntrusivePtr<MC_Stuff> Written(uint32_t key) {
        IntrusivePtr<MC_Stuff> item = NewItemInBag(key, 1000);
        WriteNow(item);
        EXPECT_TRUE(item->IsOnDisk());
        return item;
    }
};

TEST_F(DiskHolds, NoHoldIsTakenOnAnItemWithoutAFileWhenAskedSo) {
    IntrusivePtr<MC_Stuff> item = NewItemInBag(1, 1000);
    const uint32_t globalBefore = MC_Stuff::GetNumDiskCacheCheckouts();
    EXPECT_EQ(item->CheckoutDiskCache(true), nullptr);
    EXPECT_EQ(item->GetDiskCacheCheckoutCount(), 0u);
    EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), globalBefore);
    {
        auto hold = item->CheckoutDiskCache(false);  // always given when not restricted
        ASSERT_NE(hold, nullptr);
        EXPECT_EQ(item->GetDiskCacheCheckoutCount(), 1u);
        EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), globalBefore + 1);
    }
    EXPECT_EQ(item->GetDiskCacheCheckoutCount(), 0u);
    EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), globalBefore);
}

TEST_F(DiskHolds, AHeldFileSurvivesEveryDeletionByThePurges) {
    IntrusivePtr<MC_Stuff> item = Written(2);
    const std::filesystem::path path = item->GetDiskCacheFile().GetFullPath();
    auto hold = item->CheckoutDiskCache(true);
    ASSERT_NE(hold, nullptr);
    bool deleted = true, tooRecent = true;
    item->MaybeDeleteDiskCacheFile(kAnyTime, deleted, tooRecent);
    EXPECT_FALSE(deleted);
    EXPECT_FALSE(tooRecent);
    EXPECT_FALSE(bag_->EnsureDiskSpace(bag_->GetCurrentMaxDiskCacheSize(), kAnyTime));
    EXPECT_TRUE(item->IsOnDisk());
    EXPECT_TRUE(std::filesystem::exists(path));

    hold.reset();
    item->MaybeDeleteDiskCacheFile(kAnyTime, deleted, tooRecent);
    EXPECT_TRUE(deleted);
    EXPECT_FALSE(item->IsOnDisk());
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
}

TEST_F(DiskHolds, ACheckedOutItemKeepsItsFile) {
    IntrusivePtr<MC_Stuff> item = Written(3);
    ASSERT_EQ(item->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    bool deleted = true, tooRecent = true;
    item->MaybeDeleteDiskCacheFile(kAnyTime, deleted, tooRecent);
    EXPECT_FALSE(deleted);
    EXPECT_TRUE(item->IsOnDisk());
    item->Checkin(0, 0.0);
}

TEST_F(DiskHolds, LastUseAtTheLimitIsTooRecent) {
    IntrusivePtr<MC_Stuff> item = Written(4);
    MCp_StuffAccess::SetLastUseTime(*item, 5000);
    bool deleted = true, tooRecent = false;
    item->MaybeDeleteDiskCacheFile(5000, deleted, tooRecent);
    EXPECT_FALSE(deleted);
    EXPECT_TRUE(tooRecent);
    EXPECT_TRUE(item->IsOnDisk());
    item->MaybeDeleteDiskCacheFile(5001, deleted, tooRecent);
    EXPECT_TRUE(deleted);
    EXPECT_FALSE(tooRecent);
}

TEST_F(DiskHolds, DeletionSignalsAndUnaccounts) {
    IntrusivePtr<MC_Stuff> item = Written(5);
    const uint32_t onDiskBefore = MC_Stuff::GetNumStuffsOnDisk();
    std::vector<std::pair<bool, bool>> signals;
    velacore::SignalConnection connection = item->GetMemDiskChangedSignal().connect(
        [&](bool inMemory, bool onDisk) { signals.emplace_back(inMemory, onDisk); });
    bool deleted = false, tooRecent = false;
    item->MaybeDeleteDiskCacheFile(kAnyTime, deleted, tooRecent);
    ASSERT_TRUE(deleted);
    EXPECT_EQ(signals, (std::vector<std::pair<bool, bool>>{{true, false}}));
    EXPECT_EQ(MC_Stuff::GetNumStuffsOnDisk(), onDiskBefore - 1);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
}

TEST_F(DiskHolds, AttachOnlyIfNoneKeepsTheFirstFile) {
    IntrusivePtr<MC_Stuff> item = Written(6);
    const velacore::File first = item->GetDiskCacheFile();
    const velacore::File other(root_ / "other.zkcache");
    EXPECT_FALSE(item->SetDiskCacheFile(other, true));
    EXPECT_EQ(item->GetDiskCacheFile(), first);
    EXPECT_TRUE(item->SetDiskCacheFile(other, false));
    EXPECT_EQ(item->GetDiskCacheFile(), other);
}

TEST_F(DiskHolds, ForgettingAFileKeepsItOnDiskButOutOfTheBudget) {
    IntrusivePtr<MC_Stuff> item = Written(7);
    const std::filesystem::path path = item->GetDiskCacheFile().GetFullPath();
    item->ClearDiskCacheFile();
    EXPECT_FALSE(item->IsOnDisk());
    EXPECT_TRUE(item->GetDiskCacheFile().IsEmpty());
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
}

TEST_F(DiskHolds, ConvertingToWriteableDeletesTheFile) {
    IntrusivePtr<MC_Stuff> item = Written(8);
    const std::filesystem::path path = item->GetDiskCacheFile().GetFullPath();
    ASSERT_EQ(item->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    item->ConvertToWriteable();
    EXPECT_FALSE(item->IsOnDisk());
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    item->Checkin(0, 0.0);
}

}  // namespace
