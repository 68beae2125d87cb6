// The check-out receipt and the pending-render guard.
#include "mc/MC_ScCheckout.h"

#include "host/HostOps.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MCp_ScLock.h"

using velacore::ScopedReadLockWrapper;
using velacore::ScopedUpgradeLockWrapper;
using velacore::ScopedWriteLockWrapper;

MC_ScStuffSetter::~MC_ScStuffSetter() {
    try {
        if (stuff_ && stuff_->IsPendingRender())
            stuff_->SetStuffDataFromPendingRender_Impl(nullptr, 0.0);
    } catch (int) {
    } catch (const std::exception&) {
        U_TranslateAndReportException(std::current_exception());
    }
}

MC_ScCheckout::MC_ScCheckout() = default;

MC_ScCheckout::MC_ScCheckout(IntrusivePtr<MC_Stuff> stuff, int flags) : checkoutFlags_(flags) {
    Checkout(std::move(stuff), flags);
}

MC_ScCheckout::~MC_ScCheckout() {
    try {
        Checkin();
    } catch (int) {
    } catch (const std::exception&) {
        U_TranslateAndReportException(std::current_exception());
    }
    pendingGuard_.reset();
    diskHold_.reset();
    stuff_.reset();
    suspended_.reset();
    marker_ = 0;
}

// Caller holds the receipt's write lock.
void MC_ScCheckout::CheckinLocked(int flags, double computeTime) {
    if (marker_ != kValidMarker || result_ == MC_CheckoutResult_Failed) return;
    if (stuff_ && result_ != MC_CheckoutResult_HeldOnly) stuff_->Checkin(flags, computeTime);
    diskHold_.reset();
    stuff_.reset();
    result_ = MC_CheckoutResult_Failed;
    checkinFlags_ = 0;
}

// Caller holds the receipt's write lock.
MC_CheckoutResult MC_ScCheckout::CheckoutLocked(IntrusivePtr<MC_Stuff> stuff, int flags) {
    CheckinLocked(checkinFlags_, 0.0);
    MC_CheckoutResult r = MC_CheckoutResult_Failed;
    if (flags & MC_CheckoutFlag_ReferenceOnly)
        r = MC_CheckoutResult_HeldOnly;
    else if (stuff)
        r = stuff->Checkout(flags);
    checkoutFlags_ = flags;
    result_ = r;
    if (r != MC_CheckoutResult_Failed) stuff_ = std::move(stuff);
    return r;
}

MC_CheckoutResult MC_ScCheckout::Checkout(IntrusivePtr<MC_Stuff> stuff, int flags) {
    ScopedWriteLockWrapper w(lock_);
    return CheckoutLocked(std::move(stuff), flags);
}

MC_CheckoutResult MC_ScCheckout::FindAndCheckout(IntrusivePtr<MC_Stuff> key, int flags) {
    ScopedUpgradeLockWrapper up(lock_);
    if (result_ != MC_CheckoutResult_Failed) {
        ScopedWriteLockWrapper w(lock_);
        CheckinLocked(checkinFlags_, 0.0);
    }
    checkoutFlags_ = flags;  // only upgraders and writers read it
    if (flags & MC_CheckoutFlag_ReferenceOnly) return MC_CheckoutResult_Failed;
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    if (!bag) return MC_CheckoutResult_Failed;
    IntrusivePtr<MC_Stuff> found;
    const MC_CheckoutResult r = bag->FindAndCheckout(key, flags, &found, nullptr);
    ScopedWriteLockWrapper w(lock_);
    result_ = r;
    if (r != MC_CheckoutResult_Failed) stuff_ = found;
    if (r == MC_CheckoutResult_CreatedNewPending) pendingGuard_.emplace(found);
    return r;
}

MC_CheckoutResult MC_ScCheckout::AddToBagAndSortDirAndCheckout(IntrusivePtr<MC_Stuff> stuff,
                                                               const std::shared_ptr<MC_Bag>& bag,
                                                               int flags) {
    ScopedWriteLockWrapper w(lock_);
    checkoutFlags_ = flags;
    MCp_ScLock lock;
    bag->AddToBagAndSortDir(stuff);
    stuff->MaybeWriteToDisk();
    return CheckoutLocked(std::move(stuff), flags);
}

void MC_ScCheckout::Checkin(int flags, double computeTime) {
    ScopedWriteLockWrapper w(lock_);
    CheckinLocked(flags, computeTime);
}

void MC_ScCheckout::Checkin() {
    ScopedWriteLockWrapper w(lock_);
    CheckinLocked(checkinFlags_, 0.0);
}

int MC_ScCheckout::GetCheckinFlags() const {
    ScopedReadLockWrapper r(lock_);
    return checkinFlags_;
}

void MC_ScCheckout::SetCheckinFlags(int flags) {
    ScopedWriteLockWrapper w(lock_);
    checkinFlags_ = flags;
}

IntrusivePtr<MC_Stuff> MC_ScCheckout::Release() {
    ScopedWriteLockWrapper w(lock_);
    result_ = MC_CheckoutResult_Failed;
    checkinFlags_ = 0;
    return stuff_;
}

void MC_ScCheckout::Swap(MC_ScCheckout& other) {
    ScopedWriteLockWrapper w(lock_);
    std::swap(stuff_, other.stuff_);
    std::swap(result_, other.result_);
    std::swap(checkinFlags_, other.checkinFlags_);
    std::swap(pendingGuard_, other.pendingGuard_);
    std::swap(diskHold_, other.diskHold_);
}

void MC_ScCheckout::EnsureInMemory() {
    ScopedWriteLockWrapper w(lock_);
    if (result_ == MC_CheckoutResult_Failed || !stuff_) return;
    if (!stuff_->EnsureInMemory()) CheckinLocked(checkinFlags_, 0.0);
}

