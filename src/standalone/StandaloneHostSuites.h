// StandaloneSuiteRegistry: function tables published under (name, major, minor), for hosts and
// plug-ins to find each other. Tables are not owned: a publisher keeps its table alive.
// Thread-safety: every member may be called from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>

namespace velacore {

class StandaloneSuiteRegistry {
public:
    // Returns 0, kStandaloneDuplicateError when (name, major, minor) is taken, or
    // kStandaloneParamError for a null table or a negative count.
    int Add(std::string_view name, int32_t major, int32_t minor, int32_t count, const void* table);
    // Sets *table (null when absent). Returns 0 or kStandaloneGenericError when absent.
    int Acquire(std::string_view name, int32_t major, int32_t minor, const void** table) const;
    size_t Size() const;

private:
    struct Suite {
        int32_t count = 0;
        const void* table = nullptr;
    };
    using Key = std::tuple<std::string, int32_t, int32_t>;
    mutable std::mutex mutex_;
    std::map<Key, Suite> suites_;
};

}  // namespace velacore
