// The sort directory: GUID index, superseded-entry sweep and find-and-checkout.
#include "bag/MC_SortDir.h"

#include <algorithm>
#include <vector>

#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Messages.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/File.h"

using velacore::ScopedReadLockWrapper;
using velacore::ScopedWriteLockWrapper;

namespace {
uint32_t HashOf(const MC_SortDir::StuffPtr& stuff) {
    return static_cast<uint32_t>(stuff->GetGuidHash());
}
}  // namespace

MC_SortDir::Candidates MC_SortDir::Group(const Index& index, const StuffPtr& stuff) {
    Candidates group;
    const velacore::Guid guid = stuff->GetGuid();
    index.ForEachWithHash(HashOf(stuff), [&](const StuffPtr& e) {
        if (e == stuff || e->GetGuid() == guid) group.push_back(e);
    });
    return group;
}

void MC_SortDir::Insert(Index& index, const StuffPtr& stuff) {
    index.Insert(stuff, HashOf(stuff));
}

bool MC_SortDir::Erase(Index& index, const StuffPtr& stuff) {
    return index.Erase(stuff.get(), HashOf(stuff));
}

MC_SortDir::MC_SortDir() = default;

void MC_SortDir::Reserve(size_t more) {
    MCp_ScLock lock;
    index_.Reserve(index_.Size() + more);
}

// Candidates that failed during one find; usually empty, so it allocates only on failure.
struct MC_SortDir::Attempt {
    std::vector<StuffPtr> tried;
    bool* foundHasDiskFile = nullptr;
    StuffPtr found;
    bool WasTried(const StuffPtr& s) const {
        return std::find(tried.begin(), tried.end(), s) != tried.end();
    }
};

void MC_SortDir::AddStuff(const StuffPtr& stuff, bool displace) {
    debug::ProfileScope profile("ZK.MC_SortDir::AddStuff", 6);
    MCp_ScLock lock;
    TakeBack(stuff);
    SweepSuperseded(stuff, displace);
    Insert(index_, stuff);
    stuff->SetSortDir(shared_from_this());
}

void MC_SortDir::SweepSuperseded(const StuffPtr& stuff, bool displace) {
    const IntrusivePtr<MC_StuffData> newKey = displace ? stuff->GetFindKeyData() : nullptr;
    std::vector<StuffPtr> doomed;
    for (const StuffPtr& e : Group(index_, stuff)) {
        if (e == stuff) continue;
        const bool dead = !e->IsInMemory() && !e->IsOnDisk() && !e->IsPendingRender();
        if (dead) {
            doomed.push_back(e);
            continue;
        }
        const IntrusivePtr<MC_StuffData> eKey = newKey ? e->GetFindKeyData() : nullptr;
        if (newKey && eKey && newKey->CanSatisfyRequest(eKey)) doomed.push_back(e);
    }
    for (const StuffPtr& e : doomed) {
        MCp_GetCounters().supersededSweeps.fetch_add(1);
        RemoveEntry(e);
    }
}

// Takes a superseded entry out. A checked-out entry is detached without disturbing its holders.
void MC_SortDir::RemoveEntry(const StuffPtr& e) {
    if (e->GetCheckoutCount() == 0) {
        e->RemoveFromBagAndSortDir();
        return;
    }
    if (std::shared_ptr<MC_Bag> bag = e->GetBag().lock()) {
        MCp_ScLock lock;
        bag->RemoveStuffGuts(e, lock, true);
    }
    e->SetSortDir(nullptr);
    Erase(index_, e);
}

void MC_SortDir::RemoveStuff(const StuffPtr& stuff) {
    debug::ProfileScope profile("ZK.MC_SortDir::RemoveStuff", 6);
    MCp_ScLock lock;
    // One write hold for the checks and the change (the caller's reference keeps the item
    // alive when the index lets go of its own).
    ScopedWriteLockWrapper w(stuff->lock_);
    const std::shared_ptr<MC_SortDir> dir = stuff->sortDir_.lock();
    if (!dir) return;
    if (dir.get() != this) MCp_FailVerification("stuff not in the right sortdir");
    if (stuff->checkedOutWriteable_)
        MCp_FailVerification("can't remove a writeable stuff from sortdir");
    Erase(index_, stuff);
    stuff->sortDir_.reset();
}

void MC_SortDir::HoldOut(const StuffPtr& stuff) {
    MCp_ScLock lock;
    Insert(heldOut_, stuff);
}

void MC_SortDir::TakeBack(const StuffPtr& stuff) {
    MCp_ScLock lock;
    Erase(heldOut_, stuff);
}

MC_SortDir::StuffPtr MC_SortDir::FindIdentical(const StuffPtr& request,
                                               const velacore::File* listing) const {
    MCp_ScLock lock;
    const IntrusivePtr<MC_StuffData> reqKey = request->GetFindKeyData();
    if (!reqKey) return nullptr;
    StuffPtr first;
    for (const Index* set : {&index_, &heldOut_}) {
        for (const StuffPtr& e : Group(*set, request)) {
            if (e->IsPendingRender()) continue;
            const IntrusivePtr<MC_StuffData> key = e->GetFindKeyData();
            if (!key || !key->IdenticalRequest(reqKey)) continue;
            if (!listing || e->GetDiskCacheFile() == *listing) return e;
            if (!first) first = e;
        }
    }
    return first;
}

