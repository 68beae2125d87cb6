// Latch: std::latch's count_down / wait / arrive_and_wait on a mutex and condition variable.
// MinGW's libstdc++ has no futex and its std::latch and std::barrier can lose a wake-up, so the
// tests, which also run under Wine, use this instead. A wait gives up after 50 s (the test then
// fails instead of hanging); wait() returns whether the count reached zero.
// Thread-safety: every method may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace mctest {

class Latch {
public:
    explicit Latch(std::ptrdiff_t count) : count_(count) {}

    void count_down(std::ptrdiff_t n = 1) {
        std::lock_guard<std::mutex> lock(mutex_);
        count_ -= n;
        if (count_ <= 0) zero_.notify_all();
    }
    bool wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        return zero_.wait_for(lock, std::chrono::seconds(50), [&] { return count_ <= 0; });
    }
    bool arrive_and_wait() {
        count_down();
        return wait();
    }

private:
    std::mutex mutex_;
    std::condition_variable zero_;
    std::ptrdiff_t count_;
};

}  // namespace mctest
