// Module start-up and shut-down, the sizes derived from the host's limits and the settings; the
// performance counters: each memory-tier event (check-outs, purges, sweeps) and each disk event
// (writes, read-backs, failures under injected file-system faults, queued writes, refusals and
// their reasons) moves exactly its own counters; the age of the last purged item. The counters
// are process-wide and survive death, so tests compare deltas.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <vector>

#include "bag/Eventually.h"
#include "disk/DiskFolder.h"
#include "disk/DiskWriter.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Module.h"
#include "mc/MC_PerformanceCounters.h"
#include "mc/MC_ScCheckout.h"
#include "mc/host/Time.h"
#include "support/DiskWriterDrain.h"
#include "support/FaultInjectingFileSystem.h"
#include "support/ModuleAccess.h"
#include "support/ModuleFixture.h"
#include "support/TempDir.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

// The performance snapshot without its time-dependent age field.
struct Perf {
    uint32_t purgePasses, reservedCount, purgeAttempts, pendingWaits, pendingRefusals,
        activeCheckouts, supersededSweeps;
    bool operator==(const Perf&) const = default;
};

Perf Snapshot() {
    const MC_PerformanceCounters c = MC_GetPerformanceCounters();
    return {c.purgePasses,     c.reservedCount,   c.purgeAttempts,   c.pendingWaits,
            c.pendingRefusals, c.activeCheckouts, c.supersededSweeps};
}

