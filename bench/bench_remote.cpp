// The remote tier's fetch against plain Redis, and what configuring the tier costs a hit.
//   1. Fetch throughput of 1 MiB and 8 MiB items over loopback: a miss served by the remote
//      tier (record look-up, chunk fetch, identity and checksum checks, payload Read) against a
//      plain hiredis GET loop of the same number of bytes from the same server, the two sides
//      interleaved round by round. Ratio = tier / plain (bytes per second).
//   2. The hit path (find, check out, check in an item in memory) with the tier configured and
//      running but not consulted, against the tier not configured.
// Needs redis-server; prints min and median over the rounds.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bag/Eventually.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "remote/FarmFixture.h"

using namespace farmtest;
using Clock = std::chrono::steady_clock;
using mctest::Eventually;

namespace {

constexpr int kRounds = 7;

// A payload that only holds its bytes: its Read costs a copy and nothing else, so the fetch
// measures the tier.
class BenchPayload : public MC_StuffData {
public:
    static constexpr const char* kMatchname = "BenchPayload";
    BenchPayload(uint32_t key, uint32_t size)
        : key_(key), bytes_(size ? std::make_shared<std::vector<uint8_t>>(size, 7) : nullptr) {}
    bool IdenticalRequest(IntrusivePtr<MC_StuffData> r) const override {
        auto* b = dynamic_cast<BenchPayload*>(r.get());
        return b && b->key_ == key_;
    }
    bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> r) const override {
        return IdenticalRequest(r);
    }
    uint32_t GetApproximateMemorySize() const override {
        auto b = std::atomic_load(&bytes_);
        return b ? static_cast<uint32_t>(b->size()) : 0;
    }
    bool PurgeIfPossible(MC_ReleaseList*) override {
        return std::atomic_exchange(&bytes_, std::shared_ptr<std::vector<uint8_t>>()) != nullptr;
    }
    bool IsInMemory() const override { return std::atomic_load(&bytes_) != nullptr; }
    bool CanDiskCache() const override { return true; }
    const char* GetSubclassMatchname() const override { return kMatchname; }
    void GetHeader(std::vector<uint8_t>& h) const override {
        h.resize(4);
        std::memcpy(h.data(), &key_, 4);
    }
    double Write(velacore::OByteStream& out) const override {
        auto b = std::atomic_load(&bytes_);
        out.WriteU32LE(static_cast<uint32_t>(b->size()));
        out.WriteBytes(b->data(), b->size());
        return 0.0;
    }
    double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex&) override {
        const uint32_t size = in.ReadU32LE();
        if (size > (1u << 30)) throw velacore::IOError("implausible size");
        auto b = std::make_shared<std::vector<uint8_t>>(size);
        in.ReadBytes(b->data(), size);
        std::atomic_store(&bytes_, std::move(b));
        return 0.0;
    }
    static void Register() {
        MC_StuffData::Factory f = [](const std::vector<uint8_t>& h) {
            IntrusivePtr<MC_StuffData> out;
            if (h.size() != 4) return out;
            uint32_t key = 0;
            std::memcpy(&key, h.data(), 4);
            out = IntrusivePtr<MC_StuffData>(new BenchPayload(key, 0));
            return out;
        };
        MC_StuffData::RegisterFactory(kMatchname, f);
    }
    static IntrusivePtr<MC_Stuff> Request(uint32_t key) {
        IntrusivePtr<MC_Stuff> r =
            MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(new BenchPayload(key, 0)), 0.0);
        r->SetGuid(mctest::KeyGuid(key));
        return r;
    }

private:
    uint32_t key_;
    std::shared_ptr<std::vector<uint8_t>> bytes_;
};

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}
double Min(const std::vector<double>& v) {
    return *std::min_element(v.begin(), v.end());
}

struct Machine {
    explicit Machine(std::shared_ptr<FarmHost> host) : scoped(host) {
        MC_Birth(false, 0x2B, false);
        TestPayload::RegisterFactory();
        BenchPayload::Register();
        MC_GlobalBag()->SetDiskCacheInfo(folder.AsDir(), 4096);
        MC_GlobalBag()->EnableDiskCache(true);
    }
    ~Machine() {
        MC_StopAllAsyncWork();
        MC_Death();
    }
    mctest::ScopedHostServices scoped;
    mctest::TempDir folder{"mc-bench-remote"};
};

void Render(uint32_t key, uint32_t size) {
    MC_ScCheckout r;
    r.FindAndCheckout(BenchPayload::Request(key), MC_CheckoutFlag_CreatePending);
    auto* p = new BenchPayload(key, size);
    p->SetCachePriority(MC_CachePriority_High);
    r.GetStuffPtr()->SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData>(p), 1.0);
}

