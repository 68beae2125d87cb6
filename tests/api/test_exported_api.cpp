// Uses the module only through the shared MC library and the headers under include/: proves that
// the exported surface is enough to embed the cache.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "mc/MC.h"

namespace {

class Frame : public MC_StuffData {
public:
    Frame(uint32_t number, uint32_t bytes) : number_(number), pixels_(bytes, 0x7F) {}
    uint32_t Number() const { return number_; }
    bool IdenticalRequest(IntrusivePtr<MC_StuffData> request) const override {
        auto* other = dynamic_cast<Frame*>(request.get());
        return other && other->number_ == number_;
    }
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const override {
        return IdenticalRequest(request);
    }
    uint32_t GetApproximateMemorySize() const override {
        return static_cast<uint32_t>(pixels_.size());
    }
    bool PurgeIfPossible(MC_ReleaseList*) override {
        if (pixels_.empty()) return false;
        std::vector<uint8_t>().swap(pixels_);
        return true;
    }
    bool IsInMemory() const override { return !pixels_.empty(); }

private:
    uint32_t number_;
    std::vector<uint8_t> pixels_;
};

velacore::Guid FrameGuid(uint32_t number) {
    velacore::Guid::Bytes b{};
    std::memcpy(b.data(), &number, sizeof number);
    return velacore::Guid(b);
}

IntrusivePtr<MC_Stuff> Request(uint32_t number) {
    IntrusivePtr<MC_Stuff> r = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new Frame(number, 0)), 0);
    r->SetGuid(FrameGuid(number));
    return r;
}

TEST(ExportedApi, FindRenderCheckInAndHitAgain) {
    MC_Birth(false, 1, false);
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    ASSERT_TRUE(bag);
    {
        MC_ScCheckout receipt;
        ASSERT_EQ(receipt.FindAndCheckout(Request(3), MC_CheckoutFlag_ReadOnly |
                                                          MC_CheckoutFlag_CreatePending),
                  MC_CheckoutResult_CreatedNewPending);
        receipt.GetStuffPtr()->SetStuffDataFromPendingRender(
            IntrusivePtr<MC_StuffData>(new Frame(3, 4096)), 0.25);
    }
    EXPECT_EQ(bag->GetNumItems(), 1);
    EXPECT_EQ(bag->GetInMemoryCacheSizeInBytes_LockFree(), 4096);
    {
        MC_ScCheckout receipt;
        ASSERT_EQ(receipt.FindAndCheckout(Request(3), MC_CheckoutFlag_ReadOnly),
                  MC_CheckoutResult_CheckedOut);
        EXPECT_TRUE(receipt.IsInMemory());
        EXPECT_EQ(MC_GetPerformanceCounters().activeCheckouts, 1u);
    }
    IntrusivePtr<MC_Stuff> direct = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new Frame(4, 100)), 0.1);
    direct->SetGuid(FrameGuid(4));
    direct->AddToBagAndSortDir(bag);
    ASSERT_EQ(direct->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    direct->Checkin(MC_CheckinFlag_Purge, 0.0);
    EXPECT_EQ(bag->GetNumItems(), 1);
    bag->PurgeAllMemoryCaches();
    EXPECT_EQ(bag->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    bag.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_FALSE(MC_GlobalBag());
}

}  // namespace
