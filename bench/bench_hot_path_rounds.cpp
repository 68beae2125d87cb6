// The memory hot path as ratios to anchors measured in the same run, sides interleaved round by
// round (min and median over the rounds; the load average is printed with them).
//   hit       receipt find + check-in of a resident item, bag of 100,000, 1 thread; anchors:
//             oneTBB concurrent_lru_cache (handle get + release) and a plain mutex LRU
//   growth    the same hit on bags of 1,000 and 1,000,000 items
//   threads   2 threads' total hits/s over 1 thread; control: each thread on its own plain LRU
//   new req   a hit whose request item is built for the lookup, with allocations per lookup
//   miss      request built + find miss + pending item + completion + check-in in the global bag
//             of 1,000,000 items (purged back to size between rounds, untimed), with
//             allocations per miss; anchors: oneTBB miss on a full cache (evicts, builds the
//             value) and a plain LRU insert + eviction
//   metadata  heap growth per item minus payload bytes; anchors: plain LRU and oneTBB
//   purge     ns per visited item of a pass freeing half of 100,000 (1,000,000) items, in all
//             and under the cache lock, and the longest hold of the lock; anchor: plain LRU
//             eviction per item
// Usage: bench_hot_path_rounds [rounds]   (default 5)
//        MC_BENCH_TRACE_ALLOCS=1 bench_hot_path_rounds   prints a backtrace for every allocation
//        of one built-request hit and one reused-request hit, then exits
//        MC_BENCH_PROFILE_1K=1 bench_hot_path_rounds   runs only the hit on a bag of 1,000 items,
//        8 million times, for a profiler, and prints its ns per hit
#include <execinfo.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <thread>
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

#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
static std::atomic<uint64_t> g_allocations{0};
static thread_local bool t_traceAllocs = false;
void* operator new(std::size_t n) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (t_traceAllocs) {  // backtrace_symbols_fd writes without allocating
        t_traceAllocs = false;
        void* frames[24];
        std::fprintf(stderr, "--- operator new(%zu)\n", n);
        backtrace_symbols_fd(frames, backtrace(frames, 24), 2);
        t_traceAllocs = true;
    }
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

using Clock = std::chrono::steady_clock;
constexpr int kHitOps = 200'000;

double NsPer(Clock::duration d, uint64_t n) {
    return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(d).count()) /
           static_cast<double>(n);
}

struct Samples {
    std::vector<double> v;
    double Min() const { return *std::min_element(v.begin(), v.end()); }
    double Median() const {
        std::vector<double> s = v;
        std::sort(s.begin(), s.end());
        return s[s.size() / 2];
    }
};

std::vector<uint32_t> Keys(uint32_t n, uint32_t seed, size_t count) {
    std::mt19937 rng(seed);
    std::vector<uint32_t> keys(count);
    for (auto& k : keys) k = rng() % n;
    return keys;
}

class PlainLru {
public:
    explicit PlainLru(uint32_t n, uint32_t payload = 64) : capacity_(n) {
        for (uint32_t k = 0; k < n; ++k) Insert(k, payload);
    }
    bool Get(uint32_t key) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = index_.find(key);
        if (it == index_.end()) return false;
        order_.splice(order_.begin(), order_, it->second);
        return true;
    }
    void Insert(uint32_t key, uint32_t payload) {
        std::lock_guard<std::mutex> lock(mutex_);
        order_.push_front({key, std::make_shared<std::vector<uint8_t>>(payload)});
        index_[key] = order_.begin();
    }
    // A miss: inserts `key` at the young end and evicts the oldest.
    void InsertEvict(uint32_t key, uint32_t payload) {
        Insert(key, payload);
        std::lock_guard<std::mutex> lock(mutex_);
        index_.erase(order_.back().first);
        order_.pop_back();
    }
    // Evicts `n` from the old end; returns ns per evicted item.
    double EvictNs(uint32_t n) {
        const auto t0 = Clock::now();
        std::lock_guard<std::mutex> lock(mutex_);
        for (uint32_t i = 0; i < n && !order_.empty(); ++i) {
            index_.erase(order_.back().first);
            order_.pop_back();
        }
        return NsPer(Clock::now() - t0, n);
    }
    uint32_t capacity_;

private:
    using Node = std::pair<uint32_t, std::shared_ptr<std::vector<uint8_t>>>;
    std::mutex mutex_;
    std::list<Node> order_;
    std::unordered_map<uint32_t, std::list<Node>::iterator> index_;
};

