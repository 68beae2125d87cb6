// The disk reader: read-back of purged items, read failures of every kind, and disk holds.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "mc/MCp_ScLock.h"
#include "mc/host/Errors.h"
#include "mc/host/Signal.h"
#include "support/ModuleAccess.h"
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
    ASSERT_TRUE(DrainWriter());  // the file is there and the writer has let go of the item
    ASSERT_TRUE(item->IsOnDisk());
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

constexpr uint32_t kKey = 11, kSize = 20000;

// Fills itself from the file, then reports the body as corrupt.
class HalfReadPayload : public TestPayload {
public:
    HalfReadPayload(uint32_t key, uint32_t size) : TestPayload(key, size) {}
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex& lock) override {
        TestPayload::Read(in, lock);
        throw velacore::IOError("checksum mismatch after the body was read");
    }
};

struct Corruption {
    const char* label;
    std::function<void(const std::filesystem::path&)> apply;
};

void PrintTo(const Corruption& c, std::ostream* os) {
    *os << c.label;
}

std::vector<uint8_t> Load(const std::filesystem::path& p) {
    return mctest::ReadWholeFile(p);
}

class ReadFailureBase : public DiskCacheTest {
protected:
    // An item written to disk and purged from memory.
    IntrusivePtr<MC_Stuff> OnDiskOnly(IntrusivePtr<MC_Stuff> item) {
        bag_->AddToBagAndSortDir(item);
        WriteNow(item);
        EXPECT_TRUE(item->IsOnDisk());
        item->FreeUpAsMuchAsPossible(true, nullptr);
        EXPECT_FALSE(item->IsInMemory());
        return item;
    }

    // Checks that the failed read left nothing behind.
    void ExpectFailureHandled(const IntrusivePtr<MC_Stuff>& item, const std::filesystem::path& file,
                              uint32_t failuresBefore) {
        EXPECT_EQ(counters().readFailures.load(), failuresBefore + 1);
        EXPECT_FALSE(item->IsInMemory());
        EXPECT_FALSE(item->IsOnDisk());
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
        EXPECT_EQ(item->GetApproximateMemorySize(), 0u);
        EXPECT_EQ(item->GetCheckoutCount(), 0u);
    }
};

class ReadFailures : public ReadFailureBase, public ::testing::WithParamInterface<Corruption> {};

TEST_P(ReadFailures, CheckOutFailsOverToANewRender) {
    IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(kKey, kSize));
    const std::filesystem::path file = item->GetDiskCacheFile().GetFullPath();
    GetParam().apply(file);
    const uint32_t failuresBefore = counters().readFailures.load();

    MC_ScCheckout receipt;
    MC_CheckoutResult result = MC_CheckoutResult_Failed;
    ASSERT_NO_THROW(
        result = receipt.FindAndCheckout(mctest::MakeRequest(kKey),
                                         MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending));
    EXPECT_EQ(result, MC_CheckoutResult_CreatedNewPending);  // the caller renders again
    EXPECT_NE(receipt.GetStuffPtr(), item);
    ExpectFailureHandled(item, file, failuresBefore);
}

TEST_P(ReadFailures, DirectCheckOutFailsWithoutThrowing) {
    IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(kKey, kSize));
    const std::filesystem::path file = item->GetDiskCacheFile().GetFullPath();
    GetParam().apply(file);
    const uint32_t failuresBefore = counters().readFailures.load();
    MC_CheckoutResult result = MC_CheckoutResult_CheckedOut;
    ASSERT_NO_THROW(result = item->Checkout(MC_CheckoutFlag_ReadOnly));
    EXPECT_EQ(result, MC_CheckoutResult_Failed);
    ExpectFailureHandled(item, file, failuresBefore);
}

INSTANTIATE_TEST_SUITE_P(
    BadFiles, ReadFailures,
    ::testing::Values(
        Corruption{"Missing", [](const auto& p) { std::filesystem::remove(p); }},
        Corruption{"Empty", [](const auto& p) { std::filesystem::resize_file(p, 0); }},
        Corruption{"TruncatedInTheBody",
                   [](const auto& p) { std::filesystem::resize_file(p, 32 + 4 + kSize / 2); }},
        Corruption{"BitFlippedInTheBody",
                   [](const auto& p) {
                       std::vector<uint8_t> b = Load(p);
                       b[32 + 4 + 1234] ^= 0x10;
                       mctest::WriteWholeFile(p, b);
                   }},
        Corruption{"OtherFormatVersion",
                   [](const auto& p) {
                       std::vector<uint8_t> b = Load(p);
                       b[4] = 2;  // format version 2
                       mctest::WriteWholeFile(p, b);
                   }},
        Corruption{"GarbageMagicAndBody",
                   [](const auto& p) {
                       std::vector<uint8_t> b = Load(p);
                       for (size_t i = 0; i < 64; ++i) b[i] = static_cast<uint8_t>(0xA5 ^ i);
                       mctest::WriteWholeFile(p, b);
                   }}),
    [](const ::testing::TestParamInfo<Corruption>& info) { return std::string(info.param.label); });

