// Compute-cache entries: MCComputeValue, one value a plug-in computed (freed through its class's
// DisposeValue exactly once, by its last owner), and GenericMCComputeStuffData, the payload of a
// compute entry in the cache. Entries live in memory only and are never written to disk.
// Thread-safety: an MCComputeValue is immutable after construction and shared through
// std::shared_ptr. A GenericMCComputeStuffData guards its key and value with its own recursive
// mutex; every member may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "mc/Export.h"
#include "mc/MC_ComputeCache.h"
#include "mc/MC_StuffData.h"
#include "mc/host/Guid.h"
#include "mc/host/RecursiveMutex.h"

// A plug-in's value and the means to free it.
struct ComputeValueHolder {
    ZKGP_DisposeValueFunc DisposeValue = nullptr;
    void* refcon = nullptr;
};

class MC_API MCComputeValue {
public:
    // Owns `refcon` from now on (freed through callbacks.DisposeValue). Keeps its own copies of
    // the class name and of the callbacks, so it outlives its class's registration.
    MCComputeValue(std::string_view className, const ZKGP_ComputeCacheCallbacks& callbacks,
                   void* refcon);
    // Calls DisposeValue(refcon) when the refcon is non-null. Never throws.
    virtual ~MCComputeValue();
    MCComputeValue(const MCComputeValue&) = delete;
    MCComputeValue& operator=(const MCComputeValue&) = delete;

    // The value's size, through the stored ApproximateSize callback.
    virtual uint64_t GetApproximateSize() const;

    // The name of the class that computed the value.
    const std::string& GetClassName() const { return className_; }
    const ZKGP_ComputeCacheCallbacks& GetCallbacks() const { return callbacks_; }
    // The plug-in's value pointer; still owned by this object.
    void* GetRefcon() const { return holder_ ? holder_->refcon : nullptr; }

private:
    std::string className_;
    ZKGP_ComputeCacheCallbacks callbacks_;
    std::unique_ptr<ComputeValueHolder> holder_;
};

class MC_API GenericMCComputeStuffData : public MC_StuffData {
public:
    // A payload without a value (a probe, or an entry about to be computed).
    explicit GenericMCComputeStuffData(const ZKGP_GUID& key);
    // A payload sharing `value`.
    GenericMCComputeStuffData(const ZKGP_GUID& key, std::shared_ptr<MCComputeValue> value);

    // The entry's identity: the 16 key bytes as a Guid.
    velacore::Guid GetKey() const;
    // A new reference to the value; empty when there is none (never computed, or purged).
    std::shared_ptr<MCComputeValue> GetValue() const;
    // Takes ownership of `value` (may be null) and drops the previous one, which is freed here
    // unless someone else still shares it.
    void SetValue(MCComputeValue* value);

    // --- MC_StuffData ---
    // The value's size truncated to 32 bits; 0 without a value.
    uint32_t GetApproximateMemorySize() const override;
    // Drops this payload's reference to the value (the list is not used). Returns true when
    // that freed it, false when there was none or somebody else still shares it; either way
    // the payload is no longer in memory afterwards.
    bool PurgeIfPossible(MC_ReleaseList* deferredFrees) override;
    // Whether a value is present.
    bool IsInMemory() const override;

private:
    mutable velacore::RecursiveMutex mutex_;
    ZKGP_GUID key_;
    std::shared_ptr<MCComputeValue> value_;
};
