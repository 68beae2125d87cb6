// The disk writer: decides at check-in whether an item is worth writing, queues it for the two
// writer threads of the disk executor, and writes one item's cache file (budget, check-out,
// temporary, header and payload, commit, accounting). MC_Stuff's disk-write members forward here.
//
// The queue (MCp_DiskWriteQueue) is process-wide: items waiting for the writer threads, oldest
// first, each with the check-out receipt that keeps a queued high-priority item resident. The
// count is an atomic so that the decision reads it without the mutex; the nominal capacity (200)
// is enforced only by the decision. Each entry has exactly one run scheduled on the disk
// executor; a run that the executor drops (it was stopped) drops the oldest entry instead, so a
// stopped writer leaves nothing queued.
//
// Thread-safety: every member may be called from any thread. The queue's mutex is never held
// while an entry is written or destroyed. The writer takes an item's lock only to copy fields
// and to attach the committed file; the file itself is written without any lock, and
// `writeInProgress_` makes sure one run at a time writes an item.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "mc/host/IntrusivePtr.h"

class MC_Bag;
class MC_Stuff;
class MC_ScCheckout;

// Counts one write from the moment it is queued until the entry that carries it is destroyed,
// which the writer does only after the write has finished; moves carry the count along.
// MCp_DiskWriter::WaitForWrites waits for the total to reach zero.
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
    // Wakes MCp_DiskWriter::WaitForWrites.
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

class MCp_DiskWriter {
public:
    // The read speed the decision compares with: the measured average divided by the proclivity
    // multiplier (when positive) and, for low priority, by the low-priority factor (when not 0).
    // `queueScaledReadSpeed` is that times p^2, p being the queue's free share. Either may be null.
    static void AdjustedReadSpeed(double* readSpeed, double* queueScaledReadSpeed,
                                  bool lowPriority);

    // Whether `stuff` computed in `computeTime` seconds is worth writing: reading it back
    // (floored at one millisecond) must be strictly faster than computing it again. High
    // priority skips the speed test and needs only room in the queue; priority Never and items
    // without payload never are. Sets every non-null output: whether the item can be disk-cached
    // at all, whether it would be written but for the queue, and whether it is low priority.
    static bool Worth(MC_Stuff& stuff, double computeTime, bool* canDiskCache,
                      bool* wouldWriteButQueueFull, bool* isLowPriority);

    // The check-in hook: queues a resident, not yet written item of an enabled bag when Worth
    // says so (tags it, counts it), and records "disk busy" when only the queue stood in the way.
    static void MaybeWrite(MC_Stuff& stuff);
    // Gives an item that was refused for reason 5 another chance at low priority.
    static void Reconsider(MC_Stuff& stuff);

    // Queues `stuff` (with a receipt keeping a high-priority item resident) and posts one run to
    // the disk executor. Does nothing when the executor is stopped.
    static void Enqueue(velacore::IntrusivePtr<MC_Stuff> stuff);
    // One run: takes the oldest entry, if any, and writes it.
    static void RunOldest();
    // Writes one entry: makes room in the budget (signals the bag when it cannot), checks the
    // item out read-only if `receipt` does not hold it, writes the file, checks in. Failures
    // are counted and traced, never thrown. Requires the item to have a payload.
    static void Write(velacore::IntrusivePtr<MC_Stuff> stuff,
                      std::shared_ptr<MC_ScCheckout> receipt);
    // Writes the item's file into `bag`'s folder under a temporary made exclusively, commits it
    // and attaches it to the item. Backs off (returns, nothing changed) when another writer
    // holds the item or the file, when the folder is unset or linked, or when a purge holds the
    // item. Throws what the file system or the payload throws (the temporary is removed).
    static void WriteFile(MC_Stuff& stuff, const std::shared_ptr<MC_Bag>& bag);

    // Waits until no write is queued or running, for at most `seconds`. Returns whether it got
    // there.
    static bool WaitForWrites(double seconds);
};
