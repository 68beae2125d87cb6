// The standalone host's debug entries, preferences and beta features (see
// StandaloneHostSettings.h).
#include "standalone/StandaloneHostSettings.h"

namespace velacore {

StandaloneSettings::StandaloneSettings(const StandaloneConfig& config)
    : debug_(config.debugEntries), prefs_(config.preferences), enabled_(config.betaFeatures) {}

std::optional<std::string> StandaloneSettings::DebugEntry(std::string_view name) const {
    std::lock_guard lock(mutex_);
    auto it = debug_.find(name);
    if (it == debug_.end()) return std::nullopt;
    return it->second;
}

void StandaloneSettings::SetDebugEntry(std::string_view name, std::string_view value) {
    std::lock_guard lock(mutex_);
    debug_.insert_or_assign(std::string(name), std::string(value));
}

std::optional<std::string> StandaloneSettings::Preference(std::string_view section,
                                                          std::string_view key) const {
    std::lock_guard lock(mutex_);
    auto it = prefs_.find({std::string(section), std::string(key)});
    if (it == prefs_.end()) return std::nullopt;
    return it->second;
}

void StandaloneSettings::SetPreference(std::string_view section, std::string_view key,
                                       std::string_view value) {
    std::lock_guard lock(mutex_);
    prefs_.insert_or_assign({std::string(section), std::string(key)}, std::string(value));
}

void StandaloneSettings::RegisterBetaFeature(BetaFeatureInfo info) {
    std::lock_guard lock(mutex_);
    std::string name = info.name;
    registered_.insert_or_assign(std::move(name), std::move(info));
}

std::vector<StandaloneSettings::BetaFeatureInfo> StandaloneSettings::RegisteredBetaFeatures()
    const {
    std::lock_guard lock(mutex_);
    std::vector<BetaFeatureInfo> out;
    out.reserve(registered_.size());
    for (const auto& [name, info] : registered_) out.push_back(info);
    return out;
}

bool StandaloneSettings::IsFeatureEnabled(std::string_view name) const {
    std::lock_guard lock(mutex_);
    return enabled_.find(name) != enabled_.end();
}

void StandaloneSettings::SetFeatureEnabled(std::string_view name, bool enabled) {
    std::lock_guard lock(mutex_);
    if (enabled) {
        enabled_.emplace(name);
    } else if (auto it = enabled_.find(name); it != enabled_.end()) {
        enabled_.erase(it);
    }
}

}  // namespace velacore
