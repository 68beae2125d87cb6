// StandaloneSettings: the standalone host's debug entries, preferences (section + key) and beta
// features (those registered by the code, and those enabled by the configuration).
// Thread-safety: every member may be called from any thread.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mc/standalone/StandaloneHost.h"

namespace velacore {

class StandaloneSettings {
public:
    using BetaFeatureInfo = StandaloneHostServices::BetaFeatureInfo;

    // Starts from the configuration's debug entries, preferences and enabled features.
    explicit StandaloneSettings(const StandaloneConfig& config);

    std::optional<std::string> DebugEntry(std::string_view name) const;
    void SetDebugEntry(std::string_view name, std::string_view value);
    std::optional<std::string> Preference(std::string_view section, std::string_view key) const;
    void SetPreference(std::string_view section, std::string_view key, std::string_view value);

    // Registering a name again replaces its description.
    void RegisterBetaFeature(BetaFeatureInfo info);
    std::vector<BetaFeatureInfo> RegisteredBetaFeatures() const;
    // Whether the configuration (or SetFeatureEnabled) enabled name.
    bool IsFeatureEnabled(std::string_view name) const;
    void SetFeatureEnabled(std::string_view name, bool enabled);

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::string, std::less<>> debug_;
    std::map<std::pair<std::string, std::string>, std::string> prefs_;
    std::map<std::string, BetaFeatureInfo, std::less<>> registered_;
    std::set<std::string, std::less<>> enabled_;
};

}  // namespace velacore
