// The memory purge: eviction order, skip rules, stop rules, memory freed outside the cache lock,
// a pass long enough to let go of the cache lock while hits go on, and a many-thread soak that
// ends with exact totals.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bag/Eventually.h"
#include "bag/MC_SortDir.h"
#include "mc/MC_ScCheckout.h"
#include "mc/standalone/StandaloneHost.h"
#include "support/ModuleAccess.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class Purge : public ModuleTest {
protected:
    void ConfigureHost(RecordingHostServices& h) override {
        h.SetMemUsageLimits(1000, 1 << 30);  // minimum = 10% of 1000 = 100 bytes
    }
    std::vector<IntrusivePtr<MC_Stuff>> AddItems(int n, uint32_t size) {
        // All with one stamp: among equal stamps insertion order decides.
        std::vector<IntrusivePtr<MC_Stuff>> items;
        for (int i = 0; i < n; ++i) {
            items.push_back(MakeItem(static_cast<uint32_t>(i + 1), size));
            MCp_BagAccess::AddWithStamp(*bag_, items.back(), 5000);
            bag_->GetSortDir()->AddStuff(items.back());
        }
        return items;
    }
};

// Each row: a fresh set of equal-stamped items, a purge target, and which items stay resident.
TEST_F(Purge, OrderSkipAndStopRules) {
    struct Row {
        const char* name;
        int count;
        uint32_t size;
        uint64_t target;
        int held, refusing;  // -1: none
        int64_t freed;
        const char* resident;  // 'R' resident, '-' purged
    };
    const Row rows[] = {
        {"oldest first in insertion order until the target", 5, 100, 250, -1, -1, 300, "---RR"},
        {"checked-out and refusing items are skipped", 4, 100, 100, 0, 1, 100, "RR-R"},
        {"stops at the minimum size (100)", 3, 40, 1000, -1, -1, 40, "-RR"},
        {"nothing when already at the minimum", 2, 40, 1000, -1, -1, 0, "RR"},
        {"the last one goes when 100 are left", 10, 100, 1000, -1, -1, 1000, "----------"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto items = AddItems(row.count, row.size);
        std::unique_ptr<MC_ScCheckout> held;
        if (row.held >= 0)
            held = std::make_unique<MC_ScCheckout>(items[row.held], MC_CheckoutFlag_ReadOnly);
        if (row.refusing >= 0)
            static_cast<TestPayload&>(*items[row.refusing]->GetDataPtr()).SetAllowPurge(false);
        const int freedBuffers = TestPayload::freedBuffers.load();
        const int underLock = TestPayload::freedUnderCacheLock.load();
        host().SetAmountToPurge(row.target);
        EXPECT_EQ(bag_->FreeUpSomeMemory(123456789), row.freed);  // the size argument is ignored
        std::string resident;
        for (const auto& s : items) resident += s->IsInMemory() ? 'R' : '-';
        EXPECT_EQ(resident, row.resident);
        const int kept = static_cast<int>(std::count(resident.begin(), resident.end(), 'R'));
        EXPECT_EQ(bag_->GetNumItems(), kept);  // purged items with no disk file leave the bag
        EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), int64_t{kept} * row.size);
        EXPECT_EQ(TestPayload::freedBuffers.load() - freedBuffers, row.count - kept);
        EXPECT_EQ(TestPayload::freedUnderCacheLock.load() - underLock, 0);
        held.reset();
        bag_->ClearBagAndSortDir();
    }
}

// The recycle call and the last purged item's stamp (the counters are checked with the others);
// purging all memory caches empties every idle item.
TEST_F(Purge, RecycleCallLastPurgedStampAndPurgeAll) {
    host().SetAmountToPurge(150);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 0);  // an empty bag
    EXPECT_EQ(host().PurgeRecycledCount(), 0u);
    auto items = AddItems(4, 100);
    MCp_StuffAccess::SetLastUseTime(*items[1], 7000);  // the stamp the purge reads
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 200);
    EXPECT_EQ(host().PurgeRecycledCount(), 1u);
    EXPECT_EQ(bag_->GetLastPurgedUsedTime(), 7000u);
    MC_ScCheckout held(items[3], MC_CheckoutFlag_ReadOnly);
    bag_->PurgeAllMemoryCaches();
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 100);
    EXPECT_TRUE(items[3]->IsInMemory() && !items[2]->IsInMemory());
}

