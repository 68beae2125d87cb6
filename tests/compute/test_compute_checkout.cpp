// Compute check-outs through the loaded C plug-in on one thread: misses, hits, identities,
// errors from the plug-in, receipt misuse and the receipt hand-out itself.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ComputeFixture.h"
#include "compute/ComputeCheckout.h"
#include "mc/GenericMCComputeStuffData.h"
#include "mc/host/Murmur3.h"
#include "mc/host/TextConvert.h"

using namespace computetest;

namespace {

constexpr const char* kInvalidReceiptMessage =
    "Trying to check in invalid receipt. Please make sure you are not double checking in or "
    "checking in invalid receipts.";

// The identity the cache must give an entry, computed from scratch.
velacore::Guid ExpectedIdentity(const std::string& className, const HistogramParams& p) {
    uint8_t key[16];
    const uint32_t fields[4] = {p.width, p.height, p.seed, p.gradient};
    for (int f = 0; f < 4; ++f)
        for (int b = 0; b < 4; ++b) key[f * 4 + b] = static_cast<uint8_t>(fields[f] >> (8 * b));
    std::string bytes = "MC-Compute" + className + '\0';
    bytes.append(reinterpret_cast<const char*>(key), sizeof key);
    velacore::Murmur3MixerState hash;
    hash.UpdateHashState(bytes.data(), bytes.size());
    return hash.GetHashResult();
}

class Checkout : public ComputeTest {};

TEST_F(Checkout, IfCachedOnAColdCacheYields22AndNeverComputes) {
    ScopedReceipt receipt;
    EXPECT_EQ(ComputeTest::Checkout(Params(1), 0, receipt.Out()), ZKGP_ComputeResult_NotAvailable);
    EXPECT_EQ(receipt.Get(), nullptr);
    EXPECT_EQ(Delta().keys, 1);
    EXPECT_EQ(Delta().computes, 0);
    EXPECT_EQ(hook_.Entered(), 0);
    EXPECT_EQ(bag_->GetNumItems(), 0) << "a cached-only look-up leaves nothing behind";
    EXPECT_EQ(ReceiptBytes(), 0u);
}

TEST_F(Checkout, AMissComputesOnceAndLaterCheckoutsShareTheValue) {
    const HistogramParams p = Params(2);
    ScopedReceipt first;
    ASSERT_EQ(ComputeTest::Checkout(p, 1, first.Out()), 0);
    const HistogramValue* value = ValueOf(first.Get());
    ASSERT_NE(value, nullptr);
    EXPECT_TRUE(SameBins(*value, Direct(p)));
    EXPECT_EQ(std::memcmp(&value->params, &p, sizeof p), 0);

    ScopedReceipt cached, again;
    ASSERT_EQ(ComputeTest::Checkout(p, 0, cached.Out()), 0);
    ASSERT_EQ(ComputeTest::Checkout(p, 2, again.Out()), 0);
    EXPECT_EQ(ValueOf(cached.Get()), value);
    EXPECT_EQ(ValueOf(again.Get()), value);
    EXPECT_NE(cached.Get(), first.Get());
    EXPECT_EQ(Delta().computes, 1);
    EXPECT_EQ(Delta().keys, 3);
    EXPECT_EQ(ItemOf(first.Get()), ItemOf(cached.Get()));
    EXPECT_EQ(ItemOf(first.Get())->GetCheckoutCount(), 3u);
    EXPECT_EQ(bag_->GetNumItems(), 1);

    EXPECT_EQ(first.Checkin(), 0);
    EXPECT_EQ(cached.Checkin(), 0);
    EXPECT_EQ(again.Checkin(), 0);
    EXPECT_EQ(Delta().disposes, 0) << "check-in keeps the value cached";
    ScopedReceipt afterwards;
    ASSERT_EQ(ComputeTest::Checkout(p, 0, afterwards.Out()), 0);
    EXPECT_EQ(ValueOf(afterwards.Get()), value);
}

TEST_F(Checkout, TheEntryIsAnInMemoryItemKeyedByTheHashedIdentity) {
    const HistogramParams p = Params(4, 30, 20, 0);
    ScopedReceipt receipt;
    ASSERT_EQ(ComputeTest::Checkout(p, 2, receipt.Out()), 0);
    const IntrusivePtr<MC_Stuff> item = ItemOf(receipt.Get());
    ASSERT_TRUE(item);
    const velacore::Guid expected = ExpectedIdentity(kHistogramClass, p);
    EXPECT_EQ(item->GetGuid(), expected);
    EXPECT_EQ(MCp_ComputeIdentity(kHistogramClass, ZKGP_GUID{}),
              ExpectedIdentity(kHistogramClass, HistogramParams{}));
    auto* payload = dynamic_cast<GenericMCComputeStuffData*>(item->GetDataPtr().get());
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->GetKey(), expected);
    EXPECT_FALSE(payload->CanDiskCache());
    EXPECT_EQ(payload->GetSubclassMatchname(), nullptr);
    EXPECT_EQ(payload->GetApproximateMemorySize(), sizeof(HistogramValue));
    EXPECT_EQ(payload->GetValue()->GetClassName(), kHistogramClass);
    EXPECT_FALSE(item->IsPendingRender());
    EXPECT_TRUE(item->IsInMemory());
    EXPECT_GE(item->GetComputeTime(), 0.0);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(),
              static_cast<int64_t>(sizeof(HistogramValue)));
}

