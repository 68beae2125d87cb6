// The disk-cache folder: layout and its alerts, the settings and preferences, the scan and the
// one-time rescan.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "disk/CacheFile.h"
#include "disk/DiskFolder.h"
#include "lifecycle/Messages.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/TextConvert.h"
#include "support/FaultInjectingFileSystem.h"
#include "test_format_util.h"
#include "test_layout_fixture.h"

namespace {

using disktest::DiskModuleTest;
using velacore::Dir;
namespace fs = std::filesystem;

// A layout piece written with '/' as this platform spells it.
std::u16string Native(std::u16string piece) {
    std::replace(piece.begin(), piece.end(), u'/',
                 static_cast<char16_t>(fs::path::preferred_separator));
    return piece;
}

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
    EXPECT_EQ(MC_OstrelZKDirs(), Native(u"/Ostrel/Tessaline"));
    EXPECT_EQ(MC_ZKVersDir(u"26.1"), Native(u"/26.1"));
    EXPECT_EQ(MC_GetMachineDirName(), u"Disk Cache - bench-host.noindex");
}

TEST_F(LayoutTest, BetaBuildUsesItsOwnProductFolder) {
    host().SetBetaPrime(true);
    EXPECT_EQ(MC_OstrelZKDirs(), Native(u"/Ostrel/Tessaline (Beta)"));
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

TEST_F(LayoutTest, MissingRootFailsWithDiskFolderErrorAlertsAndChangesNothing) {
    bag_->SetDiskCacheInfo(root_.AsDir(), 10);
    TakeAlerts();
    host().SetPreference("Additional Disk Cache Controls", "Proclivity Multiplier 2", "4.0");

    EXPECT_EQ(SetInfo(root_.AsDir().GetSubdir(u"missing"), 1), MCp_Err_DiskFolder);
    EXPECT_EQ(TakeAlerts(), (std::vector<std::pair<int, std::u16string>>{{8, kNonexistentAlert}}));
    EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(), ExpectedFolder(root_.Path()));
    EXPECT_EQ(bag_->GetDiskCacheRootPath(), velacore::ToUtf16(root_.Path().string()));
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 10u * 1048576u);
    EXPECT_EQ(MCp_DiskFolder::ProclivityMultiplier(), 1.0);  // preferences not re-read
    EXPECT_FALSE(fs::exists(root_.Path() / "missing"));
}

// Every way the folder can be unusable: the error, the alert (none off the main thread), and
// nothing stored.
TEST_F(LayoutTest, UnusableFolderTable) {
    enum Alert { kNone, kNonexistent, kCantWrite };
    struct Case {
        const char* what;
        std::function<void(mctest::FaultInjectingFileSystem&)> arrange;
        bool mainThread;
        Alert alert;
        const char16_t* root;  // under root_, empty for root_ itself
    };
    const fs::path machine = ExpectedFolder(root_.Path());
    const Case cases[] = {
        {"root is a file", [&](auto&) { mctest::WriteWholeFile(root_ / "file", "x"); }, true,
         kNonexistent, u"file"},
        {"missing root off the main thread", [](auto&) {}, false, kNone, u"missing"},
        {"version folder cannot be made",
         [](auto& f) { f.FailFrom(mctest::FsOp::kCreateDirectory, 1, mctest::Fault::kIoError); },
         true, kCantWrite, u""},
        {"machine folder cannot be made",
         [&](auto& f) {
             fs::create_directories(machine.parent_path());
             f.FailFrom(mctest::FsOp::kCreateDirectory, 1, mctest::Fault::kNoSpace);
         },
         true, kCantWrite, u""},
        {"machine folder name taken by a file",
         [&](auto&) {
             fs::create_directories(machine.parent_path());
             mctest::WriteWholeFile(machine, "x");
         },
         true, kCantWrite, u""},
    };
    for (const Case& t : cases) {
        SCOPED_TRACE(t.what);
        fs::remove_all(root_.Path() / "Ostrel");
        auto faults = std::make_shared<mctest::FaultInjectingFileSystem>();
        mctest::ScopedFileSystem scoped(faults);
        t.arrange(*faults);
        const Dir root = *t.root ? root_.AsDir().GetSubdir(t.root) : root_.AsDir();
        host().SetEveryThreadMain(t.mainThread);
        EXPECT_EQ(SetInfo(root, 1), MCp_Err_DiskFolder);
        host().SetEveryThreadMain(std::nullopt);
        const auto alerts = TakeAlerts();
        if (t.alert == kNone) {
            EXPECT_TRUE(alerts.empty());
        } else {
            EXPECT_EQ(alerts,
                      (std::vector<std::pair<int, std::u16string>>{
                          {8, t.alert == kNonexistent ? kNonexistentAlert : kCantWriteAlert}}));
        }
        EXPECT_TRUE(bag_->GetDiskCacheDirSpec().IsEmpty());
        EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 0u);
        EXPECT_FALSE(fs::is_directory(machine));
    }
}

