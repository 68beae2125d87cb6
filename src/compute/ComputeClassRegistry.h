// MCp_ComputeClassRegistry: the process-wide map from compute-class name to a copy of its
// callbacks. Names compare byte-wise (case-sensitive; "" is a valid name). The first
// registration of a name wins. The registry lives from module load to module unload; module
// death does not empty it.
// Thread-safety: every member may be called from any thread; a reader/writer lock serialises
// changes against lookups.
#pragma once

#include <cstddef>
#include <map>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "mc/MC_ComputeCache.h"

class MCp_ComputeClassRegistry {
public:
    // The one registry of the process.
    static MCp_ComputeClassRegistry& Instance();

    // Adds {name, callbacks} unless the name is taken. Returns whether it was added. Throws
    // std::bad_alloc with the registry unchanged.
    bool Insert(std::string_view name, const ZKGP_ComputeCacheCallbacks& callbacks);
    // Removes the name if present. Returns whether it was present.
    bool Erase(std::string_view name);
    // Copies the record of `name` to *out and returns true; false (out untouched) when absent.
    bool Find(std::string_view name, ZKGP_ComputeCacheCallbacks* out) const;
    size_t Size() const;

private:
    mutable std::shared_mutex mutex_;
    std::map<std::string, ZKGP_ComputeCacheCallbacks, std::less<>> classes_;
};
