// MC_Bag: the cache's membership — which items are cached, in which order they were last used,
// and how many bytes they hold in memory, checked out and on disk. Owns one sort directory that
// finds items by GUID. Also the disk-cache settings and budget. One global bag exists per process
// (MC_GlobalBag), owned by shared_ptr; items point back to it weakly.
// Thread-safety: every member may be called from any thread. Structural changes happen under the
// process-wide cache lock (MCp_ScLock); the size totals are atomics readable without it. The disk
// folder settings have their own mutex, taken after the cache lock when both are held. The fields
// below are grouped by what guards them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mc/Export.h"
#include "mc/MC_Types.h"
#include "mc/host/IntrusivePtr.h"
#include "mc/host/Signal.h"

namespace velacore {
class Dir;
class File;
}  // namespace velacore
class MCp_ScLock;
class MC_StuffData;

class MC_API MC_Bag : public std::enable_shared_from_this<MC_Bag> {
public:
    using StuffPtr = IntrusivePtr<MC_Stuff>;

    explicit MC_Bag(unsigned appVersion);
    virtual ~MC_Bag();
    MC_Bag(const MC_Bag&) = delete;
    MC_Bag& operator=(const MC_Bag&) = delete;

    // --- membership ---
    // Stamps the item as used now and adds it. Throws MCp_Err_Invariant when it is already in a
    // bag.
    void AddStuff(const StuffPtr& stuff);
    // Throws MCp_Err_Invariant when the item is not in this bag.
    void RemoveStuff(const StuffPtr& stuff);
    // Adds to the bag, then to its sort directory.
    void AddToBagAndSortDir(const StuffPtr& stuff);
    void RemoveStuffFromBagAndSortDir(const StuffPtr& stuff, const MCp_ScLock& lock,
                                      bool updateMediaMap);
    // Removes every item (module shut-down).
    void ClearBagAndSortDir();
    // Stamps the item as used now; it moves to the most recently used end when the host's
    // top-level runner runs the task this hands it (at once, or later on any thread).
    void UpdateWithNewLastUsedTime(const StuffPtr& stuff, const MCp_ScLock& lock);
    // Re-stamps the item and re-syncs its size after its payload changed; keeps its position.
    void AccountForStuffDataModification(const StuffPtr& stuff);
    // Finds an identical (else a satisfying) item for `request` and checks it out; may create a
    // pending item (flag 0x10). *found must be non-null; foundHasDiskFile may be null.
    MC_CheckoutResult FindAndCheckout(const StuffPtr& request, int checkoutFlags, StuffPtr* found,
                                      bool* foundHasDiskFile);
    std::shared_ptr<MC_SortDir> GetSortDir() const { return sortDir_; }

    // --- size accounting ---
    // Adds to the in-memory total; a rise above the wake threshold calls the wake hook.
    void AdjustInMemoryCacheSize(int64_t delta);
    // Calls `wake` whenever the in-memory total rises from at most `threshold` bytes to above
    // it. `wake` must be cheap and must not call back into the cache: it may run under the
    // cache lock. An empty `wake` turns it off.
    void SetMemoryWake(int64_t threshold, std::function<void()> wake);
    void AdjustCheckedOutMemoryCacheSize(int64_t delta);
    void AdjustOnDiskCacheSize(int64_t delta);
    int64_t GetInMemoryCacheSizeInBytes_LockFree() const { return inMemory_.load(); }
    int64_t GetCheckedOutMemoryCacheSizeInBytes() const { return checkedOut_.load(); }
    // Walks the items: payload sizes of resident items, and of items with a disk file.
    void GetCacheSizesInBytes(uint64_t& inMemory, uint64_t& onDisk) const;
    uint64_t GetCurrentMaxCacheSize() const;
    float GetPercentOfAvailableMemoryCheckedOut() const;
    float GetPercentOfAvailableMemoryFree() const;
    int GetNumItems() const;
    int GetNumMruSortedItems() const { return GetNumItems(); }
    int GetNumGuidSortedItems() const;
    unsigned GetAppVersion() const { return appVersion_; }
    uint64_t GetLastPurgedUsedTime() const { return lastPurgedUsedTime_.load(); }
    // Items oldest first (a snapshot holding references).
    std::vector<StuffPtr> SnapshotItems() const;

    // --- memory purge ---
    // Frees least recently used payloads until the host's purge target is met. The argument is
    // ignored. Returns the bytes freed.
    int64_t FreeUpSomeMemory(size_t ignored);
    void PurgeAllMemoryCaches();

