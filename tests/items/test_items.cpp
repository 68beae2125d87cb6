// Items and their check-outs. The state machine of one item: a render seen complete, read-only
// and writeable check-outs, and the misuse guards (pending items and their waiters: see the sort
// directory). Receipts: scoped check-in, reference-only holds, release, swap, suspend/reacquire,
// disk holds, and the abandoning of an unfilled pending render. The payload factory registry.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "bag/Eventually.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/MC_StuffData.h"
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
    IntrusivePtr<MC_Stuff> Add(uint32_t key, uint32_t size = 16) {
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
    ASSERT_EQ(host().ErrStrings().size(), 1u);
    const auto err = host().ErrStrings()[0];
    EXPECT_TRUE(err.base == 0x3A0000u && err.severity == 2) << err.base << " " << err.severity;
    EXPECT_EQ(err.text, u"can\u2019t convert to writeable when not checked out");
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

using Receipts = CheckoutState;

// Release hands the check-in to the caller (the receipt's end then checks nothing in); a receipt
// may be checked in on another thread.
TEST_F(Receipts, ReleaseAndHandOver) {
    IntrusivePtr<MC_Stuff> stuff = Add(1);
    IntrusivePtr<MC_Stuff> released;
    {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
        released = receipt.Release();
        EXPECT_EQ(receipt.GetResult(), MC_CheckoutResult_Failed);
    }
    EXPECT_EQ(released, stuff);
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);
    released->Checkin(0, 0.0);
    auto receipt = std::make_unique<MC_ScCheckout>(stuff, MC_CheckoutFlag_ReadOnly);
    std::thread([&] {
        EXPECT_TRUE(receipt->IsInMemory());
        receipt->Checkin();
    }).join();
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
}

TEST_F(Receipts, ReferenceOnlyHoldsWithoutCheckingOut) {
    IntrusivePtr<MC_Stuff> stuff = Add(1);
    {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_ReferenceOnly);
        EXPECT_EQ(receipt.GetResult(), MC_CheckoutResult_HeldOnly);
        EXPECT_TRUE(receipt.DidCheckout());
        EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
        ASSERT_EQ(stuff->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    }
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);  // the receipt did not check anything in
    stuff->Checkin(0, 0.0);
    MC_ScCheckout finder;
    EXPECT_EQ(finder.FindAndCheckout(MakeRequest(1), MC_CheckoutFlag_ReferenceOnly),
              MC_CheckoutResult_Failed);
    EXPECT_FALSE(finder.GetStuffPtr());
}

TEST_F(Receipts, SwapExchangesHoldingsAndPendingGuardButNotFlagsOrSuspension) {
    IntrusivePtr<MC_Stuff> a = Add(1), b = Add(2);
    MC_ScCheckout ra(a, MC_CheckoutFlag_ReadOnly);
    MC_ScCheckout rb(b, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead);
    ra.SetCheckinFlags(MC_CheckinFlag_DontUpdateLastUsed);
    ra.Swap(rb);
    EXPECT_EQ(ra.GetStuffPtr(), b);
    EXPECT_EQ(rb.GetStuffPtr(), a);
    EXPECT_EQ(rb.GetCheckinFlags(), MC_CheckinFlag_DontUpdateLastUsed);
    EXPECT_EQ(ra.GetCheckinFlags(), 0);
    rb.SuspendCheckout();
    ra.Swap(rb);
    EXPECT_FALSE(ra.HasSuspendedCheckout());  // the suspended item stays with its receipt
    EXPECT_EQ(ra.GetStuffPtr(), nullptr);
    // The creator's pending guard goes with the swap: the render is not abandoned.
    MC_ScCheckout creator;
    ASSERT_EQ(creator.FindAndCheckout(MakeRequest(7),
                                      MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    const IntrusivePtr<MC_Stuff> pending = creator.GetStuffPtr();
    creator.Swap(ra);
    EXPECT_TRUE(pending->IsPendingRender());
}

// A suspended receipt keeps its result but not the check-out: the item may be purged. It
// reacquires the item, or an equivalent one by key, or ends empty.
TEST_F(Receipts, SuspendAndReacquire) {
    IntrusivePtr<MC_Stuff> stuff = Add(1, 100);
    MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
    receipt.SuspendCheckout();
    EXPECT_EQ(receipt.GetResult(), MC_CheckoutResult_CheckedOut);
    EXPECT_TRUE(receipt.HasSuspendedCheckout());
    EXPECT_EQ(stuff->GetCheckoutCount(), 0u);
    EXPECT_TRUE(receipt.ReacquireSuspendedCheckout());
    EXPECT_EQ(stuff->GetCheckoutCount(), 1u);
    EXPECT_FALSE(receipt.HasSuspendedCheckout());

    receipt.SuspendCheckout();
    EXPECT_EQ(stuff->FreeUpAsMuchAsPossible(true, nullptr), 100u);
    IntrusivePtr<MC_Stuff> replacement = Add(1, 100);  // same key, resident
    EXPECT_TRUE(receipt.ReacquireSuspendedCheckout());
    EXPECT_EQ(receipt.GetStuffPtr(), replacement);

    receipt.SuspendCheckout();
    EXPECT_EQ(replacement->FreeUpAsMuchAsPossible(true, nullptr), 100u);
    EXPECT_FALSE(receipt.ReacquireSuspendedCheckout());  // nothing in memory, no disk file
    EXPECT_EQ(receipt.GetStuffPtr(), nullptr);

    MC_ScCheckout other(Add(2), MC_CheckoutFlag_ReadOnly);
    other.SuspendCheckout();
    other.ReleaseSuspendedCheckout();
    EXPECT_EQ(other.GetResult(), MC_CheckoutResult_Failed);
    EXPECT_FALSE(other.HasSuspendedCheckout());
}

TEST_F(Receipts, DiskHoldCountsFollowTheHold) {
    IntrusivePtr<MC_Stuff> stuff = Add(1);
    const uint32_t global = MC_Stuff::GetNumDiskCacheCheckouts();
    {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
        receipt.AcquireDiskHold();
        EXPECT_EQ(stuff->GetDiskCacheCheckoutCount(), 1u);
        EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), global + 1);
        EXPECT_FALSE(receipt.HasDiskHold());  // no disk file to protect
        EXPECT_TRUE(receipt.HasDiskHoldIfWanted());
    }
    EXPECT_EQ(stuff->GetDiskCacheCheckoutCount(), 0u);
    EXPECT_EQ(stuff->CheckoutDiskCache(true), nullptr);  // no file: no hold, no count
    EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), global);
}

