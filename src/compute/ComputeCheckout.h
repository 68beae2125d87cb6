// The compute check-out and the receipt calls behind the plug-in suite: find a compute entry by
// its identity (class name + plug-in key), compute it on a miss, hand out receipts, read their
// values and check them in. Results are the ZKGP_ComputeResult_* codes or a callback's error.
// Thread-safety: every function may be called from any thread, any number at once. Only the
// thread that created a pending entry computes it; others wait (mode 2) or get 22.
#pragma once

#include <string_view>

#include "mc/MC_ComputeCache.h"
#include "mc/host/Guid.h"

enum MCp_ComputeMode : int {
    MCp_ComputeMode_IfCached = 0,  // hand out only a complete cached value
    MCp_ComputeMode_NoWait = 1,    // compute on a miss; 22 while another thread computes
    MCp_ComputeMode_Wait = 2       // compute on a miss; wait while another thread computes
};

// The identity of a compute entry: Murmur3 over "MC-Compute", the class name with its NUL and
// the 16 key bytes.
velacore::Guid MCp_ComputeIdentity(std::string_view className, const ZKGP_GUID& key);

// Checks out (or computes) the value of `params` under `className`. *receipt must be null; on 0
// it holds a receipt the caller must give back through MCp_ComputeReceiptCheckin.
int MCp_ComputeCheckout(const char* className, const void* params, MCp_ComputeMode mode,
                        ZKGP_ComputeReceipt* receipt) noexcept;
// Stores the receipt's value (owned by the cache) in *value. 3 for a bad receipt.
int MCp_ComputeReceiptGetValue(ZKGP_ComputeReceipt receipt, void** value) noexcept;
// Checks the receipt's entry in and destroys the receipt. 0 for null, 2 for a handle that is
// not a live receipt.
int MCp_ComputeReceiptCheckin(ZKGP_ComputeReceipt receipt) noexcept;