using disktest::DiskModuleTest;
constexpr const char* kSection = "Additional Disk Cache Controls";

class DiskSettingsTest : public DiskModuleTest {};

TEST_F(DiskSettingsTest, PreferenceValuesAreStoredAsRead) {
    host().SetPreference(kSection, "Minimum Volume Free Space (Gigabytes)", "3");
    host().SetPreference(kSection, "Proclivity Multiplier 2", "2.5");
    host().SetPreference(kSection, "Dont Include Speeds Above This In Average (bytes/sec) 3",
                         "1000.5");
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(MCp_DiskFolder::MinimumVolumeFreeSpaceBytes(), 3ull << 30);
    EXPECT_EQ(MCp_DiskFolder::ProclivityMultiplier(), 2.5);
    EXPECT_EQ(MCp_DiskFolder::SpeedCapBytesPerSecond(), 1000.5);

    // Read again on every call.
    host().SetPreference(kSection, "Minimum Volume Free Space (Gigabytes)", "0");
    host().SetPreference(kSection, "Proclivity Multiplier 2", "bogus");
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(MCp_DiskFolder::MinimumVolumeFreeSpaceBytes(), 0u);
    EXPECT_EQ(MCp_DiskFolder::ProclivityMultiplier(), 1.0);
}

TEST_F(DiskSettingsTest, NegativeOrHugeFreeSpaceIsClamped) {
    host().SetPreference(kSection, "Minimum Volume Free Space (Gigabytes)", "-5");
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(MCp_DiskFolder::MinimumVolumeFreeSpaceBytes(), 0u);
    host().SetPreference(kSection, "Minimum Volume Free Space (Gigabytes)", "9000000000000");
    bag_->SetDiskCacheInfo(root_.AsDir(), 1);
    EXPECT_EQ(MCp_DiskFolder::MinimumVolumeFreeSpaceBytes(), UINT64_MAX);
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

using disktest::WriteRawFile;
using disktest::WriteTestCacheFile;
using velacore::Dir;
using velacore::File;
namespace fs = std::filesystem;

// Deletes chosen files just before their size or creation time is asked for, as if another
// process removed them between the listing and the adoption.
class VanishingFileSystem : public velacore::FileSystemWrapper {
public:
    VanishingFileSystem() : FileSystemWrapper(velacore::GetDefaultFileSystem()) {}
    void Vanish(const File& file) {
        std::lock_guard<std::mutex> lock(mutex_);
        doomed_.insert(file.GetFullPath());
    }
    uint64_t FileSize(const fs::path& path) override {
        MaybeVanish(path);
        return FileSystemWrapper::FileSize(path);
    }
    int64_t CreationTime(const fs::path& path) override {
        MaybeVanish(path);
        return FileSystemWrapper::CreationTime(path);
    }

private:
    void MaybeVanish(const fs::path& path) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (doomed_.erase(path) != 0) fs::remove(path);
    }
    std::mutex mutex_;
    std::set<fs::path> doomed_;
};

class ScanTest : public disktest::DiskModuleTest {
protected:
    void SetUp() override {
        DiskModuleTest::SetUp();
        bag_->SetDiskCacheInfo(root_.AsDir(), 1000);
        cache_ = bag_->GetDiskCacheDirSpec();
        ASSERT_FALSE(cache_.IsEmpty());
    }

    // GUID text -> disk file of every item in the bag.
    std::map<std::u16string, fs::path> ItemFiles() const {
        std::map<std::u16string, fs::path> files;
        for (const auto& item : bag_->SnapshotItems()) {
            EXPECT_TRUE(
                files.emplace(item->GetGuid().AsWString(), item->GetDiskCacheFile().GetFullPath())
                    .second)
                << "two items share a GUID";
        }
        return files;
    }

    File Valid(uint32_t key, uint32_t payload = 16, size_t padTo = 0) {
        File f = WriteTestCacheFile(cache_, key, key % 3, kAppVersion, payload, padTo);
        expected_[mctest::KeyGuid(key).AsWString()] = f.GetFullPath();
        expectedBytes_ += static_cast<int64_t>(fs::file_size(f.GetFullPath()));
        return f;
    }

