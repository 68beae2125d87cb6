// Compute check-outs through the loaded C example plug-in: misses, hits, distinct entries, host
// failures and receipt misuse; disposal under memory pressure (idle values exactly once, never a
// held one) and values outliving their class; from many threads, one computation per entry while
// others wait or are turned away, waiters released when a computation fails, and a soak of mixed
// check-outs against a concurrent purge. Every test ends with module death, which the fixture
// checks disposes every value once and leaves no receipt behind.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
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
class ComputeTest : public mctest::ModuleTest {
protected:
    void ConfigureHost(mctest::RecordingHostServices& h) override {
        h.SetMemUsageLimits(2000, uint64_t{1} << 30);
    }
    void SetUp() override {
        ModuleTest::SetUp();
        MC_SP_Birth();
        waitsAtStart_ = counters().pendingWaits.load();
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
    uint32_t PendingWaitsSinceStart() { return counters().pendingWaits.load() - waitsAtStart_; }
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
    uint32_t waitsAtStart_ = 0;
};

using ComputeCheckout = ComputeTest;

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

// Eight threads wait for one value: it is computed once, and only released once all seven others
// provably wait; meanwhile a caller that will not wait is turned away at once.
TEST_F(ComputeCheckout, EightThreadsWaitingForTheSameValueComputeItOnce) {
    constexpr int kThreads = 8;
    const HistogramParams p = Params(100, 256, 256, 64);
    hook_.Hold();
    std::vector<int> results(kThreads, -1);
    std::vector<const HistogramValue*> values(kThreads, nullptr);
    std::vector<ZKGP_ComputeReceipt> receipts(kThreads, nullptr);
    std::thread waiters(mctest::RunThreads, kThreads, [&](int t) {
        results[t] = Checkout(p, 2, &receipts[t]);
        if (results[t] == 0) plugin().getValue(receipts[t], &values[t]);
    });
    ASSERT_TRUE(hook_.WaitForEntered(1));
    ASSERT_TRUE(mctest::Eventually([&] { return PendingWaitsSinceStart() >= kThreads - 1; }));
    ZKGP_ComputeReceipt receipt = nullptr;
    EXPECT_EQ(Checkout(p, 1, &receipt), ZKGP_ComputeResult_NotAvailable);
    EXPECT_EQ(Checkout(p, 0, &receipt), ZKGP_ComputeResult_NotAvailable);
    EXPECT_EQ(receipt, nullptr);
    EXPECT_EQ(PendingWaitsSinceStart(), kThreads - 1u) << "no wait without mode 2";
    hook_.Release();
    waiters.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(results[t], 0) << "thread " << t;
        EXPECT_EQ(values[t], values[0]) << "thread " << t;
    }
    EXPECT_EQ(Delta().computes, 1);
    ASSERT_NE(values[0], nullptr);
    EXPECT_TRUE(SameBins(*values[0], Direct(p)));
    for (ZKGP_ComputeReceipt r : receipts) EXPECT_EQ(plugin().checkin(r), 0);
}

// A failed computation returns its code, leaves nothing behind and releases its waiter; a later
// call computes again.
TEST_F(ComputeCheckout, WaitersAreReleasedWhenTheComputationFails) {
    const HistogramParams p = Params(102);
    hook_.Hold();
    hook_.FailNext(1, -55);
    ZKGP_ComputeReceipt creatorReceipt = nullptr, waiterReceipt = nullptr;
    int creator = 0, waiter = 0;
    std::thread first([&] { creator = Checkout(p, 2, &creatorReceipt); });
    ASSERT_TRUE(hook_.WaitForEntered(1));
    std::thread second([&] { waiter = Checkout(p, 2, &waiterReceipt); });
    ASSERT_TRUE(mctest::Eventually([&] { return PendingWaitsSinceStart() >= 1; }));
    hook_.Release();
    first.join();
    second.join();

    EXPECT_EQ(creator, -55);
    // The waiter finds the abandoned entry without a value: refused as a corrupt entry.
    EXPECT_EQ(waiter, ZKGP_ComputeResult_BadParameter);
    EXPECT_EQ(creatorReceipt, nullptr);
    EXPECT_EQ(waiterReceipt, nullptr);
    EXPECT_EQ(
        host().FailedVerifications(),
        std::vector<std::string>{"MCCompute unexpected stuff of wrong type. corrupt cache??"});
    EXPECT_EQ(bag_->GetNumItems(), 0);

    ScopedReceipt retry;
    ASSERT_EQ(Checkout(p, 2, retry.Out()), 0);
    EXPECT_EQ(Delta().computes, 1);
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

}  // namespace
