// Debug tuning entries: each read once per process, with its default.
#include "lifecycle/Settings.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <mutex>
#include <string>

#include "host/HostOps.h"

namespace mc_settings {

std::optional<int32_t> ParseInt32(std::string_view text) {
    if (text.empty()) return std::nullopt;
    int32_t value = 0;
    const char* first = text.data();
    const char* last = text.data() + text.size();
    if (!std::isdigit(static_cast<unsigned char>(*first))) return std::nullopt;
    auto [ptr, ec] = std::from_chars(first, last, value, 10);
    if (ec != std::errc() || ptr != last || first == last) return std::nullopt;
    return value;
}

std::optional<double> ParseDouble(std::string_view text) {
    if (text.empty()) return std::nullopt;
    double value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<bool> ParseBool(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "true" || lower == "1" || lower == "yes") return true;
    if (lower == "false" || lower == "0" || lower == "no") return false;
    return std::nullopt;
}

namespace {
std::atomic<uint64_t> g_generation{1};

// One debug entry, read from the host once (again only after ResetForTesting).
template <class T>
class Cached {
public:
    template <class Parse>
    T Get(const char* name, T fallback, Parse parse) {
        const uint64_t gen = g_generation.load(std::memory_order_acquire);
        if (seen_.load(std::memory_order_acquire) == gen) return value_;
        std::lock_guard<std::mutex> lock(mutex_);
        if (seen_.load(std::memory_order_relaxed) != gen) {
            std::optional<std::string> text = velacore::DebugDatabase::GetEntry(name);
            value_ = text ? parse(*text).value_or(fallback) : fallback;
            seen_.store(gen, std::memory_order_release);
        }
        return value_;
    }

private:
    std::mutex mutex_;
    std::atomic<uint64_t> seen_{0};
    T value_{};
};

}  // namespace

void ResetForTesting() {
    g_generation.fetch_add(1);
}
uint64_t Generation() {
    return g_generation.load();
}

bool UseMediaMap() {
    static Cached<bool> cached;
    return cached.Get("MC.UseMediaMap1", true, ParseBool);
}
double QuilletCacheLimitMultiplier() {
    static Cached<double> cached;
    return cached.Get("Graphics.DefaultMCCacheLimitForQuilletsMultiplier", 0.1, ParseDouble);
}
double MinSizeToPurgeLimitRatio() {
    static Cached<double> cached;
    return cached.Get("ZK.MinMCSizeToPurgeLimitRatioR", 0.1, ParseDouble);
}
int32_t DebugSleepMsSetStuffData() {
    static Cached<int32_t> cached;
    return cached.Get("ZK.DebugSleepTimeInMs_MCSetStuffDataR", 0, ParseInt32);
}
double LowPriorityFactor() {
    static Cached<double> cached;
    return cached.Get("ZK.MC.LowPriorityFactorR", 2.0, ParseDouble);
}
int32_t ReadDiskDelayMs() {
    static Cached<int32_t> cached;
    return cached.Get("ZK.MC.ReadDiskDelayInMsR", 0, ParseInt32);
}
int32_t WriteDiskDelayMs() {
    static Cached<int32_t> cached;
    return cached.Get("ZK.MC.WriteDiskDelayInMsR", 0, ParseInt32);
}

}  // namespace mc_settings
