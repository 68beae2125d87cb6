// OpenOnceGate: a one-shot gate. It starts closed; Open releases every waiter, once, and the
// gate stays open. Thread-safety: any thread may open, pass or query.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace velacore {

class OpenOnceGate {
public:
    using Clock = std::chrono::steady_clock;

    // Opens the gate; later calls do nothing. Returns true for the call that opened it.
    bool Open() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (open_) return false;
            open_ = true;
        }
        cv_.notify_all();
        return true;
    }
    bool IsOpen() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return open_;
    }
    // Waits until the gate opens or the deadline passes. Returns whether the gate is open.
    bool Pass(Clock::time_point deadline) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_until(lock, deadline, [this] { return open_; });
    }
    void Pass() const {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this] { return open_; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    bool open_ = false;
};

}  // namespace velacore
