// Writing and reading cache files: the write decision, the speed statistics and busy time it learns
// from; the writer's queue and its two threads, failed writes, and two caches racing in one folder;
// read-back of purged items, read failures of every kind, and never any file I/O under the cache
// lock. Speed samples carry injected time stamps (nanosecond ticks).
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <random>
#include <thread>

#include "DiskFixture.h"
#include "disk/DiskWriter.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/Errors.h"
#include "mc/host/Signal.h"
#include "support/Latch.h"

using namespace diskbtest;
using mctest::Fault;
using mctest::FsOp;
using velacore::File;
namespace fs = std::filesystem;

namespace {
constexpr uint32_t kMiB = 1u << 20;
constexpr double kInitial = MCp_DiskSpeedStat::kInitialAverage;
constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kStart = 1000 * kSecond;

using WriteDecision = DiskCacheTest;

const MC_CachePriority kNormal = MC_CachePriority_Normal;
const MC_CachePriority kLow = MC_CachePriority_Low;
const MC_CachePriority kHigh = MC_CachePriority_High;
const MC_CachePriority kFive = static_cast<MC_CachePriority>(5);

// One decision: `size` bytes of `priority` computed in `computeTime` s, `queued` entries in the
// queue, a proclivity multiplier and a measured read average (0: the initial 512 MiB/s, 20 ms
// for 10 MiB).
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
        {"10 MiB in 0.1 s", 10 * kMiB, kNormal, 0.1, 0, 1.0, 0, true, false, false},
        // 150 queued: 32 MiB/s, 0.31 s to read back.
        {"150 queued", 10 * kMiB, kNormal, 0.1, 150, 1.0, 0, false, true, false},
        {"below the 1 ms floor", 1, kNormal, 0.0005, 0, 1.0, 0, false, false, false},
        // At the floor reading back is as fast as recomputing: not better, not written.
        {"exactly the 1 ms floor", 1, kNormal, 0.001, 0, 1.0, 0, false, false, false},
        {"above the 1 ms floor", 1, kNormal, 0.002, 0, 1.0, 0, true, false, false},
        {"never", 10 * kMiB, MC_CachePriority_Never, 10.0, 0, 1.0, 0, false, false, false},
        // High skips the speed test while there is room.
        {"high, 199 queued", 10 * kMiB, kHigh, 0.0, 199, 1.0, 0, true, false, false},
        {"high, queue full", 10 * kMiB, kHigh, 10.0, 200, 1.0, 0, false, true, false},
        {"priority 5 as normal", 10 * kMiB, kFive, 0.1, 0, 1.0, 0, true, false, false},
        {"priority 5, too fast", 10 * kMiB, kFive, 0.01, 0, 1.0, 0, false, false, false},
        // Low halves the read speed: 0.039 s against 0.03 s.
        {"normal, 0.03 s", 10 * kMiB, kNormal, 0.03, 0, 1.0, 0, true, false, false},
        {"low, 0.03 s", 10 * kMiB, kLow, 0.03, 0, 1.0, 0, false, false, true},
        {"proclivity 4", 10 * kMiB, kNormal, 0.05, 0, 4.0, 0, false, false, false},  // 0.078 s
        // A measured 50 MiB/s: 0.2 s for 10 MiB.
        {"measured, 0.1 s", 10 * kMiB, kNormal, 0.1, 0, 1.0, 50.0 * kMiB, false, false, false},
        {"measured, 0.3 s", 10 * kMiB, kNormal, 0.3, 0, 1.0, 50.0 * kMiB, true, false, false},
    };
    MCp_DiskWriteQueue& queue = MCp_DiskWriteQueue::Get();
    for (const Row& t : rows) {
        SCOPED_TRACE(t.what);
        queue.AdjustCountForTesting(t.queued);
        MCp_DiskFolder::SetProclivityMultiplier(t.proclivity);
        if (t.readAverage > 0) MCp_ReadSpeedStat().SetAverageForTesting(t.readAverage);
        bool can = true, queueFull = true, low = true;  // poisoned: the decision sets each
        EXPECT_EQ(NewItem(1, t.size, t.priority)
                      ->WorthWritingToDiskCache(t.computeTime, &can, &queueFull, &low),
                  t.worth);
        queue.AdjustCountForTesting(-t.queued);
        MCp_ReadSpeedStat().Reset();
        EXPECT_EQ(can, t.priority != MC_CachePriority_Never);
        EXPECT_EQ(queueFull, t.queueFull);
        EXPECT_EQ(low, t.low);
    }
    MCp_DiskFolder::SetProclivityMultiplier(MCp_DiskFolder::kDefaultProclivityMultiplier);
    bool can = true, queueFull, low;
    IntrusivePtr<MC_Stuff>(new MC_Stuff())->WorthWritingToDiskCache(10, &can, &queueFull, &low);
    EXPECT_FALSE(can);  // no data yet
    queue.AdjustCountForTesting(100);
    EXPECT_DOUBLE_EQ(bag_->GetDiskWriteQueueSizePercentFull(), 0.5);
    EXPECT_DOUBLE_EQ(bag_->GetAdjustedWriteTimePercent(10.0, 0.4), 2.0);  // fuller than 40 %
    queue.AdjustCountForTesting(-100);
}

