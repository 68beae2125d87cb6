// The disk writer: the write decision, the queue and its two threads, one-file writes and their
// failures, and two caches racing in one folder.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "DiskFixture.h"
#include "mc/host/Signal.h"

using namespace diskbtest;
using mctest::Fault;
using mctest::FsOp;

namespace {

constexpr uint32_t kMiB = 1u << 20;

// Claims a size without allocating it (100 MiB rows).
class SizedPayload : public MC_StuffData {
public:
    SizedPayload(uint32_t size, MC_CachePriority priority) : size_(size) {
        SetCachePriority(priority);
    }
    uint32_t GetApproximateMemorySize() const override { return size_; }
    bool PurgeIfPossible(MC_ReleaseList*) override { return false; }
    bool IsInMemory() const override { return true; }
    bool CanDiskCache() const override { return true; }

private:
    uint32_t size_;
};

struct Decision {
    bool worth, can, queueFull, low;
};

// Poisons every output first: the decision must set each one.
Decision Decide(MC_StuffData* data, double computeTime) {
    IntrusivePtr<MC_Stuff> stuff =
        data ? MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(data), 1.0) : new MC_Stuff();
    Decision d{false, true, true, true};
    d.worth = stuff->WorthWritingToDiskCache(computeTime, &d.can, &d.queueFull, &d.low);
    return d;
}

using WriteDecision = DiskCacheTest;

const MC_CachePriority kNormal = MC_CachePriority_Normal;
const MC_CachePriority kLow = MC_CachePriority_Low;
const MC_CachePriority kHigh = MC_CachePriority_High;
const MC_CachePriority kFive = static_cast<MC_CachePriority>(5);

// One decision: `size` bytes of `priority` computed in `computeTime` s, `queued` entries in the
// queue, a proclivity multiplier and a measured read average (0: the initial 512 MiB/s).
TEST_F(WriteDecision, Table) {
    struct Row {
        const char* what;
        uint32_t size;
        MC_CachePriority priority;
        double computeTime;
        int32_t queued;
        double proclivity, readAverage;
        bool worth, queueFull, low;
    };
    const Row rows[] = {
        {"100 MiB in 1 s", 100 * kMiB, kNormal, 1.0, 0, 1.0, 0, true, false, false},
        // 150 queued: 32 MiB/s, 3.1 s to read back.
        {"150 queued", 100 * kMiB, kNormal, 1.0, 150, 1.0, 0, false, true, false},
        {"below the 1 ms floor", 1, kNormal, 0.0005, 0, 1.0, 0, false, false, false},
        // At the floor reading back is as fast as recomputing: not better, not written.
        {"exactly the 1 ms floor", 1, kNormal, 0.001, 0, 1.0, 0, false, false, false},
        {"above the 1 ms floor", 1, kNormal, 0.002, 0, 1.0, 0, true, false, false},
        {"never", 100 * kMiB, MC_CachePriority_Never, 100.0, 0, 1.0, 0, false, false, false},
        // High skips the speed test while there is room.
        {"high, 199 queued", 100 * kMiB, kHigh, 0.0, 199, 1.0, 0, true, false, false},
        {"high, queue full", 100 * kMiB, kHigh, 100.0, 200, 1.0, 0, false, true, false},
        {"priority 5 as normal", 100 * kMiB, kFive, 1.0, 0, 1.0, 0, true, false, false},
        {"priority 5, too fast", 100 * kMiB, kFive, 0.1, 0, 1.0, 0, false, false, false},
        // Low halves the read speed: 0.39 s against 0.3 s.
        {"normal, 0.3 s", 100 * kMiB, kNormal, 0.3, 0, 1.0, 0, true, false, false},
        {"low, 0.3 s", 100 * kMiB, kLow, 0.3, 0, 1.0, 0, false, false, true},
        {"proclivity 4", 100 * kMiB, kNormal, 0.5, 0, 4.0, 0, false, false, false},  // 0.78 s
        // A measured 50 MiB/s: 2 s for 100 MiB.
        {"measured, 1 s", 100 * kMiB, kNormal, 1.0, 0, 1.0, 50.0 * kMiB, false, false, false},
        {"measured, 3 s", 100 * kMiB, kNormal, 3.0, 0, 1.0, 50.0 * kMiB, true, false, false},
    };
    MCp_DiskWriteQueue& queue = MCp_DiskWriteQueue::Get();
    for (const Row& t : rows) {
        SCOPED_TRACE(t.what);
        queue.AdjustCountForTesting(t.queued);
        MCp_DiskFolder::SetProclivityMultiplier(t.proclivity);
        if (t.readAverage > 0) MCp_ReadSpeedStat().SetAverageForTesting(t.readAverage);
        const Decision d = Decide(new SizedPayload(t.size, t.priority), t.computeTime);
        queue.AdjustCountForTesting(-t.queued);
        MCp_ReadSpeedStat().Reset();
        EXPECT_EQ(d.worth, t.worth);
        EXPECT_EQ(d.can, t.priority != MC_CachePriority_Never);
        EXPECT_EQ(d.queueFull, t.queueFull);
        EXPECT_EQ(d.low, t.low);
    }
    MCp_DiskFolder::SetProclivityMultiplier(MCp_DiskFolder::kDefaultProclivityMultiplier);
    EXPECT_FALSE(Decide(nullptr, 10.0).can);  // no data yet
    queue.AdjustCountForTesting(100);
    EXPECT_DOUBLE_EQ(bag_->GetDiskWriteQueueSizePercentFull(), 0.5);
    EXPECT_DOUBLE_EQ(bag_->GetAdjustedWriteTimePercent(10.0, 0.4), 2.0);  // fuller than 40 %
    queue.AdjustCountForTesting(-100);
}

