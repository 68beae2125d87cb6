// Bag membership, recency order and byte accounting.
#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "mc/MC_Stuff.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/Errors.h"
#include "support/ModuleAccess.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;

namespace {

class BagMembership : public ModuleTest {
protected:
    std::vector<IntrusivePtr<MC_Stuff>> Order() { return bag_->SnapshotItems(); }
};

TEST_F(BagMembership, AddingTwiceAndRemovingAStrangerAreVerificationFailures) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    bag_->AddStuff(stuff);
    try {
        bag_->AddStuff(stuff);
        FAIL();
    } catch (int code) {
        EXPECT_EQ(code, 3);
    }
    IntrusivePtr<MC_Stuff> stranger = MakeItem(2, 10);
    try {
        bag_->RemoveStuff(stranger);
        FAIL();
    } catch (int code) {
        EXPECT_EQ(code, 3);
    }
    auto reports = host().FailedVerifications();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0], "stuff already in a bag");
    EXPECT_EQ(reports[1], "stuff not in the right bag");
    EXPECT_EQ(bag_->GetNumItems(), 1);
    stranger.reset();  // outside any bag it counted against the global bag until now
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 10);
}

TEST_F(BagMembership, ItemsInAnotherBagCannotJoin) {
    auto other = std::make_shared<MC_Bag>(1);
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 10);
    other->AddStuff(stuff);
    EXPECT_THROW(bag_->AddStuff(stuff), int);
    other->RemoveStuff(stuff);
}

TEST_F(BagMembership, EqualStampsKeepInsertionOrderAndUpdateMovesToTheEnd) {
    IntrusivePtr<MC_Stuff> a = MakeItem(1, 10), b = MakeItem(2, 10), c = MakeItem(3, 10);
    MCp_BagAccess::AddWithStamp(*bag_, a, 1000);
    MCp_BagAccess::AddWithStamp(*bag_, b, 1000);
    MCp_BagAccess::AddWithStamp(*bag_, c, 1000);
    EXPECT_EQ(Order(), (std::vector<IntrusivePtr<MC_Stuff>>{a, b, c}));
    {
        MCp_ScLock lock;
        bag_->UpdateWithNewLastUsedTime(a, lock);
    }
    EXPECT_EQ(Order(), (std::vector<IntrusivePtr<MC_Stuff>>{b, c, a}));
    // A re-stamp without re-sorting keeps the position (the set keeps the captured stamp).
    bag_->AccountForStuffDataModification(b);
    EXPECT_EQ(Order(), (std::vector<IntrusivePtr<MC_Stuff>>{b, c, a}));
    {
        MCp_ScLock lock;
        bag_->UpdateWithNewLastUsedTime(a, lock);  // the last item stays last
    }
    EXPECT_EQ(Order().back(), a);
}

TEST_F(BagMembership, CheckinMovesTheItemToTheYoungEndUnlessAskedNotTo) {
    IntrusivePtr<MC_Stuff> a = MakeItem(1, 10), b = MakeItem(2, 10);
    a->AddToBagAndSortDir(bag_);
    b->AddToBagAndSortDir(bag_);
    ASSERT_EQ(a->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    a->Checkin(MC_CheckinFlag_DontUpdateLastUsed, 0.0);
    EXPECT_EQ(Order().front(), a);
    ASSERT_EQ(a->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    a->Checkin(0, 0.0);
    EXPECT_EQ(Order().back(), a);
}

TEST_F(BagMembership, AccountForModificationChangesTotalsNotPosition) {
    IntrusivePtr<MC_Stuff> a = MakeItem(1, 10), b = MakeItem(2, 20);
    a->AddToBagAndSortDir(bag_);
    b->AddToBagAndSortDir(bag_);
    StaticPointerCast<TestPayload>(a->GetDataPtr())->Resize(500);
    bag_->AccountForStuffDataModification(a);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 520);
    EXPECT_EQ(Order().front(), a);
    IntrusivePtr<MC_Stuff> empty(new MC_Stuff());
    EXPECT_THROW(bag_->AccountForStuffDataModification(empty), velacore::NullPointerError);
}

TEST_F(BagMembership, ItemsOutsideABagAccountAgainstTheGlobalBag) {
    IntrusivePtr<MC_Stuff> loose = MakeItem(1, 40);  // CreateNew synced against the global bag
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 40);
    loose.reset();  // a dying item takes its bytes with it
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
}

