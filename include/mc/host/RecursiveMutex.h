// RecursiveMutex: a recursive mutex that can tell whether the calling thread holds it.
// Thread-safety: all members may be called from any thread.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

namespace velacore {

class RecursiveMutex {
public:
    void lock() {
        mutex_.lock();
        if (depth_++ == 0) owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    bool try_lock() {
        if (!mutex_.try_lock()) return false;
        if (depth_++ == 0) owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
        return true;
    }
    // Requires the calling thread to hold the mutex.
    void unlock() {
        if (--depth_ == 0) owner_.store(std::thread::id(), std::memory_order_relaxed);
        mutex_.unlock();
    }
    // True when the calling thread holds the mutex (at any depth).
    bool IsLockedByCurrentThread() const {
        return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

private:
    std::recursive_mutex mutex_;
    std::atomic<std::thread::id> owner_{};
    int depth_ = 0;  // guarded by mutex_
};

}  // namespace velacore
