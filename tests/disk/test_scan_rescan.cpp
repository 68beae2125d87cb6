// The one-time rescan: the first SetDiskCacheInfo of the process brings the files already in the
// folder into the bag in the background; later calls do not scan again.
#include <gtest/gtest.h>

#include <filesystem>

#include "disk/DiskLayout.h"
#include "disk/DiskScan.h"
#include "mc/host/TextConvert.h"
#include "test_format_util.h"
#include "test_layout_fixture.h"

namespace {

namespace fs = std::filesystem;

class RescanTest : public disktest::DiskModuleTest {
protected:
    // The folder SetDiskCacheInfo will resolve, created ahead with `count` cache files.
    velacore::Dir PrepareFolder(uint32_t firstKey, uint32_t count) {
        const velacore::Dir folder =
            MCp_DiskCacheFolderFor(velacore::ToUtf16(root_.Path().string()), u"26.1");
        velacore::EnsureDirectoryExists(folder);
        for (uint32_t key = firstKey; key < firstKey + count; ++key)
            disktest::WriteTestCacheFile(folder, key, 0, kAppVersion);
        return folder;
    }
};

TEST_F(RescanTest, FirstSetDiskCacheInfoScansOnceInTheBackground) {
    MCp_SetInitialDiskRescanPostedForTesting(false);
    const velacore::Dir folder = PrepareFolder(1, 12);

    bag_->SetDiskCacheInfo(root_.AsDir(), 100);
    EXPECT_EQ(bag_->GetDiskCacheDirSpec(), folder);
    ASSERT_TRUE(DrainAsyncExecutor());
    EXPECT_EQ(bag_->GetNumItems(), 12);

    PrepareFolder(100, 3);
    bag_->SetDiskCacheInfo(root_.AsDir(), 200);  // no second rescan
    ASSERT_TRUE(DrainAsyncExecutor());
    EXPECT_EQ(bag_->GetNumItems(), 12);
}

TEST_F(RescanTest, StoppedModulePostsNothingAndDoesNotFail) {
    MCp_SetInitialDiskRescanPostedForTesting(false);
    PrepareFolder(1, 3);
    MC_StopAllAsyncWork();
    EXPECT_NO_THROW(bag_->SetDiskCacheInfo(root_.AsDir(), 100));
    EXPECT_EQ(bag_->GetNumItems(), 0);
    EXPECT_FALSE(DrainAsyncExecutor());
}

}  // namespace
