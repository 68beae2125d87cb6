// The media map mirror over a real standalone manager: what gets registered, how a second
// registration replaces the first, how check-in, erase, removal, purges and shut-down move
// entries; over budget the manager has the oldest idle items purged through the mirror (never a
// checked-out or pinned one), and the manager's, the map's and the bag's totals agree once things
// settle, also under load and across shut-down. Then the manager itself: purge classes (the
// register call's `kind`), and detaching an owner while a purge call to it is in flight.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "bag/Eventually.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/OpenOnceGate.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "mediamap/MC_MediaMapImpl.h"
#include "mediamap/MediaMapHooks.h"
#include "support/Latch.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace std::chrono_literals;
using namespace mctest;

namespace {

// The module started interactively (mirror on) over a standalone manager.
class MirrorTest : public ModuleTest {
protected:
    void ConfigureHost(RecordingHostServices& h) override { h.SetMediaManager(&manager_); }
    bool Interactive() const override { return true; }
    void TearDown() override {
        ModuleTest::TearDown();
        services_->SetMediaManager(nullptr);
    }
    std::shared_ptr<zk::MC_MediaMapImpl> Map() { return MCp_MediaMap(); }
    bool Register(const IntrusivePtr<MC_Stuff>& stuff) {
        MCp_ScLock lock;  // as the bag does
        return Map()->Register(stuff);
    }
    IntrusivePtr<MC_Stuff> AddItem(uint32_t key, uint32_t size) {
        IntrusivePtr<MC_Stuff> stuff = MakeItem(key, size);
        stuff->AddToBagAndSortDir(bag_);
        return stuff;
    }
    void Settle() { ASSERT_TRUE(manager_.WaitUntilSettled(50s)); }
    NX::StandaloneMediaManager manager_{uint64_t{1} << 40};
};

TEST_F(MirrorTest, EveryStepKeepsTheMapAndTheManagerInStep) {
    IntrusivePtr<MC_Stuff> a, b, c;
    struct Step {
        const char* what;
        std::function<void()> run;
        uint64_t entries, bytes;
        uint64_t seqA;  // a's sequence in the map afterwards (0: none)
    };
    // clang-format off
    const Step steps[] = {
        {"a resident item is registered", [&] { a = AddItem(1, 1000); }, 1, 1000, 1},
        {"registering again replaces it", [&] { ASSERT_TRUE(Register(a)); }, 1, 1000, 2},
        {"more items", [&] { b = AddItem(2, 2000), c = AddItem(3, 4000); }, 3, 7000, 2},
        {"a check-out leaves the entry, check-in moves it", [&] {
             MC_ScCheckout r(a, MC_CheckoutFlag_ReadOnly);
             EXPECT_EQ(Map()->SequenceOf(a), 2u);
         }, 3, 7000, 5},
        {"erasing an unknown item changes nothing",
         [&] { EXPECT_FALSE(Map()->Erase(MakeItem(9, 10))); }, 3, 7000, 5},
        {"a purged item is not registered but gets a guid; a stale entry goes", [&] {
             IntrusivePtr<MC_Stuff> d = AddItem(4, 500), p = MakeItem(9, 10);
             d->GetDataPtr()->PurgeIfPossible(nullptr);
             p->GetDataPtr()->PurgeIfPossible(nullptr);
             EXPECT_FALSE(Register(d) || Register(p) || p->GetMediaMapGuid().IsNull());
         }, 3, 7000, 5},
        {"removal", [&] { b->RemoveFromBagAndSortDir(); }, 2, 5000, 5},
        {"purge from the media map", [&] { c->PurgeFromMediaMap(); }, 1, 1000, 5},
        {"erase", [&] {
             EXPECT_TRUE(Map()->Erase(a));
             EXPECT_FALSE(Map()->Erase(a));
         }, 0, 0, 0},
    };
    // clang-format on
    for (const Step& s : steps) {
        SCOPED_TRACE(s.what);
        s.run();
        EXPECT_EQ(Map()->EntryCount(), s.entries);
        EXPECT_EQ(MC_GetMediaMapSize(), s.bytes);
        EXPECT_EQ(manager_.GetRegisteredBytes(), s.bytes);
        EXPECT_EQ(manager_.EntryCount(), s.entries);
        EXPECT_EQ(Map()->SequenceOf(a), s.seqA);
    }
    EXPECT_FALSE(c->IsInMemory());
}

// Over budget the oldest idle item goes; never a checked-out, pinned or refusing one (a pinned
// entry resists purge and flush until made purgeable).
TEST_F(MirrorTest, OverBudgetPurgesTheOldestIdleItemOnly) {
    manager_.SetBudget(3000);
    IntrusivePtr<MC_Stuff> pinnedItem = MakeItem(9, 500);
    const zk::MC_MediaMapDataKey key{velacore::Guid::CreateUnique(), 0};
    const uint64_t pinned =
        Map()->Insert(key, std::make_shared<zk::MC_MediaMapData>(pinnedItem, 500), true);
    IntrusivePtr<MC_Stuff> a = AddItem(1, 500), refusing = AddItem(2, 500);
    static_cast<TestPayload&>(*refusing->GetDataPtr()).SetAllowPurge(false);
    IntrusivePtr<MC_Stuff> b = AddItem(3, 500), c = AddItem(4, 500), d = AddItem(5, 500);
    Settle();
    EXPECT_EQ(manager_.PurgedCount(), 0u);   // 3000 fits
    EXPECT_EQ(MC_GetMediaMapSize(), 2500u);  // the manager counts the inserted entry, the map not

    auto hold = std::make_unique<MC_ScCheckout>(a, MC_CheckoutFlag_ReadOnly);
    IntrusivePtr<MC_Stuff> e = AddItem(6, 500);
    Settle();
    EXPECT_TRUE(pinnedItem->IsInMemory() && a->IsInMemory() && refusing->IsInMemory());
    EXPECT_NE(Map()->SequenceOf(refusing), 0u);
    EXPECT_FALSE(b->IsInMemory());
    EXPECT_TRUE(b->GetBag().expired());  // nothing left of it: it left the cache
    EXPECT_TRUE(c->IsInMemory() && d->IsInMemory() && e->IsInMemory());

    hold.reset();  // check-in re-registers a as the youngest entry
    EXPECT_FALSE(Map()->PurgeEntry(pinned) || Map()->Flush(pinned));
    EXPECT_TRUE(Map()->MakePurgeable(zk::MC_MediaMapDataKey{key.guid, pinned}));
    AddItem(7, 500);  // over again: now the unpinned entry is the oldest and goes
    Settle();
    EXPECT_FALSE(Map()->IsNonPurgeable(pinned));
    EXPECT_TRUE(a->IsInMemory() && c->IsInMemory());
    EXPECT_EQ(manager_.PurgedCount(), 2u);
    EXPECT_EQ(manager_.GetRegisteredBytes(), 3000u);
    EXPECT_EQ(MC_GetMediaMapSize(), 3000u);
    // The pinned item never joined the bag but, alive and in memory, counts against the global
    // bag; its purge through the map could not free it (no bag), its release does.
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 3500);
    pinnedItem.reset();
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 3000);
}