class ReadFailure : public ReadFailureBase {};

TEST_F(ReadFailure, PayloadThatThrowsAfterFillingItselfIsPurgedAgain) {
    IntrusivePtr<MC_Stuff> item = OnDiskOnly([] {
        auto* payload = new HalfReadPayload(kKey, kSize);
        payload->SetDiskCacheable(true);
        IntrusivePtr<MC_Stuff> s = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        s->SetGuid(mctest::KeyGuid(kKey));
        return s;
    }());
    const std::filesystem::path file = item->GetDiskCacheFile().GetFullPath();
    const uint32_t failuresBefore = counters().readFailures.load();
    EXPECT_FALSE(item->EnsureInMemory());
    ExpectFailureHandled(item, file, failuresBefore);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 0);
}

TEST_F(ReadFailure, WrongFormatVersionLeavesTheTimesAlone) {
    IntrusivePtr<MC_Stuff> item = OnDiskOnly(NewItem(kKey, kSize, MC_CachePriority_Never, 3.0));
    const std::filesystem::path file = item->GetDiskCacheFile().GetFullPath();
    std::vector<uint8_t> b = Load(file);
    b[4] = 7;
    b[16] = 0xFF;  // a compute time that must not be taken
    mctest::WriteWholeFile(file, b);
    EXPECT_FALSE(item->EnsureInMemory());
    EXPECT_DOUBLE_EQ(item->GetComputeTime(), 3.0);
}

TEST_F(ReadFailure, AHealthyReadAfterAFailedOneOfAnotherItemStillWorks) {
    IntrusivePtr<MC_Stuff> bad = OnDiskOnly(NewItem(kKey, kSize));
    IntrusivePtr<MC_Stuff> good = OnDiskOnly(NewItem(kKey + 1, kSize));
    std::filesystem::resize_file(bad->GetDiskCacheFile().GetFullPath(), 10);
    EXPECT_FALSE(bad->EnsureInMemory());
    EXPECT_TRUE(good->EnsureInMemory());
    EXPECT_TRUE(good->IsOnDisk());
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(),
              static_cast<int64_t>(good->GetDiskCacheFile().Size()));
}

constexpr uint64_t kAnyTime = std::numeric_limits<uint64_t>::max();

class DiskHolds : public DiskCacheTest {
protected:
    IntrusivePtr<MC_Stuff> Written(uint32_t key) {
        IntrusivePtr<MC_Stuff> item = NewItemInBag(key, 1000);
        WriteNow(item);
        EXPECT_TRUE(item->IsOnDisk());
        return item;
    }
};

TEST_F(DiskHolds, NoHoldIsTakenOnAnItemWithoutAFileWhenAskedSo) {
    IntrusivePtr<MC_Stuff> item = NewItemInBag(1, 1000);
    const uint32_t globalBefore = MC_Stuff::GetNumDiskCacheCheckouts();
    EXPECT_EQ(item->CheckoutDiskCache(true), nullptr);
    EXPECT_EQ(item->GetDiskCacheCheckoutCount(), 0u);
    EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), globalBefore);
    {
        auto hold = item->CheckoutDiskCache(false);  // always given when not restricted
        ASSERT_NE(hold, nullptr);
        EXPECT_EQ(item->GetDiskCacheCheckoutCount(), 1u);
        EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), globalBefore + 1);
    }
    EXPECT_EQ(item->GetDiskCacheCheckoutCount(), 0u);
    EXPECT_EQ(MC_Stuff::GetNumDiskCacheCheckouts(), globalBefore);
}

