// Read-back: an item rendered, checked in, written, purged and checked out again comes back from
// its file with identical bytes and its compute time; files without the header are read from
// their first byte; many readers of one purged item read its file once.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "mc/MCp_ScLock.h"
#include "mc/host/Signal.h"
#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

class ReadBack : public DiskCacheTest {};

// Notes whether its file I/O ever ran under the process-wide cache lock.
class LockCheckingPayload : public TestPayload {
public:
    LockCheckingPayload(uint32_t key, uint32_t size) : TestPayload(key, size) {
        SetDiskCacheable(true);
    }
    double Write(velacore::OByteStream& out) const override {
        if (MCp_ScLock::IsHeldByCurrentThread()) underLock.store(true);
        ++writes;
        return TestPayload::Write(out);
    }
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex& lock) override {
        if (MCp_ScLock::IsHeldByCurrentThread()) underLock.store(true);
        ++reads;
        return TestPayload::Read(in, lock);
    }
    mutable std::atomic<bool> underLock{false};
    mutable std::atomic<int> writes{0};
    std::atomic<int> reads{0};
};

bool HasKeyPattern(const IntrusivePtr<MC_Stuff>& stuff, uint32_t key, uint32_t size) {
    auto* payload = dynamic_cast<TestPayload*>(stuff->GetDataPtr().get());
    std::shared_ptr<std::vector<uint8_t>> bytes = payload ? payload->Bytes() : nullptr;
    if (!bytes || bytes->size() != size) return false;
    for (uint32_t i = 0; i < size; ++i)
        if ((*bytes)[i] != static_cast<uint8_t>((key * 131 + i) & 0xFF)) return false;
    return true;
}

TEST_F(ReadBack, RenderCheckInPurgeAndCheckOutAgainFromDisk) {
    constexpr uint32_t kKey = 5, kSize = 300000;
    IntrusivePtr<MC_Stuff> item;
    {
        MC_ScCheckout render;
        ASSERT_EQ(render.FindAndCheckout(mctest::MakeRequest(kKey), MC_CheckoutFlag_CreatePending),
                  MC_CheckoutResult_CreatedNewPending);
        item = render.GetStuffPtr();
        auto* payload = new TestPayload(kKey, kSize);
        payload->SetDiskCacheable(true);
        payload->SetCachePriority(MC_CachePriority_Normal);
        item->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(payload), 2.0);
        render.Checkin(0, 2.0);
    }
    ASSERT_TRUE(WaitUntil([&] { return item->IsOnDisk(); }));
    ASSERT_TRUE(DrainWriter());
    ASSERT_EQ(CacheFiles().size(), 1u);
    const uint64_t fileSize = item->GetDiskCacheFile().Size();
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(fileSize));

    bag_->PurgeAllMemoryCaches();
    ASSERT_FALSE(item->IsInMemory());
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    item->SetComputeTime(0.0);  // the file's header brings the real figure back

    std::vector<std::pair<bool, bool>> signals;
    velacore::SignalConnection connection = item->GetMemDiskChangedSignal().connect(
        [&](bool inMemory, bool onDisk) { signals.emplace_back(inMemory, onDisk); });
    const uint64_t readBefore = counters().bytesRead.load();
    const uint32_t failuresBefore = counters().readFailures.load();
    MC_ScCheckout again;
    ASSERT_EQ(again.FindAndCheckout(mctest::MakeRequest(kKey), MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(again.GetStuffPtr(), item);
    EXPECT_TRUE(again.IsInMemory());
    EXPECT_TRUE(HasKeyPattern(item, kKey, kSize));
    EXPECT_DOUBLE_EQ(item->GetComputeTime(), 2.0);
    EXPECT_GT(item->GetLastReadFromDiskTime(), 0u);
    EXPECT_EQ(counters().bytesRead.load() - readBefore, fileSize);
    EXPECT_EQ(counters().readFailures.load(), failuresBefore);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), static_cast<int64_t>(kSize));
    EXPECT_EQ(signals, (std::vector<std::pair<bool, bool>>{{true, true}}));
    EXPECT_TRUE(item->IsOnDisk());  // the file stays for the next purge
}

