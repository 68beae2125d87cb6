// The disk-cache folder: the layout and its alerts, the scan, and the budget
// (making room from the least recently used idle files up to the last-use limit, the budget
// shrink, the drive-space rule, the size across versions and purging every disk cache).
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <map>

#include "DiskFixture.h"
#include "lifecycle/Messages.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"
#include "support/ModuleAccess.h"
#ifdef _WIN32
#include "host/windows/Win32.h"
#undef SetComputerName  // <windows.h> maps it to SetComputerNameA or W
#endif

namespace {

using namespace diskbtest;
using velacore::Dir;
using velacore::File;
namespace fs = std::filesystem;

const std::u16string kNonexistentAlert =
    u"Disk Cache folder doesn't exist (or isn't a directory), so it will be reset to the system "
    u"temporary directory. Please check your settings in Media and Disk Cache Preferences.";
const std::u16string kCantWriteAlert =
    u"Unable to write to Disk Cache folder, so disk caching will be disabled. Please check your "
    u"settings in Media and Disk Cache Preferences.";

// No folder given before the test's first call.
class Layout : public DiskCacheTest {
protected:
    bool WithFolder() const override { return false; }
    // `machine` is UTF-8 (a narrow path would be read in the ANSI code page on Windows).
    fs::path Expected(const char* machine = "diskb-host", const char* product = "Tessaline") {
        const std::string name = std::string("Disk Cache - ") + machine + ".noindex";
        return root_.Path() / "Ostrel" / product / "1.0" / std::u8string(name.begin(), name.end());
    }
};

TEST_F(Layout, FolderNameTable) {
    struct Row {
        const char* computerName;
        bool beta;
        fs::path expected;
    };
    const Row rows[] = {
        {"diskb-host", false, Expected()},
        {"diskb-host", true, Expected("diskb-host", "Tessaline (Beta)")},
        {"", false, Expected("This Computer")},
        {"a/b\\c:d*e?f\"g<h>i|j\tk", false, Expected("a-b-c-d-e-f-g-h-i-j-k")},
        {"caf\xC3\xA9", false, Expected("caf\xC3\xA9")},  // UTF-8 survives
    };
    for (const Row& t : rows) {
        SCOPED_TRACE(t.expected.string());
        host().SetComputerName(t.computerName);
        host().SetBetaPrime(t.beta);
        bag_->SetDiskCacheInfo(root_.AsDir(), 10);
        EXPECT_EQ(bag_->GetDiskCacheDirSpec().GetFullPath(), t.expected);
        EXPECT_TRUE(fs::is_directory(t.expected));
        EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 10u << 20);
    }
}

// Every way the folder can be unusable: the error, the alert (none off the main thread), and
// nothing stored.
TEST_F(Layout, UnusableFolderTable) {
    const fs::path machine = Expected();
    struct Row {
        const char* what;
        std::function<void(mctest::FaultInjectingFileSystem&)> arrange;
        bool mainThread;
        const std::u16string* alert;
        const char16_t* root;  // under root_, empty for root_ itself
    };
    const Row rows[] = {
        {"root is a file", [&](auto&) { mctest::WriteWholeFile(root_ / "file", "x"); }, true,
         &kNonexistentAlert, u"file"},
        {"missing root off the main thread", [](auto&) {}, false, nullptr, u"missing"},
        {"version folder cannot be made",
         [](auto& f) { f.FailFrom(mctest::FsOp::kCreateDirectory, 1, mctest::Fault::kIoError); },
         true, &kCantWriteAlert, u""},
        {"machine folder cannot be made",
         [&](auto& f) {
             fs::create_directories(machine.parent_path());
             f.FailFrom(mctest::FsOp::kCreateDirectory, 1, mctest::Fault::kNoSpace);
         },
         true, &kCantWriteAlert, u""},
        {"machine folder name taken by a file",
         [&](auto&) {
             fs::create_directories(machine.parent_path());
             mctest::WriteWholeFile(machine, "x");
         },
         true, &kCantWriteAlert, u""},
    };
    for (const Row& t : rows) {
        SCOPED_TRACE(t.what);
        fs::remove_all(root_.Path() / "Ostrel");
        auto faults = std::make_shared<mctest::FaultInjectingFileSystem>();
        mctest::ScopedFileSystem scoped(faults);
        t.arrange(*faults);
        host().SetEveryThreadMain(t.mainThread);
        int code = 0;
        try {
            bag_->SetDiskCacheInfo(*t.root ? root_.AsDir().GetSubdir(t.root) : root_.AsDir(), 1);
        } catch (int thrown) {
            code = thrown;
        }
        EXPECT_EQ(code, MCp_Err_DiskFolder);
        host().SetEveryThreadMain(std::nullopt);
        const auto alerts = host().ErrStrings();
        EXPECT_EQ(alerts.size(), t.alert ? 1u : 0u);
        for (const auto& e : alerts)
            EXPECT_TRUE(e.base == 0x3A0000u && e.severity == 8 && e.text == *t.alert);
        host().ClearRecords();
        EXPECT_TRUE(bag_->GetDiskCacheDirSpec().IsEmpty());
        EXPECT_EQ(bag_->GetCurrentMaxDiskCacheSize(), 0u);
        EXPECT_FALSE(fs::is_directory(machine));
    }
}

