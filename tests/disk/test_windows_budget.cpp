// The disk budget on Windows when another process keeps cache files open without
// FILE_SHARE_DELETE: each delete fails, yet the walk goes on and the accounting drops the files.
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <vector>

#include "DiskFixture.h"
#include "host/windows/Win32.h"
#include "support/ModuleAccess.h"

using namespace diskbtest;

namespace {

constexpr int64_t kUnit = static_cast<int64_t>(kFileUnit);

class WindowsDiskBudget : public DiskCacheTest {
protected:
    uint64_t BudgetMegabytes() const override { return 1; }  // four one-buffer files
};

TEST_F(WindowsDiskBudget, FilesHeldWithoutShareDeleteDoNotStopTheWalkOrTheAccounting) {
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t i = 0; i < 4; ++i) {
        items.push_back(NewItem(i + 1, 1000));
        MCp_BagAccess::AddWithStamp(*bag_, items.back(), 1000 * (i + 1));
        WriteNow(items.back());
        MCp_StuffAccess::SetLastUseTime(*items.back(), 1000 * (i + 1));
    }
    ASSERT_EQ(bag_->GetCurrentDiskCacheSize(), 4 * kUnit);
    std::vector<HANDLE> held;
    for (const std::filesystem::path& file : CacheFiles()) {
        held.push_back(::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                     OPEN_EXISTING, 0, nullptr));
        ASSERT_NE(held.back(), INVALID_HANDLE_VALUE);
    }

    EXPECT_TRUE(bag_->EnsureDiskSpace(2 * kUnit, std::numeric_limits<uint64_t>::max()));
    for (HANDLE handle : held) ::CloseHandle(handle);
    std::vector<bool> onDisk;
    for (const auto& item : items) onDisk.push_back(item->IsOnDisk());
    EXPECT_EQ(onDisk, (std::vector<bool>{false, false, true, true}));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 2 * kUnit);
    EXPECT_EQ(CacheFiles().size(), 4u);  // the two it could not delete stay until a rescan
}

}  // namespace
