// Compute check-outs through the loaded C example plug-in: misses, hits, distinct entries, host
// failures and receipt misuse; disposal under memory pressure (idle values exactly once, never a
// held one) and values outliving their class; from many threads, one computation per entry while
// others wait or are turned away, waiters released when a computation fails, and a soak of mixed
// check-outs against a concurrent purge. Every test ends with module death, which the fixture
// checks disposes every value once and leaves no receipt behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "HistogramPlugin.h"
#include "bag/Eventually.h"
#include "compute/ComputeReceipts.h"
#include "helpers/SharedLibrary.h"
#include "host/HostOps.h"
#include "mc/GenericMCComputeStuffData.h"
#include "mc/MC_ComputeCache.h"
#include "mc/MC_ScCheckout.h"
#include "support/ModuleFixture.h"

// The suite acquirer this host hands to PluginMain: looks (name, major, minor) up in the
// installed host services.
extern "C" int HostAcquireSuite(const char* name, int32_t major, int32_t minor,
                                const void** table) {
    return U_SP_AcquireSuite(name, major, minor, table);
}

namespace {

// The histogram plug-in's exported functions, resolved once per process.
struct HistogramPlugin {
    static const HistogramPlugin& Get() {
        static const HistogramPlugin plugin;
        return plugin;
    }
    HistogramCounters Counters() const {
        HistogramCounters c{};
        getCounters(&c);
        return c;
    }
    template <class F>
    F Fn(const char* name) const {
        F fn = library->Function<F>(name);
        if (!fn) throw std::runtime_error(library->Path().string() + " exports no " + name);
        return fn;
    }
    const std::unique_ptr<velacore::SharedLibrary> library =
        velacore::SharedLibrary::Open(MC_HISTOGRAM_PLUGIN_PATH);
    HistPluginShutdownFunc shutdown = Fn<HistPluginShutdownFunc>("HistPlugin_Shutdown");
    HistPluginUnregisterFunc unregisterClass =
        Fn<HistPluginUnregisterFunc>("HistPlugin_Unregister");
    HistPluginCheckoutFunc checkout = Fn<HistPluginCheckoutFunc>("HistPlugin_Checkout");
    HistPluginGetValueFunc getValue = Fn<HistPluginGetValueFunc>("HistPlugin_GetValue");
    HistPluginCheckinFunc checkin = Fn<HistPluginCheckinFunc>("HistPlugin_Checkin");
    HistPluginComputeDirectFunc computeDirect =
        Fn<HistPluginComputeDirectFunc>("HistPlugin_ComputeDirect");
    HistPluginSetComputeHookFunc setComputeHook =
        Fn<HistPluginSetComputeHookFunc>("HistPlugin_SetComputeHook");
    HistPluginGetCountersFunc getCounters = Fn<HistPluginGetCountersFunc>("HistPlugin_GetCounters");
};

// What the plug-in's Compute does before working: count its entry, block while held, and fail
// the next `failures` calls with `error`.
class ComputeHookControl {
public:
    static int Hook(void* self, const HistogramParams*) {
        auto& c = *static_cast<ComputeHookControl*>(self);
        std::unique_lock lock(c.mutex_);
        ++c.entered_;
        c.cv_.notify_all();
        c.cv_.wait(lock, [&] { return !c.holding_; });
        return c.failures_-- > 0 ? c.error_ : 0;
    }
    void Hold(bool hold = true) {
        std::lock_guard lock(mutex_);
        holding_ = hold;
        cv_.notify_all();
    }
    void Release() { Hold(false); }
    void FailNext(int count, int error) {
        std::lock_guard lock(mutex_);
        failures_ = count;
        error_ = error;
    }
    bool WaitForEntered(int n) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, std::chrono::seconds(50), [&] { return entered_ >= n; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool holding_ = false;
    int entered_ = 0, failures_ = 0, error_ = 0;
};

// Checks a receipt in when it goes out of scope (if the test has not done so).
class ScopedReceipt {
public:
    ScopedReceipt() = default;
    ~ScopedReceipt() { Checkin(); }
    ScopedReceipt(const ScopedReceipt&) = delete;
    ScopedReceipt& operator=(const ScopedReceipt&) = delete;
    ZKGP_ComputeReceipt* Out() { return &handle_; }
    ZKGP_ComputeReceipt Get() const { return handle_; }
    int Checkin() {
        const int result = handle_ ? HistogramPlugin::Get().checkin(handle_) : 0;
        handle_ = nullptr;
        return result;
    }

private:
    ZKGP_ComputeReceipt handle_ = nullptr;
};

inline bool SameBins(const HistogramValue& a, const HistogramValue& b) {
    return a.pixels == b.pixels && std::memcmp(a.bins, b.bins, sizeof a.bins) == 0;
}

// Purges go down to 200 bytes.
class ComputeCheckout : public mctest::ModuleTest {
protected:
    void ConfigureHost(mctest::RecordingHostServices& h) override {
        h.SetMemUsageLimits(2000, uint64_t{1} << 30);
    }
    void SetUp() override {
        ModuleTest::SetUp();
        MC_SP_Birth();
        plugin_ = &HistogramPlugin::Get();
        ASSERT_EQ(plugin_->Fn<ZKGP_PluginMainFunc>(kZKGP_PluginMainName)(&HostAcquireSuite), 0);
        plugin_->setComputeHook(&ComputeHookControl::Hook, &hook_);
        start_ = plugin_->Counters();
    }
    void TearDown() override {
        if (!plugin_) return ModuleTest::TearDown();
        hook_.Release();
        plugin_->setComputeHook(nullptr, nullptr);
        EXPECT_EQ(plugin_->shutdown(), 0);
        EXPECT_EQ(MCp_ComputeReceipts::Instance().LiveCount(), 0u)
            << "a receipt was not checked in";
        ModuleTest::TearDown();
        // Module death releases every cached value: each one computed is disposed exactly once.
        EXPECT_EQ(plugin_->Counters().liveValues, start_.liveValues);
    }