// A bag of `n` resident items of 64 bytes, with one reusable request per key.
struct McBag {
    std::shared_ptr<MC_Bag> bag;
    std::vector<IntrusivePtr<MC_Stuff>> requests;
    McBag(uint32_t n, bool global) {
        bag = global ? MC_GlobalBag() : std::make_shared<MC_Bag>(1);
        for (uint32_t k = 0; k < n; ++k) {
            mctest::MakeItem(k, 64)->AddToBagAndSortDir(bag);
            requests.push_back(mctest::MakeRequest(k));
        }
    }
    ~McBag() { bag->ClearBagAndSortDir(); }
    bool Hit(uint32_t key) {
        IntrusivePtr<MC_Stuff> found;
        const MC_CheckoutResult r = bag->FindAndCheckout(
            requests[key], MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead, &found, nullptr);
        if (r != MC_CheckoutResult_CheckedOut) return false;
        found->Checkin(0, 0.0);
        return true;
    }
};

// Receipt hit on the global bag, the figure the issue quotes.
bool ReceiptHit(const IntrusivePtr<MC_Stuff>& request) {
    MC_ScCheckout receipt;
    return receipt.FindAndCheckout(request,
                                   MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead) ==
           MC_CheckoutResult_CheckedOut;
}

// A miss: the request is built, the find creates a pending item, the render completes it and
// the receipt checks it in.
void MissInsert(uint32_t key) {
    IntrusivePtr<MC_Stuff> request = mctest::MakeRequest(key);
    MC_ScCheckout receipt;
    const int flags =
        MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_NoDiskRead | MC_CheckoutFlag_CreatePending;
    if (receipt.FindAndCheckout(request, flags) != MC_CheckoutResult_CreatedNewPending)
        std::abort();
    receipt.GetStuffPtr()->SetStuffDataFromPendingRender(
        IntrusivePtr<MC_StuffData>(new mctest::TestPayload(key, 64)), 0.0);
}

template <class F>
double TimeOps(const std::vector<uint32_t>& keys, int ops, F&& op) {
    const auto t0 = Clock::now();
    for (int i = 0; i < ops; ++i) op(keys[static_cast<size_t>(i) % keys.size()]);
    return NsPer(Clock::now() - t0, static_cast<uint64_t>(ops));
}

// Total ops/s of two threads each running `op` for `ops` operations.
template <class F>
double TwoThreadRate(int ops, F&& op) {
    const auto t0 = Clock::now();
    std::thread a([&] { op(0, ops); });
    std::thread b([&] { op(1, ops); });
    a.join();
    b.join();
    return 2.0 * ops / std::chrono::duration<double>(Clock::now() - t0).count();
}

size_t HeapInUse() {
    return mallinfo2().uordblks;
}

void Print(const char* what, const Samples& s, const char* unit) {
    std::printf("  %-44s min %9.1f  median %9.1f %s\n", what, s.Min(), s.Median(), unit);
}

