// The hit path's shortcuts: the item lock's reader fast path against writers, and a purge pass
// long enough to let go of the cache lock midway while hits go on.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "bag/Eventually.h"
#include "mc/MC_ScCheckout.h"
#include "mc/host/MultiTenantRecursiveMutex.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

using namespace mctest;
using velacore::MultiTenantRecursiveMutex;

namespace {

// A writer that arrives while a fast reader holds the lock is woken by that reader's unlock, and
// holds back a reader that arrives after it; the fast reader itself may read again meanwhile.
TEST(ItemLockFastPath, WaitingWriterIsWokenAndQueuesLaterReaders) {
    for (int round = 0; round < 200; ++round) {
        MultiTenantRecursiveMutex m;
        m.LockRead();
        std::atomic<bool> lateReaderIn{false};
        std::atomic<bool> lateReaderBeforeWriter{false};
        auto writer = std::async(std::launch::async, [&] {
            m.LockWrite();
            lateReaderBeforeWriter.store(lateReaderIn.load());
            m.UnlockWrite();
        });
        ASSERT_TRUE(mctest::Eventually([&] { return m.HasWaitingWriter(); }));
        m.LockRead();  // re-entry is granted while the writer waits
        EXPECT_TRUE(m.IsReadLockedByCurrentThread());
        EXPECT_THROW(m.LockUpgrade(), std::logic_error);
        m.UnlockRead();
        auto lateReader = std::async(std::launch::async, [&] {
            m.LockRead();
            lateReaderIn.store(true);
            m.UnlockRead();
        });
        m.UnlockRead();
        ASSERT_EQ(writer.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        ASSERT_EQ(lateReader.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_FALSE(lateReaderBeforeWriter.load());
        EXPECT_FALSE(m.IsReadLockedByCurrentThread());
        EXPECT_THROW(m.UnlockRead(), std::logic_error);
    }
}

// An upgrader that also reads through the fast path can still write: its own read is not waited
// for.
TEST(ItemLockFastPath, UpgraderWithItsOwnReadCanWrite) {
    MultiTenantRecursiveMutex m;
    m.LockUpgrade();
    m.LockRead();
    m.LockWrite();
    EXPECT_TRUE(m.IsWriteLockedByCurrentThread());
    m.UnlockWrite();
    m.UnlockRead();
    m.UnlockUpgrade();
}

class LongPurge : public ModuleTest {
protected:
    void ConfigureHost(RecordingHostServices& h) override { h.SetMemUsageLimits(1000, 1 << 30); }
};

// Far more items than one hold of the cache lock visits: the oldest half goes, exactly, while
// another thread keeps using the young half.
TEST_F(LongPurge, PassThatLetsGoOfTheLockFreesTheOldestExactly) {
    constexpr uint32_t kItems = 40'000;
    std::vector<IntrusivePtr<MC_Stuff>> items;
    for (uint32_t k = 0; k < kItems; ++k) {
        items.push_back(MakeItem(k + 1, 10));
        items.back()->AddToBagAndSortDir(bag_);
    }
    host().SetAmountToPurge(kItems / 2 * 10);
    int64_t freed = 0;
    {
        uint32_t i = 0;
        Repeat user([&] {
            MC_ScCheckout r(items[kItems / 2 + i++ % (kItems / 2)], MC_CheckoutFlag_ReadOnly);
        });
        freed = bag_->FreeUpSomeMemory(0);
    }
    EXPECT_EQ(freed, int64_t{kItems} / 2 * 10);
    uint32_t resident = 0;
    for (uint32_t k = 0; k < kItems; ++k) {
        EXPECT_EQ(items[k]->IsInMemory(), k >= kItems / 2) << k;
        resident += items[k]->IsInMemory() ? 1 : 0;
    }
    EXPECT_EQ(bag_->GetNumItems(), static_cast<int>(resident));
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), int64_t{resident} * 10);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
}

}  // namespace