TEST_F(Checkout, TheSameKeyUnderTwoClassesGivesTwoEntries) {
    const HistogramParams p = Params(5, 80, 60, 200);
    ScopedReceipt plain, inverted;
    ASSERT_EQ(ComputeTest::Checkout(p, 1, plain.Out(), kHistogramClass), 0);
    ASSERT_EQ(ComputeTest::Checkout(p, 1, inverted.Out(), kInvertedHistogramClass), 0);
    EXPECT_EQ(Delta().computes, 2);
    EXPECT_EQ(bag_->GetNumItems(), 2);
    EXPECT_NE(ItemOf(plain.Get())->GetGuid(), ItemOf(inverted.Get())->GetGuid());
    const HistogramValue* a = ValueOf(plain.Get());
    const HistogramValue* b = ValueOf(inverted.Get());
    ASSERT_TRUE(a && b);
    ASSERT_NE(a, b);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(a->bins[i], b->bins[255 - i]) << "bin " << i;
    EXPECT_TRUE(SameBins(*b, Direct(p, true)));
}

TEST_F(Checkout, DifferentParametersNeverShareAnEntry) {
    ScopedReceipt r[4];
    const HistogramParams params[4] = {Params(6, 64, 48), Params(6, 48, 64), Params(7, 64, 48),
                                       Params(6, 64, 48, 97)};
    for (int i = 0; i < 4; ++i) ASSERT_EQ(ComputeTest::Checkout(params[i], 1, r[i].Out()), 0);
    EXPECT_EQ(Delta().computes, 4);
    for (int i = 0; i < 4; ++i) {
        const HistogramValue* v = ValueOf(r[i].Get());
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(std::memcmp(&v->params, &params[i], sizeof params[i]), 0);
    }
}

TEST_F(Checkout, AComputeErrorComesBackLeavesNoReceiptAndALaterCallComputesAgain) {
    const HistogramParams p = Params(8);
    hook_.FailNext(1, -1234);
    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(ComputeTest::Checkout(p, 2, &receipt), -1234);
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(ReceiptBytes(), 0u);
    EXPECT_EQ(bag_->GetNumItems(), 0) << "the abandoned entry left the bag";
    EXPECT_EQ(ComputeTest::Checkout(p, 0, &receipt), ZKGP_ComputeResult_NotAvailable);

    ScopedReceipt retry;
    ASSERT_EQ(ComputeTest::Checkout(p, 1, retry.Out()), 0);
    EXPECT_EQ(hook_.Entered(), 2);
    EXPECT_EQ(Delta().computes, 1);
    EXPECT_TRUE(SameBins(*ValueOf(retry.Get()), Direct(p)));
}

TEST_F(Checkout, AKeyErrorComesBackBeforeAnythingElse) {
    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(plugin().checkout(kHistogramClass, nullptr, 2, &receipt),
              ZKGP_ComputeResult_BadParameter);  // the plug-in's own refusal of null params
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(Delta().computes, 0);
    EXPECT_TRUE(host().FailedVerifications().empty()) << "the plug-in's error is not reported";
}

