// Disk performance counters, driven through real writes and reads in a temporary disk-cache
// folder (with injected file-system faults): each write, read-back, failure, queued write and
// refusal moves exactly its own counter, and the reason counters land in their fields.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <future>
#include <latch>
#include <memory>
#include <mutex>
#include <vector>

#include "disk/DiskFolder.h"
#include "disk/DiskWriter.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_PerformanceCounters.h"
#include "mc/MC_ScCheckout.h"
#include "mc/host/File.h"
#include "support/DiskWriterDrain.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

bool Same(const MC_DiskPerformanceCounters& a, const MC_DiskPerformanceCounters& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Regular files under `root`, whatever they are.
size_t CountFiles(const std::filesystem::path& root) {
    size_t n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
        if (it->is_regular_file()) ++n;
    return n;
}

// A TestPayload whose Write waits at a gate, counting the writes that reached it.
class GatedPayload : public TestPayload {
  public:
    struct Gate {
        std::mutex mutex;
        std::condition_variable cv;
        bool open = false;
        int started = 0;
        bool WaitStarted(int n) {
            std::unique_lock lock(mutex);
            return cv.wait_for(lock, std::chrono::minutes(2), [&] { return started >= n; });
        }
        void Open() {
            std::lock_guard lock(mutex);
            open = true;
            cv.notify_all();
        }
    };
    GatedPayload(uint32_t key, uint32_t size, std::shared_ptr<Gate> gate)
        : TestPayload(key, size), gate_(std::move(gate)) {}
    double Write(velacore::OByteStream& out) const override {
        {
            std::unique_lock lock(gate_->mutex);
            ++gate_->started;
            gate_->cv.notify_all();
            gate_->cv.wait_for(lock, std::chrono::minutes(2), [&] { return gate_->open; });
        }
        return TestPayload::Write(out);
    }

  private:
    std::shared_ptr<Gate> gate_;
};

class DiskCounters : public ::testing::Test {
  protected:
    void SetUp() override {
        scopedFs_ = std::make_unique<ScopedFileSystem>(fs_);
        services_ = std::make_shared<RecordingHostServices>();
        scoped_ = std::make_unique<ScopedHostServices>(services_);
        mc_settings::ResetForTesting();
        MCp_SetInitialDiskRescanPostedForTesting(true);  // no background scan of the folder
        MC_Birth(false, 256, false);
        bag_ = MC_GlobalBag();
        TestPayload::RegisterFactory();
        bag_->SetDiskCacheInfo(root_.AsDir(), 64);
        bag_->EnableDiskCache(true);
    }
    void TearDown() override {
        bag_.reset();
        MC_StopAllAsyncWork();
        MC_Death();
        scoped_.reset();
        scopedFs_.reset();
    }

    // A disk-cacheable item in the global bag, added without the write decision.
    IntrusivePtr<MC_Stuff> NewItem(uint32_t key, uint32_t size,
                                   MC_CachePriority priority = MC_CachePriority_Never,
                                   TestPayload* payload = nullptr) {
        if (payload == nullptr) payload = new TestPayload(key, size);
        payload->SetDiskCacheable(true);
        payload->SetCachePriority(priority);
        IntrusivePtr<MC_Stuff> stuff =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        stuff->SetGuid(KeyGuid(key));
        bag_->AddToBagAndSortDir(stuff);
        return stuff;
    }
    static TestPayload& PayloadOf(const IntrusivePtr<MC_Stuff>& stuff) {
        return static_cast<TestPayload&>(*stuff->GetDataPtr());
    }
    // Writes the item's file on this thread. Returns the file's size.
    static uint64_t WriteNow(const IntrusivePtr<MC_Stuff>& stuff) {
        MC_Stuff::WriteToDiskAsync(stuff, nullptr);
        return stuff->IsOnDisk() ? stuff->GetDiskCacheFile().Size() : 0;
    }
    static bool DrainWriter() { return mctest::DrainDiskWriter(); }
    // Checks the item out writeable and in again, as a client that changed it would.
    static void WriteableCheckin(const IntrusivePtr<MC_Stuff>& stuff, double computeTime) {
        MC_ScCheckout r(stuff, 0);
        ASSERT_TRUE(r.DidCheckout());
        r.Checkin(0, computeTime);
    }

    TempDir root_{"mc-counters"};
    std::shared_ptr<FaultInjectingFileSystem> fs_ = std::make_shared<FaultInjectingFileSystem>();
    std::unique_ptr<ScopedFileSystem> scopedFs_;
    std::shared_ptr<RecordingHostServices> services_;
    std::unique_ptr<ScopedHostServices> scoped_;
    std::shared_ptr<MC_Bag> bag_;
};

TEST_F(DiskCounters, AWriteMovesOnlyBytesWritten) {
    IntrusivePtr<MC_Stuff> stuff = NewItem(1, 5000);
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    const uint64_t size = WriteNow(stuff);
    ASSERT_GT(size, 5000u);  // header and padding included
    expected.bytesWritten += size;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
}

TEST_F(DiskCounters, AReadBackMovesOnlyBytesRead) {
    IntrusivePtr<MC_Stuff> stuff = NewItem(1, 5000);
    const uint64_t size = WriteNow(stuff);
    ASSERT_GT(size, 0u);
    ASSERT_GT(stuff->FreeUpAsMuchAsPossible(true, nullptr), 0u);
    ASSERT_FALSE(stuff->IsInMemory());
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    {
        MC_ScCheckout r(stuff, MC_CheckoutFlag_ReadOnly);
        ASSERT_TRUE(r.DidCheckout());
        EXPECT_TRUE(r.IsInMemory());
    }
    expected.bytesRead += size;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
}

TEST_F(DiskCounters, AFailedWriteMovesOnlyWriteFailuresAndLeavesNoFile) {
    IntrusivePtr<MC_Stuff> stuff = NewItem(1, 5000);
    const size_t filesBefore = CountFiles(root_.Path());
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    fs_->FailFrom(FsOp::kAppend, 1, Fault::kIoError);
    EXPECT_EQ(WriteNow(stuff), 0u);
    fs_->ClearFaults();
    ASSERT_GT(fs_->FaultCount(FsOp::kAppend), 0u);
    expected.writeFailures += 1;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
    EXPECT_EQ(CountFiles(root_.Path()), filesBefore);
    EXPECT_TRUE(stuff->IsInMemory());
}

TEST_F(DiskCounters, AShortWriteIsAFailureToo) {
    IntrusivePtr<MC_Stuff> stuff = NewItem(1, 5000);
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    fs_->FailNth(FsOp::kAppend, 1, Fault::kShortWrite);
    EXPECT_EQ(WriteNow(stuff), 0u);
    expected.writeFailures += 1;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
}

TEST_F(DiskCounters, ACorruptBodyMovesOnlyReadFailuresAndDeletesTheFile) {
    IntrusivePtr<MC_Stuff> stuff = NewItem(1, 5000);
    ASSERT_GT(WriteNow(stuff), 0u);
    const std::filesystem::path path = stuff->GetDiskCacheFile().GetFullPath();
    ASSERT_GT(stuff->FreeUpAsMuchAsPossible(true, nullptr), 0u);
    PayloadOf(stuff).SetReadFailure(true);
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    {
        MC_ScCheckout r(stuff, MC_CheckoutFlag_ReadOnly);
        EXPECT_FALSE(r.DidCheckout());
    }
    expected.readFailures += 1;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
    EXPECT_FALSE(stuff->IsOnDisk());
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(DiskCounters, AnInjectedReadErrorMovesOnlyReadFailures) {
    IntrusivePtr<MC_Stuff> stuff = NewItem(1, 5000);
    ASSERT_GT(WriteNow(stuff), 0u);
    ASSERT_GT(stuff->FreeUpAsMuchAsPossible(true, nullptr), 0u);
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    fs_->FailFrom(FsOp::kRead, 1, Fault::kIoError);
    {
        MC_ScCheckout r(stuff, MC_CheckoutFlag_ReadOnly);
        EXPECT_FALSE(r.DidCheckout());
    }
    fs_->ClearFaults();
    expected.readFailures += 1;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
}

TEST_F(DiskCounters, CheckInRefusalsCountReasonFourForPriorityZeroElseThree) {
    IntrusivePtr<MC_Stuff> never = NewItem(1, 5000, MC_CachePriority_Never);
    IntrusivePtr<MC_Stuff> normal = NewItem(2, 5000, MC_CachePriority_Normal);
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    WriteableCheckin(never, 1.0);
    expected.reason4Count += 1;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
    WriteableCheckin(normal, 0.0);  // no compute time: never worth writing
    expected.reason3Count += 1;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
    ASSERT_TRUE(DrainWriter());
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));  // nothing was written
}

