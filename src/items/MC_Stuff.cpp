// MC_Stuff: identity, fields, state queries and size reporting. Check-out and check-in live in
// MC_StuffCheckout.cpp, the purge in src/bag, the disk side in src/disk.
#include "mc/MC_Stuff.h"

#include <boost/functional/hash.hpp>
#include <thread>

#include "bag/MC_SortDir.h"
#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "mc/MCp_ScLock.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/host/Time.h"

using velacore::Guid;
using velacore::HighPrecisionTime;
using velacore::ScopedReadLockWrapper;
using velacore::ScopedWriteLockWrapper;

namespace {
size_t HashOf(const Guid& guid) {
    const Guid::Bytes bytes = velacore::GuidToBytes(guid);
    return boost::hash_range(bytes.begin(), bytes.end());
}
}  // namespace

MC_Stuff::MC_Stuff()
    : guid_(Guid::CreateUnique()),
      lastUseTime_(HighPrecisionTime::Now()),
      guidHash_(HashOf(guid_)),
      gate_(std::make_shared<velacore::OpenOnceGate>()),
      gateWeak_(gate_),
      creatorThread_(std::this_thread::get_id()) {
    MCp_GetCounters().numStuffs.fetch_add(1, std::memory_order_relaxed);
}

MC_Stuff::~MC_Stuff() {
    try {
        if (IsInMemory()) stateSignal_(false, false);
        SyncMemorySizeWithBag(0);
        SyncDiskSizeWithBag(0);
    } catch (...) {
        // A dying item must not throw; its sizes are best effort here.
    }
    MCp_GetCounters().numStuffs.fetch_sub(1, std::memory_order_relaxed);
}

IntrusivePtr<MC_Stuff> MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData> data, double computeTime) {
    IntrusivePtr<MC_Stuff> stuff(new MC_Stuff());
    stuff->SetStuffDataFromPendingRender(std::move(data), computeTime);
    return stuff;
}

// --- identity ------------------------------------------------------------------------------

void MC_Stuff::LockGuid() const {
    int backoff = 1;
    while (guidSpin_.exchange(1, std::memory_order_acquire) != 0) {
        for (int i = 0; i < backoff; ++i) std::this_thread::yield();
        if (backoff < 64) backoff *= 2;
    }
}

Guid MC_Stuff::GetGuid() const {
    LockGuid();
    Guid g = guid_;
    UnlockGuid();
    return g;
}

void MC_Stuff::SetGuid(const Guid& guid) {
    LockGuid();
    guid_ = guid;
    guidHash_.store(HashOf(guid), std::memory_order_release);
    UnlockGuid();
}

void MC_Stuff::UpdateWithNewGuid(const Guid& guid) {
    std::shared_ptr<MC_SortDir> dir = GetSortDir();
    if (!dir) {
        SetGuid(guid);
        return;
    }
    IntrusivePtr<MC_Stuff> self(this);
    MCp_ScLock lock;
    if (IsCheckedOutWriteable()) {  // already out of the index; check-in re-adds it
        dir->TakeBack(self);
        SetGuid(guid);
        dir->HoldOut(self);
        return;
    }
    dir->RemoveStuff(self);
    SetGuid(guid);
    dir->AddStuff(self);
}

Guid MC_Stuff::GetMediaMapGuid() const {
    ScopedReadLockWrapper r(lock_);
    return mediaMapGuid_;
}
void MC_Stuff::SetMediaMapGuid(const Guid& guid) {
    ScopedWriteLockWrapper w(lock_);
    mediaMapGuid_ = guid;
}
uint64_t MC_Stuff::GetMediaMapID() const {
    ScopedReadLockWrapper r(lock_);
    return mediaMapId_;
}
void MC_Stuff::SetMediaMapID(uint64_t id) {
    ScopedWriteLockWrapper w(lock_);
    mediaMapId_ = id;
}

// --- payload and key -----------------------------------------------------------------------

IntrusivePtr<MC_StuffData> MC_Stuff::GetDataPtr() const {
    ScopedReadLockWrapper r(lock_);
    return data_;
}

IntrusivePtr<MC_StuffData> MC_Stuff::GetFindKeyData() const {
    ScopedReadLockWrapper r(lock_);
    return data_ ? data_ : findKeyData_;
}

void MC_Stuff::SetFindKeyData(IntrusivePtr<MC_StuffData> key) {
    ScopedWriteLockWrapper w(lock_);
    findKeyData_ = std::move(key);
}

IntrusivePtr<MC_StuffData> MC_Stuff::GetDataWaitIfPending() {
    WaitForPendingCompletion();
    return GetDataPtr();
}

MC_CachePriority MC_Stuff::GetCachePriority() const {
    IntrusivePtr<MC_StuffData> key = GetFindKeyData();
    return key ? key->GetCachePriority() : MC_CachePriority_Never;
}

// --- times ---------------------------------------------------------------------------------

