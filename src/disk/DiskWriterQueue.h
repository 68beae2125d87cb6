// The process-wide disk-write queue: items waiting for the two writer threads, oldest first, each
// with the check-out receipt that keeps a queued high-priority item resident. The count is an
// atomic so that the write decision reads it without the mutex; the nominal capacity (200) is
// never enforced here, only by the decision. Each entry has exactly one run scheduled on the
// disk executor (MC_Stuff::WriteToDiskAsyncOnDiskThread); a run that the executor drops (it was
// stopped) drops the oldest entry instead, so a stopped writer leaves nothing queued.
// Thread-safety: every member may be called from any thread. The mutex is never held while an
// entry is written or destroyed.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "mc/host/IntrusivePtr.h"

class MC_Stuff;
class MC_ScCheckout;

class MCp_DiskWriteQueue {
  public:
    static constexpr int32_t kNominalCapacity = 200;

    struct Entry {
        velacore::IntrusivePtr<MC_Stuff> stuff;
        std::shared_ptr<MC_ScCheckout> receipt;  // may be empty
    };

    // The one queue of the process.
    static MCp_DiskWriteQueue& Get();

    // Appends `entry` at the back and counts it.
    void Push(Entry entry);
    // Moves the oldest entry into `out` and uncounts it. Returns false when the queue is empty.
    bool PopFront(Entry& out);
    // Drops the oldest entry (its receipt checks in here, outside the mutex).
    void DropFront();

    // Entries queued now (may be read without the mutex).
    int32_t Count() const { return count_.load(std::memory_order_acquire); }
    // The free share p of the nominal capacity: 0 above it, 1 for a negative count, else
    // (200 - count) / 200.
    double FreeShare() const;
    // count / 200, clamped to [0, 1].
    double FillFraction() const;

    // Moves the count without queueing anything (tests of the decision).
    void AdjustCountForTesting(int32_t delta);

  private:
    mutable std::mutex mutex_;
    std::deque<Entry> entries_;
    std::atomic<int32_t> count_{0};
};
