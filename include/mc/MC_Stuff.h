// MC_Stuff: one cached item — an identity (GUID), a payload, the key it was requested by, and the
// bookkeeping that lets many threads share it: check-out count and writeable check-out, a pending
// render with a gate other threads wait on, the last-use time for the recency order, compute
// time, disk file, and the sizes it reported to its bag.
//
// States, and the methods that move between them (the four axes are independent):
//   render     pending -> complete: MC_Stuff() starts pending (gate closed), CreateNew() is born
//              complete. SetStuffDataFromPendingRender completes it once (a null payload abandons
//              it: the item leaves its bag) and opens the gate; WaitForPendingCompletion blocks
//              on the gate. There is no way back to pending.
//   check-out  idle (count 0) -> read (count >= 1): Checkout with MC_CheckoutFlag_ReadOnly.
//              idle -> write (count 1, writeable, held out of its sort directory): Checkout
//              without it; read (count 1) -> write: ConvertToWriteable (deletes the disk file).
//              Checkin lowers the count (write -> idle puts the item back in its directory);
//              UndoWriteableCheckout gives back a write claim whose read-back failed.
//   residence  resident (payload in memory) and/or on disk (a file attached); neither while
//              pending. Disk -> resident: EnsureInMemory / PrepAndRead (from a check-out).
//              Resident -> not: FreeUpAsMuchAsPossible (idle only), PurgeAfterLastCheckin, a
//              failed read. On disk: PrepAndWrite, SetDiskCacheFile (scan adoption); off disk:
//              DeleteDiskCacheFile, MaybeDeleteDiskCacheFile, ClearDiskCacheFile. An idle
//              complete item with neither leaves its bag (FreeUpAsMuchAsPossible).
//   purge/write  the purge guard word: idle 0 -> purging 2 (PurgeIfPossiblePrivate) or
//              writing 1 (PrepAndWrite); each skips the item while the other holds it. At most
//              one PrepAndWrite per item runs (writeInProgress_).
// Membership: AddToBagAndSortDir / RemoveFromBagAndSortDir; removed while checked out, the
// payload is freed at the last check-in (purgeAtLastCheckin_).
//
// Thread-safety: any thread may use any item. Lock order: a receipt's lock, then the cache lock
// (MCp_ScLock), then the item lock; never the cache lock while holding an item lock. The fields
// below say what guards each.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "mc/Export.h"
#include "mc/MC_StuffData.h"
#include "mc/MC_Types.h"
#include "mc/host/Guid.h"
#include "mc/host/IntrusivePtr.h"
#include "mc/host/MultiTenantRecursiveMutex.h"
#include "mc/host/OnDemand.h"
#include "mc/host/OpenOnceGate.h"
#include "mc/host/Signal.h"

namespace velacore {
class File;
}
class MCp_ScLock;
class MC_ScCheckout;

class MC_API MC_Stuff : public velacore::RefCountedObjectWithWeakPtr {
public:
    // Keeps an item's disk file from being deleted while it lives (see CheckoutDiskCache).
    class MC_API DiskCacheCheckoutScoper {
    public:
        DiskCacheCheckoutScoper(std::atomic<uint32_t>& itemCount,
                                std::atomic<uint32_t>& globalCount);
        ~DiskCacheCheckoutScoper();
        DiskCacheCheckoutScoper(const DiskCacheCheckoutScoper&) = delete;
        DiskCacheCheckoutScoper& operator=(const DiskCacheCheckoutScoper&) = delete;

    private:
        std::atomic<uint32_t>& itemCount_;
        std::atomic<uint32_t>& globalCount_;
    };
    using StateSignal = velacore::Signal<void(bool inMemory, bool onDisk)>;

    // A pending item with no data (the sort directory creates these).
    MC_Stuff();
    // An item around `data`, completed at once with `computeTime`.
    static IntrusivePtr<MC_Stuff> CreateNew(IntrusivePtr<MC_StuffData> data, double computeTime);

    // --- identity ---
    velacore::Guid GetGuid() const;
    // Hash of the GUID, computed when it is set.
    size_t GetGuidHash() const { return guidHash_.load(std::memory_order_acquire); }
    // Sets the GUID without re-keying the sort directory. The GUID is the key the cache finds
    // items by: give every request one (items of one thing share it), or every request misses.
    void SetGuid(const velacore::Guid& guid);
    // Sets the GUID and re-keys the item in its sort directory.
    void UpdateWithNewGuid(const velacore::Guid& guid);
    velacore::Guid GetMediaMapGuid() const;
    void SetMediaMapGuid(const velacore::Guid& guid);
    uint64_t GetMediaMapID() const;
    void SetMediaMapID(uint64_t id);

