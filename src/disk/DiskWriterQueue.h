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
#include <utility>

#include "mc/host/IntrusivePtr.h"

class MC_Stuff;
class MC_ScCheckout;

// Counts one write from the moment it is queued until the entry that carries it is destroyed,
// which the writer does only after the write has finished; moves carry the count along.
// MC_Bag::WaitForDiskWrites waits for the total to reach zero.
class MCp_PendingDiskWrite {
  public:
    MCp_PendingDiskWrite() = default;
    explicit MCp_PendingDiskWrite(bool counted) : counted_(counted) {
        if (counted_) Outstanding().fetch_add(1, std::memory_order_acq_rel);
    }
    MCp_PendingDiskWrite(MCp_PendingDiskWrite&& other) noexcept
        : counted_(std::exchange(other.counted_, false)) {}
    MCp_PendingDiskWrite& operator=(MCp_PendingDiskWrite&& other) noexcept {
        if (this != &other) {
            Release();
            counted_ = std::exchange(other.counted_, false);
        }
        return *this;
    }
    ~MCp_PendingDiskWrite() { Release(); }
    // Writes queued or being written in the process.
    static std::atomic<int32_t>& Outstanding() {
        static std::atomic<int32_t> count{0};
        return count;
    }
    // Wakes MC_Bag::WaitForDiskWrites (DiskWait.cpp).
    static void NotifyDone();

  private:
    void Release() {
        if (std::exchange(counted_, false) &&
            Outstanding().fetch_sub(1, std::memory_order_acq_rel) == 1)
            NotifyDone();
    }
    bool counted_ = false;
};

class MCp_DiskWriteQueue {
  public:
    static constexpr int32_t kNominalCapacity = 200;

    struct Entry {
        Entry() = default;
        Entry(velacore::IntrusivePtr<MC_Stuff> s, std::shared_ptr<MC_ScCheckout> r);  // counted
        velacore::IntrusivePtr<MC_Stuff> stuff;
        std::shared_ptr<MC_ScCheckout> receipt;  // may be empty
        MCp_PendingDiskWrite pending;            // counted until the write is over
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
