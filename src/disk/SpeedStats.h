// The speed statistics: what the disk has been measured to deliver. Two process-wide speed
// statistics (reads and writes; exponential moving averages of bytes per second with a warm-up
// before maxima are tracked, a cap at or above which samples are ignored, and merging of
// overlapping operations), and two busy-time trackers (intervals during which a file was being
// read or written), used by the write decision, the purge and the performance display. The
// "...At" members take the host time stamp (HighPrecisionTime::Now units) instead of reading
// the clock.
// Thread-safety: every member may be called from any thread; each statistic and each tracker
// has its own mutex, held only for the arithmetic.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>

#include "mc/host/RecursiveMutex.h"

class MCp_DiskSpeedStat {
public:
    static constexpr int64_t kWarmUpCount = 50;
    static constexpr double kNewWeight = 0.02;
    static constexpr double kOldWeight = 0.98;
    static constexpr double kInitialAverage = 536870912.0;  // 512 MiB/s

    MCp_DiskSpeedStat() = default;
    MCp_DiskSpeedStat(const MCp_DiskSpeedStat&) = delete;
    MCp_DiskSpeedStat& operator=(const MCp_DiskSpeedStat&) = delete;

    // Adds one operation of `bytes` that took `seconds` (requires seconds > 0). An operation that
    // overlapped the previous one is merged with it when that gives the higher speed. Speeds at
    // or above the cap (the "Dont Include Speeds Above..." preference) only become the previous
    // sample.
    void AddSample(uint64_t bytes, double seconds);
    void AddSampleAt(uint64_t bytes, double seconds, uint64_t now);

    // Each returns its field, read under the mutex.
    double GetAverage() const;
    double GetMaxAverage() const;
    double GetMaxSpeed() const;
    int64_t GetSampleCount() const;
    double GetNewWeight() const;

    // Back to the initial values (tests).
    void Reset();
    // Replaces the average (tests and hosts that know their disk).
    void SetAverageForTesting(double bytesPerSecond);

private:
    mutable std::mutex mutex_;
    int64_t warmUpCount_ = kWarmUpCount;
    double newWeight_ = kNewWeight;
    double oldWeight_ = kOldWeight;
    double average_ = kInitialAverage;
    double maxAverage_ = 0.0;
    double maxSpeed_ = 0.0;
    int64_t count_ = 0;
    uint64_t lastBytes_ = 0;
    double lastSeconds_ = 0.0;
    uint64_t lastStamp_ = 0;  // host time stamp; 0 = no previous sample
};

// The two process-wide statistics.
MCp_DiskSpeedStat& MCp_ReadSpeedStat();
MCp_DiskSpeedStat& MCp_WriteSpeedStat();

// Intervals during which the disk was busy with one kind of operation.
class MCp_BusyTracker {
public:
    static constexpr uint64_t kOpen = ~uint64_t{0};

    MCp_BusyTracker() = default;
    MCp_BusyTracker(const MCp_BusyTracker&) = delete;
    MCp_BusyTracker& operator=(const MCp_BusyTracker&) = delete;

    // Opens an interval starting now; returns its id, to be given to End.
    uint64_t Begin();
    uint64_t BeginAt(uint64_t now);
    // Closes the interval `id` now (unknown ids are ignored).
    void End(uint64_t id);
    void EndAt(uint64_t id, uint64_t now);
    // Busy share of the last `spanSeconds` seconds: the sum of each interval's overlap with
    // [now - span, now], divided by the span (overlapping operations may give more than 1).
    // Returns 0 for a span that is not positive.
    double PercentBusy(double spanSeconds) const;
    double PercentBusyAt(double spanSeconds, uint64_t now) const;
    // Forgets every interval (tests).
    void Reset();

private:
    struct Interval {
        uint64_t id;
        uint64_t start;
        uint64_t end;
    };
    void PruneLocked(uint64_t now);

    mutable velacore::RecursiveMutex mutex_;
    std::deque<Interval> intervals_;  // oldest start first
    uint64_t nextId_ = 1;
};

MCp_BusyTracker& MCp_ReadBusyTracker();
MCp_BusyTracker& MCp_WriteBusyTracker();

// Records one busy interval for the lifetime of the object.
class MCp_ScBusyInterval {
public:
    explicit MCp_ScBusyInterval(MCp_BusyTracker& tracker)
        : tracker_(tracker), id_(tracker.Begin()) {}
    ~MCp_ScBusyInterval() { tracker_.End(id_); }
    MCp_ScBusyInterval(const MCp_ScBusyInterval&) = delete;
    MCp_ScBusyInterval& operator=(const MCp_ScBusyInterval&) = delete;

private:
    MCp_BusyTracker& tracker_;
    uint64_t id_;
};