// An entry whose payload lives only in its file is not dead: a newcomer with its GUID that cannot
// stand in for it leaves it in the directory, and it is read back.
TEST_F(ReadBack, AnItemOnDiskOnlySurvivesANewcomerWithItsGuid) {
    auto diskItem = [](uint32_t variant) {
        auto* payload = new TestPayload(7, 1000, variant);
        payload->SetDiskCacheable(true);
        IntrusivePtr<MC_Stuff> s = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        s->SetGuid(mctest::KeyGuid(7));
        return s;
    };
    IntrusivePtr<MC_Stuff> old = diskItem(9);
    bag_->AddToBagAndSortDir(old);
    WriteNow(old);
    bag_->PurgeAllMemoryCaches();
    ASSERT_TRUE(old->IsOnDisk());
    ASSERT_FALSE(old->IsInMemory());
    bag_->AddToBagAndSortDir(diskItem(0));  // cannot satisfy variant 9
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
    MC_ScCheckout again;
    ASSERT_EQ(again.FindAndCheckout(mctest::MakeRequest(7, 9), MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(again.GetStuffPtr(), old);
    EXPECT_TRUE(again.IsInMemory());
}

TEST_F(ReadBack, FileWithoutHeaderIsReadFromItsFirstByte) {
    constexpr uint32_t kKey = 6, kSize = 5000;
    std::vector<uint8_t> bytes(4 + kSize);
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(kSize >> (8 * i));
    for (uint32_t i = 0; i < kSize; ++i)
        bytes[4 + i] = static_cast<uint8_t>((kKey * 131 + i) & 0xFF);
    const std::filesystem::path path = root_ / "bare.zkcache";
    mctest::WriteWholeFile(path, bytes);

    IntrusivePtr<MC_Stuff> item = NewItemInBag(kKey, kSize, MC_CachePriority_Never, 0.75);
    item->SetDiskCacheFile(velacore::File(path), false);
    item->SyncDiskSizeWithBag(static_cast<uint32_t>(bytes.size()));
    item->FreeUpAsMuchAsPossible(true, nullptr);
    ASSERT_FALSE(item->IsInMemory());

    EXPECT_TRUE(item->EnsureInMemory());
    EXPECT_TRUE(HasKeyPattern(item, kKey, kSize));
    EXPECT_DOUBLE_EQ(item->GetComputeTime(), 0.75);  // no header: times unchanged
}

// A writeable check-out reads a purged item back only once it has the item to itself: refused
// while another holds it, it leaves payload and totals alone; a read that fails gives it back.
TEST_F(ReadBack, WriteableCheckOutReadsBackOnlyWhenItGetsTheItem) {
    IntrusivePtr<MC_Stuff> item = NewItemInBag(7, 4000);
    WriteNow(item);
    item->FreeUpAsMuchAsPossible(true, nullptr);
    ASSERT_FALSE(item->IsInMemory());
    ASSERT_EQ(item->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead),
              MC_CheckoutResult_CheckedOut);
    const int64_t inMemory = bag_->GetInMemoryCacheSizeInBytes_LockFree();
    EXPECT_EQ(item->Checkout(0), MC_CheckoutResult_Failed);
    EXPECT_FALSE(item->IsInMemory());
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), inMemory);
    item->Checkin(MC_CheckinFlag_DontUpdateLastUsed, 0.0);

    ASSERT_EQ(item->Checkout(0), MC_CheckoutResult_CheckedOut);
    EXPECT_TRUE(item->IsCheckedOutWriteable());
    EXPECT_TRUE(HasKeyPattern(item, 7, 4000));
    item->Checkin(0, 0.0);

    item->FreeUpAsMuchAsPossible(true, nullptr);
    PayloadOf(item)->SetReadFailure(true);
    EXPECT_EQ(item->Checkout(0), MC_CheckoutResult_Failed);
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_FALSE(item->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);  // back in its directory
}

// A host that refuses quiet-errors mode gets its code back, and nothing is read or held.
TEST_F(ReadBack, RefusedQuietModeThrowsItsCode) {
    IntrusivePtr<MC_Stuff> item = NewItemInBag(8, 4000);
    WriteNow(item);
    item->FreeUpAsMuchAsPossible(true, nullptr);
    host().SetQuietErrorsRefusal(77);
    for (int flags : {-1, int{MC_CheckoutFlag_ReadOnly}, 0}) {
        try {
            if (flags < 0)
                item->EnsureInMemory();
            else
                item->Checkout(flags);
            ADD_FAILURE() << "no throw, flags " << flags;
        } catch (int code) {
            EXPECT_EQ(code, 77);
        }
        EXPECT_FALSE(item->IsInMemory());
        EXPECT_EQ(item->GetCheckoutCount(), 0u);
    }
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);
    host().SetQuietErrorsRefusal(0);
}

