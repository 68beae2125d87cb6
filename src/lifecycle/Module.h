// Module-internal view of the lifecycle state: the executors and the stop request.
// Thread-safety: any thread; the executors are swapped only by birth and stop.
#pragma once

#include <memory>

#include "mc/host/Executor.h"

// The two-thread disk-write executor; null before birth and after MC_StopAllAsyncWork.
std::shared_ptr<velacore::AsyncThreadedSubExecutor> MCp_DiskExecutor();
// The module's asynchronous executor (folder rescans); null when stopped.
std::shared_ptr<velacore::AsyncThreadedSubExecutor> MCp_AsyncExecutor();
// Set by MC_StopAllAsyncWork: long background walks stop early.
bool MCp_StopRequested();