// Each sample moves the average by 2 %; overlapping operations count at their combined speed,
// separate ones on their own; speeds at or above the cap are left out, merged or not.
TEST(SpeedStat, AverageMergingCapAndExactCountsUnderContention) {
    MCp_DiskSpeedStat stat;
    stat.AddSampleAt(100'000'000, 1.0, kStart);  // 1e8 B/s
    const double first = 0.98 * kInitial + 0.02 * 1e8;
    EXPECT_DOUBLE_EQ(stat.GetAverage(), first);
    // 2 s long, ended 1 s after the first: 2e8 bytes in 2 s together = 1e8, not 5e7.
    stat.AddSampleAt(100'000'000, 2.0, kStart + kSecond);
    const double merged = 0.98 * first + 0.02 * 1e8;
    EXPECT_DOUBLE_EQ(stat.GetAverage(), merged);
    // 1 ms long, 10 s after the last: no overlap, it counts on its own at 1e5 B/s.
    stat.AddSampleAt(100, 0.001, kStart + 11 * kSecond);
    EXPECT_DOUBLE_EQ(stat.GetAverage(), 0.98 * merged + 0.02 * 1e5);
    EXPECT_EQ(stat.GetSampleCount(), 3);

    MCp_DiskFolder::SetSpeedCapBytesPerSecond(1e9);
    stat.AddSampleAt(500'000'000, 0.5, kStart + 30 * kSecond);  // exactly the cap
    // Overlapping the capped one: together still above the cap.
    stat.AddSampleAt(1'000'000'000, 1.0, kStart + 30 * kSecond + kSecond / 1000);
    EXPECT_EQ(stat.GetSampleCount(), 3);

    // Overlapping samples merge into ever faster ones: without a cap, all are counted, exactly.
    MCp_DiskFolder::SetSpeedCapBytesPerSecond(1e300);
    constexpr int kThreads = 8, kSamples = 200000;
    std::atomic<int> start{0};  // not std::latch: MinGW's can lose a wake-up
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (start.fetch_add(1); start.load() < kThreads;) std::this_thread::yield();
            for (int i = 0; i < kSamples; ++i) stat.AddSample(1000, 1e-6);
        });
    for (auto& t : threads) t.join();
    MCp_DiskFolder::SetSpeedCapBytesPerSecond(MCp_DiskFolder::kDefaultSpeedCapBytesPerSecond);
    EXPECT_EQ(stat.GetSampleCount(), 3 + int64_t{kThreads} * kSamples);
}

TEST(BusyTracker, ShareOfTheSpanCountsOverlapsOpenIntervalsAndForgetsOldOnes) {
    MCp_BusyTracker tracker;
    tracker.EndAt(tracker.BeginAt(kStart), kStart + 2 * kSecond);  // 2 s, over at +2 s
    const uint64_t open = tracker.BeginAt(kStart + 5 * kSecond);
    const uint64_t now = kStart + 10 * kSecond;
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(100.0, now), 7.0 / 100.0);      // 2 s + 5 s
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(9.0, now), (1.0 + 5.0) / 9.0);  // 1 s of the first
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(4.0, now), 1.0);  // the open one, at most the span
    const uint64_t second = tracker.BeginAt(kStart + 6 * kSecond);  // overlapping operations
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(4.0, now), 2.0);
    tracker.EndAt(open, now);
    tracker.EndAt(second, now);
    EXPECT_DOUBLE_EQ(tracker.PercentBusyAt(1.0, now + 3 * kSecond), 0.0);  // all over before
}

