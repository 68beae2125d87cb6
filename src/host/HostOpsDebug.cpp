// Trace and profiling host operations (see HostOps.h): global change count and profiling flags,
// trace call sites, profiled scopes.
#include <atomic>

#include "host/HostOps.h"
#include "mc/host/Time.h"

namespace debug {
namespace {

std::atomic<uint64_t> gTraceChanges{0};
std::atomic<bool> gProfiling{false};
std::atomic<int> gProfilingVolume{0};

}  // namespace

uint64_t TraceChangeCount() {
    return gTraceChanges.load(std::memory_order_acquire);
}

void NoteTraceSettingsChanged() {
    gTraceChanges.fetch_add(1, std::memory_order_acq_rel);
}

bool IsTraceEnabled(std::string_view channel, int level) {
    return velacore::GetHostServices().IsTraceEnabled(channel, level);
}

void Trace(std::string_view channel, int level, std::string_view text) {
    velacore::GetHostServices().Trace(channel, level, text);
}

void TraceSite::Refresh(uint64_t now) {
    // Another refresh may race with this one across a settings change; storing, then checking
    // that the count did not move, leaves the site with the answer for the latest settings.
    for (;;) {
        enabled_.store(IsTraceEnabled(channel_, level_), std::memory_order_relaxed);
        seen_.store(now, std::memory_order_relaxed);
        const uint64_t after = TraceChangeCount();
        if (after == now) return;
        now = after;
    }
}

bool IsProfiling(int volume) {
    return gProfiling.load(std::memory_order_relaxed) &&
           gProfilingVolume.load(std::memory_order_relaxed) >= volume;
}

void SetProfiling(bool on, int volume) {
    gProfilingVolume.store(volume, std::memory_order_relaxed);
    gProfiling.store(on, std::memory_order_relaxed);
}

ProfileScope::ProfileScope(const char* label, int volume) : label_(label) {
    if (IsProfiling(volume)) start_ = velacore::HighPrecisionTime::Now();
}

ProfileScope::~ProfileScope() {
    if (start_ == 0) return;
    const auto ticks = static_cast<int64_t>(velacore::HighPrecisionTime::Now() - start_);
    velacore::GetHostServices().RecordProfile(label_,
                                              velacore::HighPrecisionTime::ConvertToNanos(ticks));
}

}  // namespace debug
