// A short soak of the whole cache: threads find, render, check in (plain, Remove, Purge, forced
// write), check out writeable and resize, purge, hold disk files and rescan the folder, over a
// few keys with three variants each and a disk budget that forces deletions. Payload bytes
// follow their key; a disk read of other bytes fails (and is counted); a held payload is checked
// twice. At the end: no wrong, torn or vanished read, and the bag's totals equal its items' sum.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

#include "DiskFixture.h"

using namespace diskbtest;

namespace {

constexpr uint32_t kKeys = 6, kVariants = 3;
std::atomic<int> g_wrong{0}, g_looks{0};  // bytes of another key or variant, torn, or lost

// Checks what a holder sees, twice: it must stay whole, its key's, and answer the request.
void VerifyHeld(const IntrusivePtr<MC_Stuff>& item, uint32_t key, uint32_t variant) {
    auto* payload = dynamic_cast<TestPayload*>(item->GetDataPtr().get());
    if (!payload) return;  // an abandoned render (the finder looked again)
    if (payload->Key() != key || payload->Variant() < variant) g_wrong.fetch_add(1);
    for (int look = 0; look < 2; ++look, std::this_thread::yield()) {
        const auto bytes = payload->Bytes();
        g_looks.fetch_add(1);
        if (!bytes || *bytes != *TestPayload(key, static_cast<uint32_t>(bytes->size())).Bytes())
            return void(g_wrong.fetch_add(1));
    }
}

class Soak : public DiskCacheTest {
protected:
    uint64_t BudgetMegabytes() const override { return 3; }  // forces deletions

    void Worker(uint32_t seed, std::chrono::steady_clock::time_point end) {
        std::minstd_rand rng(seed);
        auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
        const int checkinFlags[] = {
            0, 0, 0, MC_CheckinFlag_Remove, MC_CheckinFlag_Purge, MC_CheckinFlag_ForceWriteToDisk};
        while (std::chrono::steady_clock::now() < end) {
            const uint32_t key = pick(kKeys), variant = pick(kVariants);
            const bool writeable = pick(5) == 0;
            MC_ScCheckout receipt;
            const MC_CheckoutResult r = receipt.FindAndCheckout(
                mctest::MakeRequest(key, variant), MC_CheckoutFlag_CreatePending |
                                                       MC_CheckoutFlag_WaitIfPendingUnlessLocked |
                                                       (writeable ? 0 : MC_CheckoutFlag_ReadOnly));
            const IntrusivePtr<MC_Stuff> item = receipt.GetStuffPtr();
            if (r == MC_CheckoutResult_CreatedNewPending) {
                auto* data = new TestPayload(key, 2000 + 1000 * pick(8), variant);
                data->SetDiskCacheable(true);
                data->SetCachePriority(pick(2) ? MC_CachePriority_High : MC_CachePriority_Normal);
                item->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(data), 0.05);
            } else if (r == MC_CheckoutResult_CheckedOut) {
                VerifyHeld(item, key, variant);
                auto* data = dynamic_cast<TestPayload*>(item->GetDataPtr().get());
                if (writeable && data && data->IsInMemory()) {  // resize under the check-out
                    data->Resize(2000 + 1000 * pick(8));
                    bag_->AccountForStuffDataModification(item);
                    VerifyHeld(item, data->Key(), data->Variant());
                }
            } else {
                continue;
            }
            receipt.Checkin(checkinFlags[pick(6)], 0.05);
        }
    }

    void Maintenance(std::chrono::steady_clock::time_point end) {
        std::minstd_rand rng(99);
        while (std::chrono::steady_clock::now() < end) {
            for (const auto& item : bag_->SnapshotItems()) {
                const auto dice = rng() % 8;
                const velacore::File file = item->GetDiskCacheFile();
                const auto hold = dice == 1 ? item->CheckoutDiskCache(true) : nullptr;
                if (dice == 0) item->FreeUpAsMuchAsPossible(true, nullptr);
                if (dice == 2 && !file.IsEmpty()) MC_ScanOneDiskCacheFile(file);
            }
            if (rng() % 4 == 0) bag_->ScanDiskCacheDir();
            if (rng() % 4 == 0) bag_->PurgeAllMemoryCaches();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));  // pacing only
        }
    }
};

TEST_F(Soak, ConcurrentUseNeverServesWrongBytesAndKeepsTotalsRight) {
    g_wrong = g_looks = 0;
    const uint32_t failuresBefore = counters().readFailures.load();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) threads.emplace_back([this, t, end] { Worker(t + 1, end); });
    threads.emplace_back([this, end] { Maintenance(end); });
    for (auto& t : threads) t.join();
    ASSERT_TRUE(mctest::DrainDiskWriter());

    EXPECT_GT(g_looks.load(), 100);
    // A wrong or torn file fails its read; only a file deleted under its reader may.
    EXPECT_LE(counters().readFailures.load() - failuresBefore, 5u);
    EXPECT_EQ(g_wrong.load(), 0);
    for (const std::string& message : host().FailedVerifications()) ADD_FAILURE() << message;

    // Idle: every total is the sum over the items.
    int64_t inMemory = 0, onDisk = 0;
    for (const auto& item : bag_->SnapshotItems()) {
        EXPECT_EQ(item->GetCheckoutCount(), 0u);
        inMemory += item->GetApproximateMemorySize();
        const velacore::File file = item->GetDiskCacheFile();
        std::error_code ec;
        if (!file.IsEmpty()) onDisk += std::filesystem::file_size(file.GetFullPath(), ec);
        EXPECT_FALSE(ec) << file.GetFullPathUtf8();
    }
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), inMemory);
    EXPECT_EQ(bag_->GetCheckedOutMemoryCacheSizeInBytes(), 0);
    EXPECT_EQ(bag_->GetCurrentDiskCacheSize(), onDisk);
}

}  // namespace