    // --- payload and key ---
    IntrusivePtr<MC_StuffData> GetDataPtr() const;
    // The payload when there is one, else the key the item was requested by.
    IntrusivePtr<MC_StuffData> GetFindKeyData() const;
    void SetFindKeyData(IntrusivePtr<MC_StuffData> key);
    // Waits for a pending render, then returns the payload (null when it was abandoned).
    IntrusivePtr<MC_StuffData> GetDataWaitIfPending();
    // Priority of the find-key data; 0 without one.
    MC_CachePriority GetCachePriority() const;

    // --- times ---
    double GetComputeTime() const;
    void SetComputeTime(double seconds);
    double GetCachedComputeTimeSavings() const;
    void SetCachedComputeTimeSavings(double seconds);
    // Compute time plus cached savings, read together.
    double GetPotentialComputeTime() const;
    uint64_t GetLastUseTime() const { return lastUseTime_.load(std::memory_order_acquire); }
    void UpdateLastUsedTimeToNow();
    uint64_t GetLastReadFromDiskTime() const;

    // --- bag and sort directory ---
    std::weak_ptr<MC_Bag> GetBag() const;
    std::shared_ptr<MC_SortDir> GetSortDir() const;
    void SetSortDir(const std::shared_ptr<MC_SortDir>& dir);
    // Built at the first call: items nobody subscribes to carry no list.
    StateSignal& GetMemDiskChangedSignal() { return stateSignal_.Get(); }

    // --- state ---
    bool IsInMemory() const;
    bool IsOnDisk() const;
    bool IsPendingRender() const { return pending_.load(std::memory_order_acquire); }
    // Pending, created by the calling thread, and checked out.
    bool IsPendingFromThisThread() const;
    bool IsCheckedOutWriteable() const;
    uint32_t GetCheckoutCount() const { return checkoutCount_.load(std::memory_order_acquire); }
    bool WasTaggedToWriteToDisk() const { return taggedToWrite_.load(std::memory_order_acquire); }
    uint32_t GetApproximateMemorySize() const;
    bool ShouldAllowPurge() const;