// Far more items than one hold of the cache lock visits: the oldest half goes, exactly, while
// another thread keeps using the young half.
TEST_F(Purge, LongPassThatLetsGoOfTheLockFreesTheOldestExactly) {
    constexpr uint32_t kItems = 40'000;
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 0; k < kItems; ++k) {
        items.push_back(MakeItem(k + 1, 10));
        items.back()->AddToBagAndSortDir(bag_);
    }
    host().SetAmountToPurge(kItems / 2 * 10);
    int64_t freed = 0;
    {
        uint32_t i = 0;
        Repeat user([&] {
            MC_ScCheckout r(items[kItems / 2 + i++ % (kItems / 2)], MC_CheckoutFlag_ReadOnly);
        });
        freed = bag_->FreeUpSomeMemory(0);
    }
    EXPECT_EQ(freed, int64_t{kItems} / 2 * 10);
    uint32_t resident = 0;
    for (uint32_t k = 0; k < kItems; ++k) {
        EXPECT_EQ(items[k]->IsInMemory(), k >= kItems / 2) << k;
        resident += items[k]->IsInMemory() ? 1 : 0;
    }
    EXPECT_EQ(bag_->GetNumItems(), static_cast<int>(resident));
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), int64_t{resident} * 10);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

// Renderers find, render, resize, remove, check in and purge at random from several threads
// against a concurrent purger; at the end every total equals the sum over the bag's items.
TEST_F(Purge, SoakEndsWithExactTotals) {
    host().SetMemUsageLimits(100, 1 << 30);
    host().SetAmountToPurge(20000);
    {
        Repeat purger([&] { bag_->FreeUpSomeMemory(0); });
        RunThreads(4, [&](int t) {
            std::mt19937 rng(99 + t);
            for (int i = 0; i < 600; ++i) {
                const uint32_t key = rng() % 64;
                MC_ScCheckout receipt;
                const MC_CheckoutResult r = receipt.FindAndCheckout(
                    MakeRequest(key), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                          MC_CheckoutFlag_WaitIfPendingUnlessLocked);
                if (r == MC_CheckoutResult_CreatedNewPending) {
                    if (rng() % 8 == 0) continue;  // abandon now and then
                    receipt.GetStuffPtr()->SetStuffDataFromPendingRender(
                        IntrusivePtr<MC_StuffData>(new TestPayload(key, 100 + key)), 0.01);
                }
                IntrusivePtr<MC_Stuff> s = receipt.GetStuffPtr();
                const uint32_t op = rng() % 10;
                if (op == 0) receipt.SetCheckinFlags(MC_CheckinFlag_Purge);
                if (op == 1 && s && s->IsInMemory()) {  // a resize the bag is told about
                    StaticPointerCast<TestPayload>(s->GetDataPtr())->Resize(1 + rng() % 4000);
                    bag_->AccountForStuffDataModification(s);
                }
                if (op == 2 && s) s->RemoveFromBagAndSortDir();
            }
        });
    }
    int64_t expected = 0;
    for (const auto& s : bag_->SnapshotItems()) {
        EXPECT_FALSE(s->IsPendingRender());
        EXPECT_EQ(s->GetCheckoutCount(), 0u);
        expected += s->GetApproximateMemorySize();
    }
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), expected);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    EXPECT_EQ(bag_->GetNumItems(), bag_->GetNumGuidSortedItems());
}

}  // namespace

// With its timer effectively off, the memory monitor still samples and purges once the bag's
// total rises above the budget, and only on the rise, not on every later growth.
TEST(MemoryWake, ARiseAboveTheBudgetWakesTheMonitorAtOnce) {
    velacore::StandaloneConfig config;
    config.memoryBudget = 1000;
    config.monitorInterval = std::chrono::hours(1);
    auto host = std::make_shared<velacore::StandaloneHostServices>(config);
    auto bag = std::make_shared<MC_Bag>(0);
    velacore::HostServices::MemoryWake wake = host->GetMemoryWake();
    ASSERT_EQ(wake.threshold, 1000u);
    bag->SetMemoryWake(static_cast<int64_t>(wake.threshold), wake.wake);
    std::atomic<int> purges{0};
    host->SetMemoryClient([&] { return bag->GetInMemoryCacheSizeInBytes_LockFree(); },
                          [&] { purges.fetch_add(1); });
    ASSERT_TRUE(mctest::Eventually([&] { return host->GetCounters().memorySamples == 1; }));
    bag->AdjustInMemoryCacheSize(1000);  // at the budget: not over it
    bag->AdjustInMemoryCacheSize(1);
    ASSERT_TRUE(mctest::Eventually([&] { return purges.load() == 1; }));
    bag->AdjustInMemoryCacheSize(500);  // still above: no new crossing
    EXPECT_EQ(host->GetCounters().memorySamples, 2u);
    host->SetMemoryClient(nullptr, nullptr);
    bag->SetMemoryWake(0, {});
}
