// Registering items in the media map: what gets registered, how a second registration replaces
// the first, how check-in, erase, removal, purges and shut-down move entries, and what the
// manager is told. After every step the map, its total, the manager and the bag must agree.
#include <gtest/gtest.h>

#include <functional>

#include "MediaMapTestUtil.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"

using namespace mediamap_test;
using mctest::MakeItem;

namespace {

// In memory, but of size 0.
class EmptyPayload : public MC_StuffData {
public:
    uint32_t GetApproximateMemorySize() const override { return 0; }
    bool PurgeIfPossible(MC_ReleaseList*) override { return false; }
    bool IsInMemory() const override { return true; }
};

TEST_F(MirrorTest, EveryStepKeepsTheMapAndTheManagerInStep) {
    IntrusivePtr<MC_Stuff> a, b, c;
    struct Step {
        const char* what;
        std::function<void()> run;
        uint64_t entries, bytes;
        uint64_t seqA;  // a's sequence in the map afterwards (0: none)
        std::vector<uint64_t> forgotten;
    };
    // clang-format off
    const Step steps[] = {
        {"a resident item is registered", [&] { a = AddItem(1, 1000); }, 1, 1000, 1, {}},
        {"registering again replaces it", [&] { ASSERT_TRUE(Register(a)); }, 1, 1000, 2, {1}},
        {"more items", [&] { b = AddItem(2, 2000), c = AddItem(3, 4000); }, 3, 7000, 2, {1}},
        {"a check-out leaves the entry, check-in moves it", [&] {
             MC_ScCheckout r(a, MC_CheckoutFlag_ReadOnly);
             EXPECT_EQ(Map()->SequenceOf(a), 2u);
         }, 3, 7000, 5, {1, 2}},
        {"erasing an unknown item changes nothing",
         [&] { EXPECT_FALSE(Map()->Erase(MakeItem(9, 10))); }, 3, 7000, 5, {1, 2}},
        {"removal", [&] { b->RemoveFromBagAndSortDir(); }, 2, 5000, 5, {1, 2, 3}},
        {"purge from the media map", [&] { c->PurgeFromMediaMap(); }, 1, 1000, 5, {1, 2, 3, 4}},
        {"erase", [&] {
             EXPECT_TRUE(Map()->Erase(a));
             EXPECT_FALSE(Map()->Erase(a));
         }, 0, 0, 0, {1, 2, 3, 4, 5}},
    };
    // clang-format on
    for (const Step& s : steps) {
        SCOPED_TRACE(s.what);
        s.run();
        EXPECT_EQ(Map()->EntryCount(), s.entries);
        EXPECT_EQ(MC_GetMediaMapSize(), s.bytes);
        EXPECT_EQ(recorder_->GetRegisteredBytes(), s.bytes);
        EXPECT_EQ(recorder_->EntryCount(), s.entries);
        EXPECT_EQ(Map()->SequenceOf(a), s.seqA);
        EXPECT_EQ(recorder_->Forgotten(), s.forgotten);
    }
    EXPECT_FALSE(c->IsInMemory());
}

TEST_F(MirrorTest, ItemsNotInMemoryOrEmptyAreNotRegisteredButGetAGuid) {
    IntrusivePtr<MC_Stuff> purged = MakeItem(1, 1000), left = MakeItem(2, 1000);
    purged->GetDataPtr()->PurgeIfPossible(nullptr);
    IntrusivePtr<MC_Stuff> empty =
        MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new EmptyPayload), 0.1);
    ASSERT_TRUE(Register(left));
    left->GetDataPtr()->PurgeIfPossible(nullptr);
    EXPECT_FALSE(Register(left));  // the stale entry goes, no new one comes
    for (const auto& stuff : {purged, empty}) {
        EXPECT_FALSE(Register(stuff));
        EXPECT_FALSE(stuff->GetMediaMapGuid().IsNull());
    }
    EXPECT_EQ(Map()->EntryCount(), 0u);
    EXPECT_EQ(recorder_->GetRegisteredBytes(), 0u);
}

// The map on its own: a pinned entry resists purge and flush until made purgeable, sequences are
// never reused, shut-down forgets all.
TEST_F(MirrorTest, PinnedEntriesStayUntilMadePurgeableAndShutdownForgetsAll) {
    RecordingMediaManager manager;
    zk::MC_MediaMapImpl map(&manager, velacore::Guid::CreateUnique());
    IntrusivePtr<MC_Stuff> stuff = MakeItem(1, 100);
    const zk::MC_MediaMapDataKey key{velacore::Guid::CreateUnique(), 0};
    const uint64_t pinned =
        map.Insert(key, std::make_shared<zk::MC_MediaMapData>(stuff, 100), true);
    EXPECT_FALSE(map.PurgeEntry(pinned));
    EXPECT_FALSE(map.Flush(pinned));
    EXPECT_TRUE(map.MakePurgeable(zk::MC_MediaMapDataKey{key.guid, pinned}));
    EXPECT_TRUE(map.Flush(pinned));
    EXPECT_EQ(manager.Forgotten(), (std::vector<uint64_t>{pinned}));
    ASSERT_TRUE(map.Register(stuff));
    EXPECT_EQ(stuff->GetMediaMapID(), 2u);
    map.Shutdown();
    EXPECT_EQ(manager.EntryCount(), 0u);
    EXPECT_FALSE(map.Register(MakeItem(2, 100)));
}

}  // namespace