double MC_Stuff::GetComputeTime() const {
    ScopedReadLockWrapper r(lock_);
    return computeTime_;
}
void MC_Stuff::SetComputeTime(double seconds) {
    ScopedWriteLockWrapper w(lock_);
    computeTime_ = seconds;
}
double MC_Stuff::GetCachedComputeTimeSavings() const {
    ScopedReadLockWrapper r(lock_);
    return cachedComputeTimeSavings_;
}
void MC_Stuff::SetCachedComputeTimeSavings(double seconds) {
    ScopedWriteLockWrapper w(lock_);
    cachedComputeTimeSavings_ = seconds;
}
double MC_Stuff::GetPotentialComputeTime() const {
    ScopedReadLockWrapper r(lock_);
    return computeTime_ + cachedComputeTimeSavings_;
}
void MC_Stuff::UpdateLastUsedTimeToNow() { lastUseTime_.exchange(HighPrecisionTime::Now()); }
uint64_t MC_Stuff::GetLastReadFromDiskTime() const { return lastReadFromDiskTime_.load(); }

// --- bag and sort directory ----------------------------------------------------------------

std::weak_ptr<MC_Bag> MC_Stuff::GetBag() const {
    ScopedReadLockWrapper r(lock_);
    return bag_;
}
std::shared_ptr<MC_SortDir> MC_Stuff::GetSortDir() const {
    ScopedReadLockWrapper r(lock_);
    return sortDir_.lock();
}
void MC_Stuff::SetSortDir(const std::shared_ptr<MC_SortDir>& dir) {
    ScopedWriteLockWrapper w(lock_);
    sortDir_ = dir;
}
std::shared_ptr<MC_Bag> MC_Stuff::LockBag() const {
    ScopedReadLockWrapper r(lock_);
    return bag_.lock();
}
std::shared_ptr<MC_Bag> MC_Stuff::TargetBag() const {
    std::shared_ptr<MC_Bag> bag = LockBag();
    return bag ? bag : MC_GlobalBag();
}

// --- state ---------------------------------------------------------------------------------

bool MC_Stuff::IsInMemory() const {
    ScopedReadLockWrapper r(lock_);
    return data_ && data_->IsInMemory();
}
bool MC_Stuff::IsOnDisk() const {
    ScopedReadLockWrapper r(lock_);
    return diskFile_ != nullptr;
}
bool MC_Stuff::IsPendingFromThisThread() const {
    ScopedReadLockWrapper r(lock_);
    return IsPendingRender() && creatorThread_ == std::this_thread::get_id() &&
           GetCheckoutCount() != 0;
}
bool MC_Stuff::IsCheckedOutWriteable() const {
    ScopedReadLockWrapper r(lock_);
    return checkedOutWriteable_;
}
uint32_t MC_Stuff::GetApproximateMemorySize() const {
    ScopedReadLockWrapper r(lock_);
    return data_ ? data_->GetApproximateMemorySize() : 0;
}
bool MC_Stuff::ShouldAllowPurge() const {
    ScopedReadLockWrapper r(lock_);
    return data_ ? data_->ShouldAllowPurge() : true;
}

// --- size reporting ------------------------------------------------------------------------

void MC_Stuff::SyncMemorySizeWithBag(uint32_t size) {
    // The hot path (nothing changed) touches no lock: the bag is looked up only for a change.
    const uint32_t checked = GetCheckoutCount() != 0 ? size : 0;
    const uint32_t old = memSizeReported_.exchange(size);
    const uint32_t oldChecked = checkedOutSizeReported_.exchange(checked);
    if (old == size && oldChecked == checked) return;
    std::shared_ptr<MC_Bag> bag = TargetBag();
    if (!bag) {  // no bag to report to: keep the figures as they were
        memSizeReported_.store(old);
        checkedOutSizeReported_.store(oldChecked);
        return;
    }
    if (old != size)
        bag->AdjustInMemoryCacheSize(static_cast<int64_t>(size) - static_cast<int64_t>(old));
    if (oldChecked != checked)
        bag->AdjustCheckedOutMemoryCacheSize(static_cast<int64_t>(checked) -
                                             static_cast<int64_t>(oldChecked));
}

void MC_Stuff::SyncDiskSizeWithBag(uint32_t size) {
    std::shared_ptr<MC_Bag> bag = TargetBag();
    if (!bag) return;
    const uint32_t old = diskSizeReported_.exchange(size);
    if (old == size) return;
    bag->AdjustOnDiskCacheSize(static_cast<int64_t>(size) - static_cast<int64_t>(old));
    auto& onDisk = MCp_GetCounters().numStuffsOnDisk;
    if (old == 0) onDisk.fetch_add(1, std::memory_order_relaxed);
    if (size == 0) onDisk.fetch_sub(1, std::memory_order_relaxed);
}

// --- counters ------------------------------------------------------------------------------

uint32_t MC_Stuff::GetNumStuffs() { return MCp_GetCounters().numStuffs.load(); }
uint32_t MC_Stuff::GetNumStuffsOnDisk() { return MCp_GetCounters().numStuffsOnDisk.load(); }
uint32_t MC_Stuff::GetNumDiskCacheCheckouts() { return MCp_GetCounters().numDiskHolds.load(); }

MC_Stuff::DiskCacheCheckoutScoper::DiskCacheCheckoutScoper(std::atomic<uint32_t>& itemCount,
                                                           std::atomic<uint32_t>& globalCount)
    : itemCount_(itemCount), globalCount_(globalCount) {
    itemCount_.fetch_add(1);
    globalCount_.fetch_add(1);
}
MC_Stuff::DiskCacheCheckoutScoper::~DiskCacheCheckoutScoper() {
    itemCount_.fetch_sub(1);
    globalCount_.fetch_sub(1);
}
