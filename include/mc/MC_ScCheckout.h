// MC_ScCheckout: the scoped receipt through which a client holds an item checked out. It checks
// the item in when destroyed or reused, can keep a hold on the item's disk file, can suspend its
// check-out (letting the item be purged) and reacquire it, and owns the guard that abandons a
// pending render it created if it dies before the render completes (MC_ScStuffSetter).
// Thread-safety: receipts may be handed between threads; every member takes the receipt's own
// lock. Lock order: receipt lock, then the cache lock, then the item lock. Swap locks only this
// receipt: nobody may use `other` meanwhile.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "mc/Export.h"
#include "mc/MC_Stuff.h"
#include "mc/MC_Types.h"
#include "mc/host/MultiTenantRecursiveMutex.h"

// Completes a still-pending item with null data when destroyed (abandoning the render and
// releasing its waiters). Copies share the item; a moved-from setter guards nothing.
class MC_API MC_ScStuffSetter {
public:
    explicit MC_ScStuffSetter(IntrusivePtr<MC_Stuff> stuff) : stuff_(std::move(stuff)) {}
    MC_ScStuffSetter(const MC_ScStuffSetter&) = default;
    MC_ScStuffSetter& operator=(const MC_ScStuffSetter&) = default;
    MC_ScStuffSetter(MC_ScStuffSetter&&) noexcept = default;
    MC_ScStuffSetter& operator=(MC_ScStuffSetter&&) noexcept = default;
    ~MC_ScStuffSetter();

private:
    IntrusivePtr<MC_Stuff> stuff_;
};

class MC_API MC_ScCheckout {
public:
    static constexpr uint32_t kValidMarker = 0xFEEDBEEF;

    MC_ScCheckout();
    // Checks `stuff` out with `flags` (0x80: hold without checking out, result 3).
    MC_ScCheckout(IntrusivePtr<MC_Stuff> stuff, int flags);
    // Checks in, then drops the pending guard (which may abandon a render), the hold and the
    // references. Never throws an int; standard exceptions go to the host's report.
    virtual ~MC_ScCheckout();
    MC_ScCheckout(const MC_ScCheckout&) = delete;
    MC_ScCheckout& operator=(const MC_ScCheckout&) = delete;

    // Checks in what the receipt holds, then checks `stuff` out. Returns the result.
    MC_CheckoutResult Checkout(IntrusivePtr<MC_Stuff> stuff, int flags);
    // Checks in, then finds an item for `key` in the global bag and checks it out; result 2
    // means a new pending item was created that the caller must render.
    MC_CheckoutResult FindAndCheckout(IntrusivePtr<MC_Stuff> key, int flags);
    // Adds `stuff` to `bag` and checks it out under one cache lock.
    MC_CheckoutResult AddToBagAndSortDirAndCheckout(IntrusivePtr<MC_Stuff> stuff,
                                                    const std::shared_ptr<MC_Bag>& bag, int flags);
    void Checkin(int flags, double computeTime);
    void Checkin();
    int GetCheckinFlags() const;
    void SetCheckinFlags(int flags);
    // Gives the check-out up without checking in; the caller now owns the check-in.
    IntrusivePtr<MC_Stuff> Release();
    // Exchanges item, result, check-in flags, pending guard and disk hold with `other`.
    void Swap(MC_ScCheckout& other);
    // Reads the payload back from disk when needed; checks in when that fails.
    void EnsureInMemory();
    bool AcquireDiskHold();
    void ReleaseDiskHold();
    bool HasDiskHold() const;
    bool HasDiskHoldIfWanted() const;
    // Checks in but keeps a reference, the result and the hold; the item may be purged.
    void SuspendCheckout();
    // Checks the suspended item (or an equivalent one) out again. Returns whether it worked.
    bool ReacquireSuspendedCheckout();
    void ReleaseSuspendedCheckout();
    bool HasSuspendedCheckout() const;

    bool DidCheckout() const;
    bool DidCreateNewPending() const;
    MC_CheckoutResult GetResult() const;
    IntrusivePtr<MC_Stuff> GetStuffPtr() const;
    bool IsInMemory() const;
    bool IsPendingRender() const;
    bool IsOnDisk() const;
    bool WasTaggedToWriteToDisk() const;
    MC_StuffData::NoDiskCacheReason GetReasonWhyNoDiskCache() const;
    // The validity marker; 0xFEEDBEEF while the receipt is alive.
    uint32_t GetValidityMarker() const { return marker_; }

private:
    using Hold = std::unique_ptr<MC_Stuff::DiskCacheCheckoutScoper>;

    void CheckinLocked(int flags, double computeTime);
    MC_CheckoutResult CheckoutLocked(IntrusivePtr<MC_Stuff> stuff, int flags);
    IntrusivePtr<MC_Stuff> GetStuffPtrImpl(bool orSuspended) const;

    volatile uint32_t marker_ = kValidMarker;
    IntrusivePtr<MC_Stuff> stuff_;
    MC_CheckoutResult result_ = MC_CheckoutResult_Failed;
    int checkoutFlags_ = 0;
    int checkinFlags_ = 0;
    std::optional<MC_ScStuffSetter> pendingGuard_;  // inline: a miss allocates no guard
    Hold diskHold_;
    IntrusivePtr<MC_Stuff> suspended_;
    mutable velacore::MultiTenantRecursiveMutex lock_;
};
