// A short soak of the whole cache: threads find, render, check in (plain, Remove, Purge, forced
// write), check out writeable and rebuild, purge, hold disk files and rescan the folder, over a
// few keys with three variants each and a disk budget that forces deletions. Every payload
// carries its own key, variant and checksum and is verified on every read, from memory or disk.
// At the end: no wrong, torn or vanished read, and the bag's totals equal the sum over its items.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "test_writer_fixture.h"

using namespace diskbtest;

namespace {

constexpr uint32_t kKeys = 6;
constexpr uint32_t kVariants = 3;
constexpr auto kSoakTime = std::chrono::seconds(3);

std::atomic<int> g_wrong{0};  // bytes of another key or variant, torn, or lost while held
std::atomic<int> g_reads{0};

// Bytes: key, variant, checksum of the body, body.
using Bytes = std::vector<uint8_t>;
constexpr size_t kPrefix = 12;

uint32_t Checksum(const uint8_t* p, size_t n) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
    return h;
}

class SoakPayload : public MC_StuffData {
public:
    SoakPayload(uint32_t key, uint32_t variant) : kv_{key, variant} {
        SetCachePriority(MC_CachePriority_High);
    }
    static void RegisterFactory() {
        MC_StuffData::Factory factory = [](const std::vector<uint8_t>& header) {
            uint32_t kv[2] = {};
            if (header.size() == 8) std::memcpy(kv, header.data(), 8);
            return IntrusivePtr<MC_StuffData>(header.size() == 8 ? new SoakPayload(kv[0], kv[1])
                                                                 : nullptr);
        };
        MC_StuffData::RegisterFactory("SoakPayload", factory);
    }
    void Rebuild(uint32_t size, uint32_t seed) {
        auto bytes = std::make_shared<Bytes>(size);
        std::minstd_rand gen(seed | 1);
        for (size_t i = kPrefix; i < size; ++i) (*bytes)[i] = static_cast<uint8_t>(gen());
        const uint32_t head[3] = {kv_[0], kv_[1],
                                  Checksum(bytes->data() + kPrefix, size - kPrefix)};
        std::memcpy(bytes->data(), head, kPrefix);
        std::atomic_store(&bytes_, std::shared_ptr<const Bytes>(std::move(bytes)));
    }
    std::shared_ptr<const Bytes> Get() const { return std::atomic_load(&bytes_); }
    // Whether `bytes` are whole and this payload's own.
    bool Verify(const Bytes& bytes) const {
        g_reads.fetch_add(1);
        uint32_t head[3] = {};
        if (bytes.size() >= kPrefix) std::memcpy(head, bytes.data(), kPrefix);
        const bool good = head[0] == kv_[0] && head[1] == kv_[1] &&
                          Checksum(bytes.data() + kPrefix, bytes.size() - kPrefix) == head[2];
        if (!good) g_wrong.fetch_add(1);
        return good;
    }
    uint32_t Key() const { return kv_[0]; }
    uint32_t Variant() const { return kv_[1]; }

    bool IdenticalRequest(IntrusivePtr<MC_StuffData> request) const override {
        auto* r = dynamic_cast<SoakPayload*>(request.get());
        return r && r->kv_[0] == kv_[0] && r->kv_[1] == kv_[1];
    }
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const override {
        auto* r = dynamic_cast<SoakPayload*>(request.get());
        return r && r->kv_[0] == kv_[0] && kv_[1] >= r->kv_[1];
    }
    uint32_t GetApproximateMemorySize() const override {
        auto bytes = Get();
        return bytes ? static_cast<uint32_t>(bytes->size()) : 0;
    }
    bool PurgeIfPossible(MC_ReleaseList* releaseList) override {
        std::shared_ptr<const Bytes> bytes = std::atomic_exchange(&bytes_, {});
        if (bytes && releaseList) releaseList->push_back(std::const_pointer_cast<Bytes>(bytes));
        return bytes != nullptr;
    }
    bool IsInMemory() const override { return Get() != nullptr; }
    bool ShouldAllowPurge() const override { return true; }
    bool CanDiskCache() const override { return true; }
    const char* GetSubclassMatchname() const override { return "SoakPayload"; }
    void GetHeader(std::vector<uint8_t>& header) const override {
        header.resize(8);
        std::memcpy(header.data(), kv_, 8);
    }
    double Write(velacore::OByteStream& out) const override {
        auto bytes = Get();
        out.WriteU32LE(bytes ? static_cast<uint32_t>(bytes->size()) : 0);
        if (bytes) out.WriteBytes(bytes->data(), bytes->size());
        return 0.0;
    }
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex&) override {
        const uint32_t size = in.ReadU32LE();
        if (size < kPrefix || size > (1u << 24)) throw velacore::IOError("soak: bad size");
        auto bytes = std::make_shared<Bytes>(size);
        in.ReadBytes(bytes->data(), size);
        Verify(*bytes);
        std::atomic_store(&bytes_, std::shared_ptr<const Bytes>(std::move(bytes)));
        return 0.0;
    }

