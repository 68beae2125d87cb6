// MCp_ScLock: the scoped process-wide cache lock. One recursive mutex is shared by every bag and
// sort directory; a thread may nest it freely, and only its outermost lock measures hold time.
// Operations that need their caller to hold it take `const MCp_ScLock&` as proof.
// Thread-safety: a lock object belongs to the thread that created it.
#pragma once

#include <memory>

#include "mc/Export.h"

namespace velacore {
class RecursiveMutex;
}
namespace debug {
class ProfileScope;
}

class MC_API MCp_ScLock {
public:
    MCp_ScLock();
    ~MCp_ScLock();
    MCp_ScLock(const MCp_ScLock&) = delete;
    MCp_ScLock& operator=(const MCp_ScLock&) = delete;

    // Whether the calling thread holds the cache lock.
    static bool IsHeldByCurrentThread();

private:
    velacore::RecursiveMutex* mutex_;
    bool owns_ = false;
    std::unique_ptr<debug::ProfileScope> holdProfiler_;
};
