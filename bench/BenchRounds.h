// Helpers for benchmarks that run each side of a comparison once per round, sides interleaved,
// and report the minimum and the median over the rounds.
// Thread-safety: plain values; one thread at a time.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace mcbench {

// The figures one side produced, one per round.
struct Samples {
    std::vector<double> v;
    void Add(double x) { v.push_back(x); }
    // Requires at least one sample.
    double Min() const { return *std::min_element(v.begin(), v.end()); }
    double Max() const { return *std::max_element(v.begin(), v.end()); }
    double Median() const {
        std::vector<double> s = v;
        std::sort(s.begin(), s.end());
        return s[s.size() / 2];
    }
};

// The one-minute load average (0 where the system does not tell).
inline double LoadAverage() {
    double l[1] = {0};
    return getloadavg(l, 1) == 1 ? l[0] : 0.0;
}

// Rounds from the first argument, at least `minimum`.
inline int RoundsFromArgs(int argc, char** argv, int minimum = 5) {
    return argc > 1 ? std::max(minimum, std::atoi(argv[1])) : minimum;
}

}  // namespace mcbench