// Counts the writes of its payloads and the keys they were for, and holds each until opened.
struct Gate {
    mctest::Latch open{1}, twoStarted{2};
    std::atomic<int> started{0};
    std::atomic<uint32_t> keys{0};  // a bit per key
};

class GatedPayload : public TestPayload {
public:
    GatedPayload(uint32_t key, std::shared_ptr<Gate> gate)
        : TestPayload(key, 2000), gate_(std::move(gate)) {}
    double Write(velacore::OByteStream& out) const override {
        gate_->keys |= 1u << Key();
        ++gate_->started;
        gate_->twoStarted.count_down();
        gate_->open.wait();
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
    ASSERT_TRUE(gate_->twoStarted.wait());
    EXPECT_EQ(gate_->keys.load(), 0b110u);  // keys 1 and 2; stable: both writers wait at the gate
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
    gate_->open.count_down();
    stopper.join();
    for (const auto& stuff : items) EXPECT_EQ(stuff->GetCheckoutCount(), 0u);  // all checked in
    EXPECT_EQ(CacheFiles().size(), 2u);
    EXPECT_EQ(AllFiles(), CacheFiles());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(2 * kFileUnit));
    EXPECT_EQ(counters().writeQueueLength.load(), lengthBefore);

    IntrusivePtr<MC_Stuff> late = InBag(NewItem(20, 2000, kNormal, 5.0));
    late->MaybeWriteToDisk();  // after the stop: nothing is queued
    EXPECT_FALSE(late->WasTaggedToWriteToDisk());
    EXPECT_EQ(gate_->started.load(), 2);
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
    gate_->open.count_down();
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
    EXPECT_EQ(gate_->started.load(), static_cast<int>(kKeys));
    for (uint32_t key = 0; key < kKeys; ++key)
        EXPECT_NE(items[0][key]->IsOnDisk(), items[1][key]->IsOnDisk()) << "key " << key;
    EXPECT_EQ(AllFiles(), CacheFiles());  // no temporary left behind
    EXPECT_EQ(CacheFiles().size(), kKeys);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize() + other->GetCurrentDiskCacheSize(),
              static_cast<int64_t>(kKeys * kFileUnit));
    other->ClearBagAndSortDir();
}

// Notes whether its file I/O ran under the process-wide cache lock. A half-read one fills
// itself from the file, then reports the body as corrupt.
class ProbePayload : public TestPayload {
public:
    ProbePayload(uint32_t key, uint32_t size, bool halfRead = false)
        : TestPayload(key, size), halfRead_(halfRead) {}
    double Write(velacore::OByteStream& out) const override {
        underLock = underLock || MCp_ScLock::IsHeldByCurrentThread();
        return TestPayload::Write(out);
    }
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex& lock) override {
        underLock = underLock || MCp_ScLock::IsHeldByCurrentThread();
        ++reads;
        TestPayload::Read(in, lock);
        if (halfRead_) throw velacore::IOError("checksum mismatch after the body was read");
        return 0.0;
    }
    mutable std::atomic<bool> underLock{false};
    mutable std::atomic<int> reads{0};
    const bool halfRead_;
};

bool HasKeyPattern(const IntrusivePtr<MC_Stuff>& stuff, uint32_t key, uint32_t size) {
    auto* payload = dynamic_cast<TestPayload*>(stuff->GetDataPtr().get());
    auto bytes = payload ? payload->Bytes() : nullptr;
    return bytes && *bytes == *TestPayload(key, size).Bytes();
}