TEST_F(DiskCounters, AQueuedCheckInCountsItsPriorityAndItsWrite) {
    IntrusivePtr<MC_Stuff> normal = NewItem(1, 5000, MC_CachePriority_Normal);
    IntrusivePtr<MC_Stuff> low = NewItem(2, 5000, MC_CachePriority_Low);
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    WriteableCheckin(normal, 1.0);
    WriteableCheckin(low, 1.0);
    ASSERT_TRUE(DrainWriter());
    ASSERT_TRUE(normal->IsOnDisk());
    ASSERT_TRUE(low->IsOnDisk());
    expected.normalWritesQueued += 1;
    expected.lowPriorityWritesQueued += 1;
    expected.bytesWritten += normal->GetDiskCacheFile().Size() + low->GetDiskCacheFile().Size();
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));  // queue length back too
}

TEST_F(DiskCounters, TheRecordedReasonLandsInItsOwnField) {
    const struct {
        MC_StuffData::NoDiskCacheReason reason;
        uint32_t MC_DiskPerformanceCounters::*field;
    } cases[] = {
        {MC_StuffData::NoDiskCacheReason_1, &MC_DiskPerformanceCounters::reason1Count},
        {MC_StuffData::NoDiskCacheReason_2, &MC_DiskPerformanceCounters::reason2Count},
        {MC_StuffData::NoDiskCacheReason_4, &MC_DiskPerformanceCounters::reason4Count},
        {MC_StuffData::NoDiskCacheReason_5, &MC_DiskPerformanceCounters::reason5Count},
    };
    uint32_t key = 1;
    for (const auto& c : cases) {
        IntrusivePtr<MC_Stuff> stuff = NewItem(key++, 5000, MC_CachePriority_Never);
        stuff->GetDataPtr()->SetNoDiskCache(c.reason);
        MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
        stuff->MaybeWriteToDisk();
        expected.*c.field += 1;
        EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected)) << "reason " << c.reason;
    }
    IntrusivePtr<MC_Stuff> none = NewItem(key, 5000, MC_CachePriority_Never);
    const MC_DiskPerformanceCounters before = MC_GetDiskPerformanceCounters();
    none->MaybeWriteToDisk();  // reason 0 is not counted
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), before));
}

