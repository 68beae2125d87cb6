// Performance counters of the memory tier: check-outs, pending renders, purges and sweeps each
// move exactly their own counter; the age of the last purged item. The counters are process-wide
// and survive death, so tests compare deltas.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "host/WaitUntil.h"
#include "mc/MC_Module.h"
#include "mc/MC_PerformanceCounters.h"
#include "mc/MC_ScCheckout.h"
#include "mc/host/Time.h"
#include "support/ModuleAccess.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;
using hosttest::WaitUntil;

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

class Counters : public ModuleTest {
protected:
    IntrusivePtr<MC_Stuff> Add(uint32_t key, uint32_t size, uint32_t variant = 0) {
        IntrusivePtr<MC_Stuff> stuff = MakeItem(key, size, variant);
        stuff->AddToBagAndSortDir(bag_);
        return stuff;
    }
    void Pending(MC_ScCheckout& creator, uint32_t key) {
        ASSERT_EQ(creator.FindAndCheckout(MakeRequest(key),
                                          MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
                  MC_CheckoutResult_CreatedNewPending);
    }
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
             host().SetAmountToPurge(1500);  // items 1 and 2 cover it
             EXPECT_EQ(bag_->FreeUpSomeMemory(0), 2000);
             host().SetAmountToPurge(0);
             e.purgePasses += 1;
             e.purgeAttempts += 2;
         }},
        {"ten read check-outs show ten active, then none",
         [&](Perf& e) {
             IntrusivePtr<MC_Stuff> a = Add(1, 100), b = Add(2, 100);
             std::vector<std::unique_ptr<MC_ScCheckout>> receipts;
             for (int i = 0; i < 10; ++i)
                 receipts.push_back(
                     std::make_unique<MC_ScCheckout>(i % 2 ? a : b, MC_CheckoutFlag_ReadOnly));
             Perf during = e;
             during.activeCheckouts += 10;
             EXPECT_EQ(Snapshot(), during);
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
             std::vector<std::thread> threads;
             for (int t = 0; t < 4; ++t)
                 threads.emplace_back([&] {
                     for (int i = 0; i < 200; ++i) MC_ScCheckout r(stuff, MC_CheckoutFlag_ReadOnly);
                 });
             for (auto& th : threads) th.join();
         }},
        {"waiting for a pending render counts a wait",
         [&](Perf& e) {
             MC_ScCheckout creator;
             Pending(creator, 7);
             const uint32_t waits = Snapshot().pendingWaits;
             std::thread waiter([] {
                 MC_ScCheckout r;
                 EXPECT_EQ(r.FindAndCheckout(MakeRequest(7),
                                             MC_CheckoutFlag_ReadOnly |
                                                 MC_CheckoutFlag_WaitIfPendingUnlessLocked),
                           MC_CheckoutResult_CheckedOut);
             });
             // The waiter counts its wait before it blocks on the item's gate.
             ASSERT_TRUE(WaitUntil([&] { return Snapshot().pendingWaits == waits + 1; }));
             creator.GetStuffPtr()->SetStuffDataFromPendingRender(
                 IntrusivePtr<MC_StuffData>(new TestPayload(7, 100)), 0.1);
             waiter.join();
             e.pendingWaits += 1;
         }},
        {"a pending item refused under the notify lock counts a refusal (with 0x20 only)",
         [&](Perf& e) {
             MC_ScCheckout creator;
             Pending(creator, 8);
             std::thread([&] {
                 host().SetHoldingNotifyLock(true);  // for this thread only
                 MC_ScCheckout r, plain;
                 EXPECT_EQ(r.FindAndCheckout(MakeRequest(8),
                                             MC_CheckoutFlag_ReadOnly |
                                                 MC_CheckoutFlag_WaitIfPendingUnlessLocked),
                           MC_CheckoutResult_Failed);
                 EXPECT_EQ(plain.FindAndCheckout(MakeRequest(8), MC_CheckoutFlag_ReadOnly),
                           MC_CheckoutResult_Failed);
                 host().SetHoldingNotifyLock(false);
             }).join();
             creator.GetStuffPtr()->SetStuffDataFromPendingRender(
                 IntrusivePtr<MC_StuffData>(new TestPayload(8, 100)), 0.1);
             e.pendingRefusals += 1;
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

TEST_F(Counters, AgeOfLastPurgedItemFollowsItsLastUse) {
    host().SetMemUsageLimits(1000, 4000);
    constexpr uint64_t kFiveSeconds = 5'000'000'000ull;  // ticks are nanoseconds
    const uint64_t stamp = velacore::HighPrecisionTime::Now() - kFiveSeconds;
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 1000);
    stuff->AddToBagAndSortDir(bag_);
    MCp_StuffAccess::SetLastUseTime(*stuff, stamp);  // the purge reads the live stamp
    host().SetAmountToPurge(500);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 1000);
    EXPECT_EQ(bag_->GetLastPurgedUsedTime(), stamp);
    const int64_t age = MC_GetPerformanceCounters().lastPurgedAgeMs;
    EXPECT_GE(age, 5000);
    EXPECT_LT(age, 3'600'000);  // far from any other stamp

    bag_.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_EQ(MC_GetPerformanceCounters().lastPurgedAgeMs, 0);  // no global bag
    MC_Birth(false, kAppVersion, false);                        // TearDown kills it again
}

}  // namespace