    const HistogramPlugin& plugin() const { return *plugin_; }
    // The plug-in's counters since SetUp.
    HistogramCounters Delta() const {
        const HistogramCounters n = plugin_->Counters();
        return {n.keys - start_.keys, n.computes - start_.computes, n.disposes - start_.disposes,
                n.liveValues - start_.liveValues};
    }
    // A small image; distinct seeds give distinct keys.
    static HistogramParams Params(uint32_t seed, uint32_t width = 64, uint32_t height = 48,
                                  uint32_t gradient = 96) {
        return HistogramParams{width, height, seed, gradient};
    }
    HistogramValue Direct(const HistogramParams& p, bool inverted = false) const {
        HistogramValue v{};
        plugin_->computeDirect(&p, inverted ? 1 : 0, &v);
        return v;
    }
    int Checkout(const HistogramParams& p, int mode, ZKGP_ComputeReceipt* receipt,
                 const char* className = kHistogramClass) const {
        return plugin_->checkout(className, &p, mode, receipt);
    }
    // The receipt's value; null (and a test failure) when ReceiptGetValue fails.
    const HistogramValue* ValueOf(ZKGP_ComputeReceipt receipt) const {
        const HistogramValue* value = nullptr;
        EXPECT_EQ(plugin_->getValue(receipt, &value), 0);
        return value;
    }
    // The cache item behind a receipt handle.
    static IntrusivePtr<MC_Stuff> ItemOf(ZKGP_ComputeReceipt receipt) {
        return reinterpret_cast<MC_ScCheckout*>(receipt)->GetStuffPtr();
    }
    // Computes `n` entries (seeds first..first+n-1) and checks them all in.
    void ComputeIdle(uint32_t first, int n, const char* className = kHistogramClass) {
        for (int i = 0; i < n; ++i) {
            ScopedReceipt r;
            ASSERT_EQ(Checkout(Params(first + i), 1, r.Out(), className), 0);
        }
    }
    int64_t PurgeEverythingIdle() {
        host().SetAmountToPurge(uint64_t{1} << 30);
        const int64_t freed = bag_->FreeUpSomeMemory(0);
        host().SetAmountToPurge(0);
        return freed;
    }
    static constexpr int64_t kValueSize = sizeof(HistogramValue);

