// Disposal of compute values: memory pressure frees idle values exactly once, never one a
// receipt holds; values outlive their class's registration; the payload's own purge and size.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "ComputeFixture.h"
#include "mc/GenericMCComputeStuffData.h"

using namespace computetest;

namespace {

class ComputePurge : public ComputeTest {
  protected:
    void ConfigureHost(mctest::RecordingHostServices& h) override {
        h.SetMemUsageLimits(2000, uint64_t{1} << 30);  // purges go down to 200 bytes
    }
    // Computes `n` entries (seeds first..first+n-1) and checks them all in.
    void ComputeIdle(uint32_t first, int n, const char* className = kHistogramClass) {
        for (int i = 0; i < n; ++i) {
            ScopedReceipt r;
            ASSERT_EQ(Checkout(Params(first + i), 1, r.Out(), className), 0);
        }
    }
    int64_t PurgeEverythingIdle() {
        host().SetAmountToPurge(uint64_t{1} << 30);
        const int64_t freed = bag_->FreeUpSomeMemory(0);
        host().SetAmountToPurge(0);
        return freed;
    }
    static constexpr int64_t kValueSize = sizeof(HistogramValue);
};

// Under a host whose top-level runner runs the check-in tasks late (here on another thread),
// entries stay in the bag, purgeable, until the tasks run; a late task of a purged entry is void.
TEST_F(ComputePurge, CheckinsUnderALateTopLevelRunner) {
    host().SetDeferTopLevelFunctions(true);
    ComputeIdle(1, 3);
    ComputeIdle(1, 3);  // hits
    ASSERT_EQ(bag_->GetNumItems(), 3);
    ASSERT_EQ(host().DeferredTopLevelFunctionCount(), 6u);
    {
        ScopedReceipt held;
        ASSERT_EQ(Checkout(Params(2), 0, held.Out()), 0);
        EXPECT_EQ(PurgeEverythingIdle(), 2 * kValueSize);
        std::thread([&] { EXPECT_EQ(host().RunDeferredTopLevelFunctions(), 6u); }).join();
        EXPECT_NE(ValueOf(held.Get()), nullptr);
    }
    EXPECT_EQ(host().RunDeferredTopLevelFunctions(), 1u);
    EXPECT_EQ(bag_->GetNumItems(), 1);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), kValueSize);
}

TEST_F(ComputePurge, MemoryPressureDisposesEachIdleValueExactlyOnce) {
    ComputeIdle(1, 5);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 5 * kValueSize);
    EXPECT_EQ(PurgeEverythingIdle(), 5 * kValueSize);
    EXPECT_EQ(Delta().computes, 5);
    EXPECT_EQ(Delta().disposes, 5);
    EXPECT_EQ(bag_->GetNumItems(), 0) << "purged entries leave the bag";
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_EQ(PurgeEverythingIdle(), 0);
    EXPECT_EQ(Delta().disposes, 5);

    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(Checkout(Params(1), 0, &receipt), ZKGP_ComputeResult_NotAvailable);
    ScopedReceipt again;
    ASSERT_EQ(Checkout(Params(1), 1, again.Out()), 0);
    EXPECT_EQ(Delta().computes, 6) << "a purged value is computed again";
    EXPECT_TRUE(SameBins(*ValueOf(again.Get()), Direct(Params(1))));
}

TEST_F(ComputePurge, AValueHeldByAReceiptIsNeverDisposed) {
    ScopedReceipt held;
    ASSERT_EQ(Checkout(Params(20), 1, held.Out()), 0);
    const HistogramValue* value = ValueOf(held.Get());
    ComputeIdle(21, 2);

    EXPECT_EQ(PurgeEverythingIdle(), 2 * kValueSize);
    EXPECT_EQ(Delta().disposes, 2);
    // Still intact: a disposed value would be scribbled over (and freed, for ASan).
    EXPECT_TRUE(SameBins(*value, Direct(Params(20))));
    EXPECT_EQ(ValueOf(held.Get()), value);
    EXPECT_EQ(bag_->GetNumItems(), 1);

    EXPECT_EQ(held.Checkin(), 0);
    EXPECT_EQ(Delta().disposes, 2) << "check-in alone frees nothing";
    EXPECT_EQ(PurgeEverythingIdle(), kValueSize);
    EXPECT_EQ(Delta().disposes, 3);
}

TEST_F(ComputePurge, UnregisteringAClassKeepsItsValuesSizableAndDisposable) {
    ComputeIdle(30, 3);
    ScopedReceipt held;
    ASSERT_EQ(Checkout(Params(30), 0, held.Out()), 0);
    ASSERT_EQ(plugin().unregisterClass(kHistogramClass), 0);

    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(Checkout(Params(30), 0, &receipt), ZKGP_ComputeResult_NoSuchClass);
    auto* payload =
        dynamic_cast<GenericMCComputeStuffData*>(ItemOf(held.Get())->GetDataPtr().get());
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->GetApproximateMemorySize(), kValueSize) << "sized through its own copy";
    EXPECT_TRUE(SameBins(*ValueOf(held.Get()), Direct(Params(30))));
    EXPECT_EQ(held.Checkin(), 0);

    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 3 * kValueSize);
    EXPECT_EQ(PurgeEverythingIdle(), 3 * kValueSize);
    EXPECT_EQ(Delta().disposes, 3) << "disposed through the stored callbacks";
}