// Which idle files the budget may delete: held and checked-out files are kept, a last use at
// the limit is too recent, an older one goes (signalled, unaccounted, counted).
TEST_F(DiskHolds, WhoseFileTheBudgetMayDeleteTable) {
    struct Case {
        const char* what;
        std::function<std::function<void()>(MC_Stuff&)> arrange;  // returns the undo
        uint64_t limit;
        bool deleted, tooRecent;
    };
    const Case cases[] = {
        {"held",
         [](MC_Stuff& s) {
             std::shared_ptr<MC_Stuff::DiskCacheCheckoutScoper> hold = s.CheckoutDiskCache(true);
             EXPECT_NE(hold, nullptr);
             return std::function<void()>([hold]() mutable { hold.reset(); });
         },
         kAnyTime, false, false},
        {"checked out",
         [](MC_Stuff& s) {
             EXPECT_EQ(s.Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
             return std::function<void()>([&s] { s.Checkin(0, 0.0); });
         },
         kAnyTime, false, false},
        {"used at the limit",
         [](MC_Stuff& s) {
             MCp_StuffAccess::SetLastUseTime(s, 5000);
             return std::function<void()>([] {});
         },
         5000, false, true},
        {"used before the limit",
         [](MC_Stuff& s) {
             MCp_StuffAccess::SetLastUseTime(s, 5000);
             return std::function<void()>([] {});
         },
         5001, true, false},
    };
    uint32_t key = 2;
    for (const Case& t : cases) {
        SCOPED_TRACE(t.what);
        IntrusivePtr<MC_Stuff> item = Written(key++);
        const std::filesystem::path path = item->GetDiskCacheFile().GetFullPath();
        const uint32_t onDiskBefore = MC_Stuff::GetNumStuffsOnDisk();
        std::vector<std::pair<bool, bool>> signals;
        velacore::SignalConnection connection = item->GetMemDiskChangedSignal().connect(
            [&](bool inMemory, bool onDisk) { signals.emplace_back(inMemory, onDisk); });
        const std::function<void()> undo = t.arrange(*item);
        bool deleted = !t.deleted, tooRecent = !t.tooRecent;
        item->MaybeDeleteDiskCacheFile(t.limit, deleted, tooRecent);
        EXPECT_EQ(deleted, t.deleted);
        EXPECT_EQ(tooRecent, t.tooRecent);
        EXPECT_EQ(item->IsOnDisk(), !t.deleted);
        EXPECT_EQ(std::filesystem::exists(path), !t.deleted);
        EXPECT_EQ(MC_Stuff::GetNumStuffsOnDisk(), onDiskBefore - (t.deleted ? 1 : 0));
        using Signals = std::vector<std::pair<bool, bool>>;
        EXPECT_EQ(signals, (t.deleted ? Signals{{true, false}} : Signals{}));
        if (!t.deleted && !t.tooRecent) {  // a walk for all the room deletes nothing either
            EXPECT_FALSE(bag_->EnsureDiskSpace(bag_->GetCurrentMaxDiskCacheSize(), kAnyTime));
        }
        undo();
        item->MaybeDeleteDiskCacheFile(kAnyTime, deleted, tooRecent);  // leaves the folder empty
    }
}

TEST_F(DiskHolds, AttachOnlyIfNoneKeepsTheFirstFile) {
    IntrusivePtr<MC_Stuff> item = Written(6);
    const velacore::File first = item->GetDiskCacheFile();
    const velacore::File other(root_ / "other.zkcache");
    EXPECT_FALSE(item->SetDiskCacheFile(other, true));
    EXPECT_EQ(item->GetDiskCacheFile(), first);
    EXPECT_TRUE(item->SetDiskCacheFile(other, false));
    EXPECT_EQ(item->GetDiskCacheFile(), other);
}

TEST_F(DiskHolds, ForgettingAFileKeepsItOnDiskButOutOfTheBudget) {
    IntrusivePtr<MC_Stuff> item = Written(7);
    const std::filesystem::path path = item->GetDiskCacheFile().GetFullPath();
    item->ClearDiskCacheFile();
    EXPECT_FALSE(item->IsOnDisk());
    EXPECT_TRUE(item->GetDiskCacheFile().IsEmpty());
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
}

TEST_F(DiskHolds, ConvertingToWriteableDeletesTheFile) {
    IntrusivePtr<MC_Stuff> item = Written(8);
    const std::filesystem::path path = item->GetDiskCacheFile().GetFullPath();
    ASSERT_EQ(item->Checkout(MC_CheckoutFlag_ReadOnly), MC_CheckoutResult_CheckedOut);
    item->ConvertToWriteable();
    EXPECT_FALSE(item->IsOnDisk());
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), 0);
    item->Checkin(0, 0.0);
}

}  // namespace
