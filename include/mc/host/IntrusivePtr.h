// IntrusivePtr: a smart pointer over RefCountedInterface objects; WeakPtr: a weak reference to a
// RefCountedObjectWithWeakPtr. Thread-safety: like std::shared_ptr — distinct pointer objects may
// be used from different threads; one pointer object must not be written concurrently.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

#include "mc/host/RefCounted.h"

namespace velacore {

template <class T>
class IntrusivePtr {
public:
    using element_type = T;

    IntrusivePtr() noexcept = default;
    IntrusivePtr(std::nullptr_t) noexcept {}
    // Takes a new reference on p (p may be null).
    IntrusivePtr(T* p) noexcept : p_(p) {
        if (p_) p_->RetainObject();
    }
    IntrusivePtr(const IntrusivePtr& o) noexcept : IntrusivePtr(o.p_) {}
    IntrusivePtr(IntrusivePtr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    IntrusivePtr(const IntrusivePtr<U>& o) noexcept : IntrusivePtr(o.get()) {}
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    IntrusivePtr(IntrusivePtr<U>&& o) noexcept : p_(o.Detach()) {}
    ~IntrusivePtr() {
        if (p_) p_->ReleaseObject();
    }

    IntrusivePtr& operator=(IntrusivePtr o) noexcept {
        std::swap(p_, o.p_);
        return *this;
    }

    T* get() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    T& operator*() const noexcept { return *p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    void reset() noexcept { IntrusivePtr().swap(*this); }
    void swap(IntrusivePtr& o) noexcept { std::swap(p_, o.p_); }
    // Gives up ownership of the reference without releasing it.
    T* Detach() noexcept { return std::exchange(p_, nullptr); }
    // Wraps a pointer whose reference the caller already owns.
    static IntrusivePtr Adopt(T* p) noexcept {
        IntrusivePtr r;
        r.p_ = p;
        return r;
    }

    friend bool operator==(const IntrusivePtr& a, const IntrusivePtr& b) { return a.p_ == b.p_; }
    friend bool operator==(const IntrusivePtr& a, std::nullptr_t) { return a.p_ == nullptr; }
    friend auto operator<=>(const IntrusivePtr& a, const IntrusivePtr& b) {
        return std::compare_three_way()(a.p_, b.p_);
    }

private:
    T* p_ = nullptr;
};

// Allocates a T and returns the first reference to it.
template <class T, class... Args>
IntrusivePtr<T> MakeIntrusive(Args&&... args) {
    return IntrusivePtr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
IntrusivePtr<T> StaticPointerCast(const IntrusivePtr<U>& p) {
    return IntrusivePtr<T>(static_cast<T*>(p.get()));
}
template <class T, class U>
IntrusivePtr<T> DynamicPointerCast(const IntrusivePtr<U>& p) {
    return IntrusivePtr<T>(dynamic_cast<T*>(p.get()));
}

// Weak reference to a RefCountedObjectWithWeakPtr (or a class derived from it).
template <class T>
class WeakPtr {
public:
    WeakPtr() = default;
    WeakPtr(const IntrusivePtr<T>& p) : WeakPtr(p.get()) {}
    explicit WeakPtr(T* p) : object_(p) {
        if (p) anchor_ = p->GetWeakAnchor();
    }
    // Returns a strong reference, or null once the object's last strong reference is gone.
    IntrusivePtr<T> Lock() const {
        if (!anchor_) return {};
        std::lock_guard<std::mutex> guard(anchor_->mutex);
        if (!anchor_->object || !object_->TryRetainFromWeak()) return {};
        return IntrusivePtr<T>::Adopt(object_);
    }
    bool Expired() const { return !Lock(); }
    void reset() {
        anchor_ = detail::AnchorRef();
        object_ = nullptr;
    }

private:
    detail::AnchorRef anchor_;
    T* object_ = nullptr;
};

}  // namespace velacore

template <class T>
struct std::hash<velacore::IntrusivePtr<T>> {
    size_t operator()(const velacore::IntrusivePtr<T>& p) const noexcept {
        return std::hash<T*>()(p.get());
    }
};
