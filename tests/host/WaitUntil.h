// WaitUntil: waits for a state another thread reaches and the code reports (a counter, a flag),
// with a bound: the test fails instead of hanging when it never holds.
#pragma once

#include <chrono>
#include <thread>

namespace hosttest {

template <class Pred>
bool WaitUntil(Pred pred, std::chrono::seconds limit = std::chrono::seconds(50)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return pred();
        std::this_thread::yield();
    }
    return true;
}

}  // namespace hosttest