TEST_F(ReadBack, NoFileIsReadOrWrittenUnderTheCacheLock) {
    auto* payload = new LockCheckingPayload(9, 3000);
    payload->SetCachePriority(MC_CachePriority_Normal);
    IntrusivePtr<MC_Stuff> item = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 2.0);
    item->SetGuid(mctest::KeyGuid(9));
    bag_->AddToBagAndSortDir(item);
    item->MaybeWriteToDisk();
    ASSERT_TRUE(WaitUntil([&] { return item->IsOnDisk(); }));
    for (const int flags : {int{MC_CheckoutFlag_ReadOnly}, 0}) {  // read-only, then writeable
        item->FreeUpAsMuchAsPossible(true, nullptr);
        ASSERT_FALSE(item->IsInMemory());
        MC_ScCheckout receipt;
        ASSERT_EQ(receipt.FindAndCheckout(mctest::MakeRequest(9), flags),
                  MC_CheckoutResult_CheckedOut);
        EXPECT_TRUE(HasKeyPattern(item, 9, 3000));
    }
    item->FreeUpAsMuchAsPossible(true, nullptr);
    ASSERT_EQ(item->Checkout(0), MC_CheckoutResult_CheckedOut);  // writeable, directly
    EXPECT_TRUE(HasKeyPattern(item, 9, 3000));
    item->Checkin(0, 0.0);
    EXPECT_EQ(payload->writes.load(), 1);
    EXPECT_EQ(payload->reads.load(), 3);
    EXPECT_FALSE(payload->underLock.load());
}

TEST_F(ReadBack, ManyReadersOfOnePurgedItemReadTheFileOnce) {
    constexpr uint32_t kKey = 8, kSize = 200000;
    IntrusivePtr<MC_Stuff> item = NewItemInBag(kKey, kSize);
    WriteNow(item);
    const uint64_t fileSize = item->GetDiskCacheFile().Size();
    item->FreeUpAsMuchAsPossible(true, nullptr);
    ASSERT_FALSE(item->IsInMemory());

    const uint64_t readBefore = counters().bytesRead.load();
    std::atomic<int> good{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 6; ++t)
        readers.emplace_back([&] {
            MC_ScCheckout receipt;
            if (receipt.FindAndCheckout(mctest::MakeRequest(kKey), MC_CheckoutFlag_ReadOnly) ==
                    MC_CheckoutResult_CheckedOut &&
                HasKeyPattern(receipt.GetStuffPtr(), kKey, kSize))
                good.fetch_add(1);
        });
    for (auto& t : readers) t.join();
    EXPECT_EQ(good.load(), 6);
    EXPECT_EQ(counters().bytesRead.load() - readBefore, fileSize);
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
}

// Renders, check-outs from disk, purges and writes of a few keys racing on several threads:
// every check-out that succeeds sees its own key's bytes, and no read fails.
TEST_F(ReadBack, RendersReadsPurgesAndWritesRaceSafely) {
    constexpr uint32_t kKeys = 6, kSize = 50000;
    const uint32_t failuresBefore = counters().readFailures.load();
    std::atomic<int> wrongBytes{0};
    std::atomic<bool> stop{false};
    auto worker = [&](uint32_t seed) {
        for (uint32_t i = 0; i < 40; ++i) {
            const uint32_t key = 100 + (seed * 7 + i) % kKeys;
            MC_ScCheckout r;
            const int flags = MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                              MC_CheckoutFlag_WaitIfPendingUnlessLocked;
            const MC_CheckoutResult result = r.FindAndCheckout(mctest::MakeRequest(key), flags);
            if (result == MC_CheckoutResult_CreatedNewPending) {
                auto* payload = new TestPayload(key, kSize);
                payload->SetDiskCacheable(true);
                payload->SetCachePriority(MC_CachePriority_Normal);
                r.GetStuffPtr()->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(payload),
                                                               1.0);
                r.Checkin(0, 1.0);
            } else if (result == MC_CheckoutResult_CheckedOut) {
                if (!HasKeyPattern(r.GetStuffPtr(), key, kSize)) wrongBytes.fetch_add(1);
                r.Checkin(i % 3 == 0 ? MC_CheckinFlag_Purge : 0, 1.0);
            }
        }
    };
    std::thread purger([&] {
        while (!stop.load()) {
            bag_->PurgeAllMemoryCaches();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    std::vector<std::thread> workers;
    for (uint32_t t = 0; t < 3; ++t) workers.emplace_back(worker, t);
    for (auto& t : workers) t.join();
    stop.store(true);
    purger.join();
    ASSERT_TRUE(DrainWriter());
    EXPECT_EQ(wrongBytes.load(), 0);
    EXPECT_EQ(counters().readFailures.load(), failuresBefore);
    EXPECT_EQ(AllFiles().size(), CacheFiles().size());  // no temporary left behind
}

}  // namespace