TEST_F(BagMembership, CacheSizesAndPercentages) {
    IntrusivePtr<MC_Stuff> a = MakeItem(1, 100), b = MakeItem(2, 50);
    a->AddToBagAndSortDir(bag_);
    b->AddToBagAndSortDir(bag_);
    StaticPointerCast<TestPayload>(b->GetDataPtr())->PurgeIfPossible(nullptr);
    uint64_t inMemory = 0, onDisk = 0;
    bag_->GetCacheSizesInBytes(inMemory, onDisk);
    EXPECT_EQ(inMemory, 100u);
    EXPECT_EQ(onDisk, 0u);
    EXPECT_FLOAT_EQ(bag_->GetPercentOfAvailableMemoryFree(), 1.0f);
    host().SetAmountAvailable(900);
    ASSERT_EQ(a->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    // 100 checked out of (900 available + 150 accounted in memory: b's bytes were never
    // re-synced after its payload was purged behind the cache's back).
    EXPECT_NEAR(bag_->GetPercentOfAvailableMemoryCheckedOut(), 100.0 / 1050.0, 1e-6);
    EXPECT_EQ(bag_->GetCurrentMaxCacheSize(), 1050u);
    a->Checkin(0, 0.0);
}

TEST_F(BagMembership, UnchangedSizeMakesNoAdjustment) {
    IntrusivePtr<MC_Stuff> a = MakeItem(1, 100);
    a->AddToBagAndSortDir(bag_);
    host().SetTraceLevel("MC", 7);
    host().ClearRecords();
    a->SyncMemorySizeWithBag(100);
    EXPECT_TRUE(host().TraceLines("MC").empty());
    a->SyncMemorySizeWithBag(60);
    auto lines = host().TraceLines("MC");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "AdjustInMemoryCacheSize: -40\n");
}

// Many threads add, resize, check out, remove and drop items; at the end the bag's totals
// equal the sums over what is left.
TEST_F(BagMembership, TotalsMatchTheItemsAfterConcurrentChurn) {
    constexpr int kThreads = 4;
    constexpr int kOps = 1500;
    std::vector<std::thread> threads;
    std::vector<std::vector<IntrusivePtr<MC_Stuff>>> kept(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(1234 + t);
            auto& mine = kept[t];
            for (int i = 0; i < kOps; ++i) {
                const int op = static_cast<int>(rng() % 6);
                if (op <= 1 || mine.empty()) {
                    auto s = MakeItem(static_cast<uint32_t>(t * 100000 + i), 1 + rng() % 4000);
                    s->AddToBagAndSortDir(bag_);
                    mine.push_back(s);
                    continue;
                }
                const size_t k = rng() % mine.size();
                IntrusivePtr<MC_Stuff> s = mine[k];
                if (op == 2) {
                    StaticPointerCast<TestPayload>(s->GetDataPtr())->Resize(1 + rng() % 4000);
                    bag_->AccountForStuffDataModification(s);
                } else if (op == 3) {
                    if (s->Checkout(MC_CheckoutFlag_ReadOnly) == MC_CheckoutResult_CheckedOut)
                        s->Checkin(0, 0.0);
                } else if (op == 4) {
                    s->RemoveFromBagAndSortDir();
                    mine.erase(mine.begin() + static_cast<long>(k));
                } else {
                    s->FreeUpAsMuchAsPossible(true, nullptr);
                    if (s->GetBag().expired()) mine.erase(mine.begin() + static_cast<long>(k));
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    int64_t expected = 0;
    size_t count = 0;
    for (auto& mine : kept) {
        count += mine.size();
        for (auto& s : mine) expected += s->GetApproximateMemorySize();
    }
    EXPECT_EQ(static_cast<size_t>(bag_->GetNumItems()), count);
    EXPECT_EQ(static_cast<size_t>(bag_->GetNumGuidSortedItems()), count);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), expected);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    kept.clear();
    bag_->ClearBagAndSortDir();
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
}

}  // namespace