// Fetches every key through the tier once (each a local miss); returns bytes per second.
double TierRound(const std::vector<uint32_t>& keys, uint32_t size) {
    const auto t0 = Clock::now();
    for (uint32_t k : keys) {
        MC_ScCheckout r;
        if (r.FindAndCheckout(BenchPayload::Request(k),
                              MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending) !=
                MC_CheckoutResult_CheckedOut ||
            !MCr_FilledByThisThread(r.GetStuffPtr().get())) {
            std::fprintf(stderr, "bench_remote: key %u was not fetched\n", k);
            std::exit(1);
        }
        r.SetCheckinFlags(MC_CheckinFlag_Remove);  // the next round misses again
    }
    const double s = std::chrono::duration<double>(Clock::now() - t0).count();
    return static_cast<double>(keys.size()) * size / s;
}

double PlainRound(redisContext* c, size_t count, size_t bytes) {
    const auto t0 = Clock::now();
    for (size_t i = 0; i < count; ++i) {
        const std::string key = "plain:" + std::to_string(i);
        auto* r = static_cast<redisReply*>(redisCommand(c, "GET %s", key.c_str()));
        if (!r || r->type != REDIS_REPLY_STRING || r->len != bytes) std::exit(1);
        freeReplyObject(r);
    }
    const double s = std::chrono::duration<double>(Clock::now() - t0).count();
    return static_cast<double>(count) * bytes / s;
}

void FetchBench(RedisServer& server, uint32_t size, uint32_t firstKey) {
    auto host = std::make_shared<FarmHost>();
    host->remote.urls = {server.Url()};
    host->remote.maxItemBytes = 64u << 20;
    constexpr size_t kItems = 8;
    std::vector<uint32_t> keys;
    {
        Machine publisher(host);
        for (uint32_t i = 0; i < kItems; ++i) {
            const uint32_t before = MCp_GetCounters().remotePublished.load();
            Render(firstKey + i, size);
            if (!Eventually([&] { return MCp_GetCounters().remotePublished.load() > before; })) {
                std::fprintf(stderr, "bench_remote: publication failed\n");
                std::exit(1);
            }
            keys.push_back(firstKey + i);
        }
    }
    // The same number of bytes per item as the tier's body (4-byte length + payload).
    const std::string value(size + 4, 'x');
    for (size_t i = 0; i < kItems; ++i) server.Do({"SET", "plain:" + std::to_string(i), value});
    timeval tv{5, 0};
    redisContext* c = redisConnectWithTimeout("127.0.0.1", server.Port(), tv);
    Machine reader(host);
    MC_GlobalBag()->EnableDiskCache(false);  // fetched items stay off this machine's disk
    TierRound(keys, size);                   // warm connections and allocator
    PlainRound(c, kItems, value.size());
    std::vector<double> tier, plain, ratio;
    for (int round = 0; round < kRounds; ++round) {
        const double t = TierRound(keys, size);
        const double p = PlainRound(c, kItems, value.size());
        tier.push_back(t);
        plain.push_back(p);
        ratio.push_back(t / p);
    }
    redisFree(c);
    std::printf(
        "fetch %u MiB: tier %.0f MB/s, plain GET %.0f MB/s (medians); ratio min %.2f "
        "median %.2f over %d rounds\n",
        size >> 20, Median(tier) / 1e6, Median(plain) / 1e6, Min(ratio), Median(ratio), kRounds);
}

// Nanoseconds per hit of one in-memory item.
double HitRound(int iterations) {
    const auto t0 = Clock::now();
    for (int i = 0; i < iterations; ++i) {
        MC_ScCheckout r;
        if (r.FindAndCheckout(BenchPayload::Request(1), MC_CheckoutFlag_ReadOnly) !=
            MC_CheckoutResult_CheckedOut)
            std::exit(1);
    }
    return std::chrono::duration<double, std::nano>(Clock::now() - t0).count() / iterations;
}

double HitMachine(RedisServer& server, bool configured) {
    auto host = std::make_shared<FarmHost>();
    if (configured) host->remote.urls = {server.Url()};
    Machine m(host);
    Render(1, 4096);
    // A miss starts the tier (when configured) before the measured hits.
    {
        MC_ScCheckout miss;
        miss.FindAndCheckout(BenchPayload::Request(999),
                             MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending);
    }
    HitRound(20000);
    return HitRound(200000);
}

void HitBench(RedisServer& server) {
    std::vector<double> on, off, ratio;
    for (int round = 0; round < kRounds; ++round) {
        const double a = HitMachine(server, true);
        const double b = HitMachine(server, false);
        on.push_back(a);
        off.push_back(b);
        ratio.push_back(a / b);
    }
    std::printf(
        "hit path: tier configured %.0f ns, not configured %.0f ns (medians); "
        "cost ratio min %.3f median %.3f over %d rounds\n",
        Median(on), Median(off), Min(ratio), Median(ratio), kRounds);
}

}  // namespace

int main() {
    if (!RedisServerBinary()) {
        std::fprintf(stderr, "bench_remote: redis-server is not installed\n");
        return 0;
    }
    RedisServer server;
    if (!server.Start()) {
        std::fprintf(stderr, "bench_remote: redis-server did not start\n");
        return 1;
    }
    FetchBench(server, 1u << 20, 1000);
    FetchBench(server, 8u << 20, 2000);
    HitBench(server);
    return 0;
}