// Renders and reads frames from several threads while the manager purges. A check-out must
// keep its payload in memory throughout; at rest the totals agree and fit the budget.
TEST_F(MirrorTest, ConcurrentRendersThenDeathKeepTheTotalsInStep) {
    constexpr uint32_t kKeys = 40, kFrameBytes = 1000;
    manager_.SetBudget(10 * kFrameBytes);  // purges start while the threads render
    std::atomic<int> lostWhileHeld{0}, renders{0};
    RunThreads(4, [&](int t) {
        std::mt19937 rng(static_cast<unsigned>(t) * 7919u + 1u);
        for (int i = 0; i < 250; ++i) {
            const uint32_t key = rng() % kKeys;
            MC_ScCheckout r;
            const MC_CheckoutResult res = r.FindAndCheckout(
                MakeRequest(key), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                      MC_CheckoutFlag_WaitIfPendingUnlessLocked);
            if (res == MC_CheckoutResult_CreatedNewPending) {
                r.GetStuffPtr()->SetStuffDataFromPendingRender(
                    IntrusivePtr<MC_StuffData>(new TestPayload(key, kFrameBytes)), 0.01);
                renders.fetch_add(1);
            } else if (res == MC_CheckoutResult_CheckedOut) {
                auto data = StaticPointerCast<TestPayload>(r.GetStuffPtr()->GetDataPtr());
                for (int spin = 0; spin < 3; ++spin, std::this_thread::yield())
                    lostWhileHeld.fetch_add(!data || !data->Bytes());
            }
        }
    });
    Settle();
    EXPECT_EQ(lostWhileHeld.load(), 0);
    EXPECT_GT(manager_.PurgedCount(), 0u);
    EXPECT_GT(renders.load(), static_cast<int>(kKeys));  // frames were purged and rendered again
    EXPECT_LE(manager_.GetRegisteredBytes(), 10u * kFrameBytes);
    EXPECT_EQ(MC_GetMediaMapSize(), manager_.GetRegisteredBytes());
    EXPECT_EQ(MC_GetMediaMapSize(),
              static_cast<uint64_t>(bag_->GetInMemoryCacheSizeInBytes_LockFree()));
    EXPECT_EQ(Map()->EntryCount(), manager_.EntryCount());

    // Shut-down while the manager's thread is busy purging: Death waits for the call in flight
    // and leaves nothing registered.
    manager_.SetBudget(1);
    IntrusivePtr<MC_Stuff> last = AddItem(kKeys, 100);
    bag_.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_EQ(manager_.EntryCount(), 0u);
    EXPECT_EQ(manager_.GetRegisteredBytes(), 0u);
    EXPECT_TRUE(last->GetBag().expired());
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);
    MC_Birth(true, kAppVersion, false);  // TearDown stops and kills it again
    bag_ = MC_GlobalBag();
    EXPECT_EQ(AddItem(9, 10)->GetMediaMapID(), 1u);  // a new map numbers from one
}