    Dir cache_;
    std::map<std::u16string, fs::path> expected_;
    int64_t expectedBytes_ = 0;
};

TEST_F(ScanTest, MixedFolderScannedTwiceAdoptsEachValidFileOnce) {
    for (uint32_t key = 1; key <= 6; ++key) Valid(key, 10 * key, key % 2 ? 4096 : 0);

    const std::u16string guid = mctest::KeyGuid(50).AsWString();
    const std::vector<File> foreign = {
        WriteRawFile(cache_, u"readme.txt"),
        WriteRawFile(cache_.GetSubdir(u"AB"), u"x.TestPayload.1A.AAAAAAAAAAA=.zkcache.tmp"),
        WriteRawFile(cache_.GetSubdir(u"AB"), u"notes"),
        WriteRawFile(cache_.GetSubdir(u"dir.zkcache"), u"inner.txt"),
        WriteRawFile(cache_, guid + u".TestPayload.1A.AAAAAAAAAAA=.ZKCACHE"),
    };
    const std::vector<File> doomed = {
        WriteTestCacheFile(cache_, 20, 0, kAppVersion + 1),  // another version
        WriteRawFile(cache_, u"garbage.zkcache"),
        WriteRawFile(cache_, guid + u".TestPayload.1A.zkcache"),             // three stops
        WriteRawFile(cache_, u"nope.TestPayload.1A.AAAAAAAAAAA=.zkcache"),   // bad GUID
        WriteRawFile(cache_, guid + u".TestPayload.1A.%%%%.zkcache"),        // bad header
        WriteRawFile(cache_, guid + u".TestPayload..AAAAAAAAAAA=.zkcache"),  // empty version
    };
    expectedBytes_ += 3;  // the young writer's temporary counts against the budget
    const std::u16string unknownName = MCp_CacheFile::BuildName(
        mctest::KeyGuid(30), "NoSuchClass", kAppVersion, disktest::PayloadHeader(30, 0));
    MCp_CacheFile::EnsureSubfolder(cache_, unknownName);
    const File unknown =
        WriteRawFile(MCp_CacheFile::FileFor(cache_, unknownName).GetParent(), unknownName);

    auto vanishing = std::make_shared<VanishingFileSystem>();
    mctest::ScopedFileSystem scoped(vanishing);
    vanishing->Vanish(WriteTestCacheFile(cache_, 40, 0, kAppVersion));

    bag_->ScanDiskCacheDir();

    EXPECT_EQ(ItemFiles(), expected_);
    EXPECT_EQ(bag_->GetNumItems(), 6);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
    for (const auto& [g, path] : expected_) EXPECT_TRUE(fs::exists(path)) << path;
    for (const File& f : foreign) EXPECT_TRUE(fs::exists(f.GetFullPath())) << f.GetFullPathUtf8();
    for (const File& f : doomed) EXPECT_FALSE(fs::exists(f.GetFullPath())) << f.GetFullPathUtf8();
    EXPECT_TRUE(fs::exists(unknown.GetFullPath()));

    // Again: nothing new, nothing counted twice, nothing else deleted.
    bag_->ScanDiskCacheDir();
    EXPECT_EQ(ItemFiles(), expected_);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
    for (const File& f : foreign) EXPECT_TRUE(fs::exists(f.GetFullPath()));
    EXPECT_TRUE(fs::exists(unknown.GetFullPath()));

    // A file that appeared since is picked up by the next pass.
    Valid(7, 33);
    bag_->ScanDiskCacheDir();
    EXPECT_EQ(ItemFiles(), expected_);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
}

// Another writer's young temporary counts against the budget until that writer commits it;
// from then on only the committed file counts, at once and not only after a budget pass.
TEST_F(ScanTest, ATemporaryCountsOnlyUntilItBecomesItsFile) {
    const fs::path file = Valid(1, 4000).GetFullPath();
    const fs::path temp = fs::path(file) += ".tmp";
    fs::rename(file, temp);
    bag_->ScanDiskCacheDir();
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
    EXPECT_EQ(bag_->GetNumItems(), 0);

    fs::rename(temp, file);
    fs::last_write_time(file, fs::file_time_type::clock::now());
    bag_->ScanDiskCacheDir();
    EXPECT_EQ(ItemFiles(), expected_);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
}

