// MCComputeValue (a plug-in's value with the means to size and free it) and
// GenericMCComputeStuffData (the payload of a compute entry).
#include <mutex>

#include "mc/GenericMCComputeStuffData.h"

// --- MCComputeValue --------------------------------------------------------------------------

MCComputeValue::MCComputeValue(std::string_view className,
                               const ZKGP_ComputeCacheCallbacks& callbacks, void* refcon)
    : className_(className),
      callbacks_(callbacks),
      holder_(std::make_unique<ComputeValueHolder>(
          ComputeValueHolder{callbacks.DisposeValue, refcon})) {}

MCComputeValue::~MCComputeValue() {
    if (holder_ && holder_->refcon) {
        void* refcon = holder_->refcon;
        ZKGP_DisposeValueFunc dispose = holder_->DisposeValue;
        holder_->DisposeValue = nullptr;
        holder_->refcon = nullptr;
        if (dispose) dispose(refcon);
    }
}

uint64_t MCComputeValue::GetApproximateSize() const {
    const void* refcon = GetRefcon();
    return callbacks_.ApproximateSize ? callbacks_.ApproximateSize(refcon) : 0;
}

// --- GenericMCComputeStuffData ---------------------------------------------------------------

GenericMCComputeStuffData::GenericMCComputeStuffData(const ZKGP_GUID& key) : key_(key) {}

GenericMCComputeStuffData::GenericMCComputeStuffData(const ZKGP_GUID& key,
                                                     std::shared_ptr<MCComputeValue> value)
    : key_(key), value_(std::move(value)) {}

velacore::Guid GenericMCComputeStuffData::GetKey() const {
    std::lock_guard lock(mutex_);
    return velacore::GuidFromBytes(key_.bytes);
}

std::shared_ptr<MCComputeValue> GenericMCComputeStuffData::GetValue() const {
    std::lock_guard lock(mutex_);
    return value_;
}

void GenericMCComputeStuffData::SetValue(MCComputeValue* value) {
    std::shared_ptr<MCComputeValue> owned(value);  // deletes value if this throws
    std::lock_guard lock(mutex_);
    value_.swap(owned);
    owned.reset();  // the previous value, freed while the key and value stay consistent
}

uint32_t GenericMCComputeStuffData::GetApproximateMemorySize() const {
    std::lock_guard lock(mutex_);
    return value_ ? static_cast<uint32_t>(value_->GetApproximateSize()) : 0;
}

bool GenericMCComputeStuffData::PurgeIfPossible(MC_ReleaseList*) {
    std::lock_guard lock(mutex_);
    if (!value_) return false;
    std::weak_ptr<MCComputeValue> weak = value_;
    value_.reset();  // frees the value here when this payload was its last owner
    return weak.expired();
}

bool GenericMCComputeStuffData::IsInMemory() const {
    std::lock_guard lock(mutex_);
    return value_ != nullptr;
}
