// The write-to-disk decision: is reading an item back later faster than computing it again,
// given the measured read speed and how full the write queue is? And the check-in hooks that
// ask it (MaybeWriteToDisk, ReconsiderWriteToDisk).
#include <algorithm>
#include <limits>

#include "disk/DiskSettings.h"
#include "disk/DiskStats.h"
#include "disk/DiskWriterQueue.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Stuff.h"

using velacore::ScopedUpgradeLockWrapper;
using velacore::ScopedWriteLockWrapper;

namespace {
// Reading back never counts as faster than this.
constexpr double kMinReadBackSeconds = 0.001;

// Whether reading `size` bytes at `speed` (bytes/s, floored at one millisecond) beats
// `recomputeSpeed`.
bool ReadBackBeats(double size, double speed, double recomputeSpeed) {
    const double seconds = std::max(size / speed, kMinReadBackSeconds);
    return size / seconds > recomputeSpeed;
}
}  // namespace

void MC_Stuff::GetAdjustedAverageReadSpeed(double* readSpeed, double* queueScaledReadSpeed,
                                           bool lowPriority) {
    double r = MCp_ReadSpeedStat().GetAverage();
    const double proclivity = mc_disk_settings::ProclivityMultiplier();
    if (proclivity > 0.0) r /= proclivity;
    const double factor = mc_settings::LowPriorityFactor();
    if (lowPriority && factor != 0.0) r /= factor;
    const double p = MCp_DiskWriteQueue::Get().FreeShare();
    if (readSpeed) *readSpeed = r;
    if (queueScaledReadSpeed) *queueScaledReadSpeed = p * p * r;
}

bool MC_Stuff::WorthWritingToDiskCache(double computeTime, bool* canDiskCache,
                                       bool* wouldWriteButQueueFull, bool* isLowPriority) {
    bool can = true, queueFull = false, low = false;
    bool worth = false;
    IntrusivePtr<MC_StuffData> data = GetDataPtr();
    const int32_t priority = data ? data->GetCachePriority() : MC_CachePriority_Never;
    if (!data || priority == MC_CachePriority_Never) {
        can = false;
    } else if (priority == MC_CachePriority_High) {
        worth = MCp_DiskWriteQueue::Get().FillFraction() < 1.0;
        queueFull = !worth;
    } else {
        low = priority == MC_CachePriority_Low;
        const double size = data->GetApproximateMemorySize();
        // A compute time of 0 (or less) makes recomputing infinitely fast: never worth it.
        const double recomputeSpeed =
            computeTime > 0.0 ? size / computeTime : std::numeric_limits<double>::infinity();
        double r = 0.0, rq = 0.0;
        GetAdjustedAverageReadSpeed(&r, &rq, low);
        if (rq > 0.0 && size != 0.0) {
            worth = ReadBackBeats(size, rq, recomputeSpeed);
            if (!worth) queueFull = r > 0.0 && ReadBackBeats(size, r, recomputeSpeed);
        }
    }
    if (canDiskCache) *canDiskCache = can;
    if (wouldWriteButQueueFull) *wouldWriteButQueueFull = queueFull;
    if (isLowPriority) *isLowPriority = low;
    return worth;
}

void MC_Stuff::MaybeWriteToDisk() {
    const double computeTime = GetComputeTime();
    std::shared_ptr<MC_Bag> bag = LockBag();
    IntrusivePtr<MC_StuffData> data = GetDataPtr();
    if (!MCp_DiskExecutor() || !(computeTime > 0.0)) return;
    if (!data || !bag || !IsInMemory() || IsOnDisk()) return;
    if (!bag->IsDiskCacheEnabled() || !data->CanDiskCache()) return;
    bool queueFull = false, low = false;
    if (WorthWritingToDiskCache(computeTime, nullptr, &queueFull, &low)) {
        WriteToDiskAsyncOnDiskThread(IntrusivePtr<MC_Stuff>(this));
        taggedToWrite_.store(true);
        auto& c = MCp_GetCounters();
        (low ? c.lowPriorityWritesQueued : c.normalWritesQueued).fetch_add(1);
    }
    if (queueFull) data->SetReasonWhyNoDiskCache(MC_StuffData::NoDiskCacheReason_DiskBusy);
    MCp_CountNoDiskCacheReason(data->GetReasonWhyNoDiskCache());
}

void MC_Stuff::ReconsiderWriteToDisk() {
    {
        ScopedUpgradeLockWrapper up(lock_);
        if (!data_ || data_->GetReasonWhyNoDiskCache() != MC_StuffData::NoDiskCacheReason_5) return;
        ScopedWriteLockWrapper w(lock_);
        data_->SetReasonWhyNoDiskCache(MC_StuffData::NoDiskCacheReason_None);
        data_->SetCachePriority(MC_CachePriority_Low);
    }
    MaybeWriteToDisk();
}
