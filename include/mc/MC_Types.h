// Small types shared by the exported classes: check-out results and flags, check-in flags, and
// the bag's recency set. Thread-safety: plain definitions.
#pragma once

#include <cstdint>
#include <set>

#include "mc/host/IntrusivePtr.h"

using velacore::IntrusivePtr;

class MC_Stuff;
class MC_Bag;
class MC_SortDir;

enum MC_CheckoutResult : int32_t {
    MC_CheckoutResult_Failed = 0,             // nothing checked out
    MC_CheckoutResult_CheckedOut = 1,         // checked out read-only or writeable as asked
    MC_CheckoutResult_CreatedNewPending = 2,  // a new pending item, checked out; caller renders it
    MC_CheckoutResult_HeldOnly = 3            // a receipt references the item without a check-out
};

// Check-out flags (bits not listed are ignored).
enum : int {
    MC_CheckoutFlag_ReadOnly = 0x01,       // shared read-only; clear = writeable
    MC_CheckoutFlag_MemoryOnly = 0x02,     // fail unless in memory or pending; no disk read-back
    MC_CheckoutFlag_AllowNoData = 0x04,    // succeed with neither data, pending render nor file
    MC_CheckoutFlag_NoDiskRead = 0x08,     // never read back from disk
    MC_CheckoutFlag_CreatePending = 0x10,  // find: create a pending item on a miss
    MC_CheckoutFlag_WaitIfPendingUnlessLocked = 0x20,  // accept pending unless notify lock held
    MC_CheckoutFlag_WaitIfPending = 0x40,              // accept pending always
    MC_CheckoutFlag_ReferenceOnly = 0x80               // receipt: hold without checking out
};

// Check-in flags (bits not listed are ignored).
enum : int {
    MC_CheckinFlag_DontUpdateLastUsed = 0x01,  // keep the item's recency position
    MC_CheckinFlag_Remove = 0x02,              // remove from bag and sort directory
    MC_CheckinFlag_Purge = 0x04,               // free the item's memory at once
    MC_CheckinFlag_ForceWriteToDisk = 0x08     // queue a disk write whatever the decision says
};