class ReadBack : public DiskCacheTest {
protected:
    // An item in the bag, written to disk and purged from memory.
    IntrusivePtr<MC_Stuff> OnDiskOnly(IntrusivePtr<MC_Stuff> item) {
        bag_->AddToBagAndSortDir(item);
        WriteNow(item);
        EXPECT_TRUE(item->IsOnDisk());
        item->FreeUpAsMuchAsPossible(true, nullptr);
        EXPECT_FALSE(item->IsInMemory());
        return item;
    }
};

// The disk writer writes a rendered item's file (whole buffers, its times in the header) and
// accounts it; after a purge six readers at once find it, one of them reads the file, once, and
// neither the write nor the read runs under the cache lock.
TEST_F(ReadBack, RenderCheckInPurgeAndCheckOutAgainFromDisk) {
    // Exactly two whole buffers with the header and the payload's size field: no empty tail.
    constexpr uint32_t kKey = 5, kSize = 2 * kFileUnit - 36;
    auto* payload = new ProbePayload(kKey, kSize);
    payload->SetDiskCacheable(true);
    payload->SetCachePriority(MC_CachePriority_Normal);
    IntrusivePtr<MC_Stuff> item;
    std::atomic<int> changes{0};
    velacore::SignalConnection connection;
    const uint64_t writtenBefore = counters().bytesWritten.load();
    {
        MC_ScCheckout render;
        ASSERT_EQ(render.FindAndCheckout(mctest::MakeRequest(kKey), MC_CheckoutFlag_CreatePending),
                  MC_CheckoutResult_CreatedNewPending);
        item = render.GetStuffPtr();
        connection = item->GetMemDiskChangedSignal().connect(
            [&](bool inMemory, bool onDisk) { changes += inMemory && onDisk ? 1 : 100; });
        item->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(payload), 2.0);
        item->SetCachedComputeTimeSavings(0.5);
        render.Checkin(0, 2.0);
    }
    ASSERT_TRUE(mctest::DrainDiskWriter());
    ASSERT_TRUE(item->IsOnDisk());
    const velacore::File file = item->GetDiskCacheFile();
    EXPECT_EQ(file.Size(), 2 * kFileUnit);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(2 * kFileUnit));
    EXPECT_EQ(counters().bytesWritten.load() - writtenBefore, 2 * kFileUnit);
    EXPECT_EQ(MCp_WriteSpeedStat().GetSampleCount(), 1);  // the speed model learnt from it
    const std::vector<uint8_t> bytes = mctest::ReadWholeFile(file.GetFullPath());
    // Little-endian: magic, format 1, application version 256, reserved, compute time 2.0,
    // savings 0.5, then the payload's own size field.
    const std::vector<uint8_t> head = {0xCB, 0x31, 4, 0, 1, 0, 0,    0,    0,    1,    0,    0,
                                       0,    0,    0, 0, 0, 0, 0,    0,    0,    0,    0,    0x40,
                                       0,    0,    0, 0, 0, 0, 0xE0, 0x3F, 0xDC, 0xFF, 0x07, 0};
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 36), head);
    bag_->PurgeAllMemoryCaches();
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    item->SetComputeTime(0.0);  // the file's header brings the real figure back

    std::atomic<int> good{0};
    const uint64_t readBefore = counters().bytesRead.load();
    std::vector<std::thread> readers;
    for (int t = 0; t < 6; ++t)
        readers.emplace_back([&] {
            MC_ScCheckout again;
            good += again.FindAndCheckout(mctest::MakeRequest(kKey), MC_CheckoutFlag_ReadOnly) ==
                        MC_CheckoutResult_CheckedOut &&
                    HasKeyPattern(again.GetStuffPtr(), kKey, kSize);
        });
    for (auto& t : readers) t.join();
    EXPECT_EQ(good.load(), 6);
    EXPECT_EQ(payload->reads.load(), 1);
    EXPECT_FALSE(payload->underLock.load());
    EXPECT_EQ(changes.load(), 2);  // written, then read back once
    EXPECT_DOUBLE_EQ(item->GetComputeTime(), 2.0);
    EXPECT_EQ(counters().bytesRead.load() - readBefore, 2 * kFileUnit);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), static_cast<int64_t>(kSize));
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_TRUE(item->IsOnDisk());  // the file stays for the next purge
}