// Records its purges and forgets them; with `hold` given, its purge instead waits for the gate
// (to keep a call in flight) and fails.
class Owner : public NX::IPurgeableSupport {
public:
    explicit Owner(NX::IMediaManager& manager, velacore::OpenOnceGate* hold = nullptr)
        : manager_(manager), hold_(hold) {}
    bool PurgeEntry(uint64_t sequence) override {
        {
            std::lock_guard lock(mutex_);
            purged_.push_back(sequence);
        }
        entered.count_down();
        if (hold_ != nullptr) {
            hold_->Pass();
            finished.store(true);
            return false;
        }
        manager_.ForgetEntry(sequence);
        return true;
    }
    bool IsNonPurgeable(uint64_t) override { return false; }
    std::vector<uint64_t> Purged() const {
        std::lock_guard lock(mutex_);
        return purged_;
    }
    Latch entered{1};
    std::atomic<bool> finished{false};

private:
    NX::IMediaManager& manager_;
    velacore::OpenOnceGate* hold_;
    mutable std::mutex mutex_;
    std::vector<uint64_t> purged_;
};

const velacore::Guid kClient(std::string_view("0F0E0D0C-0B0A-0908-0706-050403020100"));

// Scratch entries go before cached ones whatever their age; within a class the least recently
// used goes first, and a touch makes an entry the youngest.
TEST(MediaManagerClasses, PurgeOrderIsClassThenLeastRecentlyUsed) {
    NX::StandaloneMediaManager m(350);
    Owner owner(m);
    for (uint64_t seq : {1, 2, 3})
        m.RegisterEntry(&owner, kClient, seq, 100, NX::kMediaEntryCached, 0, nullptr);
    m.TouchEntry(1, kClient);
    m.RegisterEntry(&owner, kClient, 4, 100, NX::kMediaEntryScratch, 0, nullptr);  // youngest
    ASSERT_TRUE(m.WaitUntilSettled(50s));
    EXPECT_EQ(owner.Purged(), (std::vector<uint64_t>{4}));
    m.RegisterEntry(&owner, kClient, 5, 100, NX::kMediaEntryCached, 0, nullptr);
    ASSERT_TRUE(m.WaitUntilSettled(50s));
    EXPECT_EQ(owner.Purged(), (std::vector<uint64_t>{4, 2}));  // 1 was touched after 2
    EXPECT_EQ(m.GetRegisteredBytes(), 300u);
}

// Detaching an owner through the interface waits for the purge call in flight to it.
TEST(MediaManagerClasses, DetachThroughTheInterfaceWaitsForTheCallInFlight) {
    NX::StandaloneMediaManager m(10);
    velacore::OpenOnceGate hold;
    Owner owner(m, &hold);
    NX::IMediaManager& manager = m;
    manager.RegisterEntry(&owner, kClient, 1, 100, NX::kMediaEntryCached, 0, nullptr);
    ASSERT_TRUE(owner.entered.wait());
    std::atomic<bool> finishedWhenDetached{false};
    std::thread detacher([&] {
        manager.DetachOwner(&owner);
        finishedWhenDetached.store(owner.finished.load());
    });
    hold.Open();
    detacher.join();
    EXPECT_TRUE(finishedWhenDetached.load());
    EXPECT_EQ(m.EntryCount(), 0u);
}

}  // namespace
