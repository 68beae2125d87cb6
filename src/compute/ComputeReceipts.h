// MCp_ComputeReceipts: the receipts handed out to plug-ins and not yet checked in. A handle is
// the address of its MC_ScCheckout; the table owns nothing but lets the receipt calls tell a
// live receipt from a stale or foreign handle without touching freed memory.
// Thread-safety: every member may be called from any thread. Use keeps a receipt alive against
// a concurrent Take of the same handle (Take waits for it).
#pragma once

#include <cstddef>
#include <memory>
#include <shared_mutex>
#include <unordered_set>

#include "mc/MC_ComputeCache.h"
#include "mc/MC_ScCheckout.h"

class MCp_ComputeReceipts {
public:
    // The one table of the process.
    static MCp_ComputeReceipts& Instance();

    // Makes `receipt` live and returns its handle; the caller hands the object over to the
    // handle's holder. On failure (std::bad_alloc) the receipt is destroyed here.
    ZKGP_ComputeReceipt Add(std::unique_ptr<MC_ScCheckout> receipt);
    // Calls fn(MC_ScCheckout&) while `handle` stays live and returns true; false (fn not
    // called) when the handle is not a live receipt.
    template <class Fn>
    bool Use(ZKGP_ComputeReceipt handle, Fn&& fn) const {
        std::shared_lock lock(mutex_);
        if (!handle || !live_.contains(handle)) return false;
        fn(*reinterpret_cast<MC_ScCheckout*>(handle));
        return true;
    }
    // Ends the handle: returns its receipt to the caller, or null when it was not live.
    std::unique_ptr<MC_ScCheckout> Take(ZKGP_ComputeReceipt handle);
    // Receipts handed out and not yet taken back.
    size_t LiveCount() const;

private:
    mutable std::shared_mutex mutex_;
    std::unordered_set<const void*> live_;
};
