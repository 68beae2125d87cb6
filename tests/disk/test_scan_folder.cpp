// Scanning the disk-cache folder back into the bag: valid files are adopted exactly once with
// their sizes accounted; foreign files are never touched; files of another version or with a
// broken name are deleted; files of an unknown class are left; vanishing files are skipped.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "disk/CacheFileFormat.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"
#include "support/FaultInjectingFileSystem.h"
#include "test_format_util.h"
#include "test_layout_fixture.h"

namespace {

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
    const std::u16string unknownName = BuildCacheFileName(
        mctest::KeyGuid(30), "NoSuchClass", kAppVersion, disktest::PayloadHeader(30, 0));
    EnsureCacheSubfolder(cache_, unknownName);
    const File unknown = WriteRawFile(CacheFileFor(cache_, unknownName).GetParent(), unknownName);

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
        BuildCacheFileName(mctest::KeyGuid(1), "QuietProbe", kAppVersion, {1, 2, 3});
    EnsureCacheSubfolder(cache_, name);
    const File file = WriteRawFile(CacheFileFor(cache_, name).GetParent(), name);

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

}  // namespace