bool MC_ScCheckout::AcquireDiskHold() {
    {
        ScopedWriteLockWrapper w(lock_);
        IntrusivePtr<MC_Stuff> stuff = GetStuffPtrImpl(true);
        if (!diskHold_ && stuff) diskHold_ = stuff->CheckoutDiskCache(false);
    }
    return HasDiskHold();
}

void MC_ScCheckout::ReleaseDiskHold() {
    ScopedWriteLockWrapper w(lock_);
    diskHold_.reset();
}

bool MC_ScCheckout::HasDiskHold() const {
    ScopedReadLockWrapper r(lock_);
    IntrusivePtr<MC_Stuff> stuff = GetStuffPtrImpl(true);
    return stuff && diskHold_ && stuff->IsOnDisk();
}

bool MC_ScCheckout::HasDiskHoldIfWanted() const {
    ScopedReadLockWrapper r(lock_);
    IntrusivePtr<MC_Stuff> stuff = GetStuffPtrImpl(true);
    return stuff && (!stuff->WasTaggedToWriteToDisk() || HasDiskHold());
}

void MC_ScCheckout::SuspendCheckout() {
    ScopedWriteLockWrapper w(lock_);
    if (!stuff_ || result_ == MC_CheckoutResult_Failed) return;
    suspended_ = stuff_;
    const MC_CheckoutResult remembered = result_;
    Hold hold = std::move(diskHold_);
    CheckinLocked(checkinFlags_, 0.0);
    result_ = remembered;
    diskHold_ = std::move(hold);
}

bool MC_ScCheckout::ReacquireSuspendedCheckout() {
    debug::ProfileScope profile("ZK.MC_ScCheckout.ReacquireSuspendedCheckout", 6);
    ScopedUpgradeLockWrapper up(lock_);
    if (suspended_) {
        const int stored = checkoutFlags_;
        const int reduced =
            stored & ~(MC_CheckoutFlag_NoDiskRead | MC_CheckoutFlag_CreatePending |
                       MC_CheckoutFlag_WaitIfPendingUnlessLocked | MC_CheckoutFlag_WaitIfPending);
        Hold detached;
        IntrusivePtr<MC_Stuff> suspended;
        {
            ScopedWriteLockWrapper w(lock_);
            detached = std::move(diskHold_);
            suspended = suspended_;
            result_ = MC_CheckoutResult_Failed;  // nothing is checked out while suspended
        }
        MC_CheckoutResult r = Checkout(suspended, reduced);
        if (r != MC_CheckoutResult_CheckedOut) r = FindAndCheckout(suspended, reduced);
        ScopedWriteLockWrapper w(lock_);
        if (detached && r == MC_CheckoutResult_CheckedOut && stuff_)
            diskHold_ = stuff_->CheckoutDiskCache(false);
        detached.reset();
        checkoutFlags_ = stored;
        suspended_.reset();
    }
    ScopedReadLockWrapper r(lock_);
    return stuff_ && result_ == MC_CheckoutResult_CheckedOut;
}

void MC_ScCheckout::ReleaseSuspendedCheckout() {
    ScopedWriteLockWrapper w(lock_);
    suspended_.reset();
    if (!stuff_) result_ = MC_CheckoutResult_Failed;
}

bool MC_ScCheckout::HasSuspendedCheckout() const {
    ScopedReadLockWrapper r(lock_);
    return !stuff_ && suspended_;
}

bool MC_ScCheckout::DidCheckout() const {
    return GetResult() != MC_CheckoutResult_Failed;
}
bool MC_ScCheckout::DidCreateNewPending() const {
    return GetResult() == MC_CheckoutResult_CreatedNewPending;
}
MC_CheckoutResult MC_ScCheckout::GetResult() const {
    ScopedReadLockWrapper r(lock_);
    return result_;
}

IntrusivePtr<MC_Stuff> MC_ScCheckout::GetStuffPtrImpl(bool orSuspended) const {
    if (stuff_) return stuff_;
    return orSuspended ? suspended_ : nullptr;
}

IntrusivePtr<MC_Stuff> MC_ScCheckout::GetStuffPtr() const {
    ScopedReadLockWrapper r(lock_);
    return GetStuffPtrImpl(false);
}

bool MC_ScCheckout::IsInMemory() const {
    ScopedReadLockWrapper r(lock_);
    return result_ != MC_CheckoutResult_Failed && stuff_ && stuff_->IsInMemory();
}
bool MC_ScCheckout::IsPendingRender() const {
    ScopedReadLockWrapper r(lock_);
    return result_ != MC_CheckoutResult_Failed && stuff_ && stuff_->IsPendingRender();
}
bool MC_ScCheckout::IsOnDisk() const {
    ScopedReadLockWrapper r(lock_);
    IntrusivePtr<MC_Stuff> stuff = GetStuffPtrImpl(true);
    return stuff && stuff->IsOnDisk();
}
bool MC_ScCheckout::WasTaggedToWriteToDisk() const {
    ScopedReadLockWrapper r(lock_);
    IntrusivePtr<MC_Stuff> stuff = GetStuffPtrImpl(true);
    return stuff && stuff->WasTaggedToWriteToDisk();
}
MC_StuffData::NoDiskCacheReason MC_ScCheckout::GetReasonWhyNoDiskCache() const {
    ScopedReadLockWrapper r(lock_);
    IntrusivePtr<MC_Stuff> stuff = GetStuffPtrImpl(true);
    IntrusivePtr<MC_StuffData> data = stuff ? stuff->GetDataPtr() : nullptr;
    return data ? data->GetReasonWhyNoDiskCache() : MC_StuffData::NoDiskCacheReason_None;
}
