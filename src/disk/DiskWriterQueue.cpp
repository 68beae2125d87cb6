// The process-wide disk-write queue.
#include "disk/DiskWriterQueue.h"

#include "lifecycle/Counters.h"
#include "mc/MC_Bag.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"

MCp_DiskWriteQueue& MCp_DiskWriteQueue::Get() {
    static MCp_DiskWriteQueue queue;
    return queue;
}

void MCp_DiskWriteQueue::Push(Entry entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(std::move(entry));
    count_.fetch_add(1, std::memory_order_acq_rel);
    MCp_GetCounters().writeQueueLength.fetch_add(1);
}

bool MCp_DiskWriteQueue::PopFront(Entry& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (entries_.empty()) return false;
    out = std::move(entries_.front());
    entries_.pop_front();
    count_.fetch_sub(1, std::memory_order_acq_rel);
    MCp_GetCounters().writeQueueLength.fetch_sub(1);
    return true;
}

void MCp_DiskWriteQueue::DropFront() {
    Entry dropped;
    PopFront(dropped);
}  // `dropped` dies here, after the mutex was released

double MCp_DiskWriteQueue::FreeShare() const {
    const int32_t q = Count();
    if (q > kNominalCapacity) return 0.0;
    if (q < 0) return 1.0;
    return static_cast<double>(kNominalCapacity - q) / kNominalCapacity;
}

double MCp_DiskWriteQueue::FillFraction() const {
    const int32_t q = Count();
    if (q > kNominalCapacity) return 1.0;
    if (q < 0) return 0.0;
    return static_cast<double>(q) / kNominalCapacity;
}

void MCp_DiskWriteQueue::AdjustCountForTesting(int32_t delta) {
    count_.fetch_add(delta, std::memory_order_acq_rel);
}

double MC_Bag::GetDiskWriteQueueSizePercentFull() const {
    return MCp_DiskWriteQueue::Get().FillFraction();
}

double MC_Bag::GetAdjustedWriteTimePercent(double spanSeconds, double threshold) const {
    if (1.0 - MCp_DiskWriteQueue::Get().FreeShare() > threshold) return 2.0;  // saturated
    return GetPercentTimeWritingToDisk(spanSeconds);
}
