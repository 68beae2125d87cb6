// Shared pieces of the compute-cache tests: the histogram example plug-in loaded through the
// plug-in entry convention, a controllable compute hook, and a fixture that starts the module,
// publishes the suite and runs the plug-in's PluginMain around each test. At the end of each
// test every receipt must have been checked in and module death must dispose every value once.
// Thread-safety: the fixture belongs to the test's main thread; ComputeHookControl and the
// plug-in functions may be used from any thread.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "HistogramPlugin.h"
#include "host/WaitUntil.h"
#include "mc/MC_ComputeCache.h"
#include "mc/MC_ScCheckout.h"
#include "support/ModuleFixture.h"
#include "support/PluginLoader.h"

namespace computetest {

using hosttest::WaitUntil;

// The histogram plug-in's exported functions, resolved once per process.
struct HistogramPlugin {
    HistPluginShutdownFunc shutdown;
    HistPluginUnregisterFunc unregisterClass;
    HistPluginCheckoutFunc checkout;
    HistPluginGetValueFunc getValue;
    HistPluginCheckinFunc checkin;
    HistPluginComputeDirectFunc computeDirect;
    HistPluginSetComputeHookFunc setComputeHook;
    HistPluginGetCountersFunc getCounters;

    static const HistogramPlugin& Get();
    static const mctest::PluginLoader& Loader();
    HistogramCounters Counters() const;
};

// What the plug-in's Compute does before working, as the test decides: count, hold until
// released, fail with a given error.
class ComputeHookControl {
public:
    static int Hook(void* self, const HistogramParams* params);
    // While holding, every Compute blocks in the hook until Release.
    void Hold() { Set(holding_, true); }
    void Release() { Set(holding_, false); }
    // The next `count` Computes fail with `error`.
    void FailNext(int count, int error);
    // Waits until `n` Computes have entered the hook in total.
    bool WaitForEntered(int n);
    int Entered() const;

private:
    void Set(bool& field, bool value);

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool holding_ = false;
    int entered_ = 0;
    int failures_ = 0;
    int failError_ = 0;
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
    int Checkin();

private:
    ZKGP_ComputeReceipt handle_ = nullptr;
};

class ComputeTest : public mctest::ModuleTest {
protected:
    static constexpr const char* kReceiptLabel = "ZKGP_MCComputeReceipt";

    void SetUp() override;
    void TearDown() override;

    const HistogramPlugin& plugin() const { return *plugin_; }
    // The plug-in's counters since SetUp.
    HistogramCounters Delta() const;
    // A small image; distinct seeds give distinct keys.
    static HistogramParams Params(uint32_t seed, uint32_t width = 64, uint32_t height = 48,
                                  uint32_t gradient = 96) {
        return HistogramParams{width, height, seed, gradient};
    }
    HistogramValue Direct(const HistogramParams& p, bool inverted = false) const;
    int Checkout(const HistogramParams& p, int mode, ZKGP_ComputeReceipt* receipt,
                 const char* className = kHistogramClass) const {
        return plugin_->checkout(className, &p, mode, receipt);
    }
    // The receipt's value; null (and a test failure) when ReceiptGetValue fails.
    const HistogramValue* ValueOf(ZKGP_ComputeReceipt receipt) const;
    // The cache item behind a receipt handle.
    static IntrusivePtr<MC_Stuff> ItemOf(ZKGP_ComputeReceipt receipt) {
        return reinterpret_cast<MC_ScCheckout*>(receipt)->GetStuffPtr();
    }
    uint64_t ReceiptBytes() { return host().AllocatedBytes(kReceiptLabel); }

    const HistogramPlugin* plugin_ = nullptr;
    ComputeHookControl hook_;
    HistogramCounters start_{};
};

bool SameBins(const HistogramValue& a, const HistogramValue& b);

}  // namespace computetest
