// Module-internal view of the lifecycle state: the executors and the stop request.
// Thread-safety: any thread; the executors are swapped only by birth and stop.
#pragma once

#include <cstdint>
#include <memory>

#include "mc/host/Executor.h"

class MC_Bag;

// The two-thread disk-write executor; null before birth and after MC_StopAllAsyncWork.
std::shared_ptr<velacore::AsyncThreadedSubExecutor> MCp_DiskExecutor();
// The module's asynchronous executor (folder rescans); null when stopped.
std::shared_ptr<velacore::AsyncThreadedSubExecutor> MCp_AsyncExecutor();
// Set by MC_StopAllAsyncWork: long background walks stop early.
bool MCp_StopRequested();

// MC_IsGlobalBagSizeAboveMinimum for one purge pass: the host's limits are read at the first
// question only. With the minimum trace on, every question goes the traced way.
class MCp_MinimumCheck {
public:
    bool Above();

private:
    bool known_ = false;
    bool always_ = false;
    int64_t minimum_ = 0;
    std::shared_ptr<MC_Bag> bag_;
};
