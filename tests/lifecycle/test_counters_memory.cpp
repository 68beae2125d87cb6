// Performance counters of the memory tier: a fresh process reads all zero, and check-outs,
// pending renders, purges, sweeps and the host's frame notifications each move exactly their
// own counter. The counters are process-wide and survive death, so tests compare deltas.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "mc/MC_Module.h"
#include "mc/MC_PerformanceCounters.h"
#include "mc/MC_ScCheckout.h"
#include "mc/host/Time.h"
#include "support/ModuleAccess.h"
#include "support/ModuleFixture.h"
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

bool AllZero(const MC_DiskPerformanceCounters& d) {
    return SameDisk(d, MC_DiskPerformanceCounters{});
}

// Polls until `condition` holds (generous deadline, only to avoid a hang).
bool WaitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Runs in a freshly started copy of this test program, before anything else touched the module.
int FreshProcessCheck() {
    const MC_PerformanceCounters p = MC_GetPerformanceCounters();
    const bool perfZero = p.purgePasses == 0 && p.reservedCount == 0 && p.purgeAttempts == 0 &&
                          p.lastPurgedAgeMs == 0 && p.pendingWaits == 0 && p.pendingRefusals == 0 &&
                          p.activeCheckouts == 0 && p.supersededSweeps == 0;
    return perfZero && AllZero(MC_GetDiskPerformanceCounters()) ? 0 : 1;
}

TEST(CountersFresh, AFreshProcessReadsAllZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // re-executes the program: fresh statics
    EXPECT_EXIT(std::exit(FreshProcessCheck()), ::testing::ExitedWithCode(0), "");
}

TEST(CountersStructs, ConstructorsZeroEveryField) {
    MC_PerformanceCounters p;
    MC_DiskPerformanceCounters d;
    EXPECT_EQ(p.purgePasses + p.reservedCount + p.purgeAttempts + p.pendingWaits +
                  p.pendingRefusals + p.activeCheckouts + p.supersededSweeps,
              0u);
    EXPECT_EQ(p.lastPurgedAgeMs, 0);
    EXPECT_TRUE(AllZero(d));
}

class Counters : public ModuleTest {};

TEST_F(Counters, FrameNotificationsMoveOnlyTheirOwnCounter) {
    const Perf perf = Snapshot();
    MC_DiskPerformanceCounters expected = MC_GetDiskPerformanceCounters();
    MC_NotifyFrameWrittenToDisk();
    MC_NotifyFrameWrittenToDisk();
    expected.framesWritten += 2;
    EXPECT_TRUE(SameDisk(MC_GetDiskPerformanceCounters(), expected));
    MC_NotifyFrameReadFromDisk();
    expected.framesRead += 1;
    EXPECT_TRUE(SameDisk(MC_GetDiskPerformanceCounters(), expected));
    EXPECT_EQ(Snapshot(), perf);
}

TEST_F(Counters, TenReadCheckOutsShowTenActiveThenNone) {
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 0; k < 5; ++k) {
        items.push_back(MakeItem(k, 100));
        items.back()->AddToBagAndSortDir(bag_);
    }
    const Perf before = Snapshot();
    {
        std::vector<std::unique_ptr<MC_ScCheckout>> receipts;
        for (int i = 0; i < 10; ++i)  // two read check-outs of each item
            receipts.push_back(
                std::make_unique<MC_ScCheckout>(items[i % 5], MC_CheckoutFlag_ReadOnly));
        Perf expected = before;
        expected.activeCheckouts += 10;
        EXPECT_EQ(Snapshot(), expected);
    }
    EXPECT_EQ(Snapshot(), before);
}

TEST_F(Counters, AWriteableCheckOutCountsOnceAndARefusedOneNotAtAll) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 100);
    stuff->AddToBagAndSortDir(bag_);
    const Perf before = Snapshot();
    {
        MC_ScCheckout writer(stuff, 0);
        ASSERT_TRUE(writer.DidCheckout());
        MC_ScCheckout reader(stuff, MC_CheckoutFlag_ReadOnly);  // refused while writeable
        EXPECT_FALSE(reader.DidCheckout());
        Perf expected = before;
        expected.activeCheckouts += 1;
        EXPECT_EQ(Snapshot(), expected);
    }
    EXPECT_EQ(Snapshot(), before);
}

