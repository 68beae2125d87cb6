// The speed statistics and busy-time trackers. See SpeedStats.h.
#include "disk/SpeedStats.h"

#include <algorithm>

#include "disk/DiskFolder.h"
#include "mc/host/Time.h"

using velacore::HighPrecisionTime;

namespace {
// Intervals that ended longer ago than this are forgotten; no caller asks about older spans.
constexpr double kBusyHistorySeconds = 3600.0;
// A hard cap on the history, whatever the spans.
constexpr size_t kMaxBusyIntervals = 4096;

double SecondsBetween(uint64_t from, uint64_t to) {
    return to > from ? HighPrecisionTime::ToSeconds(static_cast<int64_t>(to - from)) : 0.0;
}
}  // namespace

// --- speed statistic -----------------------------------------------------------------------

void MCp_DiskSpeedStat::AddSample(uint64_t bytes, double seconds) {
    AddSampleAt(bytes, seconds, HighPrecisionTime::Now());
}

void MCp_DiskSpeedStat::AddSampleAt(uint64_t bytes, double seconds, uint64_t now) {
    if (!(seconds > 0.0)) return;
    double speed = static_cast<double>(bytes) / seconds;
    const double cap = MCp_DiskFolder::SpeedCapBytesPerSecond();
    std::lock_guard<std::mutex> lock(mutex_);
    if (lastStamp_ != 0) {
        const double gap = SecondsBetween(lastStamp_, now);
        if (seconds > gap) {  // this operation overlapped the previous one
            const uint64_t mergedBytes = lastBytes_ + bytes;
            const double mergedSeconds = gap + lastSeconds_;
            if (mergedSeconds > 0.0 && static_cast<double>(mergedBytes) / mergedSeconds > speed) {
                bytes = mergedBytes;
                seconds = mergedSeconds;
                speed = static_cast<double>(mergedBytes) / mergedSeconds;
            }
        }
    }
    if (speed < cap) {
        average_ = oldWeight_ * average_ + newWeight_ * speed;
        ++count_;
        if (count_ > warmUpCount_) {
            maxAverage_ = std::max(maxAverage_, average_);
            maxSpeed_ = std::max(maxSpeed_, speed);
        }
    }
    lastBytes_ = bytes;
    lastSeconds_ = seconds;
    lastStamp_ = now;
}

double MCp_DiskSpeedStat::GetAverage() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return average_;
}
double MCp_DiskSpeedStat::GetMaxAverage() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return maxAverage_;
}
double MCp_DiskSpeedStat::GetMaxSpeed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return maxSpeed_;
}
int64_t MCp_DiskSpeedStat::GetSampleCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}
double MCp_DiskSpeedStat::GetNewWeight() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return newWeight_;
}

void MCp_DiskSpeedStat::Reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    average_ = kInitialAverage;
    maxAverage_ = 0.0;
    maxSpeed_ = 0.0;
    count_ = 0;
    lastBytes_ = 0;
    lastSeconds_ = 0.0;
    lastStamp_ = 0;
}

void MCp_DiskSpeedStat::SetAverageForTesting(double bytesPerSecond) {
    std::lock_guard<std::mutex> lock(mutex_);
    average_ = bytesPerSecond;
}

MCp_DiskSpeedStat& MCp_ReadSpeedStat() {
    static MCp_DiskSpeedStat stat;
    return stat;
}
MCp_DiskSpeedStat& MCp_WriteSpeedStat() {
    static MCp_DiskSpeedStat stat;
    return stat;
}

// --- busy-time tracker ---------------------------------------------------------------------

uint64_t MCp_BusyTracker::Begin() {
    return BeginAt(HighPrecisionTime::Now());
}

uint64_t MCp_BusyTracker::BeginAt(uint64_t now) {
    std::lock_guard<velacore::RecursiveMutex> lock(mutex_);
    PruneLocked(now);
    const uint64_t id = nextId_++;
    intervals_.push_back(Interval{id, now, kOpen});
    return id;
}

void MCp_BusyTracker::End(uint64_t id) {
    EndAt(id, HighPrecisionTime::Now());
}

void MCp_BusyTracker::EndAt(uint64_t id, uint64_t now) {
    std::lock_guard<velacore::RecursiveMutex> lock(mutex_);
    for (auto it = intervals_.rbegin(); it != intervals_.rend(); ++it) {
        if (it->id == id) {
            it->end = std::max(now, it->start);
            return;
        }
    }
}

// Drops closed intervals that ended before the history window, oldest first, and keeps the
// list bounded. Open intervals stay until they are closed.
void MCp_BusyTracker::PruneLocked(uint64_t now) {
    while (!intervals_.empty()) {
        const Interval& front = intervals_.front();
        const bool stale =
            front.end != kOpen && SecondsBetween(front.end, now) > kBusyHistorySeconds;
        if (!stale && intervals_.size() < kMaxBusyIntervals) break;
        intervals_.pop_front();
    }
}

double MCp_BusyTracker::PercentBusy(double spanSeconds) const {
    return PercentBusyAt(spanSeconds, HighPrecisionTime::Now());
}

double MCp_BusyTracker::PercentBusyAt(double spanSeconds, uint64_t now) const {
    if (!(spanSeconds > 0.0)) return 0.0;
    const double spanNanos = spanSeconds * 1e9;
    const uint64_t windowStart =
        spanNanos >= static_cast<double>(now) ? 0 : now - static_cast<uint64_t>(spanNanos);
    std::lock_guard<velacore::RecursiveMutex> lock(mutex_);
    double busy = 0.0;
    for (auto it = intervals_.rbegin(); it != intervals_.rend(); ++it) {
        if (it->end == kOpen) {
            busy += std::min(spanSeconds, SecondsBetween(it->start, now));
            continue;
        }
        if (it->end < windowStart) break;  // the walk ends at the first one over before the window
        const uint64_t from = std::max(it->start, windowStart);
        const uint64_t to = std::min(it->end, now);
        busy += SecondsBetween(from, to);
    }
    return busy / spanSeconds;
}

void MCp_BusyTracker::Reset() {
    std::lock_guard<velacore::RecursiveMutex> lock(mutex_);
    intervals_.clear();
}

MCp_BusyTracker& MCp_ReadBusyTracker() {
    static MCp_BusyTracker tracker;
    return tracker;
}
MCp_BusyTracker& MCp_WriteBusyTracker() {
    static MCp_BusyTracker tracker;
    return tracker;
}
