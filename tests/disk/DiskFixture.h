// DiskCacheTest: the module started with recording host services, a disk-cache folder with a
// budget, fresh speed statistics, and a file system of 4096-byte blocks (every cache file a
// multiple of 256 KiB) and settable free space. Plus helpers for items and cache files.
// Thread-safety: the fixture belongs to the test's main thread.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "disk/CacheFile.h"
#include "disk/DiskFolder.h"
#include "disk/SpeedStats.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "support/DiskWriterDrain.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"
#include "support/TestPayload.h"

namespace diskbtest {

using mctest::TestPayload;
using velacore::IntrusivePtr;

constexpr size_t kBlockSize = 4096;
constexpr uint64_t kFileUnit = 64 * kBlockSize;  // every cache file is a multiple of this
constexpr unsigned kApp = 256;                   // the module's application version

// Reports 4096-byte blocks on every volume and a chosen amount of free space.
class FakeVolumeFileSystem : public velacore::FileSystemWrapper {
public:
    using FileSystemWrapper::FileSystemWrapper;
    size_t GetBlockSize(const std::filesystem::path&) override { return kBlockSize; }
    uint64_t GetFreeSpace(const std::filesystem::path&) override { return freeSpace.load(); }
    std::atomic<uint64_t> freeSpace{uint64_t{1} << 40};
};

class DiskCacheTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs_ = std::make_shared<FakeVolumeFileSystem>(velacore::GetDefaultFileSystem());
        scopedFs_ = std::make_unique<mctest::ScopedFileSystem>(fs_);
        services_ = std::make_shared<mctest::RecordingHostServices>();
        services_->SetClientVersion("1.0");
        services_->SetComputerName("diskb-host");
        scoped_ = std::make_unique<mctest::ScopedHostServices>(services_);
        mc_settings::ResetForTesting();
        MCp_SetInitialDiskRescanPostedForTesting(true);
        MCp_ReadSpeedStat().Reset();
        MCp_WriteSpeedStat().Reset();
        MCp_ReadBusyTracker().Reset();
        MCp_WriteBusyTracker().Reset();
        MC_Birth(false, kApp, false);
        bag_ = MC_GlobalBag();
        TestPayload::RegisterFactory();
        if (!WithFolder()) return;
        bag_->SetDiskCacheInfo(root_.AsDir(), BudgetMegabytes());
        bag_->EnableDiskCache(true);
    }

    void TearDown() override {
        bag_.reset();
        MC_StopAllAsyncWork();
        MC_Death();
        scoped_.reset();
        scopedFs_.reset();
    }

    virtual uint64_t BudgetMegabytes() const { return 64; }
    virtual bool WithFolder() const { return true; }  // false: no folder given yet

    // An item of `size` bytes for `key` that may go to disk, not in any bag.
    static IntrusivePtr<MC_Stuff> NewItem(uint32_t key, uint32_t size,
                                          MC_CachePriority priority = MC_CachePriority_Never,
                                          double computeTime = 1.0,
                                          TestPayload* payload = nullptr) {
        if (!payload) payload = new TestPayload(key, size);
        payload->SetDiskCacheable(true);
        payload->SetCachePriority(priority);
        IntrusivePtr<MC_Stuff> stuff =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), computeTime);
        stuff->SetGuid(mctest::KeyGuid(key));
        return stuff;
    }
    // `stuff`, added to the global bag (without the write decision).
    IntrusivePtr<MC_Stuff> InBag(IntrusivePtr<MC_Stuff> stuff) {
        bag_->AddToBagAndSortDir(stuff);
        return stuff;
    }
    // Writes the item's file on this thread, as a writer thread would.
    static void WriteNow(const IntrusivePtr<MC_Stuff>& stuff) {
        MC_Stuff::WriteToDiskAsync(stuff, nullptr);
    }
    velacore::Dir Folder() const { return bag_->GetDiskCacheDirSpec(); }

    // Every regular file under the disk-cache folder, or only the cache files.
    std::vector<std::filesystem::path> AllFiles(bool cacheFilesOnly = false) const {
        std::vector<std::filesystem::path> files;
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(Folder().GetFullPath(), ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
            if (it->is_regular_file() && (!cacheFilesOnly || it->path().extension() == ".zkcache"))
                files.push_back(it->path());
        return files;
    }
    std::vector<std::filesystem::path> CacheFiles() const { return AllFiles(true); }

    mctest::RecordingHostServices& host() { return *services_; }
    MCp_Counters& counters() { return MCp_GetCounters(); }

    mctest::TempDir root_{"mc-diskB"};
    std::shared_ptr<FakeVolumeFileSystem> fs_;
    std::unique_ptr<mctest::ScopedFileSystem> scopedFs_;
    std::shared_ptr<mctest::RecordingHostServices> services_;
    std::unique_ptr<mctest::ScopedHostServices> scoped_;
    std::shared_ptr<MC_Bag> bag_;
};

// The name the cache gives a TestPayload (key, variant) of application version `app`.
inline std::u16string CacheName(uint32_t key, uint32_t variant = 0, unsigned app = kApp) {
    std::vector<uint8_t> header(8);
    std::memcpy(header.data(), &key, 4);
    std::memcpy(header.data() + 4, &variant, 4);
    return MCp_CacheFile::BuildName(mctest::KeyGuid(key), TestPayload::kMatchname, app, header);
}

// Writes the cache file of TestPayload (key, variant) of `size` bytes, as the cache names and
// writes it, in its sub-folder of `cacheDir`; zeros pad it to `padTo` bytes.
inline velacore::File WriteTestCacheFile(const velacore::Dir& cacheDir, uint32_t key,
                                         uint32_t variant, unsigned app, uint32_t size = 16,
                                         size_t padTo = 0) {
    CacheFileHeader h;
    h.appVersion = app;
    h.computeTime = 1.5;
    const auto head = h.Encode();
    std::vector<uint8_t> bytes(head.begin(), head.end());
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(size >> (8 * i)));
    for (uint32_t i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>((key * 131 + i)));
    bytes.resize(std::max(padTo, bytes.size()), 0);
    const std::u16string name = CacheName(key, variant, app);
    MCp_CacheFile::EnsureSubfolder(cacheDir, name);
    const velacore::File file = MCp_CacheFile::FileFor(cacheDir, name);
    mctest::WriteWholeFile(file.GetFullPath(), bytes);
    return file;
}

}  // namespace diskbtest
