// Check-out state machine of one item: a render seen complete, read-only and writeable
// check-outs, and the misuse guards (pending items and their waiters: see the sort directory).
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class CheckoutState : public ModuleTest {
protected:
    IntrusivePtr<MC_Stuff> NewPending() {
        IntrusivePtr<MC_Stuff> stuff(new MC_Stuff());
        stuff->SetGuid(KeyGuid(7));
        stuff->SetFindKeyData(TestPayload::Request(7));
        bag_->AddToBagAndSortDir(stuff);
        return stuff;
    }
    IntrusivePtr<MC_Stuff> Add(uint32_t key, uint32_t size) {
        IntrusivePtr<MC_Stuff> stuff = MakeItem(key, size);
        stuff->AddToBagAndSortDir(bag_);
        return stuff;
    }
};

// The code ConvertToWriteable throws, 0 if none.
int ConvertCode(const IntrusivePtr<MC_Stuff>& stuff) {
    try {
        stuff->ConvertToWriteable();
    } catch (int code) {
        return code;
    }
    return 0;
}

// Whoever sees a render no longer pending finds its data (a waiter that arrives as the render
// completes must not take the item for an abandoned one).
TEST_F(CheckoutState, ARenderSeenCompleteHasItsData) {
    int missing = 0;
    for (int round = 0; round < 2000; ++round) {
        IntrusivePtr<MC_Stuff> stuff = NewPending();
        std::atomic<bool> watching{false};
        bool sawData = false;
        std::thread watcher([&] {
            watching.store(true);
            while (stuff->IsPendingRender()) {
            }
            sawData = stuff->GetDataPtr() != nullptr;
        });
        while (!watching.load()) std::this_thread::yield();
        stuff->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(new TestPayload(7, 8)),
                                             1.0);
        watcher.join();
        missing += !sawData;
        stuff->RemoveFromBagAndSortDir();
    }
    EXPECT_EQ(missing, 0);
}

TEST_F(CheckoutState, ReadOnlyManyWriteableAlone) {
    IntrusivePtr<MC_Stuff> stuff = Add(1, 64);
    const uint32_t active = counters().activeCheckouts.load();
    stuff->Checkin(0, 0.0);  // a check-in at zero stays at zero
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
    EXPECT_EQ(counters().activeCheckouts.load(), active);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(stuff->Checkout(0), MC_CheckoutResult_Failed);  // writeable needs it alone
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(stuff->Checkout(0), MC_CheckoutResult_Failed);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 64);
    stuff->Checkin(0, 0.0);
    EXPECT_EQ(stuff->CheckinAndCheckout(0, 0.0, MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CheckedOut);
    stuff->Checkin(0, 0.0);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);

    ASSERT_EQ(stuff->Checkout(0), MC_CheckoutResult_CheckedOut);
    EXPECT_TRUE(stuff->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);  // out of the directory while writeable
    EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_Failed);
    host().ClearRecords();
    host().SetTraceLevel("MC_Stuff", 6);
    stuff->Checkin(0, 0.0);
    EXPECT_FALSE(stuff->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
    auto lines = host().TraceLines("MC_Stuff");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "check-in updated w/ guid:" + stuff->GetGuid().AsString());

    // With nothing in memory only AllowNoData checks out.
    ASSERT_TRUE(StaticPointerCast<TestPayload>(stuff->GetDataPtr())->PurgeIfPossible(nullptr));
    EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_Failed);
    EXPECT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_AllowNoData),
              MC_CheckoutResult_CheckedOut);
    stuff->Checkin(0, 0.0);
}

TEST_F(CheckoutState, ConvertToWriteableGuardsAndCodes) {
    IntrusivePtr<MC_Stuff> stuff = Add(1, 10);
    EXPECT_EQ(ConvertCode(stuff), 0x3A04);  // not checked out; reported on the main thread
    auto errs = host().ErrStrings();
    ASSERT_EQ(errs.size(), 1u);
    EXPECT_EQ(errs[0].base, 0x3A0000u);
    EXPECT_EQ(errs[0].severity, 2);
    EXPECT_EQ(errs[0].text, u"can\u2019t convert to writeable when not checked out");
    std::thread([&] { EXPECT_EQ(ConvertCode(stuff), 0x3A04); }).join();
    EXPECT_EQ(host().ErrStrings().size(), 1u) << "misuse off the main thread is not reported";

    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(ConvertCode(stuff), 0x3A03);  // two holders
    stuff->Checkin(0, 0.0);
    EXPECT_EQ(ConvertCode(stuff), 0);  // exactly one: writeable, out of the directory
    EXPECT_TRUE(stuff->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
    EXPECT_EQ(ConvertCode(stuff), 0x3A03);
    EXPECT_EQ(host().ErrStrings().back().text, u"cached item already checked-out read/write");
    stuff->Checkin(0, 0.0);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
}

// Remove wins over Purge and takes the item out at once, but the payload is freed only at the
// last check-in; a plain Purge check-in frees it and the item leaves the bag.
TEST_F(CheckoutState, RemoveAndPurgeCheckins) {
    IntrusivePtr<MC_Stuff> stuff = Add(1, 10), purged = Add(2, 10);
    auto data = StaticPointerCast<TestPayload>(stuff->GetDataPtr());
    MC_ScCheckout other(stuff, MC_CheckoutFlag_ReadOnly);
    ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    stuff->Checkin(MC_CheckinFlag_Remove | MC_CheckinFlag_Purge, 0.0);
    EXPECT_EQ(bag_->GetNumItems(), 1);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
    EXPECT_EQ(data->Purges(), 0);  // the other holder still reads it
    ASSERT_NE(data->Bytes(), nullptr);
    EXPECT_EQ(data->Bytes()->size(), 10u);
    other.Checkin();
    EXPECT_EQ(data->Purges(), 1);

    ASSERT_EQ(purged->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    purged->Checkin(MC_CheckinFlag_Purge, 0.0);
    EXPECT_FALSE(purged->IsInMemory());
    EXPECT_EQ(bag_->GetNumItems(), 0);  // nothing left to offer: no disk file, not pending
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

TEST_F(CheckoutState, UpdateWithNewGuidRekeysTheDirectory) {
    IntrusivePtr<MC_Stuff> stuff = Add(1, 10);
    stuff->UpdateWithNewGuid(KeyGuid(2));
    IntrusivePtr<MC_Stuff> found, request = MakeRequest(1);
    EXPECT_EQ(bag_->FindAndCheckout(request, MC_CheckoutFlag_ReadOnly, &found, nullptr),
              MC_CheckoutResult_Failed);
    request->SetGuid(KeyGuid(2));
    EXPECT_EQ(bag_->FindAndCheckout(request, MC_CheckoutFlag_ReadOnly, &found, nullptr),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(found, stuff);
    found->Checkin(0, 0.0);
}

}  // namespace
