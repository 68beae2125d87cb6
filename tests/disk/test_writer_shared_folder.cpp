// Two caches sharing one disk-cache folder (two bags here, two processes in the field): an item
// is never written twice, and nobody ever sees a partly written file under a cache name.
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

constexpr uint32_t kKeys = 24;

// Counts how often the body of each key was written, across both caches.
class CountingPayload : public TestPayload {
  public:
    CountingPayload(uint32_t key, uint32_t size, std::shared_ptr<std::atomic<int>[]> writes)
        : TestPayload(key, size), writes_(std::move(writes)) {}
    double Write(velacore::OByteStream& out) const override {
        writes_[Key()].fetch_add(1);
        return TestPayload::Write(out);
    }

  private:
    std::shared_ptr<std::atomic<int>[]> writes_;
};

class SharedFolder : public DiskCacheTest {
  protected:
    void SetUp() override {
        DiskCacheTest::SetUp();
        other_ = std::make_shared<MC_Bag>(AppVersion());
        other_->SetDiskCacheInfo(root_.AsDir(), BudgetMegabytes());
        other_->EnableDiskCache(true);
    }
    void TearDown() override {
        other_->ClearBagAndSortDir();
        other_.reset();
        DiskCacheTest::TearDown();
    }

    static IntrusivePtr<MC_Stuff> Make(MC_StuffData* payload, uint32_t key) {
        IntrusivePtr<MC_Stuff> stuff =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        stuff->SetGuid(mctest::KeyGuid(key));
        return stuff;
    }

    std::shared_ptr<MC_Bag> other_;
};

TEST_F(SharedFolder, EachItemIsWrittenOnceWhenBothCachesRaceForIt) {
    std::shared_ptr<std::atomic<int>[]> writes(new std::atomic<int>[kKeys]());
    std::vector<IntrusivePtr<MC_Stuff>> mine, theirs;
    for (uint32_t key = 0; key < kKeys; ++key) {
        auto* a = new CountingPayload(key, 3000, writes);
        auto* b = new CountingPayload(key, 3000, writes);
        a->SetDiskCacheable(true);
        b->SetDiskCacheable(true);
        mine.push_back(Make(a, key));
        theirs.push_back(Make(b, key));
        bag_->AddToBagAndSortDir(mine.back());
        other_->AddToBagAndSortDir(theirs.back());
    }
    std::latch start(2);
    auto writeAll = [&](std::vector<IntrusivePtr<MC_Stuff>>& items,
                        const std::shared_ptr<MC_Bag>& bag) {
        start.arrive_and_wait();
        for (auto& stuff : items) stuff->PrepAndWrite(bag);
    };
    std::thread a(writeAll, std::ref(mine), bag_);
    std::thread b(writeAll, std::ref(theirs), other_);
    a.join();
    b.join();

    for (uint32_t key = 0; key < kKeys; ++key) {
        EXPECT_EQ(writes[key].load(), 1) << "key " << key;
        EXPECT_NE(mine[key]->IsOnDisk(), theirs[key]->IsOnDisk()) << "key " << key;
    }
    EXPECT_EQ(CacheFiles().size(), kKeys);
    EXPECT_EQ(AllFiles().size(), kKeys);  // no temporary left behind
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize() + other_->GetCurrentDiskCacheSize(),
              static_cast<int64_t>(kKeys * kFileUnit));
}

TEST_F(SharedFolder, APartlyWrittenFileIsNeverVisibleUnderItsCacheName) {
    auto gate = std::make_shared<GatedPayload::Gate>();
    gate->Close();
    auto* slow = new GatedPayload(1, 100000, gate);
    slow->SetDiskCacheable(true);
    IntrusivePtr<MC_Stuff> writer = Make(slow, 1);
    bag_->AddToBagAndSortDir(writer);
    std::thread t([&] { writer->PrepAndWrite(bag_); });
    ASSERT_TRUE(gate->WaitStarted(1));

    // Mid-write: only the temporary exists; the other cache neither sees nor writes the item.
    EXPECT_TRUE(CacheFiles().empty());
    EXPECT_EQ(AllFiles().size(), 1u);
    auto* copy = new TestPayload(1, 100000);
    copy->SetDiskCacheable(true);
    IntrusivePtr<MC_Stuff> reader = Make(copy, 1);
    other_->AddToBagAndSortDir(reader);
    reader->PrepAndWrite(other_);
    EXPECT_FALSE(reader->IsOnDisk());
    EXPECT_EQ(AllFiles().size(), 1u);
    const int adoptedBefore = bag_->GetNumItems();
    bag_->ScanDiskCacheDir();  // a rescan now adopts nothing and leaves the temporary alone
    EXPECT_EQ(bag_->GetNumItems(), adoptedBefore);
    EXPECT_EQ(AllFiles().size(), 1u);

    gate->Open();
    t.join();
    ASSERT_EQ(CacheFiles().size(), 1u);
    EXPECT_EQ(AllFiles().size(), 1u);

    // The other cache reads the finished file back, whole.
    reader->SetDiskCacheFile(writer->GetDiskCacheFile(), true);
    reader->FreeUpAsMuchAsPossible(true, nullptr);
    ASSERT_FALSE(reader->IsInMemory());
    ASSERT_TRUE(reader->EnsureInMemory());
    auto* back = dynamic_cast<TestPayload*>(reader->GetDataPtr().get());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(*back->Bytes(), *slow->Bytes());
    EXPECT_EQ(gate->started, 1);
}

}  // namespace
