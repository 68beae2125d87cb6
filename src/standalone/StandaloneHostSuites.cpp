// The standalone host's suite registry (see StandaloneHostSuites.h).
#include "standalone/StandaloneHostSuites.h"

#include "mc/standalone/StandaloneHost.h"

namespace velacore {

int StandaloneSuiteRegistry::Add(std::string_view name, int32_t major, int32_t minor, int32_t count,
                                 const void* table) {
    if (table == nullptr || count < 0) return kStandaloneParamError;
    std::lock_guard lock(mutex_);
    const bool added =
        suites_.try_emplace(Key{std::string(name), major, minor}, Suite{count, table}).second;
    return added ? 0 : kStandaloneDuplicateError;
}

int StandaloneSuiteRegistry::Acquire(std::string_view name, int32_t major, int32_t minor,
                                     const void** table) const {
    if (table == nullptr) return kStandaloneParamError;
    std::lock_guard lock(mutex_);
    auto it = suites_.find(Key{std::string(name), major, minor});
    *table = it == suites_.end() ? nullptr : it->second.table;
    return it == suites_.end() ? kStandaloneGenericError : 0;
}

size_t StandaloneSuiteRegistry::Size() const {
    std::lock_guard lock(mutex_);
    return suites_.size();
}

}  // namespace velacore
