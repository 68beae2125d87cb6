// The disk reader: read-back of purged items, read failures of every kind, and disk holds.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <thread>

#include "DiskFixture.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/Errors.h"
#include "mc/host/Signal.h"

using namespace diskbtest;
namespace fs = std::filesystem;

namespace {

// Notes whether its file I/O ran under the process-wide cache lock. A half-read one fills
// itself from the file, then reports the body as corrupt.
class ProbePayload : public TestPayload {
public:
    ProbePayload(uint32_t key, uint32_t size, bool halfRead = false)
        : TestPayload(key, size), halfRead_(halfRead) {}
    double Write(velacore::OByteStream& out) const override {
        underLock = underLock || MCp_ScLock::IsHeldByCurrentThread();
        return TestPayload::Write(out);
    }
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex& lock) override {
        underLock = underLock || MCp_ScLock::IsHeldByCurrentThread();
        ++reads;
        TestPayload::Read(in, lock);
        if (halfRead_) throw velacore::IOError("checksum mismatch after the body was read");
        return 0.0;
    }
    mutable std::atomic<bool> underLock{false};
    mutable std::atomic<int> reads{0};
    const bool halfRead_;
};

bool HasKeyPattern(const IntrusivePtr<MC_Stuff>& stuff, uint32_t key, uint32_t size) {
    auto* payload = dynamic_cast<TestPayload*>(stuff->GetDataPtr().get());
    auto bytes = payload ? payload->Bytes() : nullptr;
    return bytes && *bytes == *TestPayload(key, size).Bytes();
}

class ReadBack : public DiskCacheTest {
protected:
    // An item in the bag, written to disk and purged from memory.
    IntrusivePtr<MC_Stuff> OnDiskOnly(IntrusivePtr<MC_Stuff> item) {
        bag_->AddToBagAndSortDir(item);
        WriteNow(item);
        EXPECT_TRUE(item->IsOnDisk());
        item->FreeUpAsMuchAsPossible(true, nullptr);
        EXPECT_FALSE(item->IsInMemory());
        return item;
    }
};

// The disk writer writes a rendered item's file (whole buffers, its times in the header) and
// accounts it; after a purge six readers at once find it, one of them reads the file, once, and
// neither the write nor the read runs under the cache lock.
TEST_F(ReadBack, RenderCheckInPurgeAndCheckOutAgainFromDisk) {
    constexpr uint32_t kKey = 5, kSize = 300000;  // two buffers
    auto* payload = new ProbePayload(kKey, kSize);
    payload->SetDiskCacheable(true);
    payload->SetCachePriority(MC_CachePriority_Normal);
    IntrusivePtr<MC_Stuff> item;
    std::mutex mutex;
    std::vector<int> signals;  // 2 * inMemory + onDisk
    velacore::SignalConnection connection;
    const uint64_t writtenBefore = counters().bytesWritten.load();
    {
        MC_ScCheckout render;
        ASSERT_EQ(render.FindAndCheckout(mctest::MakeRequest(kKey), MC_CheckoutFlag_CreatePending),
                  MC_CheckoutResult_CreatedNewPending);
        item = render.GetStuffPtr();
        connection = item->GetMemDiskChangedSignal().connect([&](bool inMemory, bool onDisk) {
            std::lock_guard<std::mutex> l(mutex);
            signals.push_back(2 * inMemory + onDisk);
        });
        item->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(payload), 2.0);
        item->SetCachedComputeTimeSavings(0.5);
        render.Checkin(0, 2.0);
    }
    ASSERT_TRUE(mctest::DrainDiskWriter());
    ASSERT_TRUE(item->IsOnDisk());
    const velacore::File file = item->GetDiskCacheFile();
    EXPECT_EQ(file.Size(), 2 * kFileUnit);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), static_cast<int64_t>(2 * kFileUnit));
    EXPECT_EQ(counters().bytesWritten.load() - writtenBefore, 2 * kFileUnit);
    EXPECT_EQ(MCp_WriteSpeedStat().GetSampleCount(), 1);  // the speed model learnt from it
    const std::vector<uint8_t> bytes = mctest::ReadWholeFile(file.GetFullPath());
    const CacheFileHeader header = CacheFileHeader::Decode(bytes.data());
    EXPECT_EQ(header.magic, kCacheFileMagic);
    EXPECT_EQ(header.appVersion, kApp);
    EXPECT_DOUBLE_EQ(header.computeTime, 2.0);
    EXPECT_DOUBLE_EQ(header.savings, 0.5);
    EXPECT_EQ(bytes[32] + (bytes[33] << 8), kSize & 0xFFFF);  // the payload's own size field
    bag_->PurgeAllMemoryCaches();
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    item->SetComputeTime(0.0);  // the file's header brings the real figure back

    std::atomic<int> good{0};
    const uint64_t readBefore = counters().bytesRead.load();
    std::vector<std::thread> readers;
    for (int t = 0; t < 6; ++t)
        readers.emplace_back([&] {
            MC_ScCheckout again;
            good += again.FindAndCheckout(mctest::MakeRequest(kKey), MC_CheckoutFlag_ReadOnly) ==
                        MC_CheckoutResult_CheckedOut &&
                    HasKeyPattern(again.GetStuffPtr(), kKey, kSize);
        });
    for (auto& t : readers) t.join();
    EXPECT_EQ(good.load(), 6);
    EXPECT_EQ(payload->reads.load(), 1);
    EXPECT_FALSE(payload->underLock.load());
    EXPECT_EQ(signals, (std::vector<int>{3, 3}));  // written, then read back once
    EXPECT_DOUBLE_EQ(item->GetComputeTime(), 2.0);
    EXPECT_EQ(counters().bytesRead.load() - readBefore, 2 * kFileUnit);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), static_cast<int64_t>(kSize));
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_TRUE(item->IsOnDisk());  // the file stays for the next purge
}

