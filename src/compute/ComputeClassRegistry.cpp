// The compute-class registry and the exported MC_ComputeClass* functions.
#include "compute/ComputeClassRegistry.h"

#include <mutex>

#include "compute/ComputeBoundary.h"
#include "host/HostOps.h"
#include "lifecycle/Messages.h"

MCp_ComputeClassRegistry& MCp_ComputeClassRegistry::Instance() {
    static MCp_ComputeClassRegistry registry;
    return registry;
}

bool MCp_ComputeClassRegistry::Insert(std::string_view name,
                                      const ZKGP_ComputeCacheCallbacks& callbacks) {
    std::string key(name);  // allocate before taking the lock
    std::unique_lock lock(mutex_);
    return classes_.try_emplace(std::move(key), callbacks).second;
}

bool MCp_ComputeClassRegistry::Erase(std::string_view name) {
    std::unique_lock lock(mutex_);
    auto it = classes_.find(name);
    if (it == classes_.end()) return false;
    classes_.erase(it);
    return true;
}

bool MCp_ComputeClassRegistry::Find(std::string_view name, ZKGP_ComputeCacheCallbacks* out) const {
    std::shared_lock lock(mutex_);
    auto it = classes_.find(name);
    if (it == classes_.end()) return false;
    *out = it->second;
    return true;
}

size_t MCp_ComputeClassRegistry::Size() const {
    std::shared_lock lock(mutex_);
    return classes_.size();
}

namespace {
constexpr const char* kMissingCallback = "ZKGP_MCComputeClassRegister: Missing required callback";

// Reports a missing argument of a registry call and returns 3.
int MissingArgument(const char* message) {
    U_ReportFailedVerification(message);
    return ZKGP_ComputeResult_BadParameter;
}
}  // namespace

extern "C" int MC_ComputeClassRegister(const char* className,
                                       const ZKGP_ComputeCacheCallbacks* callbacks) {
    return MCp_ComputeBoundary([&] {
        if (!callbacks || !callbacks->GenerateKey || !callbacks->Compute ||
            !callbacks->ApproximateSize || !callbacks->DisposeValue)
            MCp_FailVerification(kMissingCallback);
        if (!className) MCp_FailVerification("ZKGP_MCComputeClassRegister: Missing class name");
        const ZKGP_ComputeCacheCallbacks record = *callbacks;
        MCp_ComputeClassRegistry::Instance().Insert(className, record);  // first one wins
        return 0;
    });
}

extern "C" int MC_ComputeClassUnregister(const char* className) {
    if (!className) return MissingArgument("ZKGP_MCComputeClassUnregister: Missing class name");
    MCp_ComputeClassRegistry::Instance().Erase(className);
    return 0;
}

extern "C" int MC_ComputeClassFind(const char* className, ZKGP_ComputeCacheCallbacks* callbacks) {
    if (!className || !callbacks)
        return MissingArgument("ZKGP_MCComputeClassFind: Missing class name or output record");
    return MCp_ComputeClassRegistry::Instance().Find(className, callbacks)
               ? ZKGP_ComputeResult_OK
               : ZKGP_ComputeResult_NoSuchClass;
}
