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

struct SoakTally {
    std::atomic<int> wrongIdentity{0};  // bytes of another key or variant
    std::atomic<int> torn{0};           // checksum does not match the body
    std::atomic<int> vanished{0};       // a held payload lost its bytes
    std::atomic<int> badServe{0};       // the payload served cannot answer the request
    std::atomic<int> reads{0};
};
SoakTally g_tally;

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
    static constexpr const char* kName = "SoakPayload";

    SoakPayload(uint32_t key, uint32_t variant) : key_(key), variant_(variant) {}
    SoakPayload(uint32_t key, uint32_t variant, uint32_t size, uint32_t seed)
        : key_(key), variant_(variant) {
        Rebuild(size, seed);
    }
    static void RegisterFactory() {
        MC_StuffData::Factory factory = [](const std::vector<uint8_t>& header) {
            IntrusivePtr<MC_StuffData> data;
            if (header.size() != 8) return data;
            uint32_t kv[2];
            std::memcpy(kv, header.data(), 8);
            data = IntrusivePtr<MC_StuffData>(new SoakPayload(kv[0], kv[1]));
            data->SetCachePriority(MC_CachePriority_High);
            return data;
        };
        MC_StuffData::RegisterFactory(kName, factory);
    }

    void Rebuild(uint32_t size, uint32_t seed) {
        auto bytes = std::make_shared<Bytes>(size);
        std::minstd_rand gen(seed | 1);
        for (size_t i = kPrefix; i < size; ++i) (*bytes)[i] = static_cast<uint8_t>(gen());
        const uint32_t head[3] = {key_, variant_,
                                  Checksum(bytes->data() + kPrefix, size - kPrefix)};
        std::memcpy(bytes->data(), head, kPrefix);
        std::atomic_store(&bytes_, std::shared_ptr<const Bytes>(std::move(bytes)));
    }
    std::shared_ptr<const Bytes> Get() const { return std::atomic_load(&bytes_); }
    // Counts what is wrong with `bytes` for this payload.
    void Verify(const Bytes& bytes) const {
        g_tally.reads.fetch_add(1);
        uint32_t head[3] = {};
        if (bytes.size() >= kPrefix) std::memcpy(head, bytes.data(), kPrefix);
        if (head[0] != key_ || head[1] != variant_)
            g_tally.wrongIdentity.fetch_add(1);
        else if (Checksum(bytes.data() + kPrefix, bytes.size() - kPrefix) != head[2])
            g_tally.torn.fetch_add(1);
    }
    uint32_t Key() const { return key_; }
    uint32_t Variant() const { return variant_; }

    bool IdenticalRequest(IntrusivePtr<MC_StuffData> request) const override {
        auto* r = dynamic_cast<SoakPayload*>(request.get());
        return r && r->key_ == key_ && r->variant_ == variant_;
    }
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const override {
        auto* r = dynamic_cast<SoakPayload*>(request.get());
        return r && r->key_ == key_ && variant_ >= r->variant_;
    }
    uint32_t GetApproximateMemorySize() const override {
        auto bytes = Get();
        return bytes ? static_cast<uint32_t>(bytes->size()) : 0;
    }
    bool PurgeIfPossible(MC_ReleaseList* releaseList) override {
        std::shared_ptr<const Bytes> bytes = std::atomic_exchange(&bytes_, {});
        if (!bytes) return false;
        if (releaseList) releaseList->push_back(std::const_pointer_cast<Bytes>(bytes));
        return true;
    }
    bool IsInMemory() const override { return Get() != nullptr; }
    bool ShouldAllowPurge() const override { return true; }
    bool CanDiskCache() const override { return true; }
    const char* GetSubclassMatchname() const override { return kName; }
    void GetHeader(std::vector<uint8_t>& header) const override {
        header.resize(8);
        const uint32_t kv[2] = {key_, variant_};
        std::memcpy(header.data(), kv, 8);
    }
    double Write(velacore::OByteStream& out) const override {
        auto bytes = Get();
        const uint32_t size = bytes ? static_cast<uint32_t>(bytes->size()) : 0;
        out.WriteU32LE(size);
        if (size) out.WriteBytes(bytes->data(), size);
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
    uint32_t key_;
    uint32_t variant_;
    std::shared_ptr<const Bytes> bytes_;
};

