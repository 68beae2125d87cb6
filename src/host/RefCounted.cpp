// Out-of-line parts of the weak-referenceable ref-counted base (see mc/host/RefCounted.h).
#include "mc/host/RefCounted.h"

namespace velacore {

RefCountedObjectWithWeakPtr::~RefCountedObjectWithWeakPtr() {
    DetachAnchor();  // an object deleted without its last release
}

detail::AnchorRef RefCountedObjectWithWeakPtr::GetWeakAnchor() const {
    detail::WeakAnchor* anchor = anchor_.load(std::memory_order_acquire);
    if (!anchor) {
        auto fresh = std::make_unique<detail::WeakAnchor>();
        fresh->object = const_cast<RefCountedObjectWithWeakPtr*>(this);
        if (anchor_.compare_exchange_strong(anchor, fresh.get(), std::memory_order_acq_rel,
                                            std::memory_order_acquire))
            anchor = fresh.release();
    }
    return detail::AnchorRef(anchor);
}

void RefCountedObjectWithWeakPtr::DetachAnchor() const {
    detail::WeakAnchor* anchor = anchor_.exchange(nullptr, std::memory_order_acq_rel);
    if (!anchor) return;
    {
        std::lock_guard<std::mutex> guard(anchor->mutex);
        anchor->object = nullptr;
    }
    detail::AnchorRef::Release(anchor);
}

void RefCountedObjectWithWeakPtr::ReleaseObject() const {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // The count is zero for good: TryRetainFromWeak never revives it. Unhook the anchor under its
    // mutex so that a WeakPtr::Lock in flight either sees the object (and fails to retain it) or
    // sees null; none can still be looking at the object once we delete it. An anchor is built
    // only under a strong reference, so the last release sees every anchor there is.
    DetachAnchor();
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
