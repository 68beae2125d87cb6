// Eventually: waits for a counter or flag another thread moves, bounded so a test fails instead
// of hanging. Used by the bag, item and compute tests. Thread-safety: as safe as `done`.
#pragma once

#include <chrono>
#include <thread>

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

}  // namespace mctest
