// Registering items in the media map: what gets registered, how a second registration replaces
// the first, how removal, purge and shut-down take entries away, and what the manager is told.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "MediaMapTestUtil.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"

using namespace mediamap_test;
using mctest::MakeItem;

namespace {

TEST_F(MirrorTest, AResidentItemIsRegisteredWithItsBytes) {
    ASSERT_TRUE(MCp_MediaMapEnabled());
    IntrusivePtr<MC_Stuff> stuff = AddItem(1, 1000);
    EXPECT_FALSE(stuff->GetMediaMapGuid().IsNull());
    EXPECT_EQ(stuff->GetMediaMapID(), 1u);  // a new map numbers from 1
    EXPECT_EQ(Map()->EntryCount(), 1u);
    EXPECT_EQ(MC_GetMediaMapSize(), 1000u);
    const auto regs = recorder_->Registrations();
    ASSERT_EQ(regs.size(), 1u);
    EXPECT_EQ(regs[0].owner, Map().get());
    EXPECT_EQ(regs[0].client, Map()->ClientId());
    EXPECT_EQ(regs[0].sequence, 1u);
    EXPECT_EQ(regs[0].bytes, 1000u);
    EXPECT_EQ(regs[0].kind, 1);  // the constant arguments of the register call
    EXPECT_EQ(regs[0].flags, 0);
    EXPECT_EQ(recorder_->GetRegisteredBytes(), 1000u);
}

TEST_F(MirrorTest, RegisteringAgainReplacesTheEntryUnderANewSequence) {
    IntrusivePtr<MC_Stuff> stuff = AddItem(1, 1000);
    const velacore::Guid guid = stuff->GetMediaMapGuid();
    ASSERT_TRUE(Register(stuff));
    EXPECT_EQ(stuff->GetMediaMapGuid(), guid);  // the GUID stays
    EXPECT_EQ(stuff->GetMediaMapID(), 2u);
    EXPECT_EQ(Map()->SequenceOf(stuff), 2u);
    EXPECT_EQ(Map()->EntryCount(), 1u);
    EXPECT_EQ(MC_GetMediaMapSize(), 1000u);  // replaced, not added
    EXPECT_EQ(recorder_->Touched(), (std::vector<uint64_t>{1}));
    EXPECT_EQ(recorder_->Forgotten(), (std::vector<uint64_t>{1}));
    EXPECT_EQ(recorder_->GetRegisteredBytes(), 1000u);
    EXPECT_EQ(recorder_->Inner().EntryCount(), 1u);
}

TEST_F(MirrorTest, CheckInMovesTheItemToANewEntry) {
    IntrusivePtr<MC_Stuff> stuff = AddItem(1, 1000);
    AddItem(2, 500);
    {
        MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
        ASSERT_TRUE(receipt.DidCheckout());
        EXPECT_EQ(stuff->GetMediaMapID(), 1u);  // a check-out leaves the entry alone
    }
    EXPECT_EQ(stuff->GetMediaMapID(), 3u);
    EXPECT_EQ(Map()->EntryCount(), 2u);
    EXPECT_EQ(MC_GetMediaMapSize(), 1500u);
    EXPECT_EQ(recorder_->Inner().EntryCount(), 2u);
}

TEST_F(MirrorTest, ItemsNotInMemoryOrEmptyAreNotRegisteredButGetAGuid) {
    IntrusivePtr<MC_Stuff> purged = MakeItem(1, 1000);
    PayloadOf(purged).PurgeIfPossible(nullptr);
    IntrusivePtr<MC_Stuff> empty =
        MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new EmptyPayload), 0.1);
    for (const auto& stuff : {purged, empty}) {
        ASSERT_TRUE(stuff->GetMediaMapGuid().IsNull());
        EXPECT_FALSE(Register(stuff));
        EXPECT_FALSE(stuff->GetMediaMapGuid().IsNull());
        EXPECT_EQ(stuff->GetMediaMapID(), 0u);
    }
    EXPECT_NE(purged->GetMediaMapGuid(), empty->GetMediaMapGuid());
    EXPECT_EQ(Map()->EntryCount(), 0u);
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);
    EXPECT_TRUE(recorder_->Registrations().empty());
}

