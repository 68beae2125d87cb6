// OnDemand: an object built on first use and owned until destruction, so that members few
// instances ever need cost one pointer until then. Racing first users may each build one; a
// compare-and-swap installs exactly one and the others are dropped.
// Thread-safety: Get and Peek from any thread; destroy only once nobody else uses it.
#pragma once

#include <atomic>
#include <memory>

namespace velacore {

template <class T>
class OnDemand {
public:
    OnDemand() = default;
    ~OnDemand() { std::unique_ptr<T> owned(ptr_.load(std::memory_order_acquire)); }
    OnDemand(const OnDemand&) = delete;
    OnDemand& operator=(const OnDemand&) = delete;

    // The object, built now when there is none yet. Sequentially consistent, so a thread that
    // installs it and then reads a flag pairs with a thread that sets the flag and then Peeks.
    T& Get() {
        if (T* existing = ptr_.load(std::memory_order_seq_cst)) return *existing;
        auto fresh = std::make_unique<T>();
        T* expected = nullptr;
        if (ptr_.compare_exchange_strong(expected, fresh.get(), std::memory_order_seq_cst))
            return *fresh.release();
        return *expected;
    }
    // The object when it was built, else null.
    T* Peek() const { return ptr_.load(std::memory_order_seq_cst); }

private:
    std::atomic<T*> ptr_{nullptr};
};

}  // namespace velacore
