// mcache farm: several render processes (this tool re-executed) share one Redis through the
// remote tier, each with its own small cache folder and budgets and its own order over the same
// timeline; the summary shows where each got its frames and the renders the farm saved.
// Thread-safety: RunFarm is called once from the main thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace mcache {

struct FarmOptions {
    unsigned processes = 3;
    std::string remoteUrl;  // empty: a private redis-server for the run
    uint32_t frames = 240;
    uint32_t width = 640;
    uint32_t height = 360;
    uint32_t cost = 12;
    unsigned threads = 2;
    std::string memoryBudget = "64M";
    std::string diskBudget = "64M";
    std::filesystem::path folder;  // each process gets folder/p<i>
    bool json = false;
};

int RunFarm(const FarmOptions& options);

}  // namespace mcache