// Two passes over the request's GUID group: identical candidates, then satisfying ones.
MC_CheckoutResult MC_SortDir::SearchGroup(const StuffPtr& request, int flags, Attempt& attempt) {
    index_.Prefetch(HashOf(request));  // loads while the request's key is read
    const IntrusivePtr<MC_StuffData> reqKey = request->GetFindKeyData();
    // Copies: a writeable check-out takes its item out of the index.
    const Candidates group = Group(index_, request);
    for (int pass = 0; pass < 2; ++pass) {
        for (const StuffPtr& c : group) {
            if (attempt.WasTried(c)) continue;
            const IntrusivePtr<MC_StuffData> cKey = c->GetFindKeyData();
            if (!cKey) continue;
            const bool match =
                pass == 0 ? cKey->IdenticalRequest(reqKey) : cKey->CanSatisfyRequest(reqKey);
            if (!match) continue;
            if (attempt.foundHasDiskFile) *attempt.foundHasDiskFile = c->IsOnDisk();
            // A bring-back from disk happens after the cache lock (FindAndCheckout), so the
            // check-out under it never reads the file.
            const bool bringBackLater =
                !(flags & (MC_CheckoutFlag_MemoryOnly | MC_CheckoutFlag_NoDiskRead));
            const MC_CheckoutResult r =
                c->Checkout(bringBackLater ? flags | MC_CheckoutFlag_NoDiskRead : flags);
            if (r == MC_CheckoutResult_Failed) {
                attempt.tried.push_back(c);
                continue;
            }
            attempt.found = c;
            // Its check-in moves it to the young end, which touches its neighbours in the
            // recency list: start loading them now (the cache lock holds the list still).
            if (c->mruPrev_) __builtin_prefetch(&c->mruPrev_->mruNext_, 1);
            if (c->mruNext_) __builtin_prefetch(&c->mruNext_->mruPrev_, 1);
            return r;
        }
    }
    return MC_CheckoutResult_Failed;
}

MC_SortDir::StuffPtr MC_SortDir::CreatePending(const StuffPtr& request, int flags) {
    debug::ProfileScope profile("ZK.MC_SortDir.CreatePending", 6);
    StuffPtr pending(new MC_Stuff(request->GetGuid()));
    pending->SetFindKeyData(request->GetDataPtr());
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    if (!bag) return nullptr;
    bag->AddToBagAndSortDir(pending);
    pending->MaybeWriteToDisk();
    int pendingFlags = flags | MC_CheckoutFlag_WaitIfPending;
    if (!(flags & (MC_CheckoutFlag_MemoryOnly | MC_CheckoutFlag_NoDiskRead)))
        pendingFlags |= MC_CheckoutFlag_NoDiskRead;
    if (pending->Checkout(pendingFlags) == MC_CheckoutResult_Failed) return nullptr;
    return pending;
}

MC_CheckoutResult MC_SortDir::FindAndCheckout(const StuffPtr& request, int flags, StuffPtr* found,
                                              bool* foundHasDiskFile) {
    debug::ProfileScope profile("ZK.MC_SortDir::FindAndCheckout", 7);
    if (!request) config::DoThrowNullPtrException("MC_Stuff");
    Attempt attempt;
    attempt.foundHasDiskFile = foundHasDiskFile;
    const bool noBringBack = flags & (MC_CheckoutFlag_MemoryOnly | MC_CheckoutFlag_NoDiskRead);
    for (;;) {
        MC_CheckoutResult result;
        {
            debug::ProfileScope attemptProfile("ZK.MC_SortDir::FindAndCheckout 1", 8);
            MCp_ScLock lock;
            attempt.found.reset();
            result = SearchGroup(request, flags, attempt);
            if (result == MC_CheckoutResult_Failed && (flags & MC_CheckoutFlag_CreatePending)) {
                attempt.found = CreatePending(request, flags);
                if (attempt.found) {
                    if (foundHasDiskFile) *foundHasDiskFile = false;
                    result = MC_CheckoutResult_CreatedNewPending;
                }
            }
        }
        const StuffPtr item = attempt.found;
        if (result == MC_CheckoutResult_CheckedOut && item->IsPendingRender() &&
            (flags & MC_CheckoutFlag_WaitIfPendingUnlessLocked) &&
            !ScNotifyHoldingMutexLock::IsHoldingLock()) {
            item->WaitForPendingCompletion();
            if (item->GetDataPtr()) {
                *found = item;
                return result;
            }
            item->Checkin(0, 0.0);  // its render was abandoned: look again without it
            attempt.tried.push_back(item);
            continue;
        }
        if (result == MC_CheckoutResult_CheckedOut && !noBringBack && item) {
            bool resident = false;
            try {
                resident = item->EnsureInMemory();
            } catch (...) {
                item->Checkin(MC_CheckinFlag_DontUpdateLastUsed, 0.0);
                throw;
            }
            if (!resident) {
                item->Checkin(0, 0.0);
                attempt.tried.push_back(item);
                continue;
            }
        }
        if (result != MC_CheckoutResult_Failed) *found = item;
        return result;
    }
}
