// The memory purge: eviction order, skip rules, stop rules, memory freed outside the cache lock,
// statistics and traces, and a many-thread soak that ends with exact totals.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "bag/MC_SortDir.h"
#include "host/WaitUntil.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MCp_ScLock.h"
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
    static bool Resident(const IntrusivePtr<MC_Stuff>& s) { return s->IsInMemory(); }
};

TEST_F(Purge, EmptyBagPurgesNothing) {
    host().SetTraceLevel("MC_Purge", 6);
    host().SetAmountToPurge(1000);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 0);
    EXPECT_EQ(host().PurgeRecycledCount(), 0u);
    EXPECT_EQ(bag_->GetLastPurgedUsedTime(), 0u);
    auto lines = host().TraceLines("MC_Purge");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text,
              "Pass-Stats: pass, totalStuffs, attemptedStuffs, freedStuffs, amountFreedInPass, "
              "amtToPurge, success:0, 0, 0, 0, 0, 1000, 0\n");
}

TEST_F(Purge, OldestFirstInInsertionOrderUntilTheTargetIsMet) {
    auto items = AddItems(5, 100);
    host().SetAmountToPurge(250);
    EXPECT_EQ(bag_->FreeUpSomeMemory(123456789), 300);  // the size argument is ignored
    EXPECT_FALSE(Resident(items[0]));
    EXPECT_FALSE(Resident(items[1]));
    EXPECT_FALSE(Resident(items[2]));
    EXPECT_TRUE(Resident(items[3]));
    EXPECT_TRUE(Resident(items[4]));
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 200);
    EXPECT_EQ(bag_->GetNumItems(), 2);  // purged items with no disk file leave the bag
    EXPECT_EQ(host().PurgeRecycledCount(), 1u);
    EXPECT_EQ(bag_->GetLastPurgedUsedTime(), items[2]->GetLastUseTime());
}

TEST_F(Purge, CheckedOutRefusingAndNonResidentItemsAreSkipped) {
    auto items = AddItems(4, 100);
    MC_ScCheckout held(items[0], MC_CheckoutFlag_ReadOnly);
    IntrusivePtr<MC_StuffData> refusing = items[1]->GetDataPtr();
    auto* payload = dynamic_cast<TestPayload*>(refusing.get());
    ASSERT_NE(payload, nullptr);
    payload->SetAllowPurge(false);
    host().SetAmountToPurge(100);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 100);
    EXPECT_TRUE(Resident(items[0]));
    EXPECT_TRUE(Resident(items[1]));
    EXPECT_FALSE(Resident(items[2]));
    EXPECT_TRUE(Resident(items[3]));
}

TEST_F(Purge, StopsAtTheMinimumSize) {
    auto items = AddItems(3, 40);  // 120 bytes; the minimum is 100
    host().SetAmountToPurge(1000);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 40);  // 80 < 100 after the first: stop
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 80);
    EXPECT_FALSE(Resident(items[0]));
    EXPECT_TRUE(Resident(items[1]));
}

TEST_F(Purge, NothingWhenAlreadyBelowTheMinimum) {
    AddItems(2, 40);
    host().SetAmountToPurge(1000);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 0);
}

TEST_F(Purge, PayloadMemoryIsFreedOutsideTheCacheLock) {
    AddItems(10, 100);
    const int freedBefore = TestPayload::freedBuffers.load();
    const int underLockBefore = TestPayload::freedUnderCacheLock.load();
    host().SetAmountToPurge(1000);
    // The last item goes too: 100 bytes left is still at the minimum (10% of 1000).
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 1000);
    EXPECT_EQ(TestPayload::freedBuffers.load() - freedBefore, 10);
    EXPECT_EQ(TestPayload::freedUnderCacheLock.load() - underLockBefore, 0);
}

TEST_F(Purge, TraceLinesCarryTheStatistics) {
    auto items = AddItems(3, 100);
    host().SetTraceLevel("MC_Purge", 7);
    host().SetAmountToPurge(150);
    const uint32_t passes = counters().purgePasses.load();
    const uint32_t attempts = counters().purgeAttempts.load();
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 200);
    EXPECT_EQ(counters().purgePasses.load() - passes, 1u);
    EXPECT_EQ(counters().purgeAttempts.load() - attempts, 2u);
    auto lines = host().TraceLines("MC_Purge");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text,
              "Stuff-Stats: pass, index, stuffFreedAmount, amtToPurge:0, 1, 100, 150\n");
    EXPECT_EQ(lines[1].text,
              "Stuff-Stats: pass, index, stuffFreedAmount, amtToPurge:0, 2, 100, 150\n");
    EXPECT_EQ(lines[2].text,
              "Pass-Stats: pass, totalStuffs, attemptedStuffs, freedStuffs, amountFreedInPass, "
              "amtToPurge, success:0, 1, 2, 2, 200, 150, 1\n");
}

TEST_F(Purge, PurgeAllMemoryCachesEmptiesEveryIdleItem) {
    auto items = AddItems(5, 100);
    MC_ScCheckout held(items[4], MC_CheckoutFlag_ReadOnly);
    bag_->PurgeAllMemoryCaches();
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 100);
    EXPECT_TRUE(Resident(items[4]));
}

class QuilletPurge : public Purge {
protected:
    void ConfigureHost(RecordingHostServices& h) override {
        Purge::ConfigureHost(h);
        h.SetFeatureEnabled("Graphics.SetMCCacheLimitForQuillets", true);
        h.SetMediaBudget(2500);  // the cache limit is a tenth: 250 bytes
    }
    bool QuilletMode() const override { return true; }
};

TEST_F(QuilletPurge, StopsAtTheCacheLimit) {
    ASSERT_TRUE(MC_IsSetMCCacheLimitForQuilletsEnabled());
    ASSERT_EQ(MC_GetMaxMCCacheSize(), 250u);
    AddItems(5, 100);
    host().SetAmountToPurge(100000);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 300);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 200);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 0);  // already at or below the limit
}

// Renderers find, render, check in and purge at random from several threads; the monitor-style
// purges run concurrently. At the end every total equals the sum over the bag's items.
TEST_F(Purge, SoakEndsWithExactTotals) {
    constexpr int kThreads = 4;
    constexpr int kOps = 600;
    host().SetMemUsageLimits(100, 1 << 30);
    host().SetAmountToPurge(20000);
    std::atomic<bool> stop{false};
    std::thread purger([&] {
        while (!stop.load()) {
            bag_->FreeUpSomeMemory(0);
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(99 + t);
            for (int i = 0; i < kOps; ++i) {
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
                if (rng() % 10 == 0) receipt.SetCheckinFlags(MC_CheckinFlag_Purge);
            }
        });
    }
    for (auto& th : threads) th.join();
    stop.store(true);
    purger.join();
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
    ASSERT_TRUE(hosttest::WaitUntil([&] { return host->GetCounters().memorySamples == 1; }));
    bag->AdjustInMemoryCacheSize(1000);  // at the budget: not over it
    bag->AdjustInMemoryCacheSize(1);
    ASSERT_TRUE(hosttest::WaitUntil([&] { return purges.load() == 1; }));
    bag->AdjustInMemoryCacheSize(500);  // still above: no new crossing
    EXPECT_EQ(host->GetCounters().memorySamples, 2u);
    host->SetMemoryClient(nullptr, nullptr);
    bag->SetMemoryWake(0, {});
}
