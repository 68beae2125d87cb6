// RecursiveMutex: a recursive mutex that can tell whether the calling thread holds it.
// Thread-safety: all members may be called from any thread.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

namespace velacore {

class RecursiveMutex {
public:
    // A thread that finds the mutex taken by another tries again for a short while before it
    // sleeps: the cache lock is held for well under a microsecond at a time, and putting a
    // thread to sleep and waking it costs several.
    // Re-entry by the holder only counts: the underlying mutex is taken once per hold.
    void lock() {
        if (IsLockedByCurrentThread()) {
            ++depth_;
            return;
        }
        for (int spin = 0; spin < kSpins; ++spin) {
            // Reading first keeps the waiting thread off the owner's cache line.
            if (owner_.load(std::memory_order_relaxed) == std::thread::id() && mutex_.try_lock())
                return Enter();
            CpuRelax();
        }
        mutex_.lock();
        Enter();
    }
    bool try_lock() {
        if (IsLockedByCurrentThread()) {
            ++depth_;
            return true;
        }
        if (!mutex_.try_lock()) return false;
        Enter();
        return true;
    }
    // Requires the calling thread to hold the mutex.
    void unlock() {
        if (--depth_ != 0) return;
        owner_.store(std::thread::id(), std::memory_order_relaxed);
        mutex_.unlock();
    }
    // True when the calling thread holds the mutex (at any depth).
    bool IsLockedByCurrentThread() const {
        return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

private:
    static constexpr int kSpins = 128;
    static void CpuRelax() {
#if (defined(__GNUC__) || defined(__clang__)) && (defined(__x86_64__) || defined(__i386__))
        __builtin_ia32_pause();
#else
        std::this_thread::yield();
#endif
    }
    // Requires the calling thread to have just locked mutex_.
    void Enter() {
        depth_ = 1;
        owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }

    std::mutex mutex_;
    std::atomic<std::thread::id> owner_{};
    int depth_ = 0;  // used by the holder only
};

}  // namespace velacore