// An entry whose payload lives only in its file is not dead: a newcomer with its GUID that cannot
// stand in for it leaves it in the directory, and it is read back.
TEST_F(ReadBack, AnItemOnDiskOnlySurvivesANewcomerWithItsGuid) {
    IntrusivePtr<MC_Stuff> old =
        OnDiskOnly(NewItem(7, 1000, MC_CachePriority_Never, 1.0, new TestPayload(7, 1000, 9)));
    bag_->AddToBagAndSortDir(NewItem(7, 1000));  // variant 0 cannot satisfy variant 9
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
    MC_ScCheckout again;
    ASSERT_EQ(again.FindAndCheckout(mctest::MakeRequest(7, 9), MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(again.GetStuffPtr(), old);
    EXPECT_TRUE(again.IsInMemory());
}

// Identical items name the same file. An item displaced while a worker holds it keeps naming
// its file, and a scan gives that file to the newcomer; the old item's conversion to writeable
// must then leave the file to the newcomer, which reads it back, counted once.
TEST_F(ReadBack, ADisplacedHolderLeavesItsFileToTheNewcomer) {
    IntrusivePtr<MC_Stuff> old = InBag(NewItem(7, 1000));
    WriteNow(old);
    const velacore::File file = old->GetDiskCacheFile();
    const int64_t fileBytes = bag_->GetCurrentDiskCacheSize();
    ASSERT_GT(fileBytes, 0);
    ASSERT_EQ(old->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    IntrusivePtr<MC_Stuff> newcomer = InBag(NewItem(7, 1000));
    ASSERT_EQ(bag_->GetNumGuidSortedItems(), 1);  // the old item was displaced
    bag_->ScanDiskCacheDir();
    ASSERT_EQ(newcomer->GetDiskCacheFile(), file);

    old->ConvertToWriteable();
    EXPECT_TRUE(fs::exists(file.GetFullPath()));
    EXPECT_FALSE(old->IsOnDisk());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), fileBytes);
    old->Checkin(0, 0.0);
    newcomer->FreeUpAsMuchAsPossible(true, nullptr);
    MC_ScCheckout again;
    ASSERT_EQ(again.FindAndCheckout(mctest::MakeRequest(7), MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(again.GetStuffPtr(), newcomer);
    EXPECT_TRUE(HasKeyPattern(newcomer, 7, 1000));
}

// A writeable check-out reads a purged item back only once it has the item to itself: refused
// while another holds it, it leaves payload and totals alone; a read that fails gives it back.
TEST_F(ReadBack, WriteableCheckOutReadsBackOnlyWhenItGetsTheItem) {
    auto* payload = new ProbePayload(7, 4000);
    IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(7, 4000, MC_CachePriority_Never, 1, payload));
    ASSERT_EQ(item->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(item->Checkout(0), MC_CheckoutResult_Failed);
    EXPECT_FALSE(item->IsInMemory());
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    item->Checkin(MC_CheckinFlag_DontUpdateLastUsed, 0.0);
    ASSERT_EQ(item->Checkout(0), MC_CheckoutResult_CheckedOut);
    EXPECT_TRUE(HasKeyPattern(item, 7, 4000));
    EXPECT_FALSE(payload->underLock.load());
    item->Checkin(0, 0.0);

    item->FreeUpAsMuchAsPossible(true, nullptr);
    payload->SetReadFailure(true);
    EXPECT_EQ(item->Checkout(0), MC_CheckoutResult_Failed);
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_FALSE(item->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);  // back in its directory
}

// Every kind of bad file, through each way in (the finder, which then renders anew; a direct
// check-out; EnsureInMemory): the read fails quietly, is counted, and leaves nothing behind -
// no payload, no file, no bytes in the budget, no hold, the times untouched. A healthy item read
// afterwards is not disturbed.
TEST_F(ReadBack, ReadFailuresTable) {
    constexpr uint32_t kSize = 20000;
    auto patch = [](size_t at, uint8_t flip) {
        return [at, flip](const fs::path& p) {
            std::vector<uint8_t> b = mctest::ReadWholeFile(p);
            b[at] ^= flip;
            b[16] = 0xFF;  // a compute time that must not be taken
            mctest::WriteWholeFile(p, b);
        };
    };
    struct Row {
        const char* what;
        std::function<void(const fs::path&)> spoil;
        bool halfRead = false;  // the payload throws after filling itself
    };
    const Row rows[] = {
        {"missing", [](const fs::path& p) { fs::remove(p); }},
        {"empty", [](const fs::path& p) { fs::resize_file(p, 0); }},
        {"truncated in the body", [](const fs::path& p) { fs::resize_file(p, 36 + kSize / 2); }},
        {"bit flipped in the body", patch(36 + 1234, 0x10)},
        {"other format version", patch(4, 1)},
        {"garbage magic", patch(0, 0xA5)},
        {"payload throws after filling itself", [](const fs::path&) {}, true},
    };
    IntrusivePtr<MC_Stuff> good = OnDiskOnly(NewItem(99, kSize));
    uint32_t key = 10;
    for (const Row& t : rows) {
        for (int way = 0; way < 3; ++way, ++key) {
            SCOPED_TRACE(std::string(t.what) + ", way " + std::to_string(way));
            IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(
                key, kSize, MC_CachePriority_Never, 3.0, new ProbePayload(key, kSize, t.halfRead)));
            const fs::path file = item->GetDiskCacheFile().GetFullPath();
            t.spoil(file);
            const uint32_t failures = counters().readFailures.load();
            MC_ScCheckout receipt;
            if (way == 0) {
                EXPECT_EQ(receipt.FindAndCheckout(
                              mctest::MakeRequest(key),
                              MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
                          MC_CheckoutResult_CreatedNewPending);
                EXPECT_NE(receipt.GetStuffPtr(), item);
            } else if (way == 1) {
                EXPECT_EQ(item->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_Failed);
            } else {
                EXPECT_FALSE(item->EnsureInMemory());
            }
            EXPECT_EQ(counters().readFailures.load(), failures + 1);
            EXPECT_FALSE(item->IsInMemory() || item->IsOnDisk() || fs::exists(file));
            EXPECT_EQ(bag_->GetCurrentDiskCacheSize(),
                      static_cast<int64_t>(good->GetDiskCacheFile().Size()));
            EXPECT_EQ(item->GetApproximateMemorySize() + item->GetCheckoutCount(), 0u);
            EXPECT_DOUBLE_EQ(item->GetComputeTime(), 3.0);
        }
    }
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_TRUE(good->EnsureInMemory());
    EXPECT_TRUE(HasKeyPattern(good, 99, kSize));
    EXPECT_TRUE(good->IsOnDisk());
}

// A short soak of the whole cache: threads find, render, check in (plain, Remove, Purge, forced
// write), check out writeable and resize, purge, hold disk files and rescan the folder, over a
// few keys with three variants each and a disk budget that forces deletions. Payload bytes
// follow their key; a disk read of other bytes fails (and is counted); a held payload is checked
// twice. At the end: no wrong, torn or vanished read, and the bag's totals equal its items' sum.

constexpr uint32_t kKeys = 6, kVariants = 3;
std::atomic<int> g_wrong{0}, g_looks{0};  // bytes of another key or variant, torn, or lost

// Checks what a holder sees, twice: it must stay whole, its key's, and answer the request.
void VerifyHeld(const IntrusivePtr<MC_Stuff>& item, uint32_t key, uint32_t variant) {
    auto* payload = dynamic_cast<TestPayload*>(item->GetDataPtr().get());
    if (!payload) return;  // an abandoned render (the finder looked again)
    if (payload->Key() != key || payload->Variant() < variant) g_wrong.fetch_add(1);
    for (int look = 0; look < 2; ++look, std::this_thread::yield()) {
        const auto bytes = payload->Bytes();
        g_looks.fetch_add(1);
        if (!bytes || *bytes != *TestPayload(key, static_cast<uint32_t>(bytes->size())).Bytes())
            return void(g_wrong.fetch_add(1));
    }
}

class Soak : public DiskCacheTest {
protected:
    uint64_t BudgetMegabytes() const override { return 3; }  // forces deletions

    void Worker(uint32_t seed, std::chrono::steady_clock::time_point end) {
        std::minstd_rand rng(seed);
        auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
        const int checkinFlags[] = {
            0, 0, 0, MC_CheckinFlag_Remove, MC_CheckinFlag_Purge, MC_CheckinFlag_ForceWriteToDisk};
        while (std::chrono::steady_clock::now() < end) {
            const uint32_t key = pick(kKeys), variant = pick(kVariants);
            const bool writeable = pick(5) == 0;
            MC_ScCheckout receipt;
            const MC_CheckoutResult r = receipt.FindAndCheckout(
                mctest::MakeRequest(key, variant), MC_CheckoutFlag_CreatePending |
                                                       MC_CheckoutFlag_WaitIfPendingUnlessLocked |
                                                       (writeable ? 0 : MC_CheckoutFlag_ReadOnly));
            const IntrusivePtr<MC_Stuff> item = receipt.GetStuffPtr();
            if (r == MC_CheckoutResult_CreatedNewPending) {
                auto* data = new TestPayload(key, 2000 + 1000 * pick(8), variant);
                data->SetDiskCacheable(true);
                data->SetCachePriority(pick(2) ? MC_CachePriority_High : MC_CachePriority_Normal);
                item->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(data), 0.05);
            } else if (r == MC_CheckoutResult_CheckedOut) {
                VerifyHeld(item, key, variant);
                auto* data = dynamic_cast<TestPayload*>(item->GetDataPtr().get());
                if (writeable && data && data->IsInMemory()) {  // resize under the check-out
                    data->Resize(2000 + 1000 * pick(8));
                    bag_->AccountForStuffDataModification(item);
                    VerifyHeld(item, data->Key(), data->Variant());
                }
            } else {
                continue;
            }
            receipt.Checkin(checkinFlags[pick(6)], 0.05);
        }
    }

    void Maintenance(std::chrono::steady_clock::time_point end) {
        std::minstd_rand rng(99);
        while (std::chrono::steady_clock::now() < end) {
            for (const auto& item : bag_->SnapshotItems()) {
                const auto dice = rng() % 8;
                const velacore::File file = item->GetDiskCacheFile();
                const auto hold = dice == 1 ? item->CheckoutDiskCache(true) : nullptr;
                if (dice == 0) item->FreeUpAsMuchAsPossible(true, nullptr);
                if (dice == 2 && !file.IsEmpty()) MC_ScanOneDiskCacheFile(file);
            }
            if (rng() % 4 == 0) bag_->ScanDiskCacheDir();
            if (rng() % 4 == 0) bag_->PurgeAllMemoryCaches();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));  // pacing only
        }
    }
};

