// Intrusive reference counting: the base classes for objects held through IntrusivePtr,
// with optional weak references. Thread-safety: counts are atomic; any thread may retain,
// release or lock a weak reference concurrently.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "mc/host/Export.h"

namespace velacore {

// The face every ref-counted object shows to IntrusivePtr.
class RefCountedInterface {
public:
    virtual void RetainObject() const = 0;
    // Drops one reference; destroys the object when it was the last.
    virtual void ReleaseObject() const = 0;

protected:
    virtual ~RefCountedInterface() = default;
};

// Carries the count. The object is deleted by the release of its last reference.
class MCHOST_API RefCountedObject : public virtual RefCountedInterface {
public:
    void RetainObject() const override { count_.fetch_add(1, std::memory_order_relaxed); }
    void ReleaseObject() const override {
        if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    // Current count; only a hint while other threads hold references.
    uint32_t GetRefCount() const { return count_.load(std::memory_order_acquire); }

protected:
    RefCountedObject() = default;
    RefCountedObject(const RefCountedObject&) : RefCountedInterface() {}
    RefCountedObject& operator=(const RefCountedObject&) { return *this; }
    ~RefCountedObject() override = default;

private:
    mutable std::atomic<uint32_t> count_{0};
};

class RefCountedObjectWithWeakPtr;

namespace detail {
// Shared between an object and its weak references; outlives the object. Built by the first weak
// reference, so an object nobody refers to weakly carries only a null pointer.
struct WeakAnchor {
    std::mutex mutex;
    RefCountedObjectWithWeakPtr* object = nullptr;
    std::atomic<uint32_t> refs{1};  // the object's own, plus one per AnchorRef
};

// A counted reference to an anchor.
class AnchorRef {
public:
    AnchorRef() = default;
    explicit AnchorRef(WeakAnchor* a) : a_(a) {
        if (a_) a_->refs.fetch_add(1, std::memory_order_relaxed);
    }
    AnchorRef(const AnchorRef& o) : AnchorRef(o.a_) {}
    AnchorRef(AnchorRef&& o) noexcept : a_(o.a_) { o.a_ = nullptr; }
    AnchorRef& operator=(AnchorRef o) noexcept {
        std::swap(a_, o.a_);
        return *this;
    }
    ~AnchorRef() { Release(a_); }
    WeakAnchor* operator->() const { return a_; }
    explicit operator bool() const { return a_ != nullptr; }
    static void Release(WeakAnchor* a) {
        if (a && a->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete a;
    }

private:
    WeakAnchor* a_ = nullptr;
};
}  // namespace detail

// A ref-counted object that weak references can point at (see WeakPtr in IntrusivePtr.h).
class MCHOST_API RefCountedObjectWithWeakPtr : public virtual RefCountedInterface {
public:
    void RetainObject() const override { count_.fetch_add(1, std::memory_order_relaxed); }
    void ReleaseObject() const override;
    uint32_t GetRefCount() const { return count_.load(std::memory_order_acquire); }

    // Retains the object unless its count already reached zero. Requires anchor mutex held.
    bool TryRetainFromWeak() const;
    // The anchor, built at the first call. The caller holds a strong reference.
    detail::AnchorRef GetWeakAnchor() const;

protected:
    RefCountedObjectWithWeakPtr() = default;
    ~RefCountedObjectWithWeakPtr() override;

private:
    // Unhooks the anchor (if any) so that no weak reference reaches this object any more.
    void DetachAnchor() const;

    mutable std::atomic<uint32_t> count_{0};
    mutable std::atomic<detail::WeakAnchor*> anchor_{nullptr};
};

}  // namespace velacore
