// Snapshots of the module's process-wide counters, for a host's performance display.
// Thread-safety: the snapshot functions may be called from any thread; the fields of one
// snapshot are read one by one without a lock and need not be mutually consistent.
#pragma once

#include <cstdint>

#include "mc/Export.h"

struct MC_API MC_PerformanceCounters {
    uint32_t purgePasses = 0;          // memory purge passes
    uint32_t reservedCount = 0;        // never incremented
    uint32_t purgeAttempts = 0;        // items asked to free their memory
    int64_t lastPurgedAgeMs = 0;       // age of the newest item of the last purge walk
    uint32_t pendingWaits = 0;         // waits for a pending render
    uint32_t pendingRefusals = 0;      // check-outs refused because of a pending render
    uint32_t activeCheckouts = 0;      // check-outs currently held
    uint32_t supersededSweeps = 0;     // entries swept out by a newer equivalent
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