    // --- disk cache settings ---
    // Resolves and stores the per-machine folder under `root` and the budget in megabytes.
    // Throws MCp_Err_DiskFolder (nothing changed) when the folder cannot be used; codes are in
    // mc/MC_Errors.h.
    void SetDiskCacheInfo(const velacore::Dir& root, uint64_t maxSizeMegabytes);
    bool EnableDiskCache(bool enable) { return diskEnabled_.exchange(enable); }
    bool IsDiskCacheEnabled() const { return diskEnabled_.load(); }
    velacore::Dir GetDiskCacheDirSpec() const;
    std::u16string GetDiskCacheRootPath() const;
    velacore::Signal<void()>& GetDiskOutOfSpaceSignal() { return diskOutOfSpace_; }
    void ScanOneDiskCacheFile(const velacore::File& file);
    // Adopts the files an earlier run left in the folder; their payloads are rebuilt by the
    // factories registered under their match names, so register those first. The first
    // SetDiskCacheInfo of the process posts one scan to a background thread; call this yourself
    // to have the files adopted before the first request.
    void ScanDiskCacheDir();
    // Waits until no disk write is queued and none is running, for at most `seconds`. Returns
    // true when the writer is idle, false on time-out. MC_StopAllAsyncWork drops queued writes,
    // so a host that wants its items on disk at exit calls this first. Any thread; never from a
    // payload's Write.
    static bool WaitForDiskWrites(double seconds);

    // --- disk budget ---
    int64_t GetCurrentDiskCacheSize() const { return diskSize_.load(); }
    uint64_t GetCurrentMaxDiskCacheSize() const { return static_cast<uint64_t>(maxDisk_.load()); }
    int64_t GetCurrentFreeDiskSpace() const;
    bool IsDiskCacheLimitedDueToDriveSpace() const;
    bool EnsureDiskSpace(int64_t amount, uint64_t lastUseLimit);
    uint64_t FindDiskCacheSizeAcrossVersions(unsigned& folderCount);
    void PurgeAllDiskCaches(const std::function<void(unsigned, unsigned)>& progress,
                            bool includeOtherVersions, unsigned& done, unsigned& total);

    // --- disk statistics ---
    double GetDiskWriteQueueSizePercentFull() const;
    double GetAdjustedWriteTimePercent(double spanSeconds, double threshold) const;
    double GetPercentTimeReadingFromDisk(double spanSeconds) const;
    double GetPercentTimeWritingToDisk(double spanSeconds) const;

private:
    friend class MC_Stuff;
    friend class MC_SortDir;
    friend struct MCp_BagAccess;
    // The disk tier's folder settings and scan work on the disk-info fields (src/disk).
    friend class MCp_DiskFolder;

    void AddStuffGuts(const StuffPtr& stuff, const MCp_ScLock& lock, bool updateMediaMap);
    void RemoveStuffGuts(const StuffPtr& stuff, const MCp_ScLock& lock, bool updateMediaMap);
    static void RelinkAtUseTime(MC_Bag* bag, const StuffPtr& stuff);
    static void RunQueuedRelink(MC_Bag* bag, MC_Stuff* item);
    // The recency list (caller holds the cache lock). Linking takes a reference to the item;
    // unlinking hands it back to the caller.
    void LinkByStamp(MC_Stuff* stuff, uint64_t stamp);
    [[nodiscard]] StuffPtr Unlink(MC_Stuff* stuff);
    void TrackLastPurgedUsedTime(uint64_t t) { lastPurgedUsedTime_.store(t); }
    void TraceMediaMapChange(const char* what, const StuffPtr& stuff);

    // --- guarded by the cache lock (with each item's links, MC_Stuff::mruPrev_/mruNext_):
    // oldest first, sorted by the stamp captured at linking; equal stamps in linking order ---
    MC_Stuff* mruHead_ = nullptr;
    MC_Stuff* mruTail_ = nullptr;
    size_t mruSize_ = 0;

    // --- set at construction, never changed ---
    std::shared_ptr<MC_SortDir> sortDir_;  // its contents are guarded by the cache lock
    unsigned appVersion_;
    std::shared_ptr<std::list<IntrusivePtr<MC_Stuff>>> spareList_;  // allocated, never used

    // --- guarded by diskInfoMutex_ ---
    mutable std::recursive_mutex diskInfoMutex_;
    std::unique_ptr<velacore::Dir> diskDir_;
    std::u16string rootPath_;
    uint64_t lastScanMark_ = 0;

    // --- atomic: read without locks ---
    std::atomic<bool> diskEnabled_{false};
    std::atomic<int64_t> maxDisk_{0};  // stored under the cache lock and diskInfoMutex_
    std::atomic<int64_t> diskSize_{0};
    std::atomic<uint64_t> lastPurgedUsedTime_{0};  // stored under the cache lock
    std::atomic<int64_t> inMemory_{0};
    std::atomic<int64_t> checkedOut_{0};
    std::atomic<int64_t> wakeAbove_{INT64_MAX};  // the wake threshold; stored under wakeMutex_

    // --- guarded by wakeMutex_ (a leaf lock, taken only when the total crosses) ---
    std::mutex wakeMutex_;
    std::function<void()> wake_;

    // --- thread-safe by itself ---
    velacore::Signal<void()> diskOutOfSpace_;
};