    // --- check-out and check-in ---
    // Returns 0 (failed, nothing changed) or 1. Without flag 0x01 the check-out is writeable;
    // a disk-only payload is read back only once every refusal has been ruled out.
    MC_CheckoutResult Checkout(int flags);
    // Ends one check-out. computeTime only feeds the disk-write decision.
    void Checkin(int flags, double computeTime);
    // Check-in and check-out again with no purge able to slip in between.
    MC_CheckoutResult CheckinAndCheckout(int checkinFlags, double computeTime, int checkoutFlags);
    // Turns the caller's single read-only check-out into a writeable one and deletes the disk
    // file. Throws MCp_Err_CheckedOut (already writeable, or more than one
    // check-out) or MCp_Err_NotCheckedOut (none); see mc/MC_Errors.h.
    void ConvertToWriteable();
    // Completes a pending render with `data` (null abandons it: the item leaves the bag) and
    // releases every waiter. A second completion is ignored.
    void SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData> data, double computeTime);
    // Blocks while a render is pending (at most 24 hours).
    void WaitForPendingCompletion();

    // --- bag membership ---
    void AddToBagAndSortDir(const std::shared_ptr<MC_Bag>& bag);
    // Adds and checks out under one cache lock so that no purge takes the item first.
    MC_CheckoutResult AddToBagAndSortDirAndCheckout(const std::shared_ptr<MC_Bag>& bag, int flags);
    // Leaves bag and sort directory and drops the payload's memory; while others hold the item
    // checked out, the memory goes at the last check-in.
    void RemoveFromBagAndSortDir();
    // Report this item's sizes to its bag (or the global bag when it has none).
    void SyncMemorySizeWithBag(uint32_t size);
    void SyncDiskSizeWithBag(uint32_t size);
    // Takes the item out of its sort directory while keeping its reference to it.
    void TempRemoveFromSortDir(const MCp_ScLock& lock, const velacore::ScopedWriteLockWrapper& w);

    // --- purge ---
    // Frees what the item can (nothing while checked out). Returns the bytes freed.
    uint32_t FreeUpAsMuchAsPossible(bool updateMediaMap, MC_ReleaseList* releaseList);
    void PurgeFromMediaMap();

    // --- disk cache ---
    void MaybeWriteToDisk();
    void ReconsiderWriteToDisk();
    bool WorthWritingToDiskCache(double computeTime, bool* canDiskCache,
                                 bool* wouldWriteButQueueFull, bool* isLowPriority);
    static void WriteToDiskAsyncOnDiskThread(IntrusivePtr<MC_Stuff> stuff);
    static void WriteToDiskAsyncFromQueue();
    static void WriteToDiskAsync(IntrusivePtr<MC_Stuff> stuff,
                                 std::shared_ptr<MC_ScCheckout> receipt);
    void PrepAndWrite(const std::shared_ptr<MC_Bag>& bag);
    // Makes the payload resident, reading it back when needed. Returns whether it is resident.
    // Throws the host's code when it refuses quiet-errors mode for the read.
    bool EnsureInMemory();
    bool PrepAndRead(velacore::ScopedUpgradeLockWrapper& upgradeLock);
    // A hold on the disk file; empty when `onlyIfOnDisk` and the item has no file.
    std::unique_ptr<DiskCacheCheckoutScoper> CheckoutDiskCache(bool onlyIfOnDisk);
    velacore::File GetDiskCacheFile() const;
    // Attaches `file` (replacing, or only when there is none). Returns whether it was attached.
    bool SetDiskCacheFile(const velacore::File& file, bool onlyIfNone);
    // Forgets the file without deleting it.
    void ClearDiskCacheFile();
    // Deletes the file when the item is idle, unheld and last used before `lastUseLimit`.
    void MaybeDeleteDiskCacheFile(uint64_t lastUseLimit, bool& deleted, bool& tooRecent);
    uint32_t GetDiskCacheCheckoutCount() const { return diskHolds_.load(); }
    static void GetAdjustedAverageReadSpeed(double* readSpeed, double* queueScaledReadSpeed,
                                            bool lowPriority);
    static double GetAverageDiskReadSpeed();
    static double GetAverageDiskWriteSpeed();
    static double GetMaxDiskReadSpeed();
    static double GetMaxDiskWriteSpeed();

    // --- process-wide counters ---
    static uint32_t GetNumStuffs();
    static uint32_t GetNumStuffsOnDisk();
    static uint32_t GetNumDiskCacheCheckouts();

    // Locks of the item (for payload code and the cache's own helpers).
    velacore::MultiTenantRecursiveMutex& GetLock() const { return lock_; }

protected:
    ~MC_Stuff() override;