TEST_F(MirrorTest, AnItemThatLeftMemoryLosesItsEntryOnReRegistration) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 1000);
    ASSERT_TRUE(Register(stuff));
    PayloadOf(stuff).PurgeIfPossible(nullptr);
    EXPECT_FALSE(Register(stuff));  // the stale entry goes, no new one comes
    EXPECT_EQ(Map()->EntryCount(), 0u);
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);
    EXPECT_EQ(recorder_->GetRegisteredBytes(), 0u);
}

TEST_F(MirrorTest, EraseTracesTheEntryAndAnUnknownItemChangesNothing) {
    host().SetTraceLevel("ZKLIB.MediaMapImpl", 6);
    IntrusivePtr<MC_Stuff> stuff = AddItem(1, 1000);
    AddItem(2, 300);
    IntrusivePtr<MC_Stuff> stranger = MakeItem(3, 10);
    EXPECT_FALSE(Map()->Erase(stranger));
    EXPECT_TRUE(host().TraceLines("ZKLIB.MediaMapImpl").empty());

    const std::string guid = stuff->GetMediaMapGuid().AsString();
    EXPECT_TRUE(Map()->Erase(stuff));
    EXPECT_FALSE(Map()->Erase(stuff));  // second time: nothing left
    const auto lines = host().TraceLines("ZKLIB.MediaMapImpl");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 6);
    EXPECT_EQ(lines[0].text,
              "Purged entry 1 hash " + guid + " with 1000 bytes. Current cache size 300\n");
    EXPECT_EQ(recorder_->Forgotten(), (std::vector<uint64_t>{1}));
    EXPECT_EQ(MC_GetMediaMapSize(), 300u);
}

TEST_F(MirrorTest, RemovalAndMemoryPurgeTakeEntriesAway) {
    IntrusivePtr<MC_Stuff> a = AddItem(1, 1000);
    IntrusivePtr<MC_Stuff> b = AddItem(2, 2000);
    IntrusivePtr<MC_Stuff> c = AddItem(3, 4000);
    ASSERT_EQ(MC_GetMediaMapSize(), 7000u);
    a->RemoveFromBagAndSortDir();
    EXPECT_EQ(MC_GetMediaMapSize(), 6000u);
    EXPECT_EQ(Map()->SequenceOf(a), 0u);

    host().SetMemUsageLimits(1000, 4000);  // keeps the cache above its minimum (100 bytes)
    host().SetAmountToPurge(1500);         // the oldest remaining item (b) covers it
    EXPECT_EQ(bag_->FreeUpSomeMemory(0), 2000);
    EXPECT_FALSE(b->IsInMemory());
    EXPECT_EQ(MC_GetMediaMapSize(), 4000u);
    EXPECT_EQ(Map()->EntryCount(), 1u);
    EXPECT_NE(Map()->SequenceOf(c), 0u);
    EXPECT_EQ(recorder_->GetRegisteredBytes(), 4000u);
    EXPECT_EQ(MC_GetMediaMapSize(),
              static_cast<uint64_t>(bag_->GetInMemoryCacheSizeInBytes_LockFree()));
}