TEST_F(ScanTest, AdoptedItemsAreOnDiskOnly) {
    Valid(3, 64);
    bag_->ScanDiskCacheDir();
    const auto items = bag_->SnapshotItems();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_TRUE(items[0]->IsOnDisk());
    EXPECT_FALSE(items[0]->IsInMemory());
    EXPECT_EQ(items[0]->GetCheckoutCount(), 0u);
    EXPECT_EQ(items[0]->GetComputeTime(), 0.0);  // the real one comes with the payload
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
}

TEST_F(ScanTest, EqualItemAlreadyInTheBagGetsTheFileInstead) {
    IntrusivePtr<MC_Stuff> resident = mctest::MakeItem(7, 100, 7 % 3);
    resident->AddToBagAndSortDir(bag_);
    const uint64_t usedAt = resident->GetLastUseTime();
    const File file = Valid(7);

    bag_->ScanDiskCacheDir();

    EXPECT_EQ(bag_->GetNumItems(), 1);
    EXPECT_EQ(resident->GetDiskCacheFile(), file);
    EXPECT_EQ(resident->GetCheckoutCount(), 0u);    // the scan's check-out was returned
    EXPECT_EQ(resident->GetLastUseTime(), usedAt);  // looking is not using
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
}

// Variants of one key: a file goes only to the item identical to its own, never to one that
// merely satisfies it, and every variant's file becomes an item of its own, counted once.
TEST_F(ScanTest, EachVariantsFileIsAdoptedByItsOwnItemOnly) {
    const File v1 = WriteTestCacheFile(cache_, 7, 1, kAppVersion, 16);
    const File v2 = WriteTestCacheFile(cache_, 7, 2, kAppVersion, 40, 8192);
    const int64_t both = static_cast<int64_t>(fs::file_size(v1.GetFullPath()) + 8192);
    auto fileOfVariant = [&](uint32_t variant) {
        for (const auto& item : bag_->SnapshotItems())
            if (dynamic_cast<mctest::TestPayload&>(*item->GetDataPtr()).Variant() == variant)
                return item->GetDiskCacheFile();
        return File();
    };
    for (const auto& order : {std::vector<File>{v2, v1}, std::vector<File>{v1, v2}}) {
        for (const File& f : order) MC_ScanOneDiskCacheFile(f);
        EXPECT_EQ(bag_->GetNumItems(), 2);
        EXPECT_EQ(fileOfVariant(1), v1);
        EXPECT_EQ(fileOfVariant(2), v2);
        EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), both);
        bag_->ClearBagAndSortDir();
    }

    // A resident variant 2 does not take variant 1's file, so after a purge a request for
    // variant 2 is never served variant 1's bytes.
    IntrusivePtr<MC_Stuff> resident = mctest::MakeItem(7, 100, 2);
    resident->AddToBagAndSortDir(bag_);
    MC_ScanOneDiskCacheFile(v1);
    EXPECT_FALSE(resident->IsOnDisk());
    EXPECT_EQ(fileOfVariant(1), v1);
    bag_->PurgeAllMemoryCaches();
    for (uint32_t variant : {1u, 2u}) {
        MC_ScCheckout receipt;
        if (receipt.FindAndCheckout(mctest::MakeRequest(7, variant), MC_CheckoutFlag_ReadOnly) ==
            MC_CheckoutResult_Failed)
            continue;
        auto* payload =
            dynamic_cast<mctest::TestPayload*>(receipt.GetStuffPtr()->GetDataPtr().get());
        ASSERT_NE(payload->Bytes(), nullptr);
        EXPECT_EQ(payload->Bytes()->size(), payload->Variant() == 1 ? 16u : 100u) << variant;
    }
}

TEST_F(ScanTest, FilesHandedOverOneByOne) {
    const File readme = WriteRawFile(cache_, u"readme.txt");
    const File notOurs = WriteRawFile(cache_, u"a.b.txt");
    const File broken = WriteRawFile(cache_, u"a.b.zkcache");
    const File valid = Valid(9);

    MC_ScanOneDiskCacheFile(readme);
    MC_ScanOneDiskCacheFile(notOurs);
    MC_ScanOneDiskCacheFile(broken);
    MC_ScanOneDiskCacheFile(cache_.GetFile(u"missing.x.1A..zkcache"));  // nothing there
    MC_ScanOneDiskCacheFile(valid);
    MC_ScanOneDiskCacheFile(valid);  // twice: still one item, counted once

    EXPECT_TRUE(fs::exists(readme.GetFullPath()));
    EXPECT_TRUE(fs::exists(notOurs.GetFullPath()));
    EXPECT_FALSE(fs::exists(broken.GetFullPath()));
    EXPECT_EQ(ItemFiles(), expected_);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
}

