// WaitUntil: polls a condition another thread makes true, with a bound (the test fails instead
// of hanging when it never holds).
#pragma once

#include <chrono>
#include <thread>

namespace hosttest {

template <class Pred>
bool WaitUntil(Pred pred, std::chrono::seconds limit = std::chrono::seconds(50)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return pred();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

}  // namespace hosttest
