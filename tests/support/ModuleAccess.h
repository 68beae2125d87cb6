// Test-only access to internals the public API does not expose: exact recency stamps.
// Thread-safety: as the members touched (atomics, or the cache lock taken here).
#pragma once

#include "mc/MC_Bag.h"
#include "mc/MC_Stuff.h"
#include "mc/MCp_ScLock.h"

struct MCp_StuffAccess {
    static void SetLastUseTime(MC_Stuff& s, uint64_t t) { s.lastUseTime_.store(t); }
};

struct MCp_BagAccess {
    // Inserts with a chosen stamp, as AddStuff would with "now".
    static void AddWithStamp(MC_Bag& bag, const IntrusivePtr<MC_Stuff>& s, uint64_t stamp) {
        MCp_ScLock lock;
        MCp_StuffAccess::SetLastUseTime(*s, stamp);
        bag.AddStuffGuts(s, lock, true);
    }
};
