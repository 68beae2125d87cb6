// The process-wide counters and their snapshots.
#include "lifecycle/Counters.h"

#include <cstdlib>

#include "mc/MC_Module.h"
#include "mc/MC_PerformanceCounters.h"
#include "mc/host/Time.h"

MCp_Counters& MCp_GetCounters() {
    static MCp_Counters counters;
    return counters;
}

void MCp_NoteLastPurgedUsedTime(const MC_Bag* bag, uint64_t usedTime) {
    if (bag != nullptr && MC_GlobalBag().get() == bag)
        MCp_GetCounters().lastPurgedUsedTime.store(usedTime);
}

void MCp_CountNoDiskCacheReason(int reason) {
    if (reason >= 1 && reason <= 5) MCp_GetCounters().reasonCounts[reason].fetch_add(1);
}

MC_PerformanceCounters MC_GetPerformanceCounters() {
    const MCp_Counters& c = MCp_GetCounters();
    MC_PerformanceCounters out;
    out.purgePasses = c.purgePasses.load();
    out.reservedCount = 0;
    out.purgeAttempts = c.purgeAttempts.load();
    if (MC_GlobalBag()) {
        const int64_t now = static_cast<int64_t>(velacore::HighPrecisionTime::Now());
        const int64_t last = static_cast<int64_t>(c.lastPurgedUsedTime.load());
        out.lastPurgedAgeMs =
            velacore::HighPrecisionTime::ConvertToNanos(std::llabs(now - last)) / 1'000'000;
    }
    out.pendingWaits = c.pendingWaits.load();
    out.pendingRefusals = c.pendingRefusals.load();
    out.activeCheckouts = c.activeCheckouts.load();
    out.supersededSweeps = c.supersededSweeps.load();
    out.remoteHits = c.remoteHits.load();
    out.remoteMisses = c.remoteMisses.load();
    out.remoteBytesIn = c.remoteBytesIn.load();
    out.remoteBytesOut = c.remoteBytesOut.load();
    out.remotePublished = c.remotePublished.load();
    out.remotePublishDrops = c.remotePublishDrops.load();
    out.remoteChecksumRejects = c.remoteChecksumRejects.load();
    out.remoteTimeouts = c.remoteTimeouts.load();
    out.remoteBackoffs = c.remoteBackoffs.load();
    return out;
}

MC_DiskPerformanceCounters MC_GetDiskPerformanceCounters() {
    const MCp_Counters& c = MCp_GetCounters();
    MC_DiskPerformanceCounters out;
    out.bytesWritten = c.bytesWritten.load();
    out.framesWritten = c.framesWritten.load();
    out.writeFailures = c.writeFailures.load();
    out.bytesRead = c.bytesRead.load();
    out.framesRead = c.framesRead.load();
    out.readFailures = c.readFailures.load();
    out.writeQueueLength = static_cast<uint32_t>(std::max(0, c.writeQueueLength.load()));
    out.normalWritesQueued = c.normalWritesQueued.load();
    out.lowPriorityWritesQueued = c.lowPriorityWritesQueued.load();
    out.reason4Count = c.reasonCounts[4].load();
    out.reason2Count = c.reasonCounts[2].load();
    out.reason3Count = c.reasonCounts[3].load();
    out.reason1Count = c.reasonCounts[1].load();
    out.reason5Count = c.reasonCounts[5].load();
    return out;
}

void MC_NotifyFrameReadFromDisk() {
    MCp_GetCounters().framesRead.fetch_add(1);
}
void MC_NotifyFrameWrittenToDisk() {
    MCp_GetCounters().framesWritten.fetch_add(1);
}