TEST_F(Soak, ConcurrentUseNeverServesWrongBytesAndKeepsTotalsRight) {
    g_wrong = g_looks = 0;
    const uint32_t failuresBefore = counters().readFailures.load();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) threads.emplace_back([this, t, end] { Worker(t + 1, end); });
    threads.emplace_back([this, end] { Maintenance(end); });
    for (auto& t : threads) t.join();
    ASSERT_TRUE(mctest::DrainDiskWriter());

    EXPECT_GT(g_looks.load(), 100);
    // Every file written here is whole and of its key, so no read may fail: a failure means a
    // file that one item deleted while another still named it (identical items name one file).
    EXPECT_EQ(counters().readFailures.load() - failuresBefore, 0u) << g_looks << " looks";
    EXPECT_EQ(g_wrong.load(), 0);
    for (const std::string& message : host().FailedVerifications()) ADD_FAILURE() << message;

    // Idle: every total is the sum over the items.
    int64_t inMemory = 0, onDisk = 0;
    for (const auto& item : bag_->SnapshotItems()) {
        EXPECT_EQ(item->GetCheckoutCount(), 0u);
        inMemory += item->GetApproximateMemorySize();
        const velacore::File file = item->GetDiskCacheFile();
        std::error_code ec;
        if (!file.IsEmpty()) onDisk += std::filesystem::file_size(file.GetFullPath(), ec);
        EXPECT_FALSE(ec) << file.GetFullPathUtf8();
    }
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), inMemory);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), onDisk);
}

}  // namespace
