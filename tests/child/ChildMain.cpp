// mc_test_child: the processes that the crash and exit tests start.
//   crash-writer ROOT SEED  writes items from several threads into a small disk budget until it
//                           is killed (it never exits by itself)
//   crash-check ROOT        a fresh module scans ROOT's folder: ages every other temporary past
//                           the abandonment rule first, then checks that aged temporaries are
//                           gone, the budget equals the folder and every item reads back
//   exit-without-death      starts the module with a fast memory monitor and returns from main
//                           without stopping it; exits 3 if the monitor still ran once the
//                           module's state was destroyed
// Exit status 0 means success; failures are explained on stderr.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "disk/DiskFolder.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/host/File.h"
#include "mc/standalone/StandaloneHost.h"
#include "support/TestPayload.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using mctest::TestPayload;

constexpr unsigned kAppVersion = 256;  // "1.0" in the standalone host's rule
constexpr uint64_t kBudgetMegabytes = 3;
constexpr auto kAbandoned = std::chrono::minutes(10);

std::shared_ptr<velacore::StandaloneHostServices> StartModule(std::chrono::milliseconds interval) {
    velacore::StandaloneConfig config;
    config.computerName = "crash-host";
    config.monitorInterval = interval;
    auto host = std::make_shared<velacore::StandaloneHostServices>(config);
    velacore::SetHostServices(host);
    MC_Birth(false, kAppVersion, false);
    TestPayload::RegisterFactory();
    return host;
}

// One writer thread: new items of random keys and sizes, room made first, written at once;
// now and then an earlier item is purged from memory and read back.
[[noreturn]] void WriteForever(std::shared_ptr<MC_Bag> bag, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<IntrusivePtr<MC_Stuff>> mine;
    for (;;) {
        const uint32_t key = rng();
        auto* payload = new TestPayload(key, 1000 + rng() % 300'000);
        payload->SetDiskCacheable(true);
        IntrusivePtr<MC_Stuff> item = MC_Stuff::CreateNew(IntrusivePtr<MC_StuffData>(payload), 1.0);
        item->SetGuid(mctest::KeyGuid(key));
        try {
            bag->AddToBagAndSortDir(item);
            bag->EnsureDiskSpace(payload->GetApproximateMemorySize() + (1 << 18),
                                 std::numeric_limits<uint64_t>::max());
            item->PrepAndWrite(bag);
            mine.push_back(item);
            if (mine.size() > 8) mine.erase(mine.begin());
            const IntrusivePtr<MC_Stuff>& old = mine[rng() % mine.size()];
            old->GetDataPtr()->PurgeIfPossible(nullptr);
            old->EnsureInMemory();
        } catch (...) {
            // a full budget or a lost race: try the next one
        }
    }
}

int CrashWriter(const fs::path& root, uint32_t seed) {
    StartModule(20ms);
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    bag->SetDiskCacheInfo(velacore::Dir(root), kBudgetMegabytes);  // also rescans the folder
    bag->EnableDiskCache(true);
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < 3; ++i) threads.emplace_back(WriteForever, bag, seed * 7 + i);
    for (auto& t : threads) t.join();
    return 4;  // never reached: the writers run until the process is killed
}

int CrashCheck(const fs::path& root) {
    StartModule(20ms);
    MCp_SetInitialDiskRescanPostedForTesting(true);  // this process scans by itself, once
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    bag->SetDiskCacheInfo(velacore::Dir(root), kBudgetMegabytes);
    const fs::path folder = bag->GetDiskCacheDirSpec().GetFullPath();
    int failures = 0;
    auto fail = [&failures](const std::string& what) {
        std::fprintf(stderr, "crash-check: %s\n", what.c_str());
        ++failures;
    };

    std::set<fs::path> aged, young;
    for (const auto& e : fs::recursive_directory_iterator(folder)) {
        if (e.path().extension() != ".tmp") continue;
        if (aged.size() > young.size()) {
            young.insert(e.path());
            continue;
        }
        fs::last_write_time(e.path(), fs::file_time_type::clock::now() - kAbandoned - 1min);
        aged.insert(e.path());
    }
    bag->ScanDiskCacheDir();

    uint64_t folderBytes = 0;
    size_t cacheFiles = 0;
    for (const auto& e : fs::recursive_directory_iterator(folder)) {
        if (!e.is_regular_file()) continue;
        folderBytes += e.file_size();
        cacheFiles += e.path().extension() == ".zkcache";
        if (aged.count(e.path())) fail("aged temporary left: " + e.path().string());
    }
    for (const fs::path& p : young)
        if (!fs::exists(p)) fail("young temporary removed: " + p.string());
    if (static_cast<uint64_t>(bag->GetCurrentDiskCacheSize()) != folderBytes)
        fail("budget " + std::to_string(bag->GetCurrentDiskCacheSize()) + " != folder bytes");
    const auto items = bag->SnapshotItems();
    if (items.size() != cacheFiles)
        fail(std::to_string(items.size()) + " items for " + std::to_string(cacheFiles) + " files");
    for (const auto& item : items) {
        // Read checks every byte against the key; the GUID came from the name.
        auto* payload = dynamic_cast<TestPayload*>(item->GetDataPtr().get());
        if (!payload || !item->EnsureInMemory() || payload->Bytes()->empty() ||
            item->GetGuid() != mctest::KeyGuid(payload->Key()))
            fail("bad read-back of " + item->GetDiskCacheFile().GetFullPathUtf8());
    }
    MC_StopAllAsyncWork();
    MC_Death();
    return failures == 0 ? 0 : 1;
}

// Exit-time check: runs after the module's static state is gone. The host stays alive (held
// from a global, so leak checkers see it reachable) to be asked how often the monitor sampled.
velacore::StandaloneHostServices* g_exitHost = nullptr;
std::shared_ptr<velacore::StandaloneHostServices>* g_keptHost = nullptr;

void CheckMonitorStoppedAtExit() {
    if (g_exitHost->IsMemoryMonitorRunning()) {
        std::fprintf(stderr, "exit-without-death: the memory monitor outlived the module\n");
        std::_Exit(3);
    }
}
int ExitWithoutDeath() {
    std::atexit(CheckMonitorStoppedAtExit);  // first registered: runs after every other one
    auto host = StartModule(1ms);
    g_exitHost = host.get();
    g_keptHost = new std::shared_ptr<velacore::StandaloneHostServices>(host);
    while (host->GetCounters().memorySamples < 3) std::this_thread::yield();
    return 0;  // no MC_StopAllAsyncWork, no MC_Death
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "crash-writer" && argc == 4)
        return CrashWriter(argv[2], static_cast<uint32_t>(std::stoul(argv[3])));
    if (mode == "crash-check" && argc == 3) return CrashCheck(argv[2]);
    if (mode == "exit-without-death") return ExitWithoutDeath();
    std::fprintf(stderr,
                 "usage: %s crash-writer ROOT SEED | crash-check ROOT | exit-without-death\n",
                 argv[0]);
    return 2;
}
