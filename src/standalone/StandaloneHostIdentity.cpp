// StandaloneHostServices: configuration entries, identity, suites, media manager, localisation
// and labelled allocation (see mc/standalone/StandaloneHost.h).
#include <cstring>

#include "mc/standalone/StandaloneHost.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "standalone/StandaloneHostAllocator.h"
#include "standalone/StandaloneHostSettings.h"
#include "standalone/StandaloneHostSuites.h"

namespace velacore {

std::optional<std::string> StandaloneHostServices::GetDebugEntry(std::string_view name) {
    return settings_->DebugEntry(name);
}

void StandaloneHostServices::SetDebugEntry(std::string_view name, std::string_view value) {
    settings_->SetDebugEntry(name, value);
}

std::optional<std::string> StandaloneHostServices::GetPreference(std::string_view section,
                                                                 std::string_view key) {
    return settings_->Preference(section, key);
}

void StandaloneHostServices::SetPreference(std::string_view section, std::string_view key,
                                           std::string_view value) {
    settings_->SetPreference(section, key, value);
}

void StandaloneHostServices::RegisterBetaFeature(std::string_view name, int stage,
                                                 std::string_view title,
                                                 std::string_view description, int, int, int) {
    settings_->RegisterBetaFeature(
        BetaFeatureInfo{std::string(name), stage, std::string(title), std::string(description)});
}

bool StandaloneHostServices::IsFeatureEnabled(std::string_view name) {
    return settings_->IsFeatureEnabled(name);
}

void StandaloneHostServices::SetFeatureEnabled(std::string_view name, bool enabled) {
    settings_->SetFeatureEnabled(name, enabled);
}

std::vector<StandaloneHostServices::BetaFeatureInfo>
StandaloneHostServices::RegisteredBetaFeatures() const {
    return settings_->RegisteredBetaFeatures();
}

int StandaloneHostServices::GetComputerName(char* buf, size_t size) {
    if (buf == nullptr || size <= computerName_.size()) {
        if (buf != nullptr && size > 0) buf[0] = '\0';
        return kStandaloneParamError;
    }
    std::memcpy(buf, computerName_.c_str(), computerName_.size() + 1);
    return 0;
}

int StandaloneHostServices::AddSuite(std::string_view name, int32_t major, int32_t minor,
                                     int32_t count, const void* table) {
    return suites_->Add(name, major, minor, count, table);
}

int StandaloneHostServices::AcquireSuite(std::string_view name, int32_t major, int32_t minor,
                                         const void** table) {
    return suites_->Acquire(name, major, minor, table);
}

NX::IMediaManager* StandaloneHostServices::GetMediaManager() {
    return media_.get();
}

std::u16string StandaloneHostServices::Localize(std::string_view keyAndDefault) {
    return LocalizeDefaultText(keyAndDefault);
}

void* StandaloneHostServices::AllocatePtrClear(size_t size, std::string_view label) {
    return allocator_->Allocate(size, label);
}

uint64_t StandaloneHostServices::AllocatedBytes(std::string_view label) {
    return allocator_->Bytes(label);
}

uint64_t StandaloneHostServices::AllocatedBlocks(std::string_view label) const {
    return allocator_->Blocks(label);
}

}  // namespace velacore