TEST_F(ComputePurge, ModuleDeathDisposesEveryCachedValue) {
    ComputeIdle(40, 4);
    ComputeIdle(40, 2, kInvertedHistogramClass);
    EXPECT_EQ(Delta().disposes, 0);
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_EQ(Delta().disposes, 6);
    MC_Birth(false, kAppVersion, false);
    bag_ = MC_GlobalBag();
}

// The payload on its own, with values the plug-in computed through its registered callbacks.
class ComputePayload : public ComputePurge {
  protected:
    std::shared_ptr<MCComputeValue> NewValue(uint32_t seed) {
        ZKGP_ComputeCacheCallbacks cb{};
        EXPECT_EQ(MC_ComputeClassFind(kHistogramClass, &cb), 0);
        const HistogramParams p = Params(seed);
        void* refcon = nullptr;
        EXPECT_EQ(cb.Compute(&p, &refcon), 0);
        return std::make_shared<MCComputeValue>(kHistogramClass, cb, refcon);
    }
    static constexpr ZKGP_GUID kKey{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};
};

TEST_F(ComputePayload, PurgeOfTheOnlyOwnerDisposesTheValue) {
    auto payload = velacore::MakeIntrusive<GenericMCComputeStuffData>(kKey, NewValue(1));
    EXPECT_TRUE(payload->IsInMemory());
    EXPECT_EQ(payload->GetApproximateMemorySize(), kValueSize);
    EXPECT_TRUE(payload->PurgeIfPossible(nullptr));
    EXPECT_FALSE(payload->IsInMemory());
    EXPECT_EQ(payload->GetApproximateMemorySize(), 0u);
    EXPECT_EQ(Delta().disposes, 1);
    EXPECT_FALSE(payload->PurgeIfPossible(nullptr)) << "nothing left to purge";
    EXPECT_EQ(Delta().disposes, 1);
}

TEST_F(ComputePayload, PurgeOfASharedValueDropsOnlyThePayloadsReference) {
    auto payload = velacore::MakeIntrusive<GenericMCComputeStuffData>(kKey, NewValue(2));
    std::shared_ptr<MCComputeValue> copy = payload->GetValue();
    EXPECT_FALSE(payload->PurgeIfPossible(nullptr));
    EXPECT_FALSE(payload->IsInMemory());
    EXPECT_EQ(payload->GetValue(), nullptr);
    EXPECT_EQ(Delta().disposes, 0);
    EXPECT_TRUE(
        SameBins(*static_cast<const HistogramValue*>(copy->GetRefcon()), Direct(Params(2))));
    copy.reset();
    EXPECT_EQ(Delta().disposes, 1) << "the last owner disposes";
}

TEST_F(ComputePayload, SetValueReplacesAndDisposesThePreviousValueOnce) {
    auto payload = velacore::MakeIntrusive<GenericMCComputeStuffData>(kKey);
    EXPECT_FALSE(payload->IsInMemory());
    EXPECT_EQ(payload->GetKey(), velacore::GuidFromBytes(kKey.bytes));
    auto first = NewValue(3);
    payload->SetValue(
        std::make_unique<MCComputeValue>(first->GetClassName(), first->GetCallbacks(), nullptr)
            .release());
    EXPECT_TRUE(payload->IsInMemory());
    payload->SetValue(nullptr);
    EXPECT_EQ(Delta().disposes, 0) << "a value without a refcon disposes nothing";
    ZKGP_ComputeCacheCallbacks cb = first->GetCallbacks();
    const HistogramParams p = Params(4);
    void* refcon = nullptr;
    ASSERT_EQ(cb.Compute(&p, &refcon), 0);
    payload->SetValue(std::make_unique<MCComputeValue>(kHistogramClass, cb, refcon).release());
    payload->SetValue(nullptr);
    EXPECT_EQ(Delta().disposes, 1);
    first.reset();
    EXPECT_EQ(Delta().disposes, 2);
}

std::atomic<int> g_hugeDisposes{0};

TEST(ComputeValueSize, SizesAbove32BitsAreTruncatedByThePayload) {
    const ZKGP_ComputeCacheCallbacks huge{
        [](const void*, ZKGP_GUID*) { return 0; }, [](const void*, void**) { return 0; },
        [](const void*) -> uint64_t { return (uint64_t{1} << 32) + 5; },
        [](void*) { g_hugeDisposes.fetch_add(1); }};
    static int token = 0;
    auto value = std::make_shared<MCComputeValue>("huge", huge, &token);
    EXPECT_EQ(value->GetApproximateSize(), (uint64_t{1} << 32) + 5);
    EXPECT_EQ(value->GetClassName(), "huge");
    auto payload = velacore::MakeIntrusive<GenericMCComputeStuffData>(ZKGP_GUID{}, value);
    EXPECT_EQ(payload->GetApproximateMemorySize(), 5u);
    value.reset();
    payload.reset();
    EXPECT_EQ(g_hugeDisposes.load(), 1);
}

}  // namespace