bool SameDisk(const MC_DiskPerformanceCounters& a, const MC_DiskPerformanceCounters& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// The module over recording host services and a fault-injecting file system; the disk cache is
// off until a test enables it.
class Counters : public ModuleTest {
protected:
    IntrusivePtr<MC_Stuff> Add(uint32_t key, uint32_t size, uint32_t variant = 0) {
        IntrusivePtr<MC_Stuff> stuff = MakeItem(key, size, variant);
        stuff->AddToBagAndSortDir(bag_);
        return stuff;
    }
    void EnableDiskCache() {
        MCp_SetInitialDiskRescanPostedForTesting(true);  // no background scan of the folder
        TestPayload::RegisterFactory();
        bag_->SetDiskCacheInfo(root_.AsDir(), 64);
        bag_->EnableDiskCache(true);
    }
    // A disk-cacheable item in the global bag, added without the write decision.
    IntrusivePtr<MC_Stuff> NewItem(uint32_t key, uint32_t size,
                                   MC_CachePriority priority = MC_CachePriority_Never) {
        auto* payload = new TestPayload(key, size);
        payload->SetDiskCacheable(true);
        payload->SetCachePriority(priority);
        IntrusivePtr<MC_Stuff> stuff =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        stuff->SetGuid(KeyGuid(key));
        bag_->AddToBagAndSortDir(stuff);
        return stuff;
    }
    // Writes the item's file on this thread; returns its size.
    static uint64_t WriteNow(const IntrusivePtr<MC_Stuff>& stuff) {
        MC_Stuff::WriteToDiskAsync(stuff, nullptr);
        return stuff->IsOnDisk() ? stuff->GetDiskCacheFile().Size() : 0;
    }
    // Checks the item out writeable and in again, as a client that changed it would.
    static void WriteableCheckin(const IntrusivePtr<MC_Stuff>& stuff, double computeTime) {
        MC_ScCheckout r(stuff, 0);
        ASSERT_TRUE(r.DidCheckout());
        r.Checkin(0, computeTime);
    }

    std::shared_ptr<FaultInjectingFileSystem> fs_ = std::make_shared<FaultInjectingFileSystem>();
    ScopedFileSystem scopedFs_{fs_};
    TempDir root_{"mc-counters"};
};

// Each memory-tier event moves exactly its own counters (and no disk counter): the row's action
// returns the expected change.
TEST_F(Counters, EachEventMovesExactlyItsOwnCounters) {
    host().SetMemUsageLimits(1000, 4000);  // minimum cache size 100 bytes
    struct Row {
        const char* what;
        std::function<void(Perf&)> act;
    };
    const Row rows[] = {
        {"a purge pass counts itself and each attempt (first: an empty-handed bag)",
         [&](Perf& e) {
             std::vector<IntrusivePtr<MC_Stuff>> items;
             for (uint32_t k = 10; k < 14; ++k) items.push_back(Add(k, 1000));
             static_cast<TestPayload&>(*items[0]->GetDataPtr()).SetAllowPurge(false);  // skipped
             const uint64_t fiveSecondsAgo = velacore::HighPrecisionTime::Now() - 5'000'000'000ull;
             for (int i : {1, 2}) MCp_StuffAccess::SetLastUseTime(*items[i], fiveSecondsAgo);
             host().SetAmountToPurge(1500);  // items 1 and 2 cover it
             EXPECT_EQ(bag_->FreeUpSomeMemory(0), 2000);
             host().SetAmountToPurge(0);
             const int64_t age = MC_GetPerformanceCounters().lastPurgedAgeMs;  // the newest purged
             EXPECT_TRUE(age >= 5000 && age < 3'600'000) << age;
             e.purgePasses += 1, e.purgeAttempts += 2;
         }},
        {"a writeable check-out counts once, a refused one not at all",
         [&](Perf& e) {
             IntrusivePtr<MC_Stuff> stuff = Add(3, 100);
             MC_ScCheckout writer(stuff, 0);
             MC_ScCheckout reader(stuff, MC_CheckoutFlag_ReadOnly);  // refused while writeable
             EXPECT_TRUE(writer.DidCheckout() && !reader.DidCheckout());
             Perf during = e;
             during.activeCheckouts += 1;
             EXPECT_EQ(Snapshot(), during);
         }},
        {"concurrent check-outs balance out",
         [&](Perf&) {
             IntrusivePtr<MC_Stuff> stuff = Add(4, 100);
             RunThreads(4, [&](int) {
                 for (int i = 0; i < 200; ++i) MC_ScCheckout r(stuff, MC_CheckoutFlag_ReadOnly);
             });
         }},
        {"a superseded entry is counted once",
         [&](Perf& e) {
             IntrusivePtr<MC_Stuff> old = Add(20, 100, 0);
             const Perf before = Snapshot();
             Add(20, 100, 1);  // variant 1 satisfies variant 0
             EXPECT_TRUE(old->GetBag().expired());
             Add(20, 100, 0);  // cannot satisfy variant 1
             e = before;
             e.supersededSweeps += 1;
         }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        const MC_DiskPerformanceCounters disk = MC_GetDiskPerformanceCounters();
        Perf expected = Snapshot();
        row.act(expected);
        EXPECT_EQ(Snapshot(), expected);
        EXPECT_TRUE(SameDisk(MC_GetDiskPerformanceCounters(), disk));
    }
}

// Each disk event moves exactly its own counters: the row's action returns the expected change.
TEST_F(Counters, EachDiskEventMovesExactlyItsOwnCounters) {
    EnableDiskCache();
    using Counters = MC_DiskPerformanceCounters;
    uint32_t key = 0;
    struct Row {
        const char* what;
        bool onDiskOnly;  // the row's item is written and purged from memory first
        std::function<void(const IntrusivePtr<MC_Stuff>&, Counters&)> act;
    };
    const Row rows[] = {
        {"a read-back", true,
         [&](auto& s, Counters& e) {
             MC_ScCheckout r(s, MC_CheckoutFlag_ReadOnly);
             EXPECT_TRUE(r.DidCheckout() && r.IsInMemory());
             e.bytesRead += s->GetDiskCacheFile().Size();
         }},
        {"a failed write", false,
         [&](auto& s, Counters& e) {
             fs_->FailFrom(FsOp::kAppend, 1, Fault::kIoError);
             EXPECT_EQ(WriteNow(s), 0u);
             fs_->ClearFaults();
             e.writeFailures += 1;
         }},
        {"a corrupt body deletes the file", true,
         [&](auto& s, Counters& e) {
             const auto path = s->GetDiskCacheFile().GetFullPath();
             static_cast<TestPayload&>(*s->GetDataPtr()).SetReadFailure(true);
             EXPECT_FALSE(MC_ScCheckout(s, MC_CheckoutFlag_ReadOnly).DidCheckout());
             EXPECT_FALSE(s->IsOnDisk() || std::filesystem::exists(path));
             e.readFailures += 1;
         }},
        {"check-ins: priority 0 is reason 4, no compute time reason 3, others queue and write",
         false,
         [&](auto&, Counters& e) {
             WriteableCheckin(NewItem(++key, 5000, MC_CachePriority_Never), 1.0);
             WriteableCheckin(NewItem(++key, 5000, MC_CachePriority_Normal), 0.0);
             IntrusivePtr<MC_Stuff> normal = NewItem(++key, 5000, MC_CachePriority_Normal);
             IntrusivePtr<MC_Stuff> low = NewItem(++key, 5000, MC_CachePriority_Low);
             WriteableCheckin(normal, 1.0);
             WriteableCheckin(low, 1.0);
             ASSERT_TRUE(mctest::DrainDiskWriter());
             ++e.reason4Count, ++e.reason3Count, ++e.normalWritesQueued;
             ++e.lowPriorityWritesQueued;
             EXPECT_GT(normal->GetDiskCacheFile().Size(), 5000u);  // header and padding included
             e.bytesWritten += normal->GetDiskCacheFile().Size() + low->GetDiskCacheFile().Size();
         }},
        {"recorded reasons land in their fields (0 is not counted)", false,
         [&](auto&, Counters& e) {
             for (int why : {1, 2, 4, 5, 0}) {
                 IntrusivePtr<MC_Stuff> stuff = NewItem(++key, 5000);
                 stuff->GetDataPtr()->SetNoDiskCache(MC_StuffData::NoDiskCacheReason(why));
                 stuff->MaybeWriteToDisk();
             }
             ++e.reason1Count, ++e.reason2Count, ++e.reason4Count, ++e.reason5Count;
         }},
        {"a full queue records and counts reason 3", false,
         [&](auto& s, Counters& e) {
             s->GetDataPtr()->SetCachePriority(MC_CachePriority_High);
             MCp_DiskWriteQueue::Get().AdjustCountForTesting(200);
             s->MaybeWriteToDisk();
             MCp_DiskWriteQueue::Get().AdjustCountForTesting(-200);
             EXPECT_EQ(s->GetDataPtr()->GetReasonWhyNoDiskCache(),
                       MC_StuffData::NoDiskCacheReason_DiskBusy);
             e.reason3Count += 1;
         }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        const IntrusivePtr<MC_Stuff> stuff = NewItem(++key, 5000);
        if (row.onDiskOnly) {
            ASSERT_GT(WriteNow(stuff), 0u);
            ASSERT_GT(stuff->FreeUpAsMuchAsPossible(true, nullptr), 0u);
        }
        const MC_PerformanceCounters memory = MC_GetPerformanceCounters();
        Counters expected = MC_GetDiskPerformanceCounters();
        row.act(stuff, expected);
        EXPECT_TRUE(SameDisk(MC_GetDiskPerformanceCounters(), expected));
        EXPECT_EQ(MC_GetPerformanceCounters().purgePasses, memory.purgePasses);
    }
}

class Lifecycle : public ModuleTest {};

TEST_F(Lifecycle, BirthAndDeathSetUpAndTearDownEverything) {
    ASSERT_TRUE(bag_);
    EXPECT_EQ(bag_->GetAppVersion(), kAppVersion);
    EXPECT_EQ(MC_Bag(0x80000001u).GetAppVersion(), 1u);  // the top bit is dropped
    EXPECT_TRUE(host().HasMemoryClient());
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);  // not interactive: no media map

    TestPayload::RegisterFactory();
    std::vector<uint8_t> header(8, 0);
    ASSERT_TRUE(MC_StuffData::CreateSubclass(TestPayload::kMatchname, header));
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    stuff->AddToBagAndSortDir(bag_);
    bag_.reset();
    MC_StopAllAsyncWork();
    EXPECT_TRUE(MCp_StopRequested());
    MC_Death();
    EXPECT_FALSE(MC_GlobalBag());
    EXPECT_FALSE(MC_StuffData::CreateSubclass(TestPayload::kMatchname, header));
    EXPECT_TRUE(stuff->GetBag().expired());
    EXPECT_FALSE(host().HasMemoryClient());
    MC_Birth(false, kAppVersion, false);  // TearDown stops and kills it again
}

TEST_F(Lifecycle, SizesFollowTheHostsLimits) {
    host().SetMediaBudget(10'000'000'000ull);
    EXPECT_EQ(MC_GetMaxMCCacheSize(), 1'000'000'000ull);  // a tenth of the media budget
    host().SetDebugEntry("Graphics.DefaultMCCacheLimitForQuilletsMultiplier", "1.5");
    mc_settings::ResetForTesting();
    host().SetMediaBudget(1ull << 63);
    EXPECT_EQ(MC_GetMaxMCCacheSize(), (1ull << 63) + (1ull << 62));  // no overflow

    host().SetMemUsageLimits(1000, 4000);  // minimum: a tenth of the limit
    EXPECT_FALSE(MC_IsGlobalBagSizeAboveMinimum());
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 100);
    stuff->AddToBagAndSortDir(bag_);
    EXPECT_TRUE(MC_IsGlobalBagSizeAboveMinimum());
    host().SetMemUsageLimits(1000, 4000, /*result=*/-5);
    EXPECT_THROW(MC_IsGlobalBagSizeAboveMinimum(), int);
}

}  // namespace