double LoadAverage() {
    double l[1] = {0};
    getloadavg(l, 1);
    return l[0];
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 5;
    auto services = std::make_shared<mctest::RecordingHostServices>();
    mctest::ScopedHostServices scoped(services);
    MC_Birth(false, 1, false);
    std::printf("rounds %d, load average at start %.2f, %u hardware threads\n", rounds,
                LoadAverage(), std::thread::hardware_concurrency());

    if (std::getenv("MC_BENCH_PROFILE_1K")) {
        McBag small(1000, false);
        const std::vector<uint32_t> ks = Keys(1000, 5, 1 << 16);
        double ns = 0;
        for (int r = 0; r < 40; ++r)
            ns = TimeOps(ks, kHitOps, [&](uint32_t k) {
                if (!small.Hit(k)) std::abort();
            });
        std::printf("%.1f\n", ns);
        return 0;
    }
    if (std::getenv("MC_BENCH_TRACE_ALLOCS")) {
        McBag b(10, true);
        IntrusivePtr<MC_Stuff> request = mctest::MakeRequest(3);
        if (!ReceiptHit(request)) std::abort();  // warm
        std::fprintf(stderr, "=== reused-request hit\n");
        t_traceAllocs = true;
        ReceiptHit(request);
        t_traceAllocs = false;
        std::fprintf(stderr, "=== built-request hit\n");
        t_traceAllocs = true;
        ReceiptHit(mctest::MakeRequest(4));
        t_traceAllocs = false;
        std::fprintf(stderr, "=== miss + insert\n");
        t_traceAllocs = true;
        MissInsert(100);
        t_traceAllocs = false;
        return 0;
    }

    // --- metadata per item -----------------------------------------------------------------
    constexpr uint32_t kMeta = 100'000;
    double mcMeta = 0, plainMeta = 0, tbbMeta = 0;
    {
        malloc_trim(0);
        const size_t h0 = HeapInUse();
        auto b = std::make_unique<McBag>(kMeta, false);
        const size_t h1 = HeapInUse();
        // Requests are not items of the bag: subtract one request per key measured alone.
        const size_t r0 = HeapInUse();
        std::vector<IntrusivePtr<MC_Stuff>> extra;
        for (uint32_t k = 0; k < 1000; ++k) extra.push_back(mctest::MakeRequest(k));
        const double perRequest = static_cast<double>(HeapInUse() - r0) / 1000.0;
        mcMeta = static_cast<double>(h1 - h0) / kMeta - perRequest - 64.0;
    }
    {
        const size_t h0 = HeapInUse();
        auto p = std::make_unique<PlainLru>(kMeta);
        plainMeta = static_cast<double>(HeapInUse() - h0) / kMeta - 64.0;
    }
#if MC_HAVE_TBB
    using TbbCache = tbb::concurrent_lru_cache<uint32_t, std::shared_ptr<std::vector<uint8_t>>>;
    {
        const size_t h0 = HeapInUse();
        auto t = std::make_unique<TbbCache>(
            [](uint32_t) { return std::make_shared<std::vector<uint8_t>>(64); }, kMeta);
        for (uint32_t k = 0; k < kMeta; ++k) (*t)[k];
        tbbMeta = static_cast<double>(HeapInUse() - h0) / kMeta - 64.0;
    }
#endif

    // --- hit, bag of 100,000, interleaved with the anchors ------------------------------
    constexpr uint32_t kItems = 100'000;
    Samples mcHit, mcNewReq, plainHit, tbbHit, mcLocal1k, mcLocal1M, allocsHit, allocsNew;
    Samples two, twoControl;
    {
        McBag global(kItems, true);
        PlainLru plain(kItems);
        McBag small(1000, false);
#if MC_HAVE_TBB
        TbbCache tbb([](uint32_t) { return std::make_shared<std::vector<uint8_t>>(64); }, kItems);
        for (uint32_t k = 0; k < kItems; ++k) tbb[k];
#endif
        const auto keys = Keys(kItems, 1, 1 << 20);
        const auto keys1k = Keys(1000, 3, 1 << 16);
        PlainLru own0(kItems), own1(kItems);
        PlainLru* own[2] = {&own0, &own1};
        const std::vector<std::vector<uint32_t>> threadKeys = {Keys(kItems, 4, 1 << 20),
                                                               Keys(kItems, 5, 1 << 20)};
        for (int r = 0; r < rounds; ++r) {
            uint64_t a0 = g_allocations.load();
            mcHit.v.push_back(TimeOps(keys, kHitOps, [&](uint32_t k) {
                if (!ReceiptHit(global.requests[k])) std::abort();
            }));
            allocsHit.v.push_back(static_cast<double>(g_allocations.load() - a0) / kHitOps);
            a0 = g_allocations.load();
            mcNewReq.v.push_back(TimeOps(keys, kHitOps, [&](uint32_t k) {
                if (!ReceiptHit(mctest::MakeRequest(k))) std::abort();
            }));
            allocsNew.v.push_back(static_cast<double>(g_allocations.load() - a0) / kHitOps);
            plainHit.v.push_back(TimeOps(keys, kHitOps, [&](uint32_t k) {
                if (!plain.Get(k)) std::abort();
            }));
#if MC_HAVE_TBB
            tbbHit.v.push_back(TimeOps(keys, kHitOps, [&](uint32_t k) {
                TbbCache::handle h = tbb[k];
                if (!h.value()) std::abort();
            }));
#endif
            mcLocal1k.v.push_back(TimeOps(keys1k, kHitOps, [&](uint32_t k) {
                if (!small.Hit(k)) std::abort();
            }));
            const double one = 1e9 / TimeOps(keys, kHitOps, [&](uint32_t k) {
                                   if (!ReceiptHit(global.requests[k])) std::abort();
                               });
            two.v.push_back(
                TwoThreadRate(kHitOps,
                              [&](int t, int ops) {
                                  const auto& ks = threadKeys[static_cast<size_t>(t)];
                                  for (int i = 0; i < ops; ++i)
                                      if (!ReceiptHit(global.requests[ks[static_cast<size_t>(i)]]))
                                          std::abort();
                              }) /
                one);
            const double oneControl = 1e9 / TimeOps(keys, kHitOps, [&](uint32_t k) {
                                          if (!own0.Get(k)) std::abort();
                                      });
            twoControl.v.push_back(
                TwoThreadRate(kHitOps,
                              [&](int t, int ops) {
                                  const auto& ks = threadKeys[static_cast<size_t>(t)];
                                  for (int i = 0; i < ops; ++i)
                                      if (!own[t]->Get(ks[static_cast<size_t>(i)])) std::abort();
                              }) /
                oneControl);
        }
    }
    // The 1,000,000-item bag is built once, after the others are gone.
    Samples mcLocal100k;
    {
        McBag big(1'000'000, false);
        McBag mid(kItems, false);
        const auto keysBig = Keys(1'000'000, 6, 1 << 20);
        const auto keysMid = Keys(kItems, 7, 1 << 20);
        for (int r = 0; r < rounds; ++r) {
            mcLocal100k.v.push_back(TimeOps(keysMid, kHitOps, [&](uint32_t k) {
                if (!mid.Hit(k)) std::abort();
            }));
            mcLocal1M.v.push_back(TimeOps(keysBig, kHitOps, [&](uint32_t k) {
                if (!big.Hit(k)) std::abort();
            }));
        }
    }

    // --- purge: ns per visited item, longest hold -------------------------------------------
    // Whole pass and the part of it under the cache lock (the purge's own hold counters).
    Samples purge100k, purge1M, held100k, held1M, longest1M, evict;
    for (int r = 0; r < rounds; ++r) {
        for (uint32_t n : {100'000u, 1'000'000u}) {
            if (n == 1'000'000u && r >= 2) continue;  // two rounds of the large pass
            std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
            for (uint32_t k = 0; k < n; ++k)
                mctest::MakeItem(10'000'000 + k, 1000)->AddToBagAndSortDir(bag);
            services->SetMemUsageLimits(uint64_t{n} * 1000, uint64_t{1} << 40);
            services->SetAmountToPurge(uint64_t{n} * 1000 / 2);
            MCp_Counters& counters = MCp_GetCounters();
            const uint64_t held0 = counters.purgeHeldNanos.load();
            counters.purgeLongestHoldNanos.store(0);
            const auto t0 = Clock::now();
            const int64_t freed = bag->FreeUpSomeMemory(0);
            const double ns = NsPer(Clock::now() - t0, n / 2);
            if (freed != int64_t{n} * 1000 / 2) std::abort();
            const double held =
                static_cast<double>(counters.purgeHeldNanos.load() - held0) / (n / 2);
            (n == 100'000u ? purge100k : purge1M).v.push_back(ns);
            (n == 100'000u ? held100k : held1M).v.push_back(held);
            if (n == 1'000'000u)
                longest1M.v.push_back(static_cast<double>(counters.purgeLongestHoldNanos) / 1e6);
            services->SetAmountToPurge(0);
            bag->ClearBagAndSortDir();
        }
        PlainLru lru(100'000, 1000);
        evict.v.push_back(lru.EvictNs(50'000));
    }

    // --- miss + insert, 1,000,000 items ---------------------------------------------------
    constexpr uint32_t kMissItems = 1'000'000;
    constexpr int kMissOps = 20'000;
    Samples mcMiss, tbbMiss, plainMiss, allocsMiss, allocsTbbMiss;
    {
        std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
        for (uint32_t k = 0; k < kMissItems; ++k)
            mctest::MakeItem(20'000'000 + k, 64)->AddToBagAndSortDir(bag);
        PlainLru plain(kMissItems);
#if MC_HAVE_TBB
        TbbCache tbb([](uint32_t) { return std::make_shared<std::vector<uint8_t>>(64); },
                     kMissItems);
        for (uint32_t k = 0; k < kMissItems; ++k) tbb[k];
#endif
        uint32_t next = 40'000'000;
        for (int r = 0; r < rounds; ++r) {
            uint64_t a0 = g_allocations.load();
            auto t0 = Clock::now();
            for (int i = 0; i < kMissOps; ++i) MissInsert(next++);
            mcMiss.v.push_back(NsPer(Clock::now() - t0, kMissOps));
            allocsMiss.v.push_back(static_cast<double>(g_allocations.load() - a0) / kMissOps);
            // Back to size, untimed: the purge frees the oldest payloads and drops their items.
            services->SetMemUsageLimits(uint64_t{kMissItems} * 64, uint64_t{1} << 40);
            services->SetAmountToPurge(uint64_t{kMissOps} * 64);
            bag->FreeUpSomeMemory(0);
            services->SetAmountToPurge(0);
            t0 = Clock::now();
            for (int i = 0; i < kMissOps; ++i) plain.InsertEvict(next++, 64);
            plainMiss.v.push_back(NsPer(Clock::now() - t0, kMissOps));
#if MC_HAVE_TBB
            a0 = g_allocations.load();
            t0 = Clock::now();
            for (int i = 0; i < kMissOps; ++i) {
                TbbCache::handle h = tbb[next++];
                if (!h.value()) std::abort();
            }
            tbbMiss.v.push_back(NsPer(Clock::now() - t0, kMissOps));
            allocsTbbMiss.v.push_back(static_cast<double>(g_allocations.load() - a0) / kMissOps);
#endif
        }
        bag->ClearBagAndSortDir();
    }

    std::printf("load average at end %.2f\n\n", LoadAverage());
    Print("MC receipt hit, bag 100k (ns)", mcHit, "");
    Print("  allocations per hit", allocsHit, "");
    Print("oneTBB hit (ns)", tbbHit, "");
    Print("plain LRU hit (ns)", plainHit, "");
    Print("MC hit, new request per lookup (ns)", mcNewReq, "");
    Print("  allocations per lookup", allocsNew, "");
    Print("MC bag hit, 1k items (ns)", mcLocal1k, "");
    Print("MC bag hit, 100k items (ns)", mcLocal100k, "");
    Print("MC bag hit, 1M items (ns)", mcLocal1M, "");
    Print("MC 2 threads / 1 thread (x)", two, "");
    Print("control, private LRUs, 2 / 1 (x)", twoControl, "");
    Print("purge per visited item, 100k (ns)", purge100k, "");
    Print("  of it under the cache lock (ns)", held100k, "");
    Print("purge per visited item, 1M (ns)", purge1M, "");
    Print("  of it under the cache lock (ns)", held1M, "");
    Print("  longest cache-lock hold, 1M (ms)", longest1M, "");
    Print("plain LRU eviction per item (ns)", evict, "");
    Print("MC miss + insert, 1M items (ns)", mcMiss, "");
    Print("  allocations per miss", allocsMiss, "");
    Print("oneTBB miss, 1M items (ns)", tbbMiss, "");
    Print("  allocations per oneTBB miss", allocsTbbMiss, "");
    Print("plain LRU insert + eviction, 1M items (ns)", plainMiss, "");
    std::printf("  metadata per item (bytes): MC %.0f, plain %.0f, oneTBB %.0f\n\n", mcMeta,
                plainMeta, tbbMeta);
    std::printf("ratios (median):\n");
    if (!tbbHit.v.empty())
        std::printf("  MC hit / oneTBB hit            %.2f  (goal <= 0.5)\n",
                    mcHit.Median() / tbbHit.Median());
    std::printf("  MC hit / plain LRU hit         %.2f\n", mcHit.Median() / plainHit.Median());
    std::printf("  hit growth 1k -> 1M            %.2f  (goal <= 1.3)\n",
                mcLocal1M.Median() / mcLocal1k.Median());
    std::printf("  new request / reused request   %.2f  (goal <= 1.5)\n",
                mcNewReq.Median() / mcHit.Median());
    std::printf("  purge 100k / plain eviction    %.1f (under the lock: %.1f; goal <= 100 ns)\n",
                purge100k.Median() / evict.Median(), held100k.Median() / evict.Median());
    if (!tbbMiss.v.empty())
        std::printf("  MC miss / oneTBB miss, 1M      %.2f  (goal <= 1.5)\n",
                    mcMiss.Median() / tbbMiss.Median());
    std::printf("  MC miss / plain LRU miss, 1M   %.2f\n", mcMiss.Median() / plainMiss.Median());
    MC_StopAllAsyncWork();
    MC_Death();
    return 0;
}
