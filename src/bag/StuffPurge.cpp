// Purging one item: its payload's memory, and the item itself when nothing is left of it.
#include <string>

#include "host/HostOps.h"
#include "mc/MCp_ScLock.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Stuff.h"
#include "mediamap/MediaMapHooks.h"

using velacore::ScopedReadLockWrapper;
using velacore::ScopedWriteLockWrapper;

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

bool MC_Stuff::PurgeIfPossiblePrivate(const ScopedWriteLockWrapper&,
                                      MC_ReleaseList* releaseList) {
    PurgeGuardClaim claim(purgeGuard_);
    if (!claim.Claimed()) return false;
    IntrusivePtr<MC_StuffData> data = GetDataPtr();
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
    {
        ScopedWriteLockWrapper w(lock_);
        if (GetCheckoutCount() != 0) return 0;
        sizeBefore = GetApproximateMemorySize();
        if (IsInMemory()) freedAnything = PurgeIfPossiblePrivate(w, releaseList);
    }
    bool removedFromBag = false;
    std::shared_ptr<MC_Bag> bag = LockBag();
    if (!IsInMemory() && !IsOnDisk() && !IsPendingRender() && bag) {
        bag->RemoveStuffFromBagAndSortDir(self, lock, updateMediaMap);
        removedFromBag = true;
    }
    const bool mirror = MCp_MediaMapEnabled();
    if (mirror && freedAnything && !removedFromBag && updateMediaMap) MCp_MediaMapErase(self);
    if (mirror && g_purgeTrace.Enabled()) {
        if (freedAnything) {
            g_purgeTrace.Write("FreeUpAsMuchAsPossible " + Describe(this, bag) + "\n");
            if (removedFromBag && !updateMediaMap)
                g_purgeTrace.Write("FreeUpAsMuchAsPossible purged from media manager " +
                                   Describe(this, bag) + " num entries = " +
                                   std::to_string(MCp_MediaMapEntryCount()) + "\n");
        } else {
            g_purgeTrace.Write("FreeUpAsMuchAsPossible - couldn't free anything " +
                               Describe(this, bag) + " freed_anything = " +
                               std::to_string(freedAnything) +
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
