// Waits for the module's disk writer to go idle, for tests that check what a write left behind.
// Thread-safety: call from a test thread, never from a job of the disk executor.
#pragma once

#include <chrono>
#include <future>
#include <latch>
#include <memory>
#include <vector>

#include "lifecycle/Module.h"

namespace mctest {

// Waits until every write queued or posted so far has finished: both writer threads are made to
// meet at a barrier. Returns false when the writer is stopped or time ran out.
inline bool DrainDiskWriter() {
    auto exec = MCp_DiskExecutor();
    if (!exec) return false;
    auto barrier = std::make_shared<std::latch>(2);
    std::vector<std::future<void>> done;
    for (int i = 0; i < 2; ++i) {
        auto p = std::make_shared<std::promise<void>>();
        done.push_back(p->get_future());
        if (!exec->Post([barrier, p] {
                barrier->arrive_and_wait();
                p->set_value();
            }))
            return false;
    }
    for (auto& f : done)
        if (f.wait_for(std::chrono::minutes(2)) != std::future_status::ready) return false;
    return true;
}

}  // namespace mctest
