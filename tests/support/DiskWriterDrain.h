// Waits for the module's disk writer to go idle, for tests that check what a write left behind.
// Thread-safety: call from a test thread, never from a job of the disk executor.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "lifecycle/Module.h"

namespace mctest {

// Waits until every write queued or posted so far has finished: both writer threads are made to
// meet. Returns false when the writer is stopped or time ran out. The meeting is a mutex and a
// condition variable, not std::latch: MinGW's libstdc++ 12 has no futex, and its fallback for
// atomic waits notifies without taking the waiter's mutex, so an arrival can be lost under Wine.
inline bool DrainDiskWriter() {
    static constexpr int kWriterThreads = 2;
    static constexpr auto kLimit = std::chrono::minutes(2);
    auto exec = MCp_DiskExecutor();
    if (!exec) return false;
    struct Meeting {
        std::mutex mutex;
        std::condition_variable cv;
        int arrived = 0;
        int left = 0;
    };
    auto meeting = std::make_shared<Meeting>();
    for (int i = 0; i < kWriterThreads; ++i) {
        if (!exec->Post([meeting] {
                std::unique_lock<std::mutex> lock(meeting->mutex);
                ++meeting->arrived;
                meeting->cv.notify_all();
                if (meeting->cv.wait_for(lock, kLimit,
                                         [&] { return meeting->arrived == kWriterThreads; }))
                    ++meeting->left;
                meeting->cv.notify_all();
            }))
            return false;
    }
    std::unique_lock<std::mutex> lock(meeting->mutex);
    return meeting->cv.wait_for(lock, kLimit, [&] { return meeting->left == kWriterThreads; });
}

}  // namespace mctest