TEST_F(DiskCounters, AFullQueueRecordsAndCountsReasonThree) {
    IntrusivePtr<MC_Stuff> stuff = NewItem(1, 5000, MC_CachePriority_High);
    MCp_DiskWriteQueue::Get().AdjustCountForTesting(200);  // the decision sees a full queue
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    stuff->MaybeWriteToDisk();
    MCp_DiskWriteQueue::Get().AdjustCountForTesting(-200);
    EXPECT_EQ(stuff->GetDataPtr()->GetReasonWhyNoDiskCache(),
              MC_StuffData::NoDiskCacheReason_DiskBusy);
    expected.reason3Count += 1;
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
}

TEST_F(DiskCounters, QueueLengthCountsTheEntriesWaitingForAWriter) {
    auto gate = std::make_shared<GatedPayload::Gate>();
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 1; k <= 3; ++k)
        items.push_back(NewItem(k, 5000, MC_CachePriority_Never, new GatedPayload(k, 5000, gate)));
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    for (const auto& stuff : items) MC_Stuff::WriteToDiskAsyncOnDiskThread(stuff);
    ASSERT_TRUE(gate->WaitStarted(2));  // both writer threads are busy: one entry still queued
    EXPECT_EQ(MC_GetDiskPerformanceCounters().writeQueueLength, expected.writeQueueLength + 1);
    gate->Open();
    ASSERT_TRUE(gate->WaitStarted(3));
    ASSERT_TRUE(DrainWriter());
    for (const auto& stuff : items) {
        ASSERT_TRUE(stuff->IsOnDisk());
        expected.bytesWritten += stuff->GetDiskCacheFile().Size();
    }
    EXPECT_TRUE(Same(MC_GetDiskPerformanceCounters(), expected));
}

}  // namespace
