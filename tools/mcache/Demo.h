// The demo: an interactive compositing session simulated against the real module. Render
// threads ask for timeline frames through receipts, render on a miss and check in; passes of
// playback, looping and scrubbing make some requests hit memory, some come back from disk and
// some render again, under a memory budget and a disk budget smaller than the timeline.
// Thread-safety: RunDemo is called once from the main thread; it starts its own threads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "mc/MC_StuffData.h"

namespace mcache {

struct DemoOptions {
    uint32_t frames = 720;
    uint32_t width = 640;
    uint32_t height = 360;
    unsigned threads = 2;
    uint32_t cost = 12;         // render work multiplier
    uint64_t memoryBudget = 0;  // bytes; 0: MC_MEMORY_BUDGET, else kDefaultMemoryBudget
    uint64_t diskBudgetMb = 480;
    MC_CachePriority cachePriority = MC_CachePriority_Normal;  // of every rendered frame
    std::filesystem::path folder;                              // the disk-cache root
    std::filesystem::path plugin;  // the statistics plug-in; empty: look beside the tool
    bool json = false;
    std::string reportSvg;
    bool progress = true;
    std::string remoteUrl;  // the remote tier's server(s), comma-separated; empty: off
    int farmOrder = -1;     // >= 0: one pass over the timeline in order number farmOrder (farm)
};

// Hits of one pass, by where the frame came from.
struct PassStats {
    std::string name;
    double start = 0;  // seconds since the session started
    uint64_t requests = 0;
    uint64_t fromMemory = 0;
    uint64_t fromDisk = 0;
    uint64_t rendered = 0;
    uint64_t fromFarm = 0;  // fetched from the remote tier instead of rendered
    double seconds = 0;
};

// One sample of the cache's state over time.
struct Sample {
    double t = 0;
    int64_t memory = 0;
    int64_t disk = 0;
    uint32_t writeQueue = 0;
};

struct DemoResult {
    std::vector<PassStats> passes;
    std::vector<Sample> samples;
    uint64_t adoptedAtStart = 0;
    uint64_t statsComputed = 0;
    uint64_t statsRequests = 0;
    std::string pluginPath;  // the statistics plug-in in use, empty without one
    double seconds = 0;
};

constexpr uint64_t kDefaultMemoryBudget = 160ull << 20;

// Runs the demo and prints its summary. Returns the process exit status.
int RunDemo(DemoOptions options);

}  // namespace mcache
