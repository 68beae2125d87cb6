// Shared pieces of the compute-cache tests: the histogram example plug-in loaded through the
// plug-in entry convention, a controllable compute hook, and a fixture that starts the module,
// publishes the suite and runs the plug-in's PluginMain around each test. At the end of each
// test every receipt must have been checked in and module death must dispose every value once.
// Thread-safety: the fixture belongs to the test's main thread; ComputeHookControl and the
// plug-in functions may be used from any thread.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <mutex>

#include "HistogramPlugin.h"
#include "bag/Eventually.h"
#include "compute/ComputeReceipts.h"
#include "mc/MC_ComputeCache.h"
#include "mc/MC_ScCheckout.h"
#include "support/ModuleFixture.h"
#include "support/PluginLoader.h"

namespace computetest {

// The histogram plug-in's exported functions, resolved once per process.
struct HistogramPlugin {
    static const mctest::PluginLoader& Loader() {
        static const mctest::PluginLoader loader(MC_HISTOGRAM_PLUGIN_PATH);
        return loader;
    }
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
    static F Fn(const char* name) {
        return Loader().Require<F>(name);
    }
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

class ComputeTest : public mctest::ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        MC_SP_Birth();
        plugin_ = &HistogramPlugin::Get();
        ASSERT_EQ(HistogramPlugin::Loader().CallMain(), 0);
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

}  // namespace computetest
