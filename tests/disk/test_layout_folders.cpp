// The disk-cache folder layout: product, version and machine folders, beta builds, unnamed and
// oddly named machines, and the failures that leave every setting as it was.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "disk/DiskLayout.h"
#include "disk/DiskSettings.h"
#include "lifecycle/Messages.h"
#include "mc/host/File.h"
#include "mc/host/TextConvert.h"
#include "support/FaultInjectingFileSystem.h"
#include "test_layout_fixture.h"

namespace {

using disktest::DiskModuleTest;
using velacore::Dir;
namespace fs = std::filesystem;

const std::u16string kNonexistentAlert =
    u"Disk Cache folder doesn't exist (or isn't a directory), so it will be reset to the system "
    u"temporary directory. Please check your settings in Media and Disk Cache Preferences.";
const std::u16string kCantWriteAlert =
    u"Unable to write to Disk Cache folder, so disk caching will be disabled. Please check your "
    u"settings in Media and Disk Cache Preferences.";

class LayoutTest : public DiskModuleTest {
protected:
    fs::path ExpectedFolder(const fs::path& root, const char* product = "Tessaline") const {
        return root / "Ostrel" / product / "26.1" / "Disk Cache - bench-host.noindex";
    }
    // Calls SetDiskCacheInfo and returns the int it threw (0 when it did not throw).
    int SetInfo(const Dir& root, uint64_t megabytes) {
        try {
            bag_->SetDiskCacheInfo(root, megabytes);
            return 0;
        } catch (int code) {
            return code;
        }
    }
    // Alerts recorded since the last call, as (category, text).
    std::vector<std::pair<int, std::u16string>> TakeAlerts() {
        std::vector<std::pair<int, std::u16string>> alerts;
        for (const auto& e : host().ErrStrings()) {
            EXPECT_EQ(e.base, 0x3A0000u);
            alerts.emplace_back(e.severity, e.text);
        }
        host().ClearRecords();
        return alerts;
    }
};

TEST_F(LayoutTest, PiecesUseTheNativeSeparator) {
    EXPECT_EQ(MC_OstrelZKDirs(), u"/Ostrel/Tessaline");
    EXPECT_EQ(MC_ZKVersDir(u"26.1"), u"/26.1");
    EXPECT_EQ(MC_GetMachineDirName(), u"Disk Cache - bench-host.noindex");
}

TEST_F(LayoutTest, BetaBuildUsesItsOwnProductFolder) {
    host().SetBetaPrime(true);
    EXPECT_EQ(MC_OstrelZKDirs(), u"/Ostrel/Tessaline (Beta)");
    bag_->SetDiskCacheInfo(root_.AsDir(), 10);
    EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(),
              ExpectedFolder(root_.Path(), "Tessaline (Beta)"));

    host().SetBetaPrime(false);  // a release build never shares the beta's folder
    bag_->SetDiskCacheInfo(root_.AsDir(), 10);
    EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(), ExpectedFolder(root_.Path()));
    EXPECT_TRUE(fs::is_directory(ExpectedFolder(root_.Path(), "Tessaline (Beta)")));
}

TEST_F(LayoutTest, UnnamedMachineIsThisComputer) {
    host().SetComputerName("");
    EXPECT_EQ(MC_GetMachineDirName(), u"Disk Cache - This Computer.noindex");
}

TEST_F(LayoutTest, IllegalCharactersInTheMachineNameBecomeDashes) {
    host().SetComputerName("a/b\\c:d*e?f\"g<h>i|j\tk");
    EXPECT_EQ(MC_GetMachineDirName(), u"Disk Cache - a-b-c-d-e-f-g-h-i-j-k.noindex");
    host().SetComputerName("caf\xC3\xA9");  // UTF-8 survives
    EXPECT_EQ(MC_GetMachineDirName(), u"Disk Cache - caf\u00E9.noindex");
}

TEST_F(LayoutTest, ComputerNameFailureIsThrownAndChangesNothing) {
    host().computerNameError.store(-43);
    EXPECT_THROW(
        try { MC_GetMachineDirName(); } catch (int code) {
            EXPECT_EQ(code, -43);
            throw;
        },
        int);
    EXPECT_EQ(SetInfo(root_.AsDir(), 5), -43);
    EXPECT_TRUE(bag_->GetDiskCacheDirSpec().IsEmpty());
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 0u);
}

TEST_F(LayoutTest, SetDiskCacheInfoCreatesTheFolderAndStoresRootAndBudget) {
    EXPECT_TRUE(bag_->GetDiskCacheDirSpec().IsEmpty());  // nothing before the first call
    ASSERT_EQ(SetInfo(root_.AsDir(), 300), 0);
    EXPECT_TRUE(fs::is_directory(ExpectedFolder(root_.Path())));
    EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(), ExpectedFolder(root_.Path()));
    EXPECT_EQ(bag_->GetDiskCacheRootPath(), velacore::ToUtf16(root_.Path().string()));
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 300u * 1048576u);
    EXPECT_TRUE(host().nameAskedUnderCacheLock.load());  // the whole call holds the cache lock
    EXPECT_TRUE(TakeAlerts().empty());
}