TEST_F(Counters, WaitingForAPendingRenderCountsAWait) {
    MC_ScCheckout creator;
    ASSERT_EQ(creator.FindAndCheckout(MakeRequest(7),
                                      MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    const Perf before = Snapshot();
    std::thread waiter([] {
        MC_ScCheckout r;
        EXPECT_EQ(r.FindAndCheckout(MakeRequest(7), MC_CheckoutFlag_ReadOnly |
                                                        MC_CheckoutFlag_WaitIfPendingUnlessLocked),
                  MC_CheckoutResult_CheckedOut);
        EXPECT_TRUE(r.IsInMemory());
    });
    // The waiter counts its wait before it blocks on the item's gate.
    ASSERT_TRUE(WaitUntil([&] { return Snapshot().pendingWaits == before.pendingWaits + 1; }));
    creator.GetStuffPtr()->SetStuffDataFromPendingRender(
        IntrusivePtr<MC_StuffData>(new TestPayload(7, 100)), 0.1);
    waiter.join();
    Perf expected = before;
    expected.pendingWaits += 1;
    EXPECT_EQ(Snapshot(), expected);
}

TEST_F(Counters, APendingItemRefusedUnderTheNotifyLockCountsARefusal) {
    MC_ScCheckout creator;
    ASSERT_EQ(creator.FindAndCheckout(MakeRequest(8),
                                      MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    const Perf before = Snapshot();
    std::thread other([&] {
        host().SetHoldingNotifyLock(true);  // for this thread only
        MC_ScCheckout r;
        EXPECT_EQ(r.FindAndCheckout(MakeRequest(8), MC_CheckoutFlag_ReadOnly |
                                                        MC_CheckoutFlag_WaitIfPendingUnlessLocked),
                  MC_CheckoutResult_Failed);
        MC_ScCheckout plain;  // without 0x20 or 0x40 a refusal is not counted
        EXPECT_EQ(plain.FindAndCheckout(MakeRequest(8), MC_CheckoutFlag_ReadOnly),
                  MC_CheckoutResult_Failed);
        host().SetHoldingNotifyLock(false);
    });
    other.join();
    Perf expected = before;
    expected.pendingRefusals += 1;
    EXPECT_EQ(Snapshot(), expected);
    creator.GetStuffPtr()->SetStuffDataFromPendingRender(
        IntrusivePtr<MC_StuffData>(new TestPayload(8, 100)), 0.1);
}

TEST_F(Counters, APurgePassCountsItselfAndEachAttempt) {
    host().SetMemUsageLimits(1000, 4000);  // minimum cache size 100 bytes
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 0; k < 4; ++k) {
        items.push_back(MakeItem(k, 1000));
        items.back()->AddToBagAndSortDir(bag_);
    }
    static_cast<TestPayload&>(*items[0]->GetDataPtr()).SetAllowPurge(false);  // skipped
    host().SetAmountToPurge(1500);  // items 1 and 2 cover it
    const Perf before = Snapshot();
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 2000);
    Perf expected = before;
    expected.purgePasses += 1;
    expected.purgeAttempts += 2;
    EXPECT_EQ(Snapshot(), expected);
}

TEST_F(Counters, APurgePassOverAnEmptyBagCountsOnlyThePass) {
    const Perf before = Snapshot();
    host().SetAmountToPurge(1000);
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 0);
    Perf expected = before;
    expected.purgePasses += 1;
    EXPECT_EQ(Snapshot(), expected);
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

TEST_F(Counters, ASupersededEntryIsCountedOnce) {
    IntrusivePtr<MC_Stuff> old = MakeItem(3, 100, 0);
    old->AddToBagAndSortDir(bag_);
    const Perf before = Snapshot();
    IntrusivePtr<MC_Stuff> better = MakeItem(3, 100, 1);  // variant 1 satisfies variant 0
    better->AddToBagAndSortDir(bag_);
    Perf expected = before;
    expected.supersededSweeps += 1;
    EXPECT_EQ(Snapshot(), expected);
    EXPECT_TRUE(old->GetBag().expired());
    IntrusivePtr<MC_Stuff> worse = MakeItem(3, 100, 0);  // cannot satisfy variant 1
    worse->AddToBagAndSortDir(bag_);
    EXPECT_EQ(Snapshot(), expected);
}

TEST_F(Counters, ConcurrentCheckOutsBalanceOut) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 100);
    stuff->AddToBagAndSortDir(bag_);
    const Perf before = Snapshot();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) MC_ScCheckout r(stuff, MC_CheckoutFlag_ReadOnly);
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(Snapshot(), before);
}

}  // namespace
