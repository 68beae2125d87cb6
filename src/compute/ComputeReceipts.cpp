// The table of live compute receipts.
#include "compute/ComputeReceipts.h"

#include <mutex>

MCp_ComputeReceipts& MCp_ComputeReceipts::Instance() {
    static MCp_ComputeReceipts table;
    return table;
}

ZKGP_ComputeReceipt MCp_ComputeReceipts::Add(std::unique_ptr<MC_ScCheckout> receipt) {
    auto handle = reinterpret_cast<ZKGP_ComputeReceipt>(receipt.get());
    {
        std::unique_lock lock(mutex_);
        live_.insert(handle);
    }
    receipt.release();  // now owned through the handle
    return handle;
}

std::unique_ptr<MC_ScCheckout> MCp_ComputeReceipts::Take(ZKGP_ComputeReceipt handle) {
    std::unique_lock lock(mutex_);
    if (!handle || live_.erase(handle) == 0) return nullptr;
    return std::unique_ptr<MC_ScCheckout>(reinterpret_cast<MC_ScCheckout*>(handle));
}

size_t MCp_ComputeReceipts::LiveCount() const {
    std::shared_lock lock(mutex_);
    return live_.size();
}
