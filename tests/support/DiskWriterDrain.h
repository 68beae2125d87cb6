// Waits for the module's disk writer to go idle, for tests that check what a write left behind.
// Thread-safety: call from a test thread, never from a job of the disk executor.
#pragma once

#include <memory>

#include "lifecycle/Module.h"
#include "support/Latch.h"

namespace mctest {

// Waits until every write queued or posted so far has finished: both writer threads are made to
// meet (on mctest::Latch: std::latch can lose a wake-up under MinGW). Returns false when the
// writer is stopped or time ran out.
inline bool DrainDiskWriter() {
    constexpr int kWriterThreads = 2;
    auto exec = MCp_DiskExecutor();
    if (!exec) return false;
    struct Meeting {
        Latch arrived{kWriterThreads}, left{kWriterThreads};
    };
    auto meeting = std::make_shared<Meeting>();
    for (int i = 0; i < kWriterThreads; ++i) {
        const bool posted = exec->Post([meeting] {
            if (meeting->arrived.arrive_and_wait()) meeting->left.count_down();
        });
        if (!posted) return false;
    }
    return meeting->left.wait();
}

}  // namespace mctest
