// Thread helpers for the bag, item, compute, media map and lifecycle tests: Eventually waits for
// a counter or flag another thread moves (bounded, so a test fails instead of hanging);
// RunThreads runs `n` bodies and joins them; Repeat runs a step on its own thread until it goes
// out of scope (a concurrent purger for soaks). Thread-safety: as safe as the functions given.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace mctest {

template <class F>
bool Eventually(F done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(50);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

inline void RunThreads(int n, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t) threads.emplace_back(body, t);
    for (auto& th : threads) th.join();
}

class Repeat {
public:
    explicit Repeat(std::function<void()> step)
        : thread_([this, step = std::move(step)] {
              while (!stop_.load()) step(), std::this_thread::yield();
          }) {}
    ~Repeat() {
        stop_.store(true);
        thread_.join();
    }
    Repeat(const Repeat&) = delete;
    Repeat& operator=(const Repeat&) = delete;

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace mctest