IntrusivePtr<MC_Stuff> SoakRequest(uint32_t key, uint32_t variant) {
    IntrusivePtr<MC_Stuff> request =
        MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new SoakPayload(key, variant)), 0.0);
    request->SetGuid(mctest::KeyGuid(key));
    return request;
}

class Soak : public DiskCacheTest {
protected:
    uint64_t BudgetMegabytes() const override { return 3; }  // forces deletions

    // Checks what a holder sees, twice, with a pause between: it must stay whole.
    static void VerifyHeld(const IntrusivePtr<MC_Stuff>& item, uint32_t key, uint32_t variant,
                           bool mustBeResident) {
        auto* payload = dynamic_cast<SoakPayload*>(item->GetDataPtr().get());
        if (!payload) return;  // an abandoned render (the finder looked again)
        if (payload->Key() != key || payload->Variant() < variant) g_tally.badServe.fetch_add(1);
        for (int look = 0; look < 2; ++look) {
            std::shared_ptr<const Bytes> bytes = payload->Get();
            if (!bytes) {
                if (mustBeResident) g_tally.vanished.fetch_add(1);
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
            const MC_CheckoutResult r = receipt.FindAndCheckout(SoakRequest(key, variant), flags);
            const IntrusivePtr<MC_Stuff> item = receipt.GetStuffPtr();
            if (r == MC_CheckoutResult_CreatedNewPending) {
                auto* data = new SoakPayload(key, variant, 2000 + 1000 * pick(8), rng());
                data->SetCachePriority(pick(2) ? MC_CachePriority_High : MC_CachePriority_Normal);
                item->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(data), 0.05);
            } else if (r == MC_CheckoutResult_CheckedOut) {
                VerifyHeld(item, key, variant, true);
                auto* data = dynamic_cast<SoakPayload*>(item->GetDataPtr().get());
                if (writeable && data && data->IsInMemory()) {  // rebuild under the check-out
                    data->Rebuild(2000 + 1000 * pick(8), rng());
                    bag_->AccountForStuffDataModification(item);
                    VerifyHeld(item, data->Key(), data->Variant(), true);
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
                switch (rng() % 8) {
                    case 0:
                        item->FreeUpAsMuchAsPossible(true, nullptr);
                        break;
                    case 1: {
                        auto hold = item->CheckoutDiskCache(true);
                        std::this_thread::yield();
                        break;
                    }
                    case 2: {
                        const velacore::File file = item->GetDiskCacheFile();
                        if (!file.IsEmpty()) MC_ScanOneDiskCacheFile(file);
                        break;
                    }
                    default:
                        break;
                }
            }
            if (rng() % 4 == 0) bag_->ScanDiskCacheDir();
            if (rng() % 4 == 0) bag_->PurgeAllMemoryCaches();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
};

TEST_F(Soak, ConcurrentUseNeverServesWrongBytesAndKeepsTotalsRight) {
    SoakPayload::RegisterFactory();
    g_tally.wrongIdentity = g_tally.torn = g_tally.vanished = g_tally.badServe = g_tally.reads = 0;
    const auto end = std::chrono::steady_clock::now() + kSoakTime;
    std::vector<std::thread> threads;
    // An error code escaping a cache call fails the test instead of ending the process.
    auto guarded = [](const char* who, const std::function<void()>& body) {
        try {
            body();
        } catch (int code) {
            ADD_FAILURE() << who << " got error code " << code;
        }
    };
    for (uint32_t t = 0; t < 4; ++t)
        threads.emplace_back([&, t] { guarded("worker", [&] { Worker(t + 1, end); }); });
    threads.emplace_back([&] { guarded("maintenance", [&] { Maintenance(end); }); });
    for (auto& t : threads) t.join();
    ASSERT_TRUE(DrainWriter());

    EXPECT_GT(g_tally.reads.load(), 100);
    EXPECT_EQ(g_tally.wrongIdentity.load(), 0);
    EXPECT_EQ(g_tally.torn.load(), 0);
    EXPECT_EQ(g_tally.vanished.load(), 0);
    EXPECT_EQ(g_tally.badServe.load(), 0);
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
