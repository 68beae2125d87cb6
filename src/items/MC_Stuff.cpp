// MC_Stuff: one cached item. Identity, fields, state queries and size reporting; check-out,
// check-in and pending renders; the purge of one item. The disk side forwards into src/disk
// (StuffDisk.cpp); the states and the guard of each field are listed in mc/MC_Stuff.h.
#include "mc/MC_Stuff.h"

#include <boost/functional/hash.hpp>
#include <chrono>
#include <string>
#include <thread>

#include "bag/MC_SortDir.h"
#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Messages.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/File.h"
#include "mc/host/Time.h"
#include "mediamap/MediaMapHooks.h"

using velacore::Guid;
using velacore::HighPrecisionTime;
using velacore::ScopedReadLockWrapper;
using velacore::ScopedUpgradeLockWrapper;
using velacore::ScopedWriteLockWrapper;

namespace {
// 32 bits are plenty to tell GUID groups apart in an index, and keep the item small.
uint32_t HashOf(const Guid& guid) {
    const Guid::Bytes bytes = velacore::GuidToBytes(guid);
    const size_t h = boost::hash_range(bytes.begin(), bytes.end());
    return static_cast<uint32_t>(h ^ (h >> 32));
}
}  // namespace

MC_Stuff::MC_Stuff() : MC_Stuff(Guid::CreateUnique()) {}

MC_Stuff::MC_Stuff(const Guid& guid)
    : guid_(guid),
      guidHash_(HashOf(guid_)),
      lastUseTime_(HighPrecisionTime::Now()),
      creatorThread_(std::this_thread::get_id()) {
    MCp_GetCounters().numStuffs.fetch_add(1, std::memory_order_relaxed);
}

MC_Stuff::~MC_Stuff() {
    try {
        if (stateSignal_.HasList() && IsInMemory()) stateSignal_(false, false);
        SyncMemorySizeWithBag(0);
        SyncDiskSizeWithBag(0);
    } catch (...) {
        // A dying item must not throw; its sizes are best effort here.
    }
    MCp_GetCounters().numStuffs.fetch_sub(1, std::memory_order_relaxed);
}

