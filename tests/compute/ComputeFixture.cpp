// The compute tests' plug-in binding, hook control and fixture.
#include "ComputeFixture.h"

#include <cstring>

#include "compute/ComputeReceipts.h"

namespace computetest {

const mctest::PluginLoader& HistogramPlugin::Loader() {
    static const mctest::PluginLoader loader(MC_HISTOGRAM_PLUGIN_PATH);
    return loader;
}

const HistogramPlugin& HistogramPlugin::Get() {
    static const HistogramPlugin plugin = [] {
        const mctest::PluginLoader& l = Loader();
        return HistogramPlugin{l.Require<HistPluginShutdownFunc>("HistPlugin_Shutdown"),
                               l.Require<HistPluginUnregisterFunc>("HistPlugin_Unregister"),
                               l.Require<HistPluginCheckoutFunc>("HistPlugin_Checkout"),
                               l.Require<HistPluginGetValueFunc>("HistPlugin_GetValue"),
                               l.Require<HistPluginCheckinFunc>("HistPlugin_Checkin"),
                               l.Require<HistPluginComputeDirectFunc>("HistPlugin_ComputeDirect"),
                               l.Require<HistPluginSetComputeHookFunc>("HistPlugin_SetComputeHook"),
                               l.Require<HistPluginGetCountersFunc>("HistPlugin_GetCounters")};
    }();
    return plugin;
}

HistogramCounters HistogramPlugin::Counters() const {
    HistogramCounters c{};
    getCounters(&c);
    return c;
}

int ComputeHookControl::Hook(void* self, const HistogramParams*) {
    auto& control = *static_cast<ComputeHookControl*>(self);
    std::unique_lock lock(control.mutex_);
    ++control.entered_;
    control.cv_.notify_all();
    control.cv_.wait(lock, [&] { return !control.holding_; });
    if (control.failures_ == 0) return 0;
    --control.failures_;
    return control.failError_;
}

void ComputeHookControl::Set(bool& field, bool value) {
    {
        std::lock_guard lock(mutex_);
        field = value;
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
    return cv_.wait_for(lock, std::chrono::seconds(50), [&] { return entered_ >= n; });
}

int ComputeHookControl::Entered() const {
    std::lock_guard lock(mutex_);
    return entered_;
}

int ScopedReceipt::Checkin() {
    if (!handle_) return 0;
    const int result = HistogramPlugin::Get().checkin(handle_);
    handle_ = nullptr;
    return result;
}

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

HistogramValue ComputeTest::Direct(const HistogramParams& p, bool inverted) const {
    HistogramValue v{};
    plugin_->computeDirect(&p, inverted ? 1 : 0, &v);
    return v;
}

const HistogramValue* ComputeTest::ValueOf(ZKGP_ComputeReceipt receipt) const {
    const HistogramValue* value = nullptr;
    EXPECT_EQ(plugin_->getValue(receipt, &value), 0);
    return value;
}

bool SameBins(const HistogramValue& a, const HistogramValue& b) {
    return a.pixels == b.pixels && std::memcmp(a.bins, b.bins, sizeof a.bins) == 0;
}

}  // namespace computetest