    const HistogramPlugin* plugin_ = nullptr;
    ComputeHookControl hook_;
    HistogramCounters start_{};
};

TEST_F(ComputeCheckout, AMissComputesOnceHitsShareTheValueAndEachKeyHasItsOwnEntry) {
    const HistogramParams p = Params(2, 30, 20, 0);
    ScopedReceipt first, cached, again, inverted, other;
    EXPECT_EQ(Checkout(p, 0, first.Out()), ZKGP_ComputeResult_NotAvailable);  // cold
    EXPECT_EQ(bag_->GetNumItems(), 0);

    ASSERT_EQ(Checkout(p, 1, first.Out()), 0);
    const HistogramValue* value = ValueOf(first.Get());
    ASSERT_NE(value, nullptr);
    EXPECT_TRUE(SameBins(*value, Direct(p)));
    ASSERT_EQ(Checkout(p, 0, cached.Out()), 0);
    ASSERT_EQ(Checkout(p, 2, again.Out()), 0);
    EXPECT_EQ(ValueOf(cached.Get()), value);
    EXPECT_EQ(ValueOf(again.Get()), value);
    EXPECT_EQ(Delta().computes, 1);

    const IntrusivePtr<MC_Stuff> item = ItemOf(first.Get());
    EXPECT_EQ(item->GetCheckoutCount(), 3u);
    EXPECT_TRUE(item->IsInMemory() && !item->IsPendingRender());
    auto* payload = dynamic_cast<GenericMCComputeStuffData*>(item->GetDataPtr().get());
    ASSERT_NE(payload, nullptr);
    EXPECT_FALSE(payload->CanDiskCache());
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), int64_t{sizeof(HistogramValue)});

    // Same key under the other class, and parameters that differ in one field: new entries.
    ASSERT_EQ(Checkout(p, 1, inverted.Out(), kInvertedHistogramClass), 0);
    EXPECT_TRUE(SameBins(*ValueOf(inverted.Get()), Direct(p, true)));
    ASSERT_EQ(Checkout(Params(2, 30, 20, 1), 1, other.Out()), 0);
    EXPECT_EQ(Delta().computes, 3);
    EXPECT_EQ(bag_->GetNumItems(), 3);

    for (ScopedReceipt* r : {&first, &cached, &again}) EXPECT_EQ(r->Checkin(), 0);
    EXPECT_EQ(item->GetCheckoutCount(), 0u);
    EXPECT_EQ(Delta().disposes, 0) << "check-in keeps the value cached";
    ASSERT_EQ(Checkout(p, 0, first.Out()), 0);
    EXPECT_EQ(ValueOf(first.Get()), value);
}

