// MC_SortDir: a bag's lookup index. It finds the item that answers a request by GUID (identical
// first, satisfying second), checks it out in the same step, creates a pending item on a miss
// when asked, and sweeps entries that a newly added item supersedes.
// Thread-safety: no lock of its own; every index change and candidate test happens under the
// process-wide cache lock, which each operation takes (re-entrantly).
#pragma once

#include <boost/container/small_vector.hpp>
#include <memory>

#include "bag/FlatGuidIndex.h"
#include "mc/MC_Stuff.h"
#include "mc/MC_Types.h"

class MC_SortDir : public std::enable_shared_from_this<MC_SortDir> {
public:
    using StuffPtr = IntrusivePtr<MC_Stuff>;

    MC_SortDir();

    // Sweeps dead entries of the item's GUID group and, with `displace`, the entries the item
    // supersedes; inserts the item and points it at this directory.
    void AddStuff(const StuffPtr& stuff, bool displace = true);
    // Erases the item's entry and clears its directory. Does nothing for an item in no
    // directory; throws 3 for another directory's item or a writeable checked-out one.
    void RemoveStuff(const StuffPtr& stuff);
    // See MC_Bag::FindAndCheckout.
    MC_CheckoutResult FindAndCheckout(const StuffPtr& request, int flags, StuffPtr* found,
                                      bool* foundHasDiskFile);
    // Keeps an item that is out of the index for a writeable check-out findable by
    // FindIdentical; AddStuff (its return) and TakeBack end that.
    void HoldOut(const StuffPtr& stuff);
    void TakeBack(const StuffPtr& stuff);
    // The first settled (not pending) entry identical to `request`, or null, among the indexed
    // items and those held out; with `listing`, an identical entry whose file it is comes first
    // (identical items name the same file, and two of them may be in the directory at once).
    // The caller holds the cache lock while it relies on the answer.
    StuffPtr FindIdentical(const StuffPtr& request, const velacore::File* listing = nullptr) const;
    // Entries in the index; the caller holds the cache lock or accepts a racy figure.
    size_t Size() const { return index_.Size(); }
    // Makes room for `more` entries beyond those indexed, so that a batch of additions (a
    // folder scan) does not grow the index step by step. Never shrinks it.
    void Reserve(size_t more);

private:
    using Index = FlatGuidIndex<MC_Stuff>;
    using Candidates = boost::container::small_vector<StuffPtr, 2>;
    struct Attempt;

    // The entries of `stuff`'s GUID group in `index`, oldest first: copies, so that the caller
    // may change the index while it goes through them.
    static Candidates Group(const Index& index, const StuffPtr& stuff);
    static void Insert(Index& index, const StuffPtr& stuff);
    // Erases `stuff`'s own entry; returns whether there was one.
    static bool Erase(Index& index, const StuffPtr& stuff);

    void SweepSuperseded(const StuffPtr& stuff, bool displace);
    void RemoveEntry(const StuffPtr& entry);
    MC_CheckoutResult SearchGroup(const StuffPtr& request, int flags, Attempt& attempt);
    StuffPtr CreatePending(const StuffPtr& request, int flags);

    // Used under the cache lock only (and by the destructor).
    Index index_;
    Index heldOut_;  // checked out writeable, out of the index
};
