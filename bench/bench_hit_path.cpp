// Hit path of the memory cache against two peers, and the purge walk.
//   hit:   receipt FindAndCheckout + check-in of an existing item in a warm bag of 100,000
//          items, uniformly random keys, on 1 and 2 threads; peers: oneTBB's
//          concurrent_lru_cache (get a handle, release it) and a plain mutex + unordered_map +
//          list LRU (get-and-touch). Allocations per hit are counted by a global operator new.
//   purge: FreeUpSomeMemory freeing half of 100,000 resident items; ns per visited item and the
//          share of the call spent holding the cache lock.
// Ratios are printed at the end, from figures measured in this run.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "support/RecordingHostServices.h"
#include "support/TestPayload.h"

#if MC_HAVE_TBB
#define TBB_PREVIEW_CONCURRENT_LRU_CACHE 1
#include <tbb/concurrent_lru_cache.h>
#endif

// --- allocation counting -------------------------------------------------------------------
// GCC cannot see that these replacements pair malloc with free.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
static std::atomic<uint64_t> g_allocations{0};
void* operator new(std::size_t n) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

constexpr uint32_t kItems = 100'000;
constexpr size_t kKeyStream = 1 << 20;

std::vector<uint32_t> MakeKeys(uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint32_t> keys(kKeyStream);
    for (auto& k : keys) k = rng() % kItems;
    return keys;
}

struct WarmCache {
    std::vector<IntrusivePtr<MC_Stuff>> requests;
    std::vector<std::vector<uint32_t>> keys;
};
WarmCache* g_warm = nullptr;

void BM_MC_Hit(benchmark::State& state) {
    const auto& keys = g_warm->keys[static_cast<size_t>(state.thread_index())];
    size_t i = 0;
    uint64_t hits = 0;
    const uint64_t allocBefore = g_allocations.load();
    for (auto _ : state) {
        MC_ScCheckout receipt;
        const MC_CheckoutResult r =
            receipt.FindAndCheckout(g_warm->requests[keys[i++ & (kKeyStream - 1)]],
                                    MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead);
        hits += (r == MC_CheckoutResult_CheckedOut);
    }
    const uint64_t allocs = g_allocations.load() - allocBefore;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.counters["allocs_per_hit"] =
        benchmark::Counter(static_cast<double>(allocs) / static_cast<double>(state.iterations()));
    if (hits != static_cast<uint64_t>(state.iterations())) state.SkipWithError("a lookup missed");
}

// A plain LRU: one mutex, a hash map into a list; a hit moves the node to the front.
class ReferenceLru {
public:
    explicit ReferenceLru(uint32_t n) {
        for (uint32_t k = 0; k < n; ++k) {
            order_.push_front({k, std::make_shared<std::vector<uint8_t>>(64)});
            index_[k] = order_.begin();
        }
    }
    bool Get(uint32_t key) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = index_.find(key);
        if (it == index_.end()) return false;
        order_.splice(order_.begin(), order_, it->second);
        return true;
    }

private:
    using Node = std::pair<uint32_t, std::shared_ptr<std::vector<uint8_t>>>;
    std::mutex mutex_;
    std::list<Node> order_;
    std::unordered_map<uint32_t, std::list<Node>::iterator> index_;
};
ReferenceLru* g_reference = nullptr;

void BM_ReferenceLru_Hit(benchmark::State& state) {
    const auto& keys = g_warm->keys[static_cast<size_t>(state.thread_index())];
    size_t i = 0;
    const uint64_t allocBefore = g_allocations.load();
    for (auto _ : state) benchmark::DoNotOptimize(g_reference->Get(keys[i++ & (kKeyStream - 1)]));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.counters["allocs_per_hit"] =
        benchmark::Counter(static_cast<double>(g_allocations.load() - allocBefore) /
                           static_cast<double>(state.iterations()));
}

#if MC_HAVE_TBB
using TbbCache = tbb::concurrent_lru_cache<uint32_t, std::shared_ptr<std::vector<uint8_t>>>;
TbbCache* g_tbb = nullptr;

void BM_TbbLru_Hit(benchmark::State& state) {
    const auto& keys = g_warm->keys[static_cast<size_t>(state.thread_index())];
    size_t i = 0;
    const uint64_t allocBefore = g_allocations.load();
    for (auto _ : state) {
        TbbCache::handle h = (*g_tbb)[keys[i++ & (kKeyStream - 1)]];
        benchmark::DoNotOptimize(h.value());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    state.counters["allocs_per_hit"] =
        benchmark::Counter(static_cast<double>(g_allocations.load() - allocBefore) /
                           static_cast<double>(state.iterations()));
}
#endif

// One purge walk over a fresh bag of 100,000 resident items that frees half of them.
void BM_PurgeWalk(benchmark::State& state) {
    auto& host = *static_cast<mctest::RecordingHostServices*>(&velacore::GetHostServices());
    double lockShare = 0, nsPerVisit = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
        std::vector<IntrusivePtr<MC_Stuff>> items;
        items.reserve(kItems);
        for (uint32_t k = 0; k < kItems; ++k) {
            items.push_back(mctest::MakeItem(1'000'000 + k, 1000));
            items.back()->AddToBagAndSortDir(bag);
        }
        items.clear();  // the bag holds them
        host.SetMemUsageLimits(uint64_t{kItems} * 1000, uint64_t{1} << 36);
        host.SetAmountToPurge(uint64_t{kItems} * 1000 / 2);
        const uint64_t held0 = MCp_GetCounters().purgeHeldNanos.load();
        const auto t0 = std::chrono::steady_clock::now();
        state.ResumeTiming();
        const int64_t freed = bag->FreeUpSomeMemory(0);
        state.PauseTiming();
        const double whole =
            static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                    std::chrono::steady_clock::now() - t0)
                                    .count());
        const double locked = static_cast<double>(MCp_GetCounters().purgeHeldNanos.load() - held0);
        lockShare = whole > 0 ? locked / whole : 0;
        nsPerVisit = whole / (kItems / 2.0);
        if (freed != int64_t{kItems} * 1000 / 2) state.SkipWithError("did not free half");
        bag->PurgeAllMemoryCaches();
        bag->ClearBagAndSortDir();
        host.SetAmountToPurge(0);
        state.ResumeTiming();
    }
    state.counters["ns_per_visited_item"] = nsPerVisit;
    state.counters["share_under_cache_lock"] = lockShare;
}