IntrusivePtr<MC_Stuff> MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData> data, double computeTime) {
    IntrusivePtr<MC_Stuff> stuff(new MC_Stuff());
    if (!data) {
        stuff->SetStuffDataFromPendingRender(nullptr, computeTime);
        return stuff;
    }
    // The completion of a pending render, for an item no other thread can see yet: no lock to
    // take, no check-out, key or gate to mind, and no bag to write to disk for. (A folder scan
    // creates one item per file.)
    if (int32_t ms = mc_settings::DebugSleepMsSetStuffData(); ms > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    stuff->data_ = std::move(data);
    stuff->computeTime_ = computeTime;
    stuff->pending_.store(false, std::memory_order_release);
    stuff->SyncMemorySizeWithBag(stuff->data_->GetApproximateMemorySize());
    stuff->renderDone_.store(true, std::memory_order_seq_cst);
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
    const MediaMapIds* ids = mediaMap_.Peek();
    return ids ? ids->guid : Guid();
}
void MC_Stuff::SetMediaMapGuid(const Guid& guid) {
    ScopedWriteLockWrapper w(lock_);
    mediaMap_.Get().guid = guid;
}
uint64_t MC_Stuff::GetMediaMapID() const {
    ScopedReadLockWrapper r(lock_);
    const MediaMapIds* ids = mediaMap_.Peek();
    return ids ? ids->id : 0;
}
void MC_Stuff::SetMediaMapID(uint64_t id) {
    ScopedWriteLockWrapper w(lock_);
    mediaMap_.Get().id = id;
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
void MC_Stuff::UpdateLastUsedTimeToNow() {
    lastUseTime_.exchange(HighPrecisionTime::Now());
}
uint64_t MC_Stuff::GetLastReadFromDiskTime() const {
    return lastReadFromDiskTime_.load();
}

// --- bag and sort directory ----------------------------------------------------------------

std::weak_ptr<MC_Bag> MC_Stuff::GetBag() const {
    ScopedReadLockWrapper r(lock_);
    return bag_ ? bag_->weak_from_this() : std::weak_ptr<MC_Bag>();
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
    return LockBagHeld();
}
std::shared_ptr<MC_Bag> MC_Stuff::LockBagHeld() const {
    return bag_ ? bag_->weak_from_this().lock() : nullptr;
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
    // Under the cache lock the bag pointer is used as it stands: the bag unlinks its items
    // under that lock before it goes.
    if (MCp_ScLock::IsHeldByCurrentThread() && bag_) {
        AdjustBagSizes(*bag_, old, size, oldChecked, checked);
        return;
    }
    std::shared_ptr<MC_Bag> bag = TargetBag();
    if (!bag) {  // no bag to report to: keep the figures as they were
        memSizeReported_.store(old);
        checkedOutSizeReported_.store(oldChecked);
        return;
    }
    AdjustBagSizes(*bag, old, size, oldChecked, checked);
}

void MC_Stuff::AdjustBagSizes(MC_Bag& bag, uint32_t old, uint32_t size, uint32_t oldChecked,
                              uint32_t checked) {
    if (old != size)
        bag.AdjustInMemoryCacheSize(static_cast<int64_t>(size) - static_cast<int64_t>(old));
    if (oldChecked != checked)
        bag.AdjustCheckedOutMemoryCacheSize(static_cast<int64_t>(checked) -
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

uint32_t MC_Stuff::GetNumStuffs() {
    return MCp_GetCounters().numStuffs.load();
}
uint32_t MC_Stuff::GetNumStuffsOnDisk() {
    return MCp_GetCounters().numStuffsOnDisk.load();
}
uint32_t MC_Stuff::GetNumDiskCacheCheckouts() {
    return MCp_GetCounters().numDiskHolds.load();
}

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

// --- check-out, check-in and pending renders ---------------------------------------------

namespace {
debug::TraceSite g_checkinTrace("MC_Stuff", 6);
constexpr auto kPendingWaitLimit = std::chrono::nanoseconds(86'400'000'000'000LL);
}  // namespace

// Steps shared by read-only and writeable check-outs; the caller holds the item lock (upgrade
// or write). Returns 0 with nothing changed, or 1 with the count raised.
MC_CheckoutResult MC_Stuff::CheckoutLocked(int flags, bool writeable, bool acceptPending) {
    const bool countRefusal =
        (flags & (MC_CheckoutFlag_WaitIfPendingUnlessLocked | MC_CheckoutFlag_WaitIfPending)) != 0;
    if (checkedOutWriteable_) return MC_CheckoutResult_Failed;
    if (writeable && GetCheckoutCount() != 0) return MC_CheckoutResult_Failed;
    if (!acceptPending && IsPendingRender()) {
        if (countRefusal) MCp_GetCounters().pendingRefusals.fetch_add(1);
        return MC_CheckoutResult_Failed;
    }
    if (!data_ && !IsPendingRender()) return MC_CheckoutResult_Failed;
    const bool inMemory = data_ && data_->IsInMemory();
    if ((flags & MC_CheckoutFlag_MemoryOnly) && !inMemory && !IsPendingRender())
        return MC_CheckoutResult_Failed;
    // The rendering thread must not wait on its own pending item (caller holds the item lock).
    if (IsPendingRender() && creatorThread_ == std::this_thread::get_id() &&
        GetCheckoutCount() != 0)
        return MC_CheckoutResult_Failed;

    checkoutCount_.fetch_add(1);
    bool resident = inMemory;
    if (!resident && diskFile_ && !(flags & MC_CheckoutFlag_NoDiskRead)) {
        try {
            resident = EnsureInMemory();
        } catch (...) {
            checkoutCount_.fetch_sub(1);
            throw;
        }
        if (!resident) {
            checkoutCount_.fetch_sub(1);
            return MC_CheckoutResult_Failed;
        }
    }
    const bool ok = resident || IsPendingRender() || (flags & MC_CheckoutFlag_AllowNoData) ||
                    (diskFile_ && (flags & MC_CheckoutFlag_NoDiskRead));
    if (!ok) {
        checkoutCount_.fetch_sub(1);
        return MC_CheckoutResult_Failed;
    }
    return MC_CheckoutResult_CheckedOut;
}

MC_CheckoutResult MC_Stuff::Checkout(int flags) {
    if (!(flags & MC_CheckoutFlag_ReadOnly)) return CheckoutForWrite(flags);
    const bool acceptPending = (flags & MC_CheckoutFlag_WaitIfPending) ||
                               ((flags & MC_CheckoutFlag_WaitIfPendingUnlessLocked) &&
                                !ScNotifyHoldingMutexLock::IsHoldingLock());
    MC_CheckoutResult result;
    uint32_t size = 0;
    {
        ScopedUpgradeLockWrapper up(lock_);
        result = CheckoutLocked(flags, false, acceptPending);
        if (data_) size = data_->GetApproximateMemorySize();
    }
    if (result == MC_CheckoutResult_Failed) return result;
    MCp_GetCounters().activeCheckouts.fetch_add(1);
    SyncMemorySizeWithBag(size);
    return result;
}

// Every refusal is decided under the locks before anything is read: the item is claimed first
// (writeable, out of its sort directory), and only then is a disk-only payload read back, outside
// the cache lock. A read that leaves nothing to check out gives the claim back.
MC_CheckoutResult MC_Stuff::CheckoutForWrite(int flags) {
    const bool readBack = !(flags & (MC_CheckoutFlag_NoDiskRead | MC_CheckoutFlag_MemoryOnly));
    const bool acceptPending = (flags & MC_CheckoutFlag_WaitIfPending) ||
                               ((flags & MC_CheckoutFlag_WaitIfPendingUnlessLocked) &&
                                !ScNotifyHoldingMutexLock::IsHoldingLock());
    MC_CheckoutResult result;
    {
        MCp_ScLock lock;
        ScopedWriteLockWrapper w(lock_);
        result = CheckoutLocked(flags | MC_CheckoutFlag_NoDiskRead, true, acceptPending);
        if (result == MC_CheckoutResult_Failed) return result;
        try {
            TempRemoveFromSortDir(lock, w);
        } catch (...) {
            checkoutCount_.fetch_sub(1);
            throw;
        }
        checkedOutWriteable_ = true;
    }
    if (readBack && !IsInMemory() && IsOnDisk()) {
        bool resident = false;
        try {
            resident = EnsureInMemory();
        } catch (...) {
            UndoWriteableCheckout();
            throw;
        }
        if (!resident && !IsPendingRender() && !(flags & MC_CheckoutFlag_AllowNoData)) {
            UndoWriteableCheckout();
            return MC_CheckoutResult_Failed;
        }
    }
    MCp_GetCounters().activeCheckouts.fetch_add(1);
    SyncMemorySizeWithBag(GetApproximateMemorySize());
    return result;
}

// Gives back a writeable check-out that failed after it was claimed: back into its sort
// directory (displacing nothing) with the count as it was.
void MC_Stuff::UndoWriteableCheckout() {
    IntrusivePtr<MC_Stuff> self(this);
    MCp_ScLock lock;
    std::shared_ptr<MC_SortDir> dir;
    {
        ScopedWriteLockWrapper w(lock_);
        checkedOutWriteable_ = false;
        checkoutCount_.fetch_sub(1);
        dir = sortDir_.lock();
        sortDir_.reset();
    }
    if (dir) dir->AddStuff(self, false);
}

// One cache-lock hold covers the whole of a plain read-only check-in, size report included.
void MC_Stuff::Checkin(int flags, double computeTime) {
    bool wasWriteable = false;
    bool decremented = false;
    bool lastOut = false;
    const bool plain =
        !(flags & (MC_CheckinFlag_Remove | MC_CheckinFlag_Purge | MC_CheckinFlag_ForceWriteToDisk));
    bool renderDone = false;
    {
        MCp_ScLock lock;
        IntrusivePtr<MC_Stuff> self(this);
        std::shared_ptr<MC_SortDir> dir;
        {
            ScopedWriteLockWrapper w(lock_);
            wasWriteable = checkedOutWriteable_;
            if (wasWriteable) {
                dir = sortDir_.lock();
                if (dir) sortDir_.reset();
            } else {
                DecrementCheckoutLocked(decremented, lastOut);
            }
        }
        if (wasWriteable) {
            if (dir) {
                dir->AddStuff(self);  // back under its current key
                if (g_checkinTrace.Enabled())
                    g_checkinTrace.Write("check-in updated w/ guid:" + GetGuid().AsString());
            }
            ScopedWriteLockWrapper w(lock_);
            checkedOutWriteable_ = false;
            DecrementCheckoutLocked(decremented, lastOut);
        }
        if (!(flags & MC_CheckinFlag_DontUpdateLastUsed)) {
            if (bag_) bag_->UpdateWithNewLastUsedTime(self, lock);
        }
        // A render completed under this writeable check-out waited for it to end (the writer
        // cannot take an item held writeable); it is weighed below, once.
        renderDone = renderAwaitsCheckin_.exchange(false);
        if (plain && !wasWriteable) {
            FinishCheckin(lastOut, decremented);
            return;
        }
    }
    if (flags & MC_CheckinFlag_Remove) {
        RemoveFromBagAndSortDir();
    } else if (flags & MC_CheckinFlag_Purge) {
        FreeUpAsMuchAsPossible(true, nullptr);
    } else {
        CheckinDiskStep(flags, wasWriteable, computeTime, renderDone);
    }
    FinishCheckin(lastOut, decremented);
}

// Caller holds the item's write lock.
void MC_Stuff::DecrementCheckoutLocked(bool& decremented, bool& lastOut) {
    uint32_t count = checkoutCount_.load();
    while (count != 0 && !checkoutCount_.compare_exchange_weak(count, count - 1)) {
    }
    decremented = count != 0;
    lastOut = count == 1;
}

// The last steps of a check-in: the deferred purge, the counter and the size report.
void MC_Stuff::FinishCheckin(bool lastOut, bool decremented) {
    if (lastOut && purgeAtLastCheckin_.load()) PurgeAfterLastCheckin();
    if (decremented) MCp_GetCounters().activeCheckouts.fetch_sub(1);
    SyncMemorySizeWithBag(GetApproximateMemorySize());
}

// Frees the payload of an item that left its bag while others still held it checked out.
void MC_Stuff::PurgeAfterLastCheckin() {
    MCp_ScLock lock;
    ScopedWriteLockWrapper w(lock_);
    if (GetCheckoutCount() != 0) return;
    if (!purgeAtLastCheckin_.exchange(false) || LockBagHeld()) return;  // back in a bag: keep it
    PurgeIfPossiblePrivate(w, nullptr);
}

// The disk-write step of a check-in: forced writes go to the disk executor at once; writeable
// check-ins ask whether the item is worth writing.
void MC_Stuff::CheckinDiskStep(int flags, bool wasWriteable, double computeTime, bool renderDone) {
    if (!(flags & MC_CheckinFlag_ForceWriteToDisk) && !wasWriteable) return;  // nothing to decide
    IntrusivePtr<MC_StuffData> data = GetDataPtr();
    if (!data || !data->IsInMemory() || !data->CanDiskCache()) return;
    IntrusivePtr<MC_Stuff> self(this);
    if (flags & MC_CheckinFlag_ForceWriteToDisk) {
        if (auto exec = MCp_DiskExecutor())
            exec->Post([self] { MC_Stuff::WriteToDiskAsync(self, nullptr); });
        return;
    }
    if (!wasWriteable) return;
    if (renderDone) {
        MaybeWriteToDisk();  // on the render's own compute time, like any completed render
        return;
    }
    if (!MCp_DiskExecutor()) return;  // writer stopped: nothing is queued or counted
    std::shared_ptr<MC_Bag> bag = LockBag();
    if (!bag || !bag->IsDiskCacheEnabled()) return;
    bool lowPriority = false;
    if (WorthWritingToDiskCache(computeTime, nullptr, nullptr, &lowPriority)) {
        WriteToDiskAsyncOnDiskThread(self);
        taggedToWrite_.store(true);
        auto& c = MCp_GetCounters();
        (lowPriority ? c.lowPriorityWritesQueued : c.normalWritesQueued).fetch_add(1);
    } else {
        const bool hasPriority = data->GetCachePriority() != MC_CachePriority_Never;
        MCp_GetCounters().reasonCounts[hasPriority ? 3 : 4].fetch_add(1);
    }
}

MC_CheckoutResult MC_Stuff::CheckinAndCheckout(int checkinFlags, double computeTime,
                                               int checkoutFlags) {
    MCp_ScLock lock;
    Checkin(checkinFlags, computeTime);
    return Checkout(checkoutFlags);
}

void MC_Stuff::ThrowIfCheckedOutWriteable() {
    if (checkedOutWriteable_) MCp_ThrowMisuse(11, MCp_Err_CheckedOut);
}
void MC_Stuff::ThrowIfCheckedOutMoreThan(int n) {
    if (GetCheckoutCount() > static_cast<uint32_t>(n)) MCp_ThrowMisuse(12, MCp_Err_CheckedOut);
}
void MC_Stuff::ThrowIfCheckedOutLessThan(int n) {
    if (GetCheckoutCount() < static_cast<uint32_t>(n)) MCp_ThrowMisuse(22, MCp_Err_NotCheckedOut);
}

void MC_Stuff::ConvertToWriteable() {
    {
        MCp_ScLock lock;
        ScopedWriteLockWrapper w(lock_);
        ThrowIfCheckedOutWriteable();
        ThrowIfCheckedOutMoreThan(1);
        ThrowIfCheckedOutLessThan(1);
        TempRemoveFromSortDir(lock, w);
        checkedOutWriteable_ = true;
    }
    DeleteDiskCacheFile();  // the payload is about to change
}

void MC_Stuff::SetStuffDataFromPendingRender(IntrusivePtr<MC_StuffData> data, double computeTime) {
    SetStuffDataFromPendingRender_Impl(std::move(data), computeTime);
}

void MC_Stuff::SetStuffDataFromPendingRender_Impl(IntrusivePtr<MC_StuffData> data,
                                                  double computeTime) {
    if (int32_t ms = mc_settings::DebugSleepMsSetStuffData(); ms > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    if (!IsPendingRender()) return;
    IntrusivePtr<MC_Stuff> self(this);
    {
        // The data is in place before the item stops being pending: whoever sees it no longer
        // pending finds the data (or none, when the render was abandoned).
        ScopedWriteLockWrapper w(lock_);
        if (!IsPendingRender()) return;  // another completion won
        data_ = data;
        computeTime_ = computeTime;
        pending_.store(false, std::memory_order_release);
    }
    if (data) {
        SyncMemorySizeWithBag(data->GetApproximateMemorySize());
        if (IsCheckedOutWriteable())
            renderAwaitsCheckin_.store(true);
        else
            MaybeWriteToDisk();
        ScopedWriteLockWrapper w(lock_);
        findKeyData_.reset();
    } else {
        RemoveFromBagAndSortDir();
    }
    renderDone_.store(true, std::memory_order_seq_cst);
    if (velacore::OpenOnceGate* gate = gate_.Peek()) gate->Open();
}

void MC_Stuff::WaitForPendingCompletion() {
    if (!IsPendingRender()) return;
    MCp_GetCounters().pendingWaits.fetch_add(1);
    debug::ProfileScope profile("ZK.MC_Stuff::WaitForPending", 6);
    // The caller holds the item, so the gate lives as long as this wait.
    velacore::OpenOnceGate& gate = gate_.Get();
    if (renderDone_.load(std::memory_order_seq_cst)) return;
    gate.Pass(velacore::OpenOnceGate::Clock::now() + kPendingWaitLimit);
}

// --- bag membership ------------------------------------------------------------------------

void MC_Stuff::AddToBagAndSortDir(const std::shared_ptr<MC_Bag>& bag) {
    bag->AddToBagAndSortDir(IntrusivePtr<MC_Stuff>(this));
    MaybeWriteToDisk();
}

MC_CheckoutResult MC_Stuff::AddToBagAndSortDirAndCheckout(const std::shared_ptr<MC_Bag>& bag,
                                                          int flags) {
    MCp_ScLock lock;
    AddToBagAndSortDir(bag);
    return Checkout(flags);
}

void MC_Stuff::RemoveFromBagAndSortDir() {
    IntrusivePtr<MC_Stuff> self(this);
    MCp_ScLock lock;
    ScopedWriteLockWrapper w(lock_);
    if (std::shared_ptr<MC_SortDir> dir = sortDir_.lock()) {
        // A writeable holder (who got the item after a Remove check-in let go of it) has it out
        // of the index already; forgetting the directory keeps its check-in from adding it back.
        if (checkedOutWriteable_) {
            dir->TakeBack(self);
            sortDir_.reset();
        } else
            dir->RemoveStuff(self);
    }
    if (std::shared_ptr<MC_Bag> bag = LockBagHeld()) bag->RemoveStuff(self);
    // A holder's payload is never freed under it: the last check-in frees it.
    if (GetCheckoutCount() != 0) {
        purgeAtLastCheckin_.store(true);
        return;
    }
    purgeAtLastCheckin_.store(false);
    PurgeIfPossiblePrivate(w, nullptr);
}

void MC_Stuff::TempRemoveFromSortDir(const MCp_ScLock&, const ScopedWriteLockWrapper&) {
    std::shared_ptr<MC_SortDir> dir = GetSortDir();
    if (!dir) return;
    IntrusivePtr<MC_Stuff> self(this);
    dir->RemoveStuff(self);
    SetSortDir(dir);
    dir->HoldOut(self);  // still found by scan-back, which must not give its file to a twin
}

// --- purge of one item -------------------------------------------------------------------

namespace {
debug::TraceSite g_purgeTrace("MC_MediaMap", 6);

std::string Describe(const MC_Stuff* stuff, const std::shared_ptr<MC_Bag>& bag) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", static_cast<const void*>(stuff));
    uint64_t inMemory = 0, onDisk = 0;
    if (bag) bag->GetCacheSizesInBytes(inMemory, onDisk);
    return std::string(buf) + " MC Cache size " + std::to_string(inMemory) + " MediaMap size " +
           std::to_string(MCp_MediaMapSize());
}

// Claims the purge guard shared with the disk writer; releases it on scope exit.
class PurgeGuardClaim {
public:
    explicit PurgeGuardClaim(std::atomic<int32_t>& word) : word_(word) {
        int32_t idle = 0;
        claimed_ = word_.compare_exchange_strong(idle, 2);
    }
    ~PurgeGuardClaim() {
        if (claimed_) word_.store(0);
    }
    bool Claimed() const { return claimed_; }

private:
    std::atomic<int32_t>& word_;
    bool claimed_ = false;
};
}  // namespace

bool MC_Stuff::PurgeIfPossiblePrivate(const ScopedWriteLockWrapper&, MC_ReleaseList* releaseList) {
    PurgeGuardClaim claim(purgeGuard_);
    if (!claim.Claimed()) return false;
    const IntrusivePtr<MC_StuffData> data = data_;  // the caller's write lock guards it
    if (!data) return false;
    const bool purged = data->PurgeIfPossible(releaseList);
    if (purged) SyncMemorySizeWithBag(data->GetApproximateMemorySize());
    return purged;
}

uint32_t MC_Stuff::FreeUpAsMuchAsPossible(bool updateMediaMap, MC_ReleaseList* releaseList) {
    debug::ProfileScope profile("ZK.MC_Stuff::FreeUpAsMuchAsPossible", 7);
    IntrusivePtr<MC_Stuff> self(this);
    MCp_ScLock lock;
    bool freedAnything = false;
    uint32_t sizeBefore = 0;
    bool leave = false;
    std::shared_ptr<MC_Bag> bag;
    {
        // One write hold decides everything: the fields are read as they stand under it.
        ScopedWriteLockWrapper w(lock_);
        if (GetCheckoutCount() != 0) return 0;
        if (data_) {
            sizeBefore = data_->GetApproximateMemorySize();
            if (data_->IsInMemory()) freedAnything = PurgeIfPossiblePrivate(w, releaseList);
        }
        bag = LockBagHeld();
        leave = bag && !(data_ && data_->IsInMemory()) && !diskFile_ && !IsPendingRender();
    }
    bool removedFromBag = false;
    if (leave) {
        bag->RemoveStuffFromBagAndSortDir(self, lock, updateMediaMap);
        removedFromBag = true;
    }
    const bool mirror = MCp_MediaMapEnabled();
    if (mirror && freedAnything && !removedFromBag && updateMediaMap) MCp_MediaMapErase(self);
    if (mirror && g_purgeTrace.Enabled()) {
        if (freedAnything) {
            g_purgeTrace.Write("FreeUpAsMuchAsPossible " + Describe(this, bag) + "\n");
            if (removedFromBag && !updateMediaMap)
                g_purgeTrace.Write(
                    "FreeUpAsMuchAsPossible purged from media manager " + Describe(this, bag) +
                    " num entries = " + std::to_string(MCp_MediaMapEntryCount()) + "\n");
        } else {
            g_purgeTrace.Write("FreeUpAsMuchAsPossible - couldn't free anything " +
                               Describe(this, bag) +
                               " freed_anything = " + std::to_string(freedAnything) +
                               " removedFromBag = " + std::to_string(removedFromBag) + "\n");
        }
    }
    return (freedAnything || removedFromBag) ? sizeBefore : 0;
}

void MC_Stuff::PurgeFromMediaMap() {
    std::shared_ptr<MC_Bag> bag = LockBag();
    if (!bag) {
        if (g_purgeTrace.Enabled()) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "%p", static_cast<const void*>(this));
            g_purgeTrace.Write(std::string(buf) +
                               " stuff ain't got no bag, this should be harmless and mem will go "
                               "away when stuff ref does.\n");
        }
        return;
    }
    IntrusivePtr<MC_Stuff> self(this);
    FreeUpAsMuchAsPossible(false, nullptr);
    // A payload that stayed in memory in the bag (checked out, refusing, or busy being written)
    // keeps its entry, so that the media manager goes on counting its bytes.
    if (!IsInMemory() || !LockBag()) MCp_MediaMapErase(self);
}
