// Snapshots of the module's process-wide counters, for a host's performance display.
// Thread-safety: the snapshot functions may be called from any thread; the fields of one
// snapshot are read one by one without a lock and need not be mutually consistent.
#pragma once

#include <cstdint>

#include "mc/Export.h"

struct MC_API MC_PerformanceCounters {
    uint32_t purgePasses = 0;       // memory purge passes
    uint32_t reservedCount = 0;     // never incremented
    uint32_t purgeAttempts = 0;     // items asked to free their memory
    int64_t lastPurgedAgeMs = 0;    // age of the newest item of the last purge walk
    uint32_t pendingWaits = 0;      // waits for a pending render
    uint32_t pendingRefusals = 0;   // check-outs refused because of a pending render
    uint32_t activeCheckouts = 0;   // check-outs currently held
    uint32_t supersededSweeps = 0;  // entries swept out by a newer equivalent
    // The remote tier (zero while it is off).
    uint32_t remoteHits = 0;             // misses served by the remote tier instead of a render
    uint32_t remoteMisses = 0;           // remote look-ups that found nothing usable
    uint64_t remoteBytesIn = 0;          // bytes fetched
    uint64_t remoteBytesOut = 0;         // bytes published
    uint32_t remotePublished = 0;        // items published
    uint32_t remotePublishDrops = 0;     // items not published: queue full, too large, tier down
    uint32_t remoteChecksumRejects = 0;  // values that failed their identity or checksum check
    uint32_t remoteTimeouts = 0;         // operations that ran out of time
    uint32_t remoteBackoffs = 0;         // times a server was left alone after a failure
};

struct MC_API MC_DiskPerformanceCounters {
    uint64_t bytesWritten = 0;
    uint32_t framesWritten = 0;
    uint32_t writeFailures = 0;
    uint64_t bytesRead = 0;
    uint32_t framesRead = 0;
    uint32_t readFailures = 0;
    uint32_t writeQueueLength = 0;
    uint32_t normalWritesQueued = 0;
    uint32_t lowPriorityWritesQueued = 0;
    uint32_t reason4Count = 0;
    uint32_t reason2Count = 0;
    uint32_t reason3Count = 0;
    uint32_t reason1Count = 0;
    uint32_t reason5Count = 0;
};

MC_API MC_PerformanceCounters MC_GetPerformanceCounters();
MC_API MC_DiskPerformanceCounters MC_GetDiskPerformanceCounters();
MC_API void MC_NotifyFrameReadFromDisk();
MC_API void MC_NotifyFrameWrittenToDisk();
