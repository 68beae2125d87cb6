// The memory purge: one walk from the least recently used item until the host's target is met.
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Module.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/MCp_ScLock.h"

namespace {
debug::TraceSite g_stuffStats("MC_Purge", 7);
debug::TraceSite g_passStats("MC_Purge", 6);

// Adds the time from its construction to its destruction to the purge's hold counters; made
// right after the cache lock is taken and gone before it is let go.
class HoldTimer {
public:
    ~HoldTimer() {
        const auto held = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start_).count());
        MCp_Counters& c = MCp_GetCounters();
        c.purgeHeldNanos.fetch_add(held, std::memory_order_relaxed);
        uint64_t longest = c.purgeLongestHoldNanos.load(std::memory_order_relaxed);
        while (held > longest && !c.purgeLongestHoldNanos.compare_exchange_weak(longest, held)) {
        }
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_ = Clock::now();
};

struct PurgeStats {
    uint64_t index = 0;
    uint64_t attempted = 0;
    uint64_t freedItems = 0;
    int64_t amountFreed = 0;
    uint64_t newestUsed = 0;
};
}  // namespace

// A pass that is not nested in a caller's cache lock lets go of it every kVisitsPerHold items,
// so that hits are not held up for long on a very large bag; it goes on from a held cursor (from
// the oldest end when the cursor left the bag meanwhile).
int64_t MC_Bag::FreeUpSomeMemory(size_t) {
    constexpr uint64_t kVisitsPerHold = 16384;
    debug::ProfileScope profile("ZK.MC_Bag::FreeUpSomeMemory", 7);
    MCp_GetCounters().purgePasses.fetch_add(1);
    MC_ReleaseList releaseList;
    std::vector<StuffPtr> unlinked;  // items that left the bag die after the lock
    PurgeStats stats;
    int64_t totalFreed = 0;
    const bool nested = MCp_ScLock::IsHeldByCurrentThread();
    const bool limitMode = MC_IsSetMCCacheLimitForQuilletsEnabled();
    const uint64_t cacheLimit = MC_GetMaxMCCacheSize();
    MCp_MinimumCheck minimum;
    std::optional<uint64_t> amountToPurge;  // the host's target, read once per pass
    bool success = false;
    bool previousFreed = false;
    bool started = false;
    StuffPtr cursor;  // where a pass that let go of the lock goes on
    for (bool done = false; !done;) {
        MCp_ScLock lock;
        HoldTimer holdTimer;
        debug::ProfileScope purgeProfile("ZK.MC_Bag::FreeUpSomeMemory - purge", 7);
        MC_Stuff* it = started ? cursor.get() : mruHead_;
        if (it && it->bag_ != this) it = mruHead_;
        if (cursor) unlinked.push_back(std::move(cursor));
        started = true;
        uint64_t visits = 0;
        done = true;
        while (it) {
            if (!nested && ++visits > kVisitsPerHold) {
                cursor = StuffPtr(it);
                done = false;
                break;
            }
            if (!minimum.Above()) break;
            if (previousFreed) {
                if (!amountToPurge) amountToPurge = U_AmountToPurge();
                if (*amountToPurge <= static_cast<uint64_t>(totalFreed)) {
                    success = true;
                    break;
                }
            }
            if (limitMode && inMemory_.load() <= static_cast<int64_t>(cacheLimit)) {
                success = true;
                break;
            }
            StuffPtr stuff(it);
            it = it->mruNext_;  // the item may leave the list below
            ++stats.index;
            previousFreed = false;
            if (!stuff->ShouldAllowPurge() || !stuff->IsInMemory()) continue;
            const uint32_t freed = stuff->FreeUpAsMuchAsPossible(true, &releaseList);
            MCp_GetCounters().purgeAttempts.fetch_add(1);
            ++stats.attempted;
            stats.newestUsed = std::max(stats.newestUsed, stuff->GetLastUseTime());
            if (stuff->bag_ != this) unlinked.push_back(std::move(stuff));
            if (freed == 0) continue;
            previousFreed = true;
            ++stats.freedItems;
            stats.amountFreed += freed;
            totalFreed += freed;
            if (g_stuffStats.Enabled())
                g_stuffStats.Write("Stuff-Stats: pass, index, stuffFreedAmount, amtToPurge:0, " +
                                   std::to_string(stats.index) + ", " + std::to_string(freed) +
                                   ", " + std::to_string(U_AmountToPurge()) + "\n");
        }
        if (!done) continue;
        if (g_passStats.Enabled())
            g_passStats.Write(
                "Pass-Stats: pass, totalStuffs, attemptedStuffs, freedStuffs, amountFreedInPass, "
                "amtToPurge, success:0, " +
                std::to_string(mruSize_) + ", " + std::to_string(stats.attempted) + ", " +
                std::to_string(stats.freedItems) + ", " + std::to_string(stats.amountFreed) + ", " +
                std::to_string(U_AmountToPurge()) + ", " + (success ? "1" : "0") + "\n");
        if (stats.newestUsed != 0) {
            TrackLastPurgedUsedTime(stats.newestUsed);
            MCp_NoteLastPurgedUsedTime(this, stats.newestUsed);
        }
    }
    releaseList.clear();  // purged payload memory is freed here, outside the cache lock
    unlinked.clear();
    if (totalFreed != 0) U_PurgeRecycledMemory();
    return totalFreed;
}

void MC_Bag::PurgeAllMemoryCaches() {
    MCp_ScLock lock;
    for (const StuffPtr& stuff : SnapshotItems()) stuff->FreeUpAsMuchAsPossible(true, nullptr);
}