TEST_F(ComputeCheckout, MisuseAndHostFailuresYieldTheirCodesWithTheirReports) {
    const HistogramParams p = Params(9);
    ScopedReceipt held;
    ASSERT_EQ(Checkout(p, 1, held.Out()), 0);
    ZKGP_ComputeReceipt reused = held.Get();
    EXPECT_EQ(Checkout(p, 2, &reused), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(reused, held.Get()) << "the handle is left alone";
    EXPECT_EQ(ItemOf(held.Get())->GetCheckoutCount(), 1u) << "nothing was checked out";

    host().SetFailAllocations(true);  // no receipt block: the entry is checked in again
    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(Checkout(p, 0, &receipt), ZKGP_ComputeResult_BadParameter);
    host().SetFailAllocations(false);
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(ItemOf(held.Get())->GetCheckoutCount(), 1u);

    ASSERT_EQ(Checkout(Params(15), 1, &receipt), 0);
    ASSERT_EQ(plugin().checkin(receipt), 0);
    const HistogramValue* stale = nullptr;
    EXPECT_EQ(plugin().getValue(receipt, &stale), ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(plugin().checkin(nullptr), 0);  // accepted silently
    EXPECT_EQ(plugin().checkin(receipt), ZKGP_ComputeResult_InvalidReceipt) << "double check-in";
    int notAReceipt = 0;
    EXPECT_EQ(plugin().checkin(reinterpret_cast<ZKGP_ComputeReceipt>(&notAReceipt)),
              ZKGP_ComputeResult_InvalidReceipt);
    EXPECT_EQ(host().FailedVerifications(),
              (std::vector<std::string>{"unexpected: receipt already exists. improper receipt use?",
                                        "MCCompute alloc failure",
                                        "bad compute receipt or not checked out"}));
    EXPECT_EQ(host().Errors().size(), 2u);
    EXPECT_EQ(Delta().computes, 2);
}

TEST_F(ComputeCheckout, PressureDisposesIdleValuesOnceAndNeverAHeldOne) {
    ScopedReceipt held;
    ASSERT_EQ(Checkout(Params(20), 1, held.Out()), 0);
    const HistogramValue* value = ValueOf(held.Get());
    ComputeIdle(21, 4);
    EXPECT_EQ(bag_->GetInMemoryCacheSizeInBytes_LockFree(), 5 * kValueSize);
    EXPECT_EQ(PurgeEverythingIdle(), 4 * kValueSize);
    EXPECT_EQ(Delta().disposes, 4);
    EXPECT_EQ(bag_->GetNumItems(), 1) << "purged entries leave the bag";
    EXPECT_TRUE(SameBins(*value, Direct(Params(20))));  // intact (ASan would see a freed one)
    EXPECT_EQ(PurgeEverythingIdle(), 0);

    EXPECT_EQ(held.Checkin(), 0);
    EXPECT_EQ(Delta().disposes, 4) << "check-in alone frees nothing";
    EXPECT_EQ(PurgeEverythingIdle(), kValueSize);
    EXPECT_EQ(Delta().disposes, 5);
    ASSERT_EQ(Checkout(Params(21), 1, held.Out()), 0);
    EXPECT_EQ(Delta().computes, 6) << "a purged value is computed again";
}

TEST_F(ComputeCheckout, ValuesOutliveTheirClassAndDieWithTheModule) {
    ComputeIdle(30, 3);
    ComputeIdle(30, 2, kInvertedHistogramClass);
    ScopedReceipt held;
    ASSERT_EQ(Checkout(Params(30), 0, held.Out()), 0);
    ASSERT_EQ(plugin().unregisterClass(kHistogramClass), 0);
    ZKGP_ComputeReceipt receipt = nullptr;
    for (int mode = 0; mode < 3; ++mode)
        EXPECT_EQ(Checkout(Params(30), mode, &receipt), ZKGP_ComputeResult_NoSuchClass);
    auto* payload =
        dynamic_cast<GenericMCComputeStuffData*>(ItemOf(held.Get())->GetDataPtr().get());
    ASSERT_NE(payload, nullptr);
    EXPECT_EQ(payload->GetApproximateMemorySize(), kValueSize) << "sized through its own copy";
    EXPECT_EQ(held.Checkin(), 0);
    ASSERT_EQ(Checkout(Params(30), 1, held.Out(), kInvertedHistogramClass), 0);  // untouched
    EXPECT_EQ(held.Checkin(), 0);
    EXPECT_EQ(PurgeEverythingIdle(), 5 * kValueSize);
    EXPECT_EQ(Delta().disposes, 5) << "disposed through the stored callbacks";
}

// Threads that want the same value while it is computed: the others provably wait (a caller that
// will not wait is turned away at once) and all are released. First the computation fails: its
// code comes back, nothing is left behind, and the waiter finds the abandoned entry without a
// value (refused as corrupt). Then eight threads share one computation.
TEST_F(ComputeCheckout, WaitersAreReleasedAfterAFailureAndShareOneComputation) {
    const HistogramParams p = Params(100, 256, 256, 64);
    for (const int threads : {2, 8}) {
        SCOPED_TRACE(threads);
        std::vector<int> results(threads, -1);
        std::vector<const HistogramValue*> values(threads, nullptr);
        std::vector<ZKGP_ComputeReceipt> receipts(threads, nullptr);
        hook_.Hold();
        if (threads == 2) hook_.FailNext(1, -55);
        const uint32_t waits = counters().pendingWaits.load();
        std::thread waiters(mctest::RunThreads, threads, [&](int t) {
            results[t] = Checkout(p, 2, &receipts[t]);
            if (results[t] == 0) plugin().getValue(receipts[t], &values[t]);
        });
        ASSERT_TRUE(hook_.WaitForEntered(threads == 2 ? 1 : 2));
        ASSERT_TRUE(mctest::Eventually(
            [&] { return counters().pendingWaits.load() - waits >= uint32_t(threads - 1); }));
        ZKGP_ComputeReceipt receipt = nullptr;
        EXPECT_EQ(Checkout(p, 1, &receipt), ZKGP_ComputeResult_NotAvailable);
        EXPECT_EQ(Checkout(p, 0, &receipt), ZKGP_ComputeResult_NotAvailable);
        EXPECT_EQ(receipt, nullptr);
        EXPECT_EQ(counters().pendingWaits.load() - waits, threads - 1u) << "no wait without mode 2";
        hook_.Release();
        waiters.join();
        if (threads == 2) {
            std::sort(results.begin(), results.end());
            EXPECT_EQ(results, (std::vector<int>{-55, ZKGP_ComputeResult_BadParameter}));
            EXPECT_EQ(receipts, (std::vector<ZKGP_ComputeReceipt>{nullptr, nullptr}));
            EXPECT_EQ(host().FailedVerifications(),
                      std::vector<std::string>{
                          "MCCompute unexpected stuff of wrong type. corrupt cache??"});
            EXPECT_EQ(bag_->GetNumItems(), 0);
            continue;
        }
        EXPECT_EQ(results, std::vector<int>(threads, 0));
        EXPECT_EQ(values, std::vector<const HistogramValue*>(threads, values[0]));
        EXPECT_EQ(Delta().computes, 1);
        ASSERT_NE(values[0], nullptr);
        EXPECT_TRUE(SameBins(*values[0], Direct(p)));
        for (ZKGP_ComputeReceipt r : receipts) EXPECT_EQ(plugin().checkin(r), 0);
    }
}

// Mixed check-outs of a few entries from several threads while another thread keeps purging
// whatever is idle. Every receipt must show the value of its own parameters, intact, and every
// computed value must be disposed exactly once in the end.
TEST_F(ComputeCheckout, MixedCheckoutsAgainstAConcurrentPurgeStayConsistent) {
    constexpr int kSeeds = 6;
    std::vector<HistogramParams> params;
    std::vector<HistogramValue> direct[2];
    for (uint32_t s = 0; s < kSeeds; ++s) {
        params.push_back(Params(200 + s, 32 + s, 24, 40 * s));
        direct[0].push_back(Direct(params.back(), false));
        direct[1].push_back(Direct(params.back(), true));
    }
    host().SetAmountToPurge(uint64_t{1} << 30);
    std::atomic<int> bad{0}, handedOut{0};
    {
        mctest::Repeat purger([&] { bag_->FreeUpSomeMemory(0); });
        mctest::RunThreads(6, [&](int t) {
            std::mt19937 rng(static_cast<unsigned>(t) * 7919u + 1u);
            for (int i = 0; i < 300; ++i) {
                const uint32_t seed = rng() % kSeeds, cls = rng() % 2, mode = rng() % 3;
                ZKGP_ComputeReceipt r = nullptr;
                const int result = Checkout(params[seed], static_cast<int>(mode), &r,
                                            cls ? kInvertedHistogramClass : kHistogramClass);
                if (result == ZKGP_ComputeResult_NotAvailable && mode != 2) continue;
                const HistogramValue* v = nullptr;
                // A wrong code, a failing or foreign value, a refused check-in: all bad.
                if (result != 0 || plugin().getValue(r, &v) != 0 || !v ||
                    !SameBins(*v, direct[cls][seed]))
                    bad.fetch_add(1);
                if (result == 0 && plugin().checkin(r) != 0) bad.fetch_add(1);
                handedOut.fetch_add(result == 0);
            }
        });
    }
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(handedOut.load(), 0);
    EXPECT_TRUE(host().FailedVerifications().empty());
    // Everything is idle now: one more purge frees every value that is left.
    bag_->FreeUpSomeMemory(0);
    const HistogramCounters d = Delta();
    EXPECT_EQ(d.disposes, d.computes);
    EXPECT_EQ(bag_->GetNumItems(), 0);
}

// The compute-class registry: required callbacks, first registration wins, exact names, copies
// in and out, life beyond module death, and whole records under concurrent use.
constexpr ZKGP_ComputeCacheCallbacks kA{[](const void*, ZKGP_GUID*) { return 0; },
                                        [](const void*, void**) { return 42; },
                                        [](const void*) -> uint64_t { return 1; }, [](void*) {}};
constexpr ZKGP_ComputeCacheCallbacks kB{[](const void*, ZKGP_GUID*) { return 1; }, kA.Compute,
                                        kA.ApproximateSize, kA.DisposeValue};

// 'A', 'B' for a found record, '-' for none; a failed find leaves its output alone.
char Find(const char* name) {
    ZKGP_ComputeCacheCallbacks out = kB;
    const int r = MC_ComputeClassFind(name, &out);
    if (r != 0) {
        EXPECT_TRUE(r == ZKGP_ComputeResult_NoSuchClass && out.GenerateKey == kB.GenerateKey);
        return '-';
    }
    EXPECT_TRUE(out.Compute == kA.Compute && out.DisposeValue == kA.DisposeValue);
    return out.GenerateKey == kA.GenerateKey ? 'A' : 'B';
}

// Registers a copy of `record` with callback `missing` (0..3) cleared; the copy is spoiled
// afterwards, so the registry must have kept its own.
std::function<int()> Reg(const char* name, ZKGP_ComputeCacheCallbacks record, int missing = -1) {
    return [=]() mutable {
        void** slots[] = {reinterpret_cast<void**>(&record.GenerateKey),
                          reinterpret_cast<void**>(&record.Compute),
                          reinterpret_cast<void**>(&record.ApproximateSize),
                          reinterpret_cast<void**>(&record.DisposeValue)};
        if (missing >= 0) *slots[missing] = nullptr;
        const int r = MC_ComputeClassRegister(name, &record);
        record.GenerateKey = nullptr;
        return r;
    };
}
std::function<int()> Unreg(const char* name) {
    return [=] { return MC_ComputeClassUnregister(name); };
}

class Registry : public mctest::ModuleTest {
protected:
    void TearDown() override {
        for (const char* name : {"A", "Alpha", "alpha", "", "x", "durable"})
            MC_ComputeClassUnregister(name);
        ModuleTest::TearDown();
    }
};

TEST_F(Registry, Rules) {
    constexpr int kBad = ZKGP_ComputeResult_BadParameter;
    struct Row {
        const char* what;
        std::function<int()> call;
        int result;
        const char* found;  // Find for "A", "Alph", "Alpha", "alpha", "", "x" afterwards
    };
    const Row rows[] = {
        {"register", Reg("A", kA), 0, "A-----"},
        {"the first registration wins", Reg("A", kB), 0, "A-----"},
        {"unregister", Unreg("A"), 0, "------"},
        {"a new registration after that", Reg("A", kB), 0, "B-----"},
        {"names are exact byte strings", Reg("Alpha", kA), 0, "B-A---"},
        {"case matters", Reg("alpha", kB), 0, "B-AB--"},
        {"the empty name", Reg("", kB), 0, "B-ABB-"},
        {"no case-folding on unregister", Unreg("ALPHA"), 0, "B-ABB-"},
        {"unregister the empty name", Unreg(""), 0, "B-AB--"},
        {"no GenerateKey", Reg("x", kA, 0), kBad, "B-AB--"},
        {"no Compute", Reg("x", kA, 1), kBad, "B-AB--"},
        {"no ApproximateSize", Reg("x", kA, 2), kBad, "B-AB--"},
        {"no DisposeValue", Reg("x", kA, 3), kBad, "B-AB--"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        host().ClearRecords();
        EXPECT_EQ(row.call(), row.result);
        const std::string found{Find("A"),     Find("Alph"), Find("Alpha"),
                                Find("alpha"), Find(""),     Find("x")};
        EXPECT_EQ(found, row.found);
        EXPECT_EQ(host().FailedVerifications().size(), row.result == 0 ? 0u : 1u);
    }

    // Classes outlive the module.
    ASSERT_EQ(MC_ComputeClassRegister("durable", &kA), 0);
    MC_StopAllAsyncWork();
    MC_Death();
    MC_Birth(false, kAppVersion, false);
    EXPECT_EQ(Find("durable"), 'A');
}

// Registrations, unregistrations and lookups from many threads at once: each lookup sees either
// nothing or exactly the record its name was registered with.
TEST_F(Registry, ConcurrentUseSeesWholeRecordsOnly) {
    std::atomic<int> bad{0};
    mctest::RunThreads(8, [&](int t) {
        for (int i = 0; i < 1500; ++i) {
            const int n = (i * 7 + t) % 12;
            const std::string name = "busy-" + std::to_string(n);
            const ZKGP_ComputeCacheCallbacks& mine = n % 2 == 0 ? kA : kB;
            ZKGP_ComputeCacheCallbacks out{};
            int r = 0;
            if ((i + t) % 3 == 0) r = MC_ComputeClassRegister(name.c_str(), &mine);
            if ((i + t) % 3 == 1) r = MC_ComputeClassUnregister(name.c_str());
            if ((i + t) % 3 == 2) {
                r = MC_ComputeClassFind(name.c_str(), &out);
                if (r == 0 && (out.GenerateKey != mine.GenerateKey || !out.DisposeValue)) r = 1;
                if (r == ZKGP_ComputeResult_NoSuchClass) r = 0;
            }
            if (r != 0) bad.fetch_add(1);
        }
    });
    for (int n = 0; n < 12; ++n) MC_ComputeClassUnregister(("busy-" + std::to_string(n)).c_str());
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