// Writes `bytes` under an arbitrary name in `dir` (created if needed).
File WriteRawFile(const Dir& dir, const std::u16string& name) {
    velacore::EnsureDirectoryExists(dir);
    mctest::WriteWholeFile(dir.GetFile(name).GetFullPath(), "raw");
    return dir.GetFile(name);
}

class Scan : public DiskCacheTest {
protected:
    // GUID text -> disk file of every item in the bag.
    std::map<std::u16string, fs::path> ItemFiles() const {
        std::map<std::u16string, fs::path> files;
        for (const auto& item : bag_->SnapshotItems())
            files[item->GetGuid().AsWString()] = item->GetDiskCacheFile().GetFullPath();
        EXPECT_EQ(files.size(), static_cast<size_t>(bag_->GetNumItems()));  // no GUID twice
        return files;
    }
    File Valid(uint32_t key, uint32_t payload = 16, size_t padTo = 0) {
        File f = WriteTestCacheFile(Folder(), key, key % 3, kApp, payload, padTo);
        expected_[mctest::KeyGuid(key).AsWString()] = f.GetFullPath();
        expectedBytes_ += static_cast<int64_t>(fs::file_size(f.GetFullPath()));
        return f;
    }
    void ExpectAdopted() const {
        EXPECT_EQ(ItemFiles(), expected_);
        EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), expectedBytes_);
    }

    std::map<std::u16string, fs::path> expected_;
    int64_t expectedBytes_ = 0;
};

TEST_F(Scan, MixedFolderScannedTwiceAdoptsEachValidFileOnce) {
    const Dir cache = Folder();
    for (uint32_t key = 1; key <= 6; ++key) Valid(key, 10 * key, key % 2 ? 4096 : 0);
    Valid(0xFFFFFF);  // its header starts FF FF FF: "////" in the name, written as "----"
    const std::u16string guid = mctest::KeyGuid(50).AsWString();
    const std::vector<File> foreign = {
        WriteRawFile(cache, u"readme.txt"),
        WriteRawFile(cache.GetSubdir(u"AB"), u"x.TestPayload.100.AAAAAAAAAAA=.zkcache.tmp"),
        WriteRawFile(cache.GetSubdir(u"AB"), u"notes"),
        WriteRawFile(cache.GetSubdir(u"dir.zkcache"), u"inner.txt"),
        WriteRawFile(cache, guid + u".TestPayload.100.AAAAAAAAAAA=.ZKCACHE"),
    };
    const std::vector<File> doomed = {
        WriteTestCacheFile(cache, 20, 0, kApp + 1),  // another version
        WriteRawFile(cache, u"garbage.zkcache"),
        WriteRawFile(cache, guid + u".TestPayload.100.zkcache"),            // three stops
        WriteRawFile(cache, u"nope.TestPayload.100.AAAAAAAAAAA=.zkcache"),  // bad GUID
        WriteRawFile(cache, guid + u".TestPayload.100.%%%%.zkcache"),       // bad header
        WriteRawFile(cache, guid + u".TestPayload..AAAAAAAAAAA=.zkcache"),  // empty version
        WriteRawFile(cache, guid + u".TestPayload.10000000100.AAAAAAAAAAA=.zkcache"),  // > 32 bits
    };
    expectedBytes_ += 3;  // the young writer's temporary counts against the budget
    const std::u16string unknownName =
        MCp_CacheFile::BuildName(mctest::KeyGuid(30), "NoSuchClass", kApp, {1, 2, 3});
    MCp_CacheFile::EnsureSubfolder(cache, unknownName);
    const File unknown =
        WriteRawFile(MCp_CacheFile::FileFor(cache, unknownName).GetParent(), unknownName);
    for (int pass = 0; pass < 2; ++pass) {  // again: nothing new, nothing counted twice
        bag_->ScanDiskCacheDir();
        ExpectAdopted();
        for (const auto& [g, path] : expected_) EXPECT_TRUE(fs::exists(path)) << path;
        for (const File& f : foreign) EXPECT_TRUE(fs::exists(f.GetFullPath()));
        for (const File& f : doomed) EXPECT_FALSE(fs::exists(f.GetFullPath()));
        EXPECT_TRUE(fs::exists(unknown.GetFullPath()));
    }
    // A file that appeared since is picked up by the next pass.
    Valid(7, 33);
    bag_->ScanDiskCacheDir();
    ExpectAdopted();
}

