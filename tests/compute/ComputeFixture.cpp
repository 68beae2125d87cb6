// The compute tests' plug-in binding, hook control and fixture.
#include "ComputeFixture.h"

#include <cstring>
#include <thread>

#include "compute/ComputeReceipts.h"

namespace computetest {

const mctest::PluginLoader& HistogramPlugin::Loader() {
    static const mctest::PluginLoader loader(MC_HISTOGRAM_PLUGIN_PATH);
    return loader;
}

const HistogramPlugin& HistogramPlugin::Get() {
    static const HistogramPlugin plugin = [] {
        const mctest::PluginLoader& l = Loader();
        HistogramPlugin p{};
        p.shutdown = l.Require<HistPluginShutdownFunc>("HistPlugin_Shutdown");
        p.unregisterClass = l.Require<HistPluginUnregisterFunc>("HistPlugin_Unregister");
        p.checkout = l.Require<HistPluginCheckoutFunc>("HistPlugin_Checkout");
        p.getValue = l.Require<HistPluginGetValueFunc>("HistPlugin_GetValue");
        p.checkin = l.Require<HistPluginCheckinFunc>("HistPlugin_Checkin");
        p.getHistogram = l.Require<HistPluginGetHistogramFunc>("HistPlugin_GetHistogram");
        p.computeDirect = l.Require<HistPluginComputeDirectFunc>("HistPlugin_ComputeDirect");
        p.setComputeHook = l.Require<HistPluginSetComputeHookFunc>("HistPlugin_SetComputeHook");
        p.getCounters = l.Require<HistPluginGetCountersFunc>("HistPlugin_GetCounters");
        return p;
    }();
    return plugin;
}

HistogramCounters HistogramPlugin::Counters() const {
    HistogramCounters c{};
    getCounters(&c);
    return c;
}

// --- ComputeHookControl ----------------------------------------------------------------------

int ComputeHookControl::Hook(void* self, const HistogramParams*) {
    return static_cast<ComputeHookControl*>(self)->OnCompute();
}

int ComputeHookControl::OnCompute() {
    std::unique_lock lock(mutex_);
    ++entered_;
    cv_.notify_all();
    cv_.wait_for(lock, kHangLimit, [&] { return !holding_; });
    if (failures_ > 0) {
        --failures_;
        return failError_;
    }
    return 0;
}

void ComputeHookControl::Hold() {
    std::lock_guard lock(mutex_);
    holding_ = true;
}

void ComputeHookControl::Release() {
    {
        std::lock_guard lock(mutex_);
        holding_ = false;
    }
    cv_.notify_all();
}

void ComputeHookControl::FailNext(int count, int error) {
    std::lock_guard lock(mutex_);
    failures_ = count;
    failError_ = error;
}

bool ComputeHookControl::WaitForEntered(int n) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, kHangLimit, [&] { return entered_ >= n; });
}

int ComputeHookControl::Entered() const {
    std::lock_guard lock(mutex_);
    return entered_;
}

// --- ScopedReceipt ---------------------------------------------------------------------------

int ScopedReceipt::Checkin() {
    if (!handle_) return 0;
    const int result = HistogramPlugin::Get().checkin(handle_);
    handle_ = nullptr;
    return result;
}

// --- ComputeTest -----------------------------------------------------------------------------

void ComputeTest::SetUp() {
    ModuleTest::SetUp();
    MC_SP_Birth();
    plugin_ = &HistogramPlugin::Get();
    ASSERT_EQ(HistogramPlugin::Loader().CallMain(), 0);
    plugin_->setComputeHook(&ComputeHookControl::Hook, &hook_);
    start_ = plugin_->Counters();
}

void ComputeTest::TearDown() {
    if (!plugin_) return ModuleTest::TearDown();
    hook_.Release();
    plugin_->setComputeHook(nullptr, nullptr);
    EXPECT_EQ(plugin_->shutdown(), 0);
    EXPECT_EQ(MCp_ComputeReceipts::Instance().LiveCount(), 0u) << "a receipt was not checked in";
    ModuleTest::TearDown();
    // Module death releases every cached value: each one computed is disposed exactly once.
    EXPECT_EQ(plugin_->Counters().liveValues, start_.liveValues);
}

HistogramCounters ComputeTest::Delta() const {
    const HistogramCounters now = plugin_->Counters();
    return {now.keys - start_.keys, now.computes - start_.computes, now.disposes - start_.disposes,
            now.liveValues - start_.liveValues};
}

HistogramParams ComputeTest::Params(uint32_t seed, uint32_t width, uint32_t height,
                                    uint32_t gradient) {
    return HistogramParams{width, height, seed, gradient};
}

HistogramValue ComputeTest::Direct(const HistogramParams& p, bool inverted) const {
    HistogramValue v{};
    plugin_->computeDirect(&p, inverted ? 1 : 0, &v);
    return v;
}

int ComputeTest::Checkout(const HistogramParams& p, int mode, ZKGP_ComputeReceipt* receipt,
                          const char* className) const {
    return plugin_->checkout(className, &p, mode, receipt);
}

const HistogramValue* ComputeTest::ValueOf(ZKGP_ComputeReceipt receipt) const {
    const HistogramValue* value = nullptr;
    EXPECT_EQ(plugin_->getValue(receipt, &value), 0);
    return value;
}

MC_ScCheckout& ComputeTest::ReceiptObject(ZKGP_ComputeReceipt receipt) {
    return *reinterpret_cast<MC_ScCheckout*>(receipt);
}

IntrusivePtr<MC_Stuff> ComputeTest::ItemOf(ZKGP_ComputeReceipt receipt) {
    return ReceiptObject(receipt).GetStuffPtr();
}

bool SameBins(const HistogramValue& a, const HistogramValue& b) {
    return a.pixels == b.pixels && std::memcmp(a.bins, b.bins, sizeof a.bins) == 0;
}

}  // namespace computetest