TEST_F(ScanTest, AdoptionRunsWithErrorsQuietenedAndUnknownClassesKeepTheirFiles) {
    // A data class that answers nothing: the file stays, and the factory ran quietly.
    std::atomic<int> calls{0}, quietCalls{0};
    MC_StuffData::Factory probe = [&](const std::vector<uint8_t>&) {
        ++calls;
        if (host().AreErrorsQuietOnCurrentThread()) ++quietCalls;
        return IntrusivePtr<MC_StuffData>();
    };
    MC_StuffData::RegisterFactory("QuietProbe", probe);
    const std::u16string name =
        MCp_CacheFile::BuildName(mctest::KeyGuid(1), "QuietProbe", kAppVersion, {1, 2, 3});
    MCp_CacheFile::EnsureSubfolder(cache_, name);
    const File file = WriteRawFile(MCp_CacheFile::FileFor(cache_, name).GetParent(), name);

    bag_->ScanDiskCacheDir();
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(quietCalls.load(), 1);
    EXPECT_FALSE(host().AreErrorsQuietOnCurrentThread());  // switched off again
    EXPECT_TRUE(fs::exists(file.GetFullPath()));
    EXPECT_EQ(bag_->GetNumItems(), 0);
}

TEST_F(ScanTest, StopRequestEndsThePassBeforeAnyFile) {
    for (uint32_t key = 1; key <= 5; ++key) Valid(key);
    const File broken = WriteRawFile(cache_, u"garbage.zkcache");
    MC_StopAllAsyncWork();
    bag_->ScanDiskCacheDir();
    EXPECT_EQ(bag_->GetNumItems(), 0);
    EXPECT_TRUE(fs::exists(broken.GetFullPath()));
}

TEST_F(ScanTest, NoFolderMeansNothingToScan) {
    auto fresh = std::make_shared<MC_Bag>(kAppVersion);
    fresh->ScanDiskCacheDir();  // never given a folder
    EXPECT_EQ(fresh->GetNumItems(), 0);
}

TEST_F(ScanTest, ConcurrentScansAdoptEachFileOnce) {
    std::vector<File> files;
    for (uint32_t key = 1; key <= 40; ++key) files.push_back(Valid(key, key));
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) threads.emplace_back([this] { bag_->ScanDiskCacheDir(); });
    threads.emplace_back([&] {
        for (auto it = files.rbegin(); it != files.rend(); ++it) MC_ScanOneDiskCacheFile(*it);
    });
    for (auto& t : threads) t.join();

    EXPECT_EQ(ItemFiles(), expected_);
    EXPECT_EQ(bag_->GetNumItems(), 40);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
}

TEST_F(ScanTest, ShrinkingTheBudgetFreesAdoptedFiles) {
    for (uint32_t key = 1; key <= 4; ++key) Valid(key, 100, 8192);
    bag_->ScanDiskCacheDir();
    ASSERT_EQ(bag_->GetCurrentDiskCacheSize(), 4 * 8192);

    bag_->SetDiskCacheInfo(root_.AsDir(), 0);
    EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 0u);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    for (const auto& [g, path] : expected_) EXPECT_FALSE(fs::exists(path)) << path;
}

TEST_F(ScanTest, AdoptedFileReadsBackItsPayload) {
    Valid(5, 300);
    bag_->ScanDiskCacheDir();
    MC_ScCheckout receipt;
    ASSERT_EQ(receipt.FindAndCheckout(mctest::MakeRequest(5, 5 % 3), MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CheckedOut);
    receipt.EnsureInMemory();
    ASSERT_TRUE(receipt.IsInMemory());
    auto* payload = dynamic_cast<mctest::TestPayload*>(receipt.GetStuffPtr()->GetDataPtr().get());
    ASSERT_NE(payload, nullptr);
    ASSERT_NE(payload->Bytes(), nullptr);
    EXPECT_EQ(payload->Bytes()->size(), 300u);
    EXPECT_EQ(receipt.GetStuffPtr()->GetComputeTime(), 1.5);  // from the file's header
}

namespace fs = std::filesystem;

class RescanTest : public disktest::DiskModuleTest {
protected:
    // The folder SetDiskCacheInfo will resolve, created ahead with `count` cache files.
    velacore::Dir PrepareFolder(uint32_t firstKey, uint32_t count) {
        const velacore::Dir folder =
            MCp_DiskFolder::FolderFor(velacore::ToUtf16(root_.Path().string()), u"26.1");
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