TEST_F(Receipts, AbandonedPendingRenderWakesWaitersAndLeavesTheBag) {
    auto creator = std::make_unique<MC_ScCheckout>();
    ASSERT_EQ(creator->FindAndCheckout(MakeRequest(3),
                                       MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
              MC_CheckoutResult_CreatedNewPending);
    EXPECT_TRUE(creator->DidCreateNewPending());
    const IntrusivePtr<MC_Stuff> pending = creator->GetStuffPtr();
    const uint32_t waits = counters().pendingWaits.load();
    std::thread waiter([&] {
        MC_ScCheckout r;
        // Waits on the pending item, sees it abandoned, retries and finds nothing.
        EXPECT_EQ(r.FindAndCheckout(MakeRequest(3), MC_CheckoutFlag_ReadOnly |
                                                        MC_CheckoutFlag_WaitIfPendingUnlessLocked),
                  MC_CheckoutResult_Failed);
    });
    // The waiter counts its wait before it blocks: from here on it is blocked.
    EXPECT_TRUE(mctest::Eventually([&] { return counters().pendingWaits == waits + 1; }));
    creator.reset();  // the receipt dies before anything was rendered
    waiter.join();
    EXPECT_FALSE(pending->IsPendingRender());
    EXPECT_EQ(bag_->GetNumItems(), 0);
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 0);
}

class FactoryRegistry : public ::testing::Test {
protected:
    void SetUp() override { MC_StuffData::Death(); }
    void TearDown() override { MC_StuffData::Death(); }

    static MC_StuffData::Factory Making(uint32_t size, std::atomic<int>* calls = nullptr) {
        return [size, calls](const std::vector<uint8_t>& header) {
            if (calls) calls->fetch_add(1);
            return IntrusivePtr<MC_StuffData>(
                new TestPayload(header.empty() ? 0 : header[0], size));
        };
    }
};

// Unknown names give null (and a later registration fills them), a second registration
// replaces the first, names are case-sensitive, a factory may use the registry, Death empties it.
TEST_F(FactoryRegistry, Rules) {
    std::vector<uint8_t> header{5};
    auto size = [&](const char* name) {
        IntrusivePtr<MC_StuffData> made = MC_StuffData::CreateSubclass(name, header);
        return made ? made->GetApproximateMemorySize() : 0u;
    };
    EXPECT_EQ(size("Frame"), 0u);  // no map yet
    MC_StuffData::Factory f1 = Making(1), f2 = Making(2), f3 = Making(3);
    MC_StuffData::RegisterFactory("frame", f3);
    EXPECT_EQ(size("Frame"), 0u);
    MC_StuffData::RegisterFactory("Frame", f1);
    MC_StuffData::RegisterFactory("Frame", f2);
    EXPECT_EQ(size("Frame"), 2u);
    EXPECT_EQ(size("frame"), 3u);
    EXPECT_EQ(static_cast<TestPayload*>(MC_StuffData::CreateSubclass("Frame", header).get())->Key(),
              5u);
    MC_StuffData::Factory outer = [](const std::vector<uint8_t>& h) {
        std::vector<uint8_t> copy = h;
        return MC_StuffData::CreateSubclass("Frame", copy);
    };
    MC_StuffData::RegisterFactory("outer", outer);
    EXPECT_EQ(size("outer"), 2u);
    MC_StuffData::Death();
    EXPECT_EQ(size("outer"), 0u);
    EXPECT_EQ(size("Frame"), 0u);
}

TEST_F(FactoryRegistry, ConcurrentRegistrationAndCreation) {
    std::atomic<int> calls{0};
    mctest::RunThreads(4, [&](int t) {
        for (int i = 0; i < 200; ++i) {
            MC_StuffData::Factory f = Making(static_cast<uint32_t>(t + 1), &calls);
            MC_StuffData::RegisterFactory(i % 2 ? "a" : "b", f);
            std::vector<uint8_t> header;
            MC_StuffData::CreateSubclass(i % 3 ? "a" : "b", header);
        }
    });
    EXPECT_EQ(calls.load(), 800);
}

}  // namespace