// Holds the writes of its payloads until opened; `order` has the keys of the writes started.
struct Gate {
    std::mutex mutex;
    std::condition_variable cv;
    bool open = false;
    std::vector<uint32_t> order;

    void Open() {
        std::lock_guard<std::mutex> l(mutex);
        open = true;
        cv.notify_all();
    }
    bool WaitStarted(size_t n) {
        std::unique_lock<std::mutex> l(mutex);
        return cv.wait_for(l, std::chrono::minutes(2), [&] { return order.size() >= n; });
    }
};

class GatedPayload : public TestPayload {
public:
    GatedPayload(uint32_t key, std::shared_ptr<Gate> gate)
        : TestPayload(key, 2000), gate_(std::move(gate)) {}
    double Write(velacore::OByteStream& out) const override {
        {
            std::unique_lock<std::mutex> l(gate_->mutex);
            gate_->order.push_back(Key());
            gate_->cv.notify_all();
            gate_->cv.wait_for(l, std::chrono::minutes(2), [&] { return gate_->open; });
        }
        return TestPayload::Write(out);
    }

private:
    std::shared_ptr<Gate> gate_;
};

class Writer : public DiskCacheTest {
protected:
    IntrusivePtr<MC_Stuff> GatedItem(uint32_t key, MC_CachePriority priority = kHigh) {
        return NewItem(key, 2000, priority, 2.0, new GatedPayload(key, gate_));
    }
    std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
};

// Two writer threads take the oldest entries; a scan meanwhile counts their temporaries and
// adopts nothing, and at commit only the files count; a stop drops the queued entries.
TEST_F(Writer, OldestTwoAtATimeAndAStopLeavesNoQueuedWrite) {
    const int32_t lengthBefore = counters().writeQueueLength.load();
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t key = 1; key <= 6; ++key) {
        items.push_back(InBag(GatedItem(key)));
        items.back()->MaybeWriteToDisk();
    }
    ASSERT_TRUE(gate_->WaitStarted(2));
    EXPECT_EQ(std::set<uint32_t>(gate_->order.begin(), gate_->order.end()),
              (std::set<uint32_t>{1, 2}));  // stable: both writers wait at the gate
    EXPECT_EQ(MCp_DiskWriteQueue::Get().Count(), 4);
    // Queued high-priority items are held checked out, so no purge frees them meanwhile.
    EXPECT_EQ(items[5]->GetCheckoutCount(), 1u);
    bag_->ScanDiskCacheDir();
    EXPECT_EQ(bag_->GetNumItems(), 6);
    EXPECT_TRUE(CacheFiles().empty());
    std::thread stopper([] { MC_StopAllAsyncWork(); });
    // The stop drops the four waiting entries before it waits for the two running writes: wait
    // for the queue's count to move, then let the two finish.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (MCp_DiskWriteQueue::Get().Count() != 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    gate_->Open();
    stopper.join();
    for (const auto& stuff : items) EXPECT_EQ(stuff->GetCheckoutCount(), 0u);  // all checked in
    EXPECT_EQ(CacheFiles().size(), 2u);
    EXPECT_EQ(AllFiles(), CacheFiles());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(2 * kFileUnit));
    EXPECT_EQ(counters().writeQueueLength.load(), lengthBefore);

    IntrusivePtr<MC_Stuff> late = InBag(NewItem(20, 2000, kNormal, 5.0));
    late->MaybeWriteToDisk();  // after the stop: nothing is queued
    EXPECT_FALSE(late->WasTaggedToWriteToDisk());
    EXPECT_EQ(gate_->order.size(), 2u);
}

