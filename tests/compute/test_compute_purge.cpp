// Disposal of compute values: memory pressure frees idle values exactly once and never one a
// receipt holds; values outlive their class's registration.
// Every test ends with module death, which the fixture checks disposes every value once.
#include <gtest/gtest.h>

#include "ComputeFixture.h"
#include "host/HostOps.h"
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
};

TEST_F(ComputePurge, PressureDisposesIdleValuesOnceAndNeverAHeldOne) {
    ScopedReceipt held;
    ASSERT_EQ(Checkout(Params(20), 1, held.Out()), 0);
    const HistogramValue* value = ValueOf(held.Get());
    ComputeIdle(21, 4);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 5 * kValueSize);
    EXPECT_EQ(PurgeEverythingIdle(), 4 * kValueSize);
    EXPECT_EQ(Delta().disposes, 4);
    EXPECT_EQ(bag_->GetNumItems(), 1) << "purged entries leave the bag";
    EXPECT_TRUE(SameBins(*value, Direct(Params(20))));  // intact (ASan would see a freed one)
    EXPECT_EQ(PurgeEverythingIdle(), 0);

    EXPECT_EQ(held.Checkin(), 0);
    EXPECT_EQ(Delta().disposes, 4) << "check-in alone frees nothing";
    EXPECT_EQ(PurgeEverythingIdle(), kValueSize);
    EXPECT_EQ(Delta().disposes, 5);
    ASSERT_EQ(Checkout(Params(21), 1, held.Out()), 0);
    EXPECT_EQ(Delta().computes, 6) << "a purged value is computed again";
}

TEST_F(ComputePurge, ValuesOutliveTheirClassAndDieWithTheModule) {
    ComputeIdle(30, 3);
    ComputeIdle(30, 2, kInvertedHistogramClass);
    ScopedReceipt held;
    ASSERT_EQ(Checkout(Params(30), 0, held.Out()), 0);
    ASSERT_EQ(plugin().unregisterClass(kHistogramClass), 0);
    ZKGP_ComputeReceipt receipt = nullptr;
    for (int mode = 0; mode < 3; ++mode)
        EXPECT_EQ(Checkout(Params(30), mode, &receipt), ZKGP_ComputeResult_NoSuchClass);
    auto* payload =
        dynamic_cast<GenericMCComputeStuffData*>(ItemOf(held.Get())->GetDataPtr().get());
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->GetApproximateMemorySize(), kValueSize) << "sized through its own copy";
    EXPECT_EQ(held.Checkin(), 0);
    ASSERT_EQ(Checkout(Params(30), 1, held.Out(), kInvertedHistogramClass), 0);  // untouched
    EXPECT_EQ(held.Checkin(), 0);
    EXPECT_EQ(PurgeEverythingIdle(), 5 * kValueSize);
    EXPECT_EQ(Delta().disposes, 5) << "disposed through the stored callbacks";
}

}  // namespace
