// Out-of-line parts of the weak-referenceable ref-counted base (see mc/host/RefCounted.h).
#include "mc/host/RefCounted.h"

namespace velacore {

RefCountedObjectWithWeakPtr::RefCountedObjectWithWeakPtr()
    : anchor_(std::make_shared<detail::WeakAnchor>()) {
    anchor_->object = this;
}

void RefCountedObjectWithWeakPtr::ReleaseObject() const {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // The count is zero for good: TryRetainFromWeak never revives it. Unhook the anchor under its
    // mutex so that a WeakPtr::Lock in flight either sees the object (and fails to retain it) or
    // sees null; none can still be looking at the object once we delete it.
    {
        std::lock_guard<std::mutex> guard(anchor_->mutex);
        anchor_->object = nullptr;
    }
    delete this;
}

bool RefCountedObjectWithWeakPtr::TryRetainFromWeak() const {
    uint32_t current = count_.load(std::memory_order_relaxed);
    while (current != 0) {
        if (count_.compare_exchange_weak(current, current + 1, std::memory_order_acq_rel,
                                         std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

}  // namespace velacore