TEST_F(Writer, FinishedWriteAccountsThePaddedFileAndSignals) {
    IntrusivePtr<MC_Stuff> stuff = InBag(NewItem(9, 10, MC_CachePriority_Never, 1.25));
    stuff->SetCachedComputeTimeSavings(0.5);
    std::vector<std::pair<bool, bool>> signals;
    velacore::SignalConnection connection = stuff->GetMemDiskChangedSignal().connect(
        [&](bool inMemory, bool onDisk) { signals.emplace_back(inMemory, onDisk); });
    const uint64_t writtenBefore = counters().bytesWritten.load();
    WriteNow(stuff);

    ASSERT_TRUE(stuff->IsOnDisk());
    const velacore::File file = stuff->GetDiskCacheFile();
    EXPECT_EQ(file.Size(), kFileUnit);  // a 10-byte payload fills one whole buffer
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(kFileUnit));
    EXPECT_EQ(counters().bytesWritten.load() - writtenBefore, kFileUnit);
    EXPECT_EQ(signals, (std::vector<std::pair<bool, bool>>{{true, true}}));
    const std::vector<uint8_t> bytes = mctest::ReadWholeFile(file.GetFullPath());
    const CacheFileHeader header = CacheFileHeader::Decode(bytes.data());
    EXPECT_EQ(header.magic, kCacheFileMagic);
    EXPECT_EQ(header.appVersion, kApp);
    EXPECT_DOUBLE_EQ(header.computeTime, 1.25);
    EXPECT_DOUBLE_EQ(header.savings, 0.5);
    EXPECT_EQ(bytes[32], 10u);  // the payload's own size field follows the header
    EXPECT_EQ(MCp_WriteSpeedStat().GetSampleCount(), 1);  // the speed model learnt from it
}

// A failure at any step of a write leaves no file, accounts nothing and claims nothing: the
// next attempt writes the file.
TEST_F(Writer, FailuresTable) {
    struct Row {
        const char* what;
        FsOp op;
        uint64_t nth;
        Fault fault;
    };
    const Row rows[] = {
        {"no space for the temporary", FsOp::kCreateFile, 1, Fault::kNoSpace},
        {"open fails", FsOp::kOpenForDirectWrite, 1, Fault::kIoError},
        {"first block I/O error", FsOp::kAppend, 1, Fault::kIoError},
        {"short write halfway", FsOp::kAppend, 3, Fault::kShortWrite},
        {"no space halfway", FsOp::kAppend, 3, Fault::kNoSpace},
        {"last block I/O error", FsOp::kAppend, 5, Fault::kIoError},
        {"close fails", FsOp::kClose, 1, Fault::kIoError},
        {"commit fails", FsOp::kRename, 1, Fault::kIoError},
    };
    uint32_t key = 1;
    for (const Row& t : rows) {
        SCOPED_TRACE(t.what);
        IntrusivePtr<MC_Stuff> stuff = InBag(NewItem(key++, 1u << 20));  // 1 MiB: five buffers
        const uint64_t written = counters().bytesWritten.load();
        const uint32_t failures = counters().writeFailures.load();
        {
            auto faults = std::make_shared<mctest::FaultInjectingFileSystem>(fs_);
            mctest::ScopedFileSystem installed(faults);
            faults->FailNth(t.op, t.nth, t.fault);
            WriteNow(stuff);
            EXPECT_EQ(faults->FaultCount(t.op), 1u) << "the fault was not reached";
        }
        EXPECT_FALSE(stuff->IsOnDisk());
        EXPECT_TRUE(stuff->IsInMemory());
        EXPECT_TRUE(AllFiles().empty());
        EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
        EXPECT_EQ(counters().bytesWritten.load(), written);
        EXPECT_EQ(counters().writeFailures.load(), failures + 1);
        EXPECT_EQ(stuff->GetCheckoutCount(), 0u);

        WriteNow(stuff);
        ASSERT_TRUE(stuff->IsOnDisk());
        EXPECT_EQ(AllFiles(), CacheFiles());
        EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(5 * kFileUnit));
        stuff->ClearDiskCacheFile();
        std::filesystem::remove(CacheFiles().at(0));
    }
}

// Two caches sharing one folder race to write the same items: each body is written once.
TEST_F(Writer, TwoCachesInOneFolderWriteEachItemOnce) {
    constexpr uint32_t kKeys = 24;
    gate_->Open();
    auto other = std::make_shared<MC_Bag>(kApp);
    other->SetDiskCacheInfo(root_.AsDir(), BudgetMegabytes());
    other->EnableDiskCache(true);
    std::vector<IntrusivePtr<MC_Stuff>> items[2];
    for (uint32_t key = 0; key < 2 * kKeys; ++key) {
        items[key % 2].push_back(GatedItem(key / 2, MC_CachePriority_Never));
        (key % 2 ? other : bag_)->AddToBagAndSortDir(items[key % 2].back());
    }
    std::atomic<int> start{0};  // not std::latch: MinGW's can lose a wake-up
    auto writeAll = [&](int side) {
        for (start.fetch_add(1); start.load() < 2;) std::this_thread::yield();
        for (auto& stuff : items[side]) stuff->PrepAndWrite(side ? other : bag_);
    };
    std::thread a(writeAll, 0), b(writeAll, 1);
    a.join();
    b.join();
    EXPECT_EQ(gate_->order.size(), kKeys);
    for (uint32_t key = 0; key < kKeys; ++key)
        EXPECT_NE(items[0][key]->IsOnDisk(), items[1][key]->IsOnDisk()) << "key " << key;
    EXPECT_EQ(AllFiles(), CacheFiles());  // no temporary left behind
    EXPECT_EQ(CacheFiles().size(), kKeys);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize() + other->GetCurrentDiskCacheSize(),
              static_cast<int64_t>(kKeys * kFileUnit));
    other->ClearBagAndSortDir();
}

}  // namespace
