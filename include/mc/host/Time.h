// HighPrecisionTime (steady-clock time stamps in nanosecond ticks) and Timer.
// Thread-safety: stateless functions; a Timer belongs to one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>

namespace velacore {

struct HighPrecisionTime {
    // Current steady-clock time stamp in ticks; never 0 in practice.
    static uint64_t Now() {
        return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                         std::chrono::steady_clock::now().time_since_epoch())
                                         .count());
    }
    // Converts a tick count (a difference of time stamps) to nanoseconds.
    static int64_t ConvertToNanos(int64_t ticks) { return ticks; }
    static double ToSeconds(int64_t ticks) { return static_cast<double>(ticks) * 1e-9; }
};

// Measures elapsed time from construction or the last Restart.
class Timer {
public:
    Timer() : start_(HighPrecisionTime::Now()) {}
    void Restart() { start_ = HighPrecisionTime::Now(); }
    double GetElapsedSeconds() const {
        return HighPrecisionTime::ToSeconds(
            static_cast<int64_t>(HighPrecisionTime::Now() - start_));
    }
    int64_t GetElapsedMicroseconds() const {
        return static_cast<int64_t>(HighPrecisionTime::Now() - start_) / 1000;
    }

private:
    uint64_t start_;
};

}  // namespace velacore