TEST_F(Checkout, ANonNullReceiptHandleYields3WithoutSearching) {
    const HistogramParams p = Params(9);
    ScopedReceipt held;
    ASSERT_EQ(ComputeTest::Checkout(p, 1, held.Out()), 0);
    const uint32_t checkouts = ItemOf(held.Get())->GetCheckoutCount();
    host().ClearRecords();

    ZKGP_ComputeReceipt reused = held.Get();
    EXPECT_EQ(ComputeTest::Checkout(p, 2, &reused), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(reused, held.Get()) << "the handle is left alone";
    EXPECT_EQ(ItemOf(held.Get())->GetCheckoutCount(), checkouts) << "nothing was checked out";
    EXPECT_EQ(
        host().FailedVerifications(),
        std::vector<std::string>{"unexpected: receipt already exists. improper receipt use?"});
    EXPECT_EQ(Delta().keys, 2) << "the key is made before the handle is checked";

    ZKGP_ComputeReceipt fresh = reinterpret_cast<ZKGP_ComputeReceipt>(&reused);
    EXPECT_EQ(ComputeTest::Checkout(Params(10), 1, &fresh), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(Delta().computes, 1) << "a refused call computes nothing";
    EXPECT_EQ(bag_->GetNumItems(), 1);
}

TEST_F(Checkout, EachHandedOutReceiptLeavesALabelledEightyByteBlock) {
    ScopedReceipt a, b;
    ASSERT_EQ(ComputeTest::Checkout(Params(12), 1, a.Out()), 0);
    EXPECT_EQ(ReceiptBytes(), 80u);
    ASSERT_EQ(ComputeTest::Checkout(Params(12), 0, b.Out()), 0);
    EXPECT_EQ(ReceiptBytes(), 160u);
    a.Checkin();
    b.Checkin();
    EXPECT_EQ(ReceiptBytes(), 160u) << "the blocks are never given back";
    EXPECT_EQ(host().AllocatedBlocks(kReceiptLabel), 2u);
    ZKGP_ComputeReceipt none = nullptr;
    EXPECT_EQ(ComputeTest::Checkout(Params(13), 0, &none), ZKGP_ComputeResult_NotAvailable);
    EXPECT_EQ(ReceiptBytes(), 160u) << "no block without a receipt";
}

TEST_F(Checkout, AFailedReceiptAllocationYields3AndChecksTheEntryInAgain) {
    const HistogramParams p = Params(14);
    host().SetFailAllocations(true);
    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(ComputeTest::Checkout(p, 1, &receipt), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(host().FailedVerifications(), std::vector<std::string>{"MCCompute alloc failure"});
    host().SetFailAllocations(false);
    EXPECT_EQ(Delta().computes, 1) << "the value was computed and stays cached";
    ScopedReceipt later;
    ASSERT_EQ(ComputeTest::Checkout(p, 0, later.Out()), 0);
    EXPECT_EQ(ItemOf(later.Get())->GetCheckoutCount(), 1u) << "the failed call checked in";
}

TEST_F(Checkout, AComputeWithoutAValueIsACorruptEntry) {
    // A class whose Compute "succeeds" without producing anything.
    const ZKGP_ComputeCacheCallbacks broken{[](const void*, ZKGP_GUID* key) {
                                                *key = ZKGP_GUID{};
                                                return 0;
                                            },
                                            [](const void*, void**) { return 0; },
                                            [](const void*) -> uint64_t { return 0; },
                                            [](void*) {}};
    ASSERT_EQ(MC_ComputeClassRegister("broken", &broken), 0);
    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(MCp_ComputeCheckout("broken", nullptr, MCp_ComputeMode_NoWait, &receipt),
              ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(
        host().FailedVerifications(),
        std::vector<std::string>{"MCCompute unexpected missing refcon in value! corrupt cached??"});
    EXPECT_EQ(MC_ComputeClassUnregister("broken"), 0);
}

TEST_F(Checkout, ReceiptCheckinOfNullIsAcceptedSilently) {
    EXPECT_EQ(plugin().checkin(nullptr), 0);
    EXPECT_TRUE(host().Errors().empty());
}

TEST_F(Checkout, CheckingInSomethingThatIsNotALiveReceiptYields2WithTheMessage) {
    const HistogramParams p = Params(15);
    ZKGP_ComputeReceipt receipt = nullptr;
    ASSERT_EQ(ComputeTest::Checkout(p, 1, &receipt), 0);
    const IntrusivePtr<MC_Stuff> item = ItemOf(receipt);
    EXPECT_EQ(plugin().checkin(receipt), 0);
    EXPECT_EQ(item->GetCheckoutCount(), 0u);

    EXPECT_EQ(plugin().checkin(receipt), ZKGP_ComputeResult_InvalidReceipt) << "double check-in";
    int notAReceipt = 0;
    EXPECT_EQ(plugin().checkin(reinterpret_cast<ZKGP_ComputeReceipt>(&notAReceipt)),
              ZKGP_ComputeResult_InvalidReceipt);
    const auto errors = host().Errors();
    ASSERT_EQ(errors.size(), 2u);
    for (const auto& e : errors) {
        EXPECT_EQ(e.category, 8);
        EXPECT_EQ(velacore::ToUtf8(e.text), kInvalidReceiptMessage);
    }
    EXPECT_EQ(item->GetCheckoutCount(), 0u) << "nothing was checked in twice";
}

TEST_F(Checkout, GetValueOfABadReceiptYields3) {
    const HistogramValue* none = nullptr;
    EXPECT_EQ(plugin().getValue(nullptr, &none), ZKGP_ComputeResult_BadParameter);
    ZKGP_ComputeReceipt receipt = nullptr;
    ASSERT_EQ(ComputeTest::Checkout(Params(16), 1, &receipt), 0);
    ASSERT_EQ(plugin().checkin(receipt), 0);
    const HistogramValue* stale = nullptr;
    EXPECT_EQ(plugin().getValue(receipt, &stale), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(host().FailedVerifications(),
              (std::vector<std::string>{"bad compute receipt or not checked out",
                                        "bad compute receipt or not checked out"}));
}

}  // namespace