private:
    uint32_t kv_[2];
    std::shared_ptr<const Bytes> bytes_;
};

class Soak : public DiskCacheTest {
protected:
    uint64_t BudgetMegabytes() const override { return 3; }  // forces deletions

    // Checks what a holder sees, twice: it must stay whole and answer the request.
    static void VerifyHeld(const IntrusivePtr<MC_Stuff>& item, uint32_t key, uint32_t variant) {
        auto* payload = dynamic_cast<SoakPayload*>(item->GetDataPtr().get());
        if (!payload) return;  // an abandoned render (the finder looked again)
        if (payload->Key() != key || payload->Variant() < variant) g_wrong.fetch_add(1);
        for (int look = 0; look < 2; ++look) {
            std::shared_ptr<const Bytes> bytes = payload->Get();
            if (!bytes) {
                g_wrong.fetch_add(1);
                return;
            }
            payload->Verify(*bytes);
            std::this_thread::yield();
        }
    }

    void Worker(uint32_t seed, std::chrono::steady_clock::time_point end) {
        std::minstd_rand rng(seed);
        auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
        const int checkinFlags[] = {
            0, 0, 0, MC_CheckinFlag_Remove, MC_CheckinFlag_Purge, MC_CheckinFlag_ForceWriteToDisk};
        while (std::chrono::steady_clock::now() < end) {
            const uint32_t key = pick(kKeys), variant = pick(kVariants);
            const bool writeable = pick(5) == 0;
            MC_ScCheckout receipt;
            const int flags = MC_CheckoutFlag_CreatePending |
                              MC_CheckoutFlag_WaitIfPendingUnlessLocked |
                              (writeable ? 0 : MC_CheckoutFlag_ReadOnly);
            IntrusivePtr<MC_Stuff> request =
                MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new SoakPayload(key, variant)), 0);
            request->SetGuid(mctest::KeyGuid(key));
            const MC_CheckoutResult r = receipt.FindAndCheckout(request, flags);
            const IntrusivePtr<MC_Stuff> item = receipt.GetStuffPtr();
            if (r == MC_CheckoutResult_CreatedNewPending) {
                auto* data = new SoakPayload(key, variant);
                data->Rebuild(2000 + 1000 * pick(8), rng());
                data->SetCachePriority(pick(2) ? MC_CachePriority_High : MC_CachePriority_Normal);
                item->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(data), 0.05);
            } else if (r == MC_CheckoutResult_CheckedOut) {
                VerifyHeld(item, key, variant);
                auto* data = dynamic_cast<SoakPayload*>(item->GetDataPtr().get());
                if (writeable && data && data->IsInMemory()) {  // rebuild under the check-out
                    data->Rebuild(2000 + 1000 * pick(8), rng());
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
            const std::vector<IntrusivePtr<MC_Stuff>> items = bag_->SnapshotItems();
            for (const auto& item : items) {
                const auto dice = rng() % 8;
                const velacore::File file = item->GetDiskCacheFile();
                const auto hold = dice == 1 ? item->CheckoutDiskCache(true) : nullptr;
                if (dice == 0) item->FreeUpAsMuchAsPossible(true, nullptr);
                if (dice == 2 && !file.IsEmpty()) MC_ScanOneDiskCacheFile(file);
            }
            if (rng() % 4 == 0) bag_->ScanDiskCacheDir();
            if (rng() % 4 == 0) bag_->PurgeAllMemoryCaches();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
};

TEST_F(Soak, ConcurrentUseNeverServesWrongBytesAndKeepsTotalsRight) {
    SoakPayload::RegisterFactory();
    g_wrong = g_reads = 0;
    const auto end = std::chrono::steady_clock::now() + kSoakTime;
    std::vector<std::thread> threads;
    // An error code escaping a cache call fails the test instead of ending the process.
    auto guarded = [](const std::function<void()>& body) {
        try {
            body();
        } catch (int code) {
            ADD_FAILURE() << "error code " << code;
        }
    };
    for (uint32_t t = 0; t < 4; ++t)
        threads.emplace_back(guarded, [this, t, end] { Worker(t + 1, end); });
    threads.emplace_back(guarded, [this, end] { Maintenance(end); });
    for (auto& t : threads) t.join();
    ASSERT_TRUE(DrainWriter());

    EXPECT_GT(g_reads.load(), 100);
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
