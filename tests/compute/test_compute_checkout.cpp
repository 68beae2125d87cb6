// Compute check-outs through the loaded C plug-in on one thread: misses, hits, distinct entries,
// host failures and receipt misuse.
#include <gtest/gtest.h>

#include "ComputeFixture.h"
#include "mc/GenericMCComputeStuffData.h"

using namespace computetest;

namespace {

class ComputeCheckout : public ComputeTest {};

TEST_F(ComputeCheckout, AMissComputesOnceHitsShareTheValueAndEachKeyHasItsOwnEntry) {
    const HistogramParams p = Params(2, 30, 20, 0);
    ScopedReceipt first, cached, again, inverted, other;
    EXPECT_EQ(Checkout(p, 0, first.Out()), ZKGP_ComputeResult_NotAvailable);  // cold
    EXPECT_EQ(bag_->GetNumItems(), 0);

    ASSERT_EQ(Checkout(p, 1, first.Out()), 0);
    const HistogramValue* value = ValueOf(first.Get());
    ASSERT_NE(value, nullptr);
    EXPECT_TRUE(SameBins(*value, Direct(p)));
    ASSERT_EQ(Checkout(p, 0, cached.Out()), 0);
    ASSERT_EQ(Checkout(p, 2, again.Out()), 0);
    EXPECT_EQ(ValueOf(cached.Get()), value);
    EXPECT_EQ(ValueOf(again.Get()), value);
    EXPECT_EQ(Delta().computes, 1);

    const IntrusivePtr<MC_Stuff> item = ItemOf(first.Get());
    EXPECT_EQ(item->GetCheckoutCount(), 3u);
    EXPECT_TRUE(item->IsInMemory() && !item->IsPendingRender());
    auto* payload = dynamic_cast<GenericMCComputeStuffData*>(item->GetDataPtr().get());
    ASSERT_NE(payload, nullptr);
    EXPECT_FALSE(payload->CanDiskCache());
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), int64_t{sizeof(HistogramValue)});

    // Same key under the other class, and parameters that differ in one field: new entries.
    ASSERT_EQ(Checkout(p, 1, inverted.Out(), kInvertedHistogramClass), 0);
    EXPECT_TRUE(SameBins(*ValueOf(inverted.Get()), Direct(p, true)));
    ASSERT_EQ(Checkout(Params(2, 30, 20, 1), 1, other.Out()), 0);
    EXPECT_EQ(Delta().computes, 3);
    EXPECT_EQ(bag_->GetNumItems(), 3);

    for (ScopedReceipt* r : {&first, &cached, &again}) EXPECT_EQ(r->Checkin(), 0);
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_EQ(Delta().disposes, 0) << "check-in keeps the value cached";
    ASSERT_EQ(Checkout(p, 0, first.Out()), 0);
    EXPECT_EQ(ValueOf(first.Get()), value);
}

TEST_F(ComputeCheckout, MisuseAndHostFailuresYieldTheirCodesWithTheirReports) {
    const HistogramParams p = Params(9);
    ScopedReceipt held;
    ASSERT_EQ(Checkout(p, 1, held.Out()), 0);
    ZKGP_ComputeReceipt reused = held.Get();
    EXPECT_EQ(Checkout(p, 2, &reused), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(reused, held.Get()) << "the handle is left alone";
    EXPECT_EQ(ItemOf(held.Get())->GetCheckoutCount(), 1u) << "nothing was checked out";

    host().SetFailAllocations(true);  // no receipt block: the entry is checked in again
    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(Checkout(p, 0, &receipt), ZKGP_ComputeResult_BadParameter);
    host().SetFailAllocations(false);
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(ItemOf(held.Get())->GetCheckoutCount(), 1u);

    ASSERT_EQ(Checkout(Params(15), 1, &receipt), 0);
    ASSERT_EQ(plugin().checkin(receipt), 0);
    const HistogramValue* stale = nullptr;
    EXPECT_EQ(plugin().getValue(receipt, &stale), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(plugin().checkin(nullptr), 0);  // accepted silently
    EXPECT_EQ(plugin().checkin(receipt), ZKGP_ComputeResult_InvalidReceipt) << "double check-in";
    int notAReceipt = 0;
    EXPECT_EQ(plugin().checkin(reinterpret_cast<ZKGP_ComputeReceipt>(&notAReceipt)),
              ZKGP_ComputeResult_InvalidReceipt);
    EXPECT_EQ(host().FailedVerifications(),
              (std::vector<std::string>{"unexpected: receipt already exists. improper receipt use?",
                                        "MCCompute alloc failure",
                                        "bad compute receipt or not checked out"}));
    EXPECT_EQ(host().Errors().size(), 2u);
    EXPECT_EQ(Delta().computes, 2);
}

}  // namespace
