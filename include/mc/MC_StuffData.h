// MC_StuffData: the polymorphic payload of one cached item (a rendered frame, an intermediate
// image, a computed value). The cache never looks inside; it asks through the virtual operations
// below. The same class serves as a search key. Disk-cacheable subclasses register a factory
// under their match name so that files found on disk can be turned back into payloads.
// Thread-safety: a payload has no lock of its own; its item's lock guards it. The cache priority
// may be changed from any thread. The factory registry is safe from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "mc/Export.h"
#include "mc/host/IntrusivePtr.h"

namespace velacore {
class OByteStream;
class IByteStream;
class MultiTenantRecursiveMutex;
}  // namespace velacore

using velacore::IntrusivePtr;

// How eagerly a payload goes to the disk cache. Values above 3 behave like 3.
enum MC_CachePriority : int32_t {
    MC_CachePriority_Never = 0,  // never written (the default)
    MC_CachePriority_Low = 1,    // written when re-reading beats recomputing, judged cautiously
    MC_CachePriority_High = 2,   // written unless the write queue is full
    MC_CachePriority_Normal = 3  // written when re-reading beats recomputing
};

// Objects a purge hands over to be freed later, outside the cache's locks.
using MC_ReleaseList = std::deque<std::shared_ptr<void>>;

class MC_API MC_StuffData : public velacore::RefCountedObject {
public:
    // Why a payload was not written to the disk cache. 3 is set by the cache; the others by
    // clients, which give them their meaning. Each non-zero reason is counted.
    enum NoDiskCacheReason : int32_t {
        NoDiskCacheReason_None = 0,
        NoDiskCacheReason_1 = 1,
        NoDiskCacheReason_2 = 2,
        NoDiskCacheReason_DiskBusy = 3,
        NoDiskCacheReason_4 = 4,
        NoDiskCacheReason_5 = 5
    };
    // Builds an empty payload from the header bytes stored with a disk file.
    using Factory = std::function<IntrusivePtr<MC_StuffData>(const std::vector<uint8_t>&)>;

    MC_StuffData() = default;
    ~MC_StuffData() override;

    // --- virtual operations, in slot order ---
    // Is this payload exactly what `request` describes? Base: true.
    virtual bool IdenticalRequest(IntrusivePtr<MC_StuffData> request) const;
    // Can this payload serve `request` although not identical? Base: true.
    virtual bool CanSatisfyRequest(IntrusivePtr<MC_StuffData> request) const;
    // Bytes held in memory.
    virtual uint32_t GetApproximateMemorySize() const = 0;
    // Frees the payload's memory; objects that hold it may be moved into `deferredFrees` (null
    // means free at once). Returns whether anything was purged.
    virtual bool PurgeIfPossible(MC_ReleaseList* deferredFrees) = 0;
    virtual bool IsInMemory() const = 0;
    // False keeps the item in memory. Base: true.
    virtual bool ShouldAllowPurge() const;
    // Only payloads that answer true are ever written to disk. Base: false.
    virtual bool CanDiskCache() const;
    // Name stored in a disk file to pick the factory on read-back; no full stop. Base: null.
    virtual const char* GetSubclassMatchname() const;
    // Bytes stored in the file name and handed to the factory. Base: leaves `header` untouched.
    virtual void GetHeader(std::vector<uint8_t>& header) const;
    // Writes the body; returns the seconds it spent. Base: writes nothing, 0.0.
    virtual double Write(velacore::OByteStream& out) const;
    // Fills the payload from the body; returns the seconds it spent. `itemLock` is the owning
    // item's lock, held for upgrade by the caller. Base: reads nothing, 0.0.
    virtual double Read(velacore::IByteStream& in, velacore::MultiTenantRecursiveMutex& itemLock);

    // --- priority and no-disk-cache reason ---
    MC_CachePriority GetCachePriority() const { return priority_.load(std::memory_order_relaxed); }
    void SetCachePriority(MC_CachePriority p) { priority_.exchange(p); }
    NoDiskCacheReason GetReasonWhyNoDiskCache() const { return reason_; }
    void SetReasonWhyNoDiskCache(NoDiskCacheReason r) { reason_ = r; }
    // Same as SetReasonWhyNoDiskCache: what clients call when they keep a payload off the disk.
    void SetNoDiskCache(NoDiskCacheReason r) { reason_ = r; }

    // --- factory registry (process-wide) ---
    // Registers `factory` under `matchname`; a second registration replaces the first.
    static void RegisterFactory(const char* matchname, Factory& factory);
    // Builds a payload through the factory registered under `matchname`; null when none is
    // registered (an empty entry is then left under that name) or the factory returns null.
    // The factory runs without the registry's lock held.
    static IntrusivePtr<MC_StuffData> CreateSubclass(const char* matchname,
                                                     std::vector<uint8_t>& header);
    // Empties and frees the registry (module shut-down).
    static void Death();

private:
    NoDiskCacheReason reason_ = NoDiskCacheReason_None;
    std::atomic<MC_CachePriority> priority_{MC_CachePriority_Never};
};