TEST_F(MirrorTest, DeathForgetsEveryEntryWithTheManager) {
    for (uint32_t k = 1; k <= 5; ++k) AddItem(k, 100 * k);
    ASSERT_EQ(recorder_->Inner().EntryCount(), 5u);
    std::weak_ptr<zk::MC_MediaMapImpl> weak = Map();
    bag_.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    EXPECT_FALSE(MCp_MediaMapEnabled());
    EXPECT_EQ(MC_GetMediaMapSize(), 0u);
    EXPECT_TRUE(weak.expired());  // released
    EXPECT_EQ(recorder_->Inner().EntryCount(), 0u);
    EXPECT_EQ(recorder_->GetRegisteredBytes(), 0u);
    MC_Birth(true, kAppVersion, false);  // TearDown stops and kills it again
    bag_ = MC_GlobalBag();
    EXPECT_EQ(AddItem(9, 10)->GetMediaMapID(), 1u);  // a new map numbers from 1 again
}

TEST_F(MirrorTest, PurgeFromMediaMapWithoutABagOnlyTraces) {
    host().SetTraceLevel("MC_MediaMap", 6);
    IntrusivePtr<MC_Stuff> loose = MakeItem(1, 1000);
    loose->PurgeFromMediaMap();
    EXPECT_TRUE(loose->IsInMemory());
    const auto lines = host().TraceLines("MC_MediaMap");
    ASSERT_EQ(lines.size(), 1u);
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(loose.get()));
    EXPECT_EQ(lines[0].text, std::string(address) +
                                 " stuff ain't got no bag, this should be harmless and mem will "
                                 "go away when stuff ref does.\n");
}

TEST_F(MirrorTest, PurgeFromMediaMapFreesAnIdleItemAndErasesIt) {
    IntrusivePtr<MC_Stuff> stuff = AddItem(1, 1000);
    AddItem(2, 10);
    stuff->PurgeFromMediaMap();
    EXPECT_FALSE(stuff->IsInMemory());
    EXPECT_TRUE(stuff->GetBag().expired());  // nothing left of it: it left the bag
    EXPECT_EQ(Map()->EntryCount(), 1u);
    EXPECT_EQ(MC_GetMediaMapSize(), 10u);
    EXPECT_EQ(bag_->GetNumItems(), 1);
}

TEST_F(MirrorTest, PurgeFromMediaMapKeepsTheEntryOfACheckedOutItem) {
    IntrusivePtr<MC_Stuff> stuff = AddItem(1, 1000);
    MC_ScCheckout receipt(stuff, MC_CheckoutFlag_ReadOnly);
    stuff->PurgeFromMediaMap();
    EXPECT_TRUE(stuff->IsInMemory());
    EXPECT_EQ(Map()->SequenceOf(stuff), 1u);  // still counted by the manager
    EXPECT_EQ(recorder_->GetRegisteredBytes(), 1000u);
}

// The map on its own, over a recording manager.
class MediaMapAlone : public MirrorTest {
  protected:
    void SetUp() override {
        MirrorTest::SetUp();
        manager_ = std::make_unique<RecordingMediaManager>();
        map_ =
            std::make_unique<zk::MC_MediaMapImpl>(manager_.get(), velacore::Guid::CreateUnique());
    }
    void TearDown() override {
        map_.reset();
        MirrorTest::TearDown();
    }
    zk::MC_MediaMapDataPtr DataFor(const IntrusivePtr<MC_Stuff>& stuff) {
        return std::make_shared<zk::MC_MediaMapData>(stuff, stuff->GetApproximateMemorySize());
    }

    std::unique_ptr<RecordingMediaManager> manager_;
    std::unique_ptr<zk::MC_MediaMapImpl> map_;
};

TEST_F(MediaMapAlone, SequencesStartAtOneAndAreNeverReused) {
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 1; k <= 3; ++k) items.push_back(MakeItem(k, 100));
    std::vector<uint64_t> seen;
    for (int round = 0; round < 3; ++round) {
        for (const auto& stuff : items) {
            ASSERT_TRUE(map_->Register(stuff));
            seen.push_back(stuff->GetMediaMapID());
        }
        map_->Erase(items[1]);
    }
    std::vector<uint64_t> expected;
    for (uint64_t s = 1; s <= 9; ++s) expected.push_back(s);
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(map_->EntryCount(), 2u);
    EXPECT_EQ(map_->TotalBytes(), 200u);
}