// Collects figures for the summary.
class Collector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            Figures& f = figures[run.benchmark_name()];
            f.nsPerOp = run.GetAdjustedRealTime();
            auto it = run.counters.find("items_per_second");
            if (it != run.counters.end()) f.opsPerSec = it->second.value;
            for (const auto& [name, counter] : run.counters) f.counters[name] = counter.value;
            auto a = run.counters.find("allocs_per_hit");
            if (a != run.counters.end()) f.allocs = a->second.value;
        }
    }
    struct Figures {
        double nsPerOp = 0, opsPerSec = 0, allocs = -1;
        std::map<std::string, double> counters;
    };
    std::map<std::string, Figures> figures;
};

}  // namespace

BENCHMARK(BM_MC_Hit)->Threads(1)->Threads(2)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_ReferenceLru_Hit)->Threads(1)->Threads(2)->UseRealTime()->MinTime(1.0);
#if MC_HAVE_TBB
BENCHMARK(BM_TbbLru_Hit)->Threads(1)->Threads(2)->UseRealTime()->MinTime(1.0);
#endif
BENCHMARK(BM_PurgeWalk)->Iterations(3)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    auto services = std::make_shared<mctest::RecordingHostServices>();
    mctest::ScopedHostServices scoped(services);
    MC_Birth(false, 1, false);
    WarmCache warm;
    {
        std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
        for (uint32_t k = 0; k < kItems; ++k) {
            mctest::MakeItem(k, 64)->AddToBagAndSortDir(bag);
            warm.requests.push_back(mctest::MakeRequest(k));
        }
        warm.keys = {MakeKeys(1), MakeKeys(2)};
    }
    g_warm = &warm;
    ReferenceLru reference(kItems);
    g_reference = &reference;
#if MC_HAVE_TBB
    TbbCache tbbCache([](uint32_t) { return std::make_shared<std::vector<uint8_t>>(64); }, kItems);
    for (uint32_t k = 0; k < kItems; ++k) tbbCache[k];
    g_tbb = &tbbCache;
#endif

    benchmark::Initialize(&argc, argv);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    auto get = [&](const std::string& name) { return collector.figures[name]; };
    const auto mc1 = get("BM_MC_Hit/min_time:1.000/real_time/threads:1");
    const auto mc2 = get("BM_MC_Hit/min_time:1.000/real_time/threads:2");
    const auto ref1 = get("BM_ReferenceLru_Hit/min_time:1.000/real_time/threads:1");
    const auto ref2 = get("BM_ReferenceLru_Hit/min_time:1.000/real_time/threads:2");
    std::printf("\n== summary ==\n");
    std::printf("MC hit, 1 thread:  %.1f ns/hit, %.2f allocations/hit\n", 1e9 / mc1.opsPerSec,
                mc1.allocs);
    std::printf("MC hit, 2 threads: %.0f hits/s aggregate (%.2fx one thread)\n", mc2.opsPerSec,
                mc2.opsPerSec / mc1.opsPerSec);
    std::printf("reference LRU: 1 thread %.1f ns/hit; 2 threads %.2fx one thread\n",
                1e9 / ref1.opsPerSec, ref2.opsPerSec / ref1.opsPerSec);
    auto purge = get("BM_PurgeWalk/iterations:3");
    std::printf(
        "purge walk freeing half of %u items: %.1f ms per walk, %.1f ns per visited item, "
        "%.0f%% of the call under the cache lock\n",
        kItems, purge.nsPerOp, purge.counters["ns_per_visited_item"],
        100.0 * purge.counters["share_under_cache_lock"]);
    std::printf("ratio MC / reference LRU time per hit (1 thread): %.2f\n",
                ref1.opsPerSec / mc1.opsPerSec);
#if MC_HAVE_TBB
    const auto tbb1 = get("BM_TbbLru_Hit/min_time:1.000/real_time/threads:1");
    const auto tbb2 = get("BM_TbbLru_Hit/min_time:1.000/real_time/threads:2");
    std::printf("oneTBB concurrent_lru_cache: 1 thread %.1f ns/hit; 2 threads %.2fx one thread\n",
                1e9 / tbb1.opsPerSec, tbb2.opsPerSec / tbb1.opsPerSec);
    std::printf("ratio MC / oneTBB time per hit (1 thread): %.2f (target <= 1)\n",
                tbb1.opsPerSec / mc1.opsPerSec);
#endif
    MC_StopAllAsyncWork();
    MC_Death();
    return 0;
}