TEST_F(LayoutTest, RootWithTrailingSeparatorGivesTheSameFolder) {
    bag_->SetDiskCacheInfo(Dir(fs::path(root_.Path().string() + "/")), 1);
    EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(), ExpectedFolder(root_.Path()));
}

TEST_F(LayoutTest, SameRootTwiceKeepsTheFolderAndAnExistingMachineFolderIsReused) {
    bag_->SetDiskCacheInfo(root_.AsDir(), 10);
    const fs::path marker = ExpectedFolder(root_.Path()) / "keep.me";
    mctest::WriteWholeFile(marker, "x");
    bag_->SetDiskCacheInfo(root_.AsDir(), 20);
    EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(), ExpectedFolder(root_.Path()));
    EXPECT_TRUE(fs::exists(marker));
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 20u * 1048576u);
}

TEST_F(LayoutTest, NewRootMovesTheFolder) {
    mctest::TempDir other("mc-diskA-other");
    bag_->SetDiskCacheInfo(root_.AsDir(), 10);
    bag_->SetDiskCacheInfo(other.AsDir(), 10);
    EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(), ExpectedFolder(other.Path()));
    EXPECT_EQ(bag_->GetDiskCacheRootPath(), velacore::ToUtf16(other.Path().string()));
}

TEST_F(LayoutTest, MissingRootFailsWith14855AlertsAndChangesNothing) {
    bag_->SetDiskCacheInfo(root_.AsDir(), 10);
    TakeAlerts();
    host().SetPreference("Additional Disk Cache Controls", "Proclivity Multiplier 2", "4.0");

    EXPECT_EQ(SetInfo(root_.AsDir().GetSubdir(u"missing"), 1), 14855);
    EXPECT_EQ(TakeAlerts(), (std::vector<std::pair<int, std::u16string>>{{8, kNonexistentAlert}}));
    EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(), ExpectedFolder(root_.Path()));
    EXPECT_EQ(bag_->GetDiskCacheRootPath(), velacore::ToUtf16(root_.Path().string()));
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 10u * 1048576u);
    EXPECT_EQ(mc_disk_settings::ProclivityMultiplier(), 1.0);  // preferences not re-read
    EXPECT_FALSE(fs::exists(root_.Path() / "missing"));
}

TEST_F(LayoutTest, RootThatIsAFileCountsAsMissing) {
    mctest::WriteWholeFile(root_ / "file", "x");
    EXPECT_EQ(SetInfo(root_.AsDir().GetSubdir(u"file"), 1), 14855);
    EXPECT_EQ(TakeAlerts(), (std::vector<std::pair<int, std::u16string>>{{8, kNonexistentAlert}}));
    EXPECT_TRUE(bag_->GetDiskCacheDirSpec().IsEmpty());
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 0u);
}

TEST_F(LayoutTest, NoAlertOffTheMainThreadButTheSameError) {
    int code = 0;
    std::thread worker([&] { code = SetInfo(root_.AsDir().GetSubdir(u"missing"), 1); });
    worker.join();
    EXPECT_EQ(code, 14855);
    EXPECT_TRUE(TakeAlerts().empty());
}

TEST_F(LayoutTest, UnwritableVersionFolderFailsWithTheCantWriteAlert) {
    auto faults = std::make_shared<mctest::FaultInjectingFileSystem>();
    mctest::ScopedFileSystem scoped(faults);
    faults->FailFrom(mctest::FsOp::kCreateDirectory, 1, mctest::Fault::kIoError);
    EXPECT_EQ(SetInfo(root_.AsDir(), 1), 14855);
    EXPECT_EQ(TakeAlerts(), (std::vector<std::pair<int, std::u16string>>{{8, kCantWriteAlert}}));
    EXPECT_TRUE(bag_->GetDiskCacheDirSpec().IsEmpty());
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 0u);
}

TEST_F(LayoutTest, UnwritableMachineFolderFailsWithTheCantWriteAlert) {
    fs::create_directories(ExpectedFolder(root_.Path()).parent_path());
    auto faults = std::make_shared<mctest::FaultInjectingFileSystem>();
    mctest::ScopedFileSystem scoped(faults);
    // Only the machine folder is missing; its creation is the call that fails.
    faults->FailFrom(mctest::FsOp::kCreateDirectory, 1, mctest::Fault::kNoSpace);
    EXPECT_EQ(SetInfo(root_.AsDir(), 1), 14855);
    EXPECT_EQ(TakeAlerts(), (std::vector<std::pair<int, std::u16string>>{{8, kCantWriteAlert}}));
    EXPECT_FALSE(fs::exists(ExpectedFolder(root_.Path())));
    EXPECT_TRUE(bag_->GetDiskCacheDirSpec().IsEmpty());
}

TEST_F(LayoutTest, MachineFolderNameTakenByAFileFailsWithTheCantWriteAlert) {
    fs::create_directories(ExpectedFolder(root_.Path()).parent_path());
    mctest::WriteWholeFile(ExpectedFolder(root_.Path()), "x");
    host().SetEveryThreadMain(false);
    EXPECT_EQ(SetInfo(root_.AsDir(), 1), 14855);
    EXPECT_TRUE(TakeAlerts().empty());
}

}  // namespace
