// Process-wide counters of what the cache does, incremented where each event happens and read
// by the performance snapshots. Thread-safety: atomics, relaxed; readers take no lock.
#pragma once

#include <atomic>
#include <cstdint>

struct MCp_Counters {
    std::atomic<uint32_t> purgePasses{0};
    std::atomic<uint32_t> purgeAttempts{0};
    // Time the memory purge held the cache lock, in all and at its longest stretch (ns).
    std::atomic<uint64_t> purgeHeldNanos{0};
    std::atomic<uint64_t> purgeLongestHoldNanos{0};
    std::atomic<uint32_t> pendingWaits{0};
    std::atomic<uint32_t> pendingRefusals{0};
    std::atomic<uint32_t> activeCheckouts{0};
    std::atomic<uint32_t> supersededSweeps{0};
    // Last-use stamp of the newest item the global bag's last purge walk freed; 0 until the
    // first such walk after MC_Birth.
    std::atomic<uint64_t> lastPurgedUsedTime{0};

    std::atomic<uint64_t> bytesWritten{0};
    std::atomic<uint32_t> framesWritten{0};
    std::atomic<uint32_t> writeFailures{0};
    std::atomic<uint64_t> bytesRead{0};
    std::atomic<uint32_t> framesRead{0};
    std::atomic<uint32_t> readFailures{0};
    std::atomic<int32_t> writeQueueLength{0};
    std::atomic<uint32_t> normalWritesQueued{0};
    std::atomic<uint32_t> lowPriorityWritesQueued{0};
    std::atomic<uint32_t> reasonCounts[6]{};  // index = NoDiskCacheReason, 1..5 used

    std::atomic<uint32_t> remoteHits{0};
    std::atomic<uint32_t> remoteMisses{0};
    std::atomic<uint64_t> remoteBytesIn{0};
    std::atomic<uint64_t> remoteBytesOut{0};
    std::atomic<uint32_t> remotePublished{0};
    std::atomic<uint32_t> remotePublishDrops{0};
    std::atomic<uint32_t> remoteChecksumRejects{0};
    std::atomic<uint32_t> remoteTimeouts{0};
    std::atomic<uint32_t> remoteBackoffs{0};

    std::atomic<uint32_t> numStuffs{0};
    std::atomic<uint32_t> numStuffsOnDisk{0};
    std::atomic<uint32_t> numDiskHolds{0};
};

MCp_Counters& MCp_GetCounters();

class MC_Bag;
// Records the newest stamp a purge walk of `bag` freed; only the global bag's walks count.
void MCp_NoteLastPurgedUsedTime(const MC_Bag* bag, uint64_t usedTime);

// Counts a payload's recorded no-disk-cache reason (1..5; others are not counted).
void MCp_CountNoDiskCacheReason(int reason);