// Variants of one key: a file goes only to the item identical to its own, never to one that
// merely satisfies it, and every variant's file becomes an item of its own, counted once.
TEST_F(Scan, EachVariantsFileIsAdoptedByItsOwnItemOnly) {
    const File v1 = WriteTestCacheFile(Folder(), 7, 1, kApp, 16);
    const File v2 = WriteTestCacheFile(Folder(), 7, 2, kApp, 40, 8192);
    const int64_t both = static_cast<int64_t>(fs::file_size(v1.GetFullPath()) + 8192);
    auto fileOfVariant = [&](uint32_t variant) {
        for (const auto& item : bag_->SnapshotItems())
            if (dynamic_cast<mctest::TestPayload&>(*item->GetDataPtr()).Variant() == variant)
                return item->GetDiskCacheFile();
        return File();
    };
    for (const auto& order : {std::vector<File>{v2, v1, v1}, std::vector<File>{v1, v2}}) {
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
        auto& payload = dynamic_cast<mctest::TestPayload&>(*receipt.GetStuffPtr()->GetDataPtr());
        ASSERT_NE(payload.Bytes(), nullptr);
        EXPECT_EQ(payload.Bytes()->size(), payload.Variant() == 1 ? 16u : 100u) << variant;
    }
}

// A render still pending when its key's file is adopted leaves two identical items in the
// directory, both naming that file. Scanned again, the file stays with the item that has it:
// were it given to the other too, either one deleting it would leave the other a missing file.
TEST_F(Scan, AFileStaysWithItsItemBesideAnIdenticalRenderedOne) {
    const File file = WriteTestCacheFile(Folder(), 7, 0, kApp, 16);
    const int64_t fileBytes = static_cast<int64_t>(fs::file_size(file.GetFullPath()));
    MC_ScCheckout render;
    ASSERT_EQ(render.FindAndCheckout(mctest::MakeRequest(7),
                                     MC_CheckoutFlag_CreatePending | MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CreatedNewPending);
    MC_ScanOneDiskCacheFile(file);  // the pending item is no match yet: a new item takes it
    render.GetStuffPtr()->SetStuffDataFromPendingRender(mctest::MakeItem(7, 16)->GetDataPtr(), 0.0);
    render.Checkin(0, 0.0);
    ASSERT_EQ(bag_->GetNumGuidSortedItems(), 2);
    for (int pass = 0; pass < 2; ++pass) MC_ScanOneDiskCacheFile(file);
    int listing = 0;
    for (const auto& item : bag_->SnapshotItems()) listing += item->GetDiskCacheFile() == file;
    EXPECT_EQ(listing, 1);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), fileBytes);
}

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

// A full budget: the drive-space rule, a write that evicts older files only, and a shrink.
TEST_F(DiskBudget, WritingIntoAFullBudgetEvictsOlderFilesOnlyAndAShrinkFreesTheRest) {
    MCp_DiskFolder::SetMinimumVolumeFreeSpaceBytes(10ull << 30);
    fs_->freeSpace.store((10ull << 30) + 1);  // no room needed
    EXPECT_FALSE(bag_->IsDiskCacheLimitedDueToDriveSpace());
    fs_->freeSpace.store((10ull << 30) - 1);  // less than the minimum
    EXPECT_TRUE(bag_->IsDiskCacheLimitedDueToDriveSpace());
    MCp_DiskFolder::SetMinimumVolumeFreeSpaceBytes(0);
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

#ifdef _WIN32
// Another process keeps the cache files open without FILE_SHARE_DELETE: each delete fails, yet
// the walk goes on and the accounting drops the files.
TEST_F(DiskBudget, FilesHeldWithoutShareDeleteDoNotStopTheWalkOrTheAccounting) {
    std::vector<HANDLE> held;
    for (const fs::path& file : CacheFiles()) {
        held.push_back(::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                     OPEN_EXISTING, 0, nullptr));
        ASSERT_NE(held.back(), INVALID_HANDLE_VALUE);
    }
    EXPECT_TRUE(bag_->EnsureDiskSpace(2 * kUnit, kAnyTime));
    for (HANDLE handle : held) ::CloseHandle(handle);
    EXPECT_EQ(Which(), (OnDisk{false, false, true, true}));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 2 * kUnit);
    EXPECT_EQ(CacheFiles().size(), 4u);  // the two it could not delete stay until a rescan
}
#endif

}  // namespace