private:
    friend class MC_Bag;
    friend class MC_SortDir;
    friend class MC_ScStuffSetter;
    friend struct MCp_StuffAccess;
    // The disk tier's writer, reader and budget work on the item's fields (src/disk).
    friend class MCp_DiskWriter;
    friend class MCp_DiskReader;
    friend class MCp_DiskBudget;

    // A pending item with `guid` (a miss's pending item takes its request's).
    explicit MC_Stuff(const velacore::Guid& guid);
    MC_CheckoutResult CheckoutForWrite(int flags);
    MC_CheckoutResult CheckoutLocked(int flags, bool writeable, bool acceptPending);
    void UndoWriteableCheckout();
    void PurgeAfterLastCheckin();
    void SetStuffDataFromPendingRender_Impl(IntrusivePtr<MC_StuffData> data, double computeTime);
    void DecrementCheckoutLocked(bool& decremented, bool& lastOut);
    void FinishCheckin(bool lastOut, bool decremented);
    void AdjustBagSizes(MC_Bag& bag, uint32_t old, uint32_t size, uint32_t oldChecked,
                        uint32_t checked);
    void CheckinDiskStep(int flags, bool wasWriteable, double computeTime, bool renderDone);
    void ThrowIfCheckedOutLessThan(int n);
    void ThrowIfCheckedOutMoreThan(int n);
    void ThrowIfCheckedOutWriteable();
    bool PurgeIfPossiblePrivate(const velacore::ScopedWriteLockWrapper& w,
                                MC_ReleaseList* releaseList);
    bool DeleteDiskCacheFile();
    std::shared_ptr<MC_Bag> LockBag() const;
    // LockBag for a caller that holds the item lock or the cache lock.
    std::shared_ptr<MC_Bag> LockBagHeld() const;
    std::shared_ptr<MC_Bag> TargetBag() const;
    void LockGuid() const;
    void UnlockGuid() const { guidSpin_.store(0, std::memory_order_release); }

    // The fields are ordered so that those a hit touches share the first cache lines and the
    // small ones pack together; the comment on each says what guards it.

    // Guards guid_ and guidHash_; re-keying an item that is in a sort directory also holds the
    // cache lock (UpdateWithNewGuid).
    mutable std::atomic<uint8_t> guidSpin_{0};
    // --- flags, atomic: read without locks ---
    std::atomic<bool> pending_{true};  // set once to false by the first completion
    // Set by the completion before it opens the gate, if there is one; a waiter installs the
    // gate and then reads renderDone_ (both sequentially consistent), so one of the two always
    // sees the other.
    std::atomic<bool> renderDone_{false};
    std::atomic<bool> taggedToWrite_{false};
    std::atomic<bool> writeInProgress_{false};      // claimed by PrepAndWrite for its run
    std::atomic<bool> renderAwaitsCheckin_{false};  // completed under a writeable check-out
    // Left its bag while checked out: set and cleared under the cache lock and the item write
    // lock, read by Checkin without locks.
    std::atomic<bool> purgeAtLastCheckin_{false};
    // Written under the cache lock and the item write lock; read under the item lock.
    bool checkedOutWriteable_ = false;

    velacore::Guid guid_;                // guarded by the spin lock
    std::atomic<uint32_t> guidHash_{0};  // hash of guid_, stored with it under the spin lock
    // Changed only under the item lock (upgrade or write; check-in also holds the cache lock);
    // GetCheckoutCount reads it without locks.
    std::atomic<uint32_t> checkoutCount_{0};
    std::atomic<uint64_t> lastUseTime_;  // the recency list keeps its own copy (mruStamp_)

    // --- guarded by the item lock ---
    IntrusivePtr<MC_StuffData> data_;
    IntrusivePtr<MC_StuffData> findKeyData_;

    // --- the item lock ---
    mutable velacore::MultiTenantRecursiveMutex lock_;

    // --- atomic ---
    std::atomic<uint32_t> memSizeReported_{0};  // sizes last reported to the bag (exchanged)
    std::atomic<uint32_t> checkedOutSizeReported_{0};
    // Guarded by the cache lock: recency tasks handed to the host's runner and not yet run.
    uint32_t relinksQueued_ = 0;
    // Compare-and-swap word shared by the purge and the writer: 0 idle, 2 purging, 1 writing.
    std::atomic<int32_t> purgeGuard_{0};

    // --- guarded by the cache lock: the item's place in its bag's recency list ---
    MC_Stuff* mruPrev_ = nullptr;
    MC_Stuff* mruNext_ = nullptr;
    uint64_t mruStamp_ = 0;  // last-use time captured when linked; the list is sorted by it
    // The bag whose recency list holds this item (and one reference to it). Written under the
    // cache lock and the item write lock, so either lock makes it safe to read; the bag clears
    // it under both before it goes.
    MC_Bag* bag_ = nullptr;

    // --- atomic: the disk tier's figures ---
    std::atomic<uint32_t> diskHolds_{0};
    std::atomic<uint32_t> diskSizeReported_{0};
    std::atomic<uint64_t> lastReadFromDiskTime_{0};

    // --- set at construction, never changed ---
    std::thread::id creatorThread_;

    // --- built on demand. The render gate by the first waiter (see renderDone_); the state
    // signal by the first subscriber, thread-safe by itself, emitted outside the item lock
    // except when a disk file is deleted under it (MaybeDeleteDiskCacheFile, a failed read-back)
    velacore::OnDemand<velacore::OpenOnceGate> gate_;
    velacore::OnDemandSignal<void(bool inMemory, bool onDisk)> stateSignal_;

    // --- guarded by the item lock ---
    std::unique_ptr<velacore::File> diskFile_;
    // The media map's names for the item, built when the map first registers it.
    struct MediaMapIds {
        velacore::Guid guid;
        uint64_t id = 0;
    };
    velacore::OnDemand<MediaMapIds> mediaMap_;
    double computeTime_ = 0.0;
    double cachedComputeTimeSavings_ = 0.0;
    // Written under the cache lock and the item write lock; read under the item lock.
    std::weak_ptr<MC_SortDir> sortDir_;
};
