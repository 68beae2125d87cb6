// The process-wide cache lock.
#include "host/HostOps.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/RecursiveMutex.h"

namespace {
velacore::RecursiveMutex& CacheMutex() {
    static velacore::RecursiveMutex mutex;
    return mutex;
}
}  // namespace

MCp_ScLock::MCp_ScLock() : mutex_(&CacheMutex()) {
    const bool nested = mutex_->IsLockedByCurrentThread();
    {
        std::unique_ptr<debug::ProfileScope> wait;
        if (debug::IsProfiling(6))
            wait = std::make_unique<debug::ProfileScope>("ZK.MCp_ScLock - wait", 6);
        mutex_->lock();
        owns_ = true;
    }
    // Only the outermost lock of a thread measures hold time.
    if (!nested && debug::IsProfiling(7))
        holdProfiler_ = std::make_unique<debug::ProfileScope>("ZK.MCp_ScLock - held", 7);
}

MCp_ScLock::~MCp_ScLock() {
    holdProfiler_.reset();
    if (owns_) mutex_->unlock();
}

bool MCp_ScLock::IsHeldByCurrentThread() {
    return CacheMutex().IsLockedByCurrentThread();
}
