// The disk writer's queue, the count of writes outstanding and the wait for them to end. See
// DiskWriter.h.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "disk/DiskWriter.h"
#include "lifecycle/Counters.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"

namespace {
std::mutex& WaitMutex() {
    static std::mutex m;
    return m;
}
std::condition_variable& WaitSignal() {
    static std::condition_variable cv;
    return cv;
}
}  // namespace

MCp_DiskWriteQueue::Entry::Entry(velacore::IntrusivePtr<MC_Stuff> s,
                                 std::shared_ptr<MC_ScCheckout> r)
    : stuff(std::move(s)), receipt(std::move(r)), pending(true) {}

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

void MCp_PendingDiskWrite::NotifyDone() {
    // Taking the mutex orders this wake-up after a waiter's check of the count.
    { std::lock_guard<std::mutex> lock(WaitMutex()); }
    WaitSignal().notify_all();
}

bool MCp_DiskWriter::WaitForWrites(double seconds) {
    const auto limit = std::chrono::duration<double>(seconds > 0 ? seconds : 0);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                               std::min(limit, std::chrono::duration<double>(1e9)));
    std::unique_lock<std::mutex> lock(WaitMutex());
    return WaitSignal().wait_until(lock, deadline, [] {
        return MCp_PendingDiskWrite::Outstanding().load(std::memory_order_acquire) == 0;
    });
}
