// What the demo shows: the live progress line (plain lines when not on a terminal), the summary
// (text or JSON) and the SVG report. Thread-safety: Progress is used by one thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "Demo.h"

class MC_Bag;

namespace mcache {

class Progress {
public:
    explicit Progress(bool enabled);
    // One refresh: pass progress and speed, where frames came from, the cache's state.
    void Update(const std::string& pass, uint64_t done, uint64_t total, double framesPerSecond,
                uint64_t memory, uint64_t disk, uint64_t rendered, const Sample& sample);
    void PassDone(const PassStats& pass);
    void SetBudgets(uint64_t memory, uint64_t disk) {
        memoryBudget_ = memory;
        diskBudget_ = disk;
    }

private:
    bool enabled_;
    bool terminal_;
    double lastPlain_ = -1;
    uint64_t memoryBudget_ = 0, diskBudget_ = 0;
};

// "12.3 MiB" style.
std::string Bytes(double bytes);
void PrintSummary(const DemoOptions& options, const DemoResult& result, MC_Bag& bag,
                  int appVersion);
// Draws memory and disk use against their budgets over time and the hits per pass.
void WriteSvgReport(const DemoOptions& options, const DemoResult& result, const std::string& path);

}  // namespace mcache