TEST_F(MediaMapAlone, APinnedEntryStaysUntilMadePurgeable) {
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 100);
    const zk::MC_MediaMapDataKey key{velacore::Guid::CreateUnique(), 0};
    const uint64_t pinned = map_->Insert(key, DataFor(stuff), true);
    const uint64_t loose = map_->Insert({velacore::Guid::CreateUnique(), 0}, DataFor(stuff), false);
    EXPECT_EQ(pinned, 1u);
    EXPECT_EQ(loose, 2u);
    EXPECT_TRUE(map_->IsNonPurgeable(pinned));
    EXPECT_FALSE(map_->IsNonPurgeable(loose));
    EXPECT_FALSE(map_->IsNonPurgeable(99));
    EXPECT_FALSE(map_->PurgeEntry(pinned));  // the manager's purge leaves it alone too
    EXPECT_FALSE(map_->Flush(pinned));
    EXPECT_EQ(map_->EntryCount(), 2u);

    EXPECT_TRUE(map_->MakePurgeable(zk::MC_MediaMapDataKey{key.guid, pinned}));
    EXPECT_FALSE(map_->IsNonPurgeable(pinned));
    EXPECT_TRUE(map_->MakePurgeable(pinned));  // already 0: stays 0
    EXPECT_FALSE(map_->IsNonPurgeable(pinned));
    EXPECT_TRUE(map_->Flush(pinned));
    EXPECT_FALSE(map_->Flush(pinned));
    EXPECT_FALSE(map_->MakePurgeable(pinned));
    EXPECT_EQ(map_->EntryCount(), 1u);
    EXPECT_EQ(manager_->Forgotten(), (std::vector<uint64_t>{pinned}));
    EXPECT_EQ(manager_->Inner().EntryCount(), 1u);
}

TEST_F(MediaMapAlone, FlushDropsTheEntryBytesFromTheTotal) {
    IntrusivePtr<MC_Stuff> a = MakeItem(1, 100);
    IntrusivePtr<MC_Stuff> b = MakeItem(2, 250);
    map_->Register(a);
    map_->Register(b);
    ASSERT_EQ(map_->TotalBytes(), 350u);
    EXPECT_TRUE(map_->Flush(a->GetMediaMapID()));
    EXPECT_EQ(map_->TotalBytes(), 250u);
    EXPECT_FALSE(map_->Erase(a));  // its entry is already gone
    ASSERT_TRUE(map_->Register(a));
    EXPECT_EQ(a->GetMediaMapID(), 3u);
    EXPECT_EQ(map_->TotalBytes(), 350u);
}

TEST_F(MediaMapAlone, ShutdownForgetsEverythingAndStopsRegistering) {
    IntrusivePtr<MC_Stuff> a = MakeItem(1, 100);
    map_->Register(a);
    map_->Shutdown();
    EXPECT_EQ(map_->EntryCount(), 0u);
    EXPECT_EQ(map_->TotalBytes(), 0u);
    EXPECT_EQ(manager_->Inner().EntryCount(), 0u);
    EXPECT_FALSE(map_->Register(MakeItem(2, 100)));
    EXPECT_EQ(manager_->Inner().EntryCount(), 0u);
}

TEST(MediaMapKey, OrdersByUnsignedGuidBytesThenId) {
    velacore::Guid::Bytes low{}, high{};
    low[0] = 0x7F;
    high[0] = 0x80;  // above 0x7F only when bytes compare unsigned
    const zk::MC_MediaMapDataKey a{velacore::Guid(low), 9};
    const zk::MC_MediaMapDataKey b{velacore::Guid(high), 1};
    const zk::MC_MediaMapDataKey c{velacore::Guid(high), 2};
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_TRUE(b < c);
    EXPECT_FALSE(c < b);
    EXPECT_FALSE(b < b);
}

}  // namespace
