// DiskCacheTest: the module started around each test with recording host services, a disk-cache
// folder in a temporary root with a budget, the disk cache enabled, fresh speed statistics, and
// a file system that reports 4096-byte blocks (so every cache file is a multiple of 256 KiB) and
// a settable volume free space. Plus helpers to make items, write them synchronously, wait for
// the writer threads and list the folder.
// Thread-safety: the fixture belongs to the test's main thread; the helpers that wait may be
// used while writer threads run.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "disk/CacheFile.h"
#include "disk/DiskFolder.h"
#include "disk/DiskWriter.h"
#include "disk/SpeedStats.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"
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

// Reports 4096-byte blocks on every volume and a chosen amount of free space.
class FakeVolumeFileSystem : public velacore::FileSystemWrapper {
public:
    explicit FakeVolumeFileSystem(std::shared_ptr<velacore::FileSystem> target)
        : FileSystemWrapper(std::move(target)) {}
    size_t GetBlockSize(const std::filesystem::path&) override { return kBlockSize; }
    uint64_t GetFreeSpace(const std::filesystem::path&) override { return freeSpace.load(); }
    std::atomic<uint64_t> freeSpace{uint64_t{1} << 40};
};

// A TestPayload whose Write can be held at a gate, and which records who wrote it.
class GatedPayload : public TestPayload {
public:
    struct Gate {
        std::mutex mutex;
        std::condition_variable cv;
        bool open = true;
        int writing = 0;     // writes inside Write now
        int maxWriting = 0;  // the most seen at once
        int started = 0;
        std::vector<uint32_t> order;  // keys in the order their writes started
        std::vector<std::thread::id> threads;

        void Close() {
            std::lock_guard<std::mutex> l(mutex);
            open = false;
        }
        void Open() {
            {
                std::lock_guard<std::mutex> l(mutex);
                open = true;
            }
            cv.notify_all();
        }
        // Waits (generous deadline) until `n` writes have started. Returns whether they did.
        bool WaitStarted(int n) {
            std::unique_lock<std::mutex> l(mutex);
            return cv.wait_for(l, std::chrono::minutes(2), [&] { return started >= n; });
        }
    };

    GatedPayload(uint32_t key, uint32_t size, std::shared_ptr<Gate> gate)
        : TestPayload(key, size), gate_(std::move(gate)) {}

    double Write(velacore::OByteStream& out) const override {
        {
            std::unique_lock<std::mutex> l(gate_->mutex);
            ++gate_->started;
            ++gate_->writing;
            gate_->maxWriting = std::max(gate_->maxWriting, gate_->writing);
            gate_->order.push_back(Key());
            gate_->threads.push_back(std::this_thread::get_id());
            gate_->cv.notify_all();
            gate_->cv.wait_for(l, std::chrono::minutes(2), [&] { return gate_->open; });
            --gate_->writing;
        }
        return TestPayload::Write(out);
    }

private:
    std::shared_ptr<Gate> gate_;
};

class DiskCacheTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs_ = std::make_shared<FakeVolumeFileSystem>(velacore::GetDefaultFileSystem());
        scopedFs_ = std::make_unique<mctest::ScopedFileSystem>(fs_);
        services_ = std::make_shared<mctest::RecordingHostServices>();
        services_->SetClientVersion(ClientVersion());
        services_->SetComputerName("diskb-host");
        services_->SetTraceLevel("DiskCache", 7);
        scoped_ = std::make_unique<mctest::ScopedHostServices>(services_);
        mc_settings::ResetForTesting();
        MCp_SetInitialDiskRescanPostedForTesting(true);
        MCp_ReadSpeedStat().Reset();
        MCp_WriteSpeedStat().Reset();
        MCp_ReadBusyTracker().Reset();
        MCp_WriteBusyTracker().Reset();
        MC_Birth(false, AppVersion(), false);
        bag_ = MC_GlobalBag();
        TestPayload::RegisterFactory();
        bag_->SetDiskCacheInfo(root_.AsDir(), BudgetMegabytes());
        bag_->EnableDiskCache(true);
    }

    void TearDown() override {
        MCp_DiskWriteQueue::Get().AdjustCountForTesting(-queueAdjust_);
        bag_.reset();
        MC_StopAllAsyncWork();
        MC_Death();
        MCp_DiskFolder::SetProclivityMultiplier(MCp_DiskFolder::kDefaultProclivityMultiplier);
        MCp_DiskFolder::SetSpeedCapBytesPerSecond(MCp_DiskFolder::kDefaultSpeedCapBytesPerSecond);
        scoped_.reset();
        scopedFs_.reset();
    }

    // Hooks for fixtures that need another setting.
    virtual std::string ClientVersion() const { return "1.0"; }
    virtual unsigned AppVersion() const { return 256; }  // "1.0" in the standalone host's rule
    virtual uint64_t BudgetMegabytes() const { return 64; }

    // Pretends `n` more entries are queued (undone in TearDown).
    void AdjustQueue(int32_t n) {
        queueAdjust_ += n;
        MCp_DiskWriteQueue::Get().AdjustCountForTesting(n);
    }

    // An item of `size` bytes for `key` that may go to disk, not in any bag.
    static IntrusivePtr<MC_Stuff> NewItem(uint32_t key, uint32_t size,
                                          MC_CachePriority priority = MC_CachePriority_Never,
                                          double computeTime = 1.0) {
        auto* payload = new TestPayload(key, size);
        payload->SetDiskCacheable(true);
        payload->SetCachePriority(priority);
        IntrusivePtr<MC_Stuff> stuff =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), computeTime);
        stuff->SetGuid(mctest::KeyGuid(key));
        return stuff;
    }

    // Same, already in the global bag (added without the write decision).
    IntrusivePtr<MC_Stuff> NewItemInBag(uint32_t key, uint32_t size,
                                        MC_CachePriority priority = MC_CachePriority_Never,
                                        double computeTime = 1.0) {
        IntrusivePtr<MC_Stuff> stuff = NewItem(key, size, priority, computeTime);
        bag_->AddToBagAndSortDir(stuff);
        return stuff;
    }

    // Writes the item's file on this thread, as a writer thread would.
    static void WriteNow(const IntrusivePtr<MC_Stuff>& stuff) {
        MC_Stuff::WriteToDiskAsync(stuff, nullptr);
    }

    static TestPayload* PayloadOf(const IntrusivePtr<MC_Stuff>& stuff) {
        return dynamic_cast<TestPayload*>(stuff->GetDataPtr().get());
    }

    static bool DrainWriter() { return mctest::DrainDiskWriter(); }

    // Polls `condition` until it holds (generous deadline). Returns whether it did.
    static bool WaitUntil(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    velacore::Dir Folder() const { return bag_->GetDiskCacheDirSpec(); }

    // Writes a file of `size` zero bytes, creating its folders.
    static void PutFile(const std::filesystem::path& path, size_t size) {
        std::filesystem::create_directories(path.parent_path());
        mctest::WriteWholeFile(path, std::vector<uint8_t>(size));
    }

    // Every regular file under the disk-cache folder (cache files and anything else).
    std::vector<std::filesystem::path> AllFiles() const {
        std::vector<std::filesystem::path> files;
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(Folder().GetFullPath(), ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
            if (it->is_regular_file()) files.push_back(it->path());
        return files;
    }
    std::vector<std::filesystem::path> CacheFiles() const {
        std::vector<std::filesystem::path> files;
        for (const auto& p : AllFiles())
            if (p.extension() == ".zkcache") files.push_back(p);
        return files;
    }

    mctest::RecordingHostServices& host() { return *services_; }
    MCp_Counters& counters() { return MCp_GetCounters(); }

    mctest::TempDir root_{"mc-diskB"};
    std::shared_ptr<FakeVolumeFileSystem> fs_;
    std::unique_ptr<mctest::ScopedFileSystem> scopedFs_;
    std::shared_ptr<mctest::RecordingHostServices> services_;
    std::unique_ptr<mctest::ScopedHostServices> scoped_;
    std::shared_ptr<MC_Bag> bag_;
    int32_t queueAdjust_ = 0;
};

}  // namespace diskbtest