// An entry whose payload lives only in its file is not dead: a newcomer with its GUID that cannot
// stand in for it leaves it in the directory, and it is read back.
TEST_F(ReadBack, AnItemOnDiskOnlySurvivesANewcomerWithItsGuid) {
    IntrusivePtr<MC_Stuff> old =
        OnDiskOnly(NewItem(7, 1000, MC_CachePriority_Never, 1.0, new TestPayload(7, 1000, 9)));
    bag_->AddToBagAndSortDir(NewItem(7, 1000));  // variant 0 cannot satisfy variant 9
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 2);
    MC_ScCheckout again;
    ASSERT_EQ(again.FindAndCheckout(mctest::MakeRequest(7, 9), MC_CheckoutFlag_ReadOnly),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(again.GetStuffPtr(), old);
    EXPECT_TRUE(again.IsInMemory());
}

// A writeable check-out reads a purged item back only once it has the item to itself: refused
// while another holds it, it leaves payload and totals alone; a read that fails gives it back.
TEST_F(ReadBack, WriteableCheckOutReadsBackOnlyWhenItGetsTheItem) {
    auto* payload = new ProbePayload(7, 4000);
    IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(7, 4000, MC_CachePriority_Never, 1, payload));
    ASSERT_EQ(item->Checkout(MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead),
              MC_CheckoutResult_CheckedOut);
    EXPECT_EQ(item->Checkout(0), MC_CheckoutResult_Failed);
    EXPECT_FALSE(item->IsInMemory());
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    item->Checkin(MC_CheckinFlag_DontUpdateLastUsed, 0.0);
    ASSERT_EQ(item->Checkout(0), MC_CheckoutResult_CheckedOut);
    EXPECT_TRUE(HasKeyPattern(item, 7, 4000));
    EXPECT_FALSE(payload->underLock.load());
    item->Checkin(0, 0.0);

    item->FreeUpAsMuchAsPossible(true, nullptr);
    payload->SetReadFailure(true);
    EXPECT_EQ(item->Checkout(0), MC_CheckoutResult_Failed);
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_FALSE(item->IsCheckedOutWriteable());
    EXPECT_EQ(bag_->GetNumGuidSortedItems(), 1);  // back in its directory
}

// Every kind of bad file, through each way in (the finder, which then renders anew; a direct
// check-out; EnsureInMemory): the read fails quietly, is counted, and leaves nothing behind -
// no payload, no file, no bytes in the budget, no hold, the times untouched. A healthy item read
// afterwards is not disturbed.
TEST_F(ReadBack, ReadFailuresTable) {
    constexpr uint32_t kSize = 20000;
    auto patch = [](size_t at, uint8_t flip) {
        return [at, flip](const fs::path& p) {
            std::vector<uint8_t> b = mctest::ReadWholeFile(p);
            b[at] ^= flip;
            b[16] = 0xFF;  // a compute time that must not be taken
            mctest::WriteWholeFile(p, b);
        };
    };
    struct Row {
        const char* what;
        std::function<void(const fs::path&)> spoil;
        bool halfRead = false;  // the payload throws after filling itself
    };
    const Row rows[] = {
        {"missing", [](const fs::path& p) { fs::remove(p); }},
        {"empty", [](const fs::path& p) { fs::resize_file(p, 0); }},
        {"truncated in the body", [](const fs::path& p) { fs::resize_file(p, 36 + kSize / 2); }},
        {"bit flipped in the body", patch(36 + 1234, 0x10)},
        {"other format version", patch(4, 1)},
        {"garbage magic", patch(0, 0xA5)},
        {"payload throws after filling itself", [](const fs::path&) {}, true},
    };
    IntrusivePtr<MC_Stuff> good = OnDiskOnly(NewItem(99, kSize));
    uint32_t key = 10;
    for (const Row& t : rows) {
        for (int way = 0; way < 3; ++way, ++key) {
            SCOPED_TRACE(std::string(t.what) + ", way " + std::to_string(way));
            IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(
                key, kSize, MC_CachePriority_Never, 3.0, new ProbePayload(key, kSize, t.halfRead)));
            const fs::path file = item->GetDiskCacheFile().GetFullPath();
            t.spoil(file);
            const uint32_t failures = counters().readFailures.load();
            MC_ScCheckout receipt;
            if (way == 0) {
                EXPECT_EQ(receipt.FindAndCheckout(
                              mctest::MakeRequest(key),
                              MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending),
                          MC_CheckoutResult_CreatedNewPending);
                EXPECT_NE(receipt.GetStuffPtr(), item);
            } else if (way == 1) {
                EXPECT_EQ(item->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_Failed);
            } else {
                EXPECT_FALSE(item->EnsureInMemory());
            }
            EXPECT_EQ(counters().readFailures.load(), failures + 1);
            EXPECT_FALSE(item->IsInMemory() || item->IsOnDisk() || fs::exists(file));
            EXPECT_EQ(bag_->GetCurrentDiskCacheSize(),
                      static_cast<int64_t>(good->GetDiskCacheFile().Size()));
            EXPECT_EQ(item->GetApproximateMemorySize() + item->GetCheckoutCount(), 0u);
            EXPECT_DOUBLE_EQ(item->GetComputeTime(), 3.0);
        }
    }
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
    EXPECT_TRUE(good->EnsureInMemory());
    EXPECT_TRUE(HasKeyPattern(good, 99, kSize));
    EXPECT_TRUE(good->IsOnDisk());
}

}  // namespace
