// Helpers shared by the primitive tests: a hang guard that turns a deadlock into a failure, a
// reusable barrier, and a bounded wait for a condition another thread makes true.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace prims_test {

using namespace std::chrono_literals;

// Generous limit for anything that should happen "soon", even under sanitizers.
constexpr std::chrono::seconds kHangLimit{120};

// Aborts the process when the scope lasts longer than the limit (a deadlock or a lost wake-up
// would otherwise hang the test binary).
class HangGuard {
  public:
    explicit HangGuard(const char* what, std::chrono::seconds limit = kHangLimit)
        : watcher_([this, what, limit] {
              std::unique_lock<std::mutex> lock(mutex_);
              if (!cv_.wait_for(lock, limit, [this] { return done_; })) {
                  std::fprintf(stderr, "hang: %s did not finish in time\n", what);
                  std::abort();
              }
          }) {}
    ~HangGuard() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        cv_.notify_all();
        watcher_.join();
    }
    HangGuard(const HangGuard&) = delete;
    HangGuard& operator=(const HangGuard&) = delete;

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread watcher_;
};

// Lets a fixed set of threads meet, round after round.
class RoundBarrier {
  public:
    explicit RoundBarrier(int parties) : parties_(parties) {}
    void ArriveAndWait() {
        std::unique_lock<std::mutex> lock(mutex_);
        const unsigned long long generation = generation_;
        if (++arrived_ == parties_) {
            arrived_ = 0;
            ++generation_;
            cv_.notify_all();
            return;
        }
        cv_.wait(lock, [&] { return generation_ != generation; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    const int parties_;
    int arrived_ = 0;
    unsigned long long generation_ = 0;
};

// Polls pred until it holds or the limit passes. Returns the last value of pred.
template <class Pred>
bool WaitUntil(Pred pred, std::chrono::seconds limit = kHangLimit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return pred();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

}  // namespace prims_test
