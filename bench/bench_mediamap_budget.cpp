// bench_mediamap_budget: renders a stream of frames through the cache with the standalone host
// and the media map mirror on, the frames together many times larger than the media manager's
// budget, and prints the registered total against that budget.
//
// Phase 1 renders frames from several threads (with some requests for recent frames, which hit)
// while a sampler thread watches the manager's registered total; the manager purges from its
// own thread, so the sampled peak may briefly run ahead of the budget by the frames registered
// since its last pass. Phase 2 renders frames one at a time and waits for the manager after
// each, recording the total at rest, which must stay within the budget.
//
// Usage: bench_mediamap_budget [--frames N] [--frame-kib K] [--budget-mib M] [--threads T]
// Exit status 0 when the totals at rest stayed within the budget, 1 otherwise, 2 on bad usage.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "mc/standalone/StandaloneHost.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "mediamap/MC_MediaMapImpl.h"
#include "mediamap/MediaMapHooks.h"
#include "support/TestPayload.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    int frames = 600;
    uint32_t frameKiB = 1024;
    uint64_t budgetMiB = 64;
    int threads = 2;
};

bool ParseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) return false;
        const long long value = std::atoll(argv[++i]);
        if (value <= 0) return false;
        if (arg == "--frames") {
            o.frames = static_cast<int>(value);
        } else if (arg == "--frame-kib") {
            o.frameKiB = static_cast<uint32_t>(value);
        } else if (arg == "--budget-mib") {
            o.budgetMiB = static_cast<uint64_t>(value);
        } else if (arg == "--threads") {
            o.threads = static_cast<int>(value);
        } else {
            return false;
        }
    }
    return true;
}

// Totals of one phase.
struct Figures {
    std::atomic<int> rendered{0};
    std::atomic<int> hits{0};
    std::atomic<uint64_t> peak{0};
};

void RaisePeak(std::atomic<uint64_t>& peak, uint64_t value) {
    uint64_t seen = peak.load();
    while (value > seen && !peak.compare_exchange_weak(seen, value)) {
    }
}

// Asks for frame `key`; renders it on a miss. Returns whether it was a hit.
bool RequestFrame(uint32_t key, uint32_t frameBytes) {
    MC_ScCheckout receipt;
    const MC_CheckoutResult result = receipt.FindAndCheckout(
        mctest::MakeRequest(key), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                      MC_CheckoutFlag_WaitIfPendingUnlessLocked);
    if (result != MC_CheckoutResult_CreatedNewPending)
        return result == MC_CheckoutResult_CheckedOut;
    receipt.GetStuffPtr()->SetStuffDataFromPendingRender(
        IntrusivePtr<MC_StuffData>(new mctest::TestPayload(key, frameBytes)), 0.02);
    return false;
}

void RunConcurrentPhase(const Options& o, NX::StandaloneMediaManager& manager, Figures& f) {
    const uint32_t frameBytes = o.frameKiB * 1024;
    std::atomic<int> next{0};
    std::atomic<bool> done{false};
    std::thread sampler([&] {
        while (!done.load()) {
            RaisePeak(f.peak, manager.GetRegisteredBytes());
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < o.threads; ++t) {
        workers.emplace_back([&, t] {
            std::mt19937 rng(1234u + static_cast<uint32_t>(t));
            for (int i = next.fetch_add(1); i < o.frames; i = next.fetch_add(1)) {
                // One request in four goes back to one of the last eight frames.
                uint32_t key = static_cast<uint32_t>(i);
                if (rng() % 4 == 0 && i >= 8) key -= 1 + rng() % 8;
                if (RequestFrame(key, frameBytes))
                    f.hits.fetch_add(1);
                else
                    f.rendered.fetch_add(1);
            }
        });
    }
    for (auto& w : workers) w.join();
    done.store(true);
    sampler.join();
    manager.WaitUntilSettled(std::chrono::minutes(5));
}

void RunSettledPhase(const Options& o, NX::StandaloneMediaManager& manager, Figures& f) {
    const uint32_t frameBytes = o.frameKiB * 1024;
    const uint32_t first = static_cast<uint32_t>(o.frames) + 1000;
    for (int i = 0; i < o.frames; ++i) {
        RequestFrame(first + static_cast<uint32_t>(i), frameBytes);
        f.rendered.fetch_add(1);
        manager.WaitUntilSettled(std::chrono::minutes(5));
        RaisePeak(f.peak, manager.GetRegisteredBytes());
    }
}

std::string MiB(uint64_t bytes) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%10.1f MiB", static_cast<double>(bytes) / (1024.0 * 1024.0));
    return buf;
}

void PrintRest(const char* label, uint64_t value) {
    std::printf("  %-44s %s\n", label, MiB(value).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!ParseOptions(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: %s [--frames N] [--frame-kib K] [--budget-mib M] [--threads T]\n",
                     argv[0]);
        return 2;
    }
    const uint64_t budget = o.budgetMiB << 20;
    velacore::StandaloneConfig config;
    config.mediaBudget = budget;
    config.memoryBudget = budget * 16;  // the host's own memory purge stays out of the way
    auto services = std::make_shared<velacore::StandaloneHostServices>(config);
    velacore::SetHostServices(services);
    NX::StandaloneMediaManager& manager = services->MediaManager();

    MC_Birth(true, static_cast<unsigned>(services->AppVersion()), false);
    if (!MCp_MediaMapEnabled()) {
        std::fprintf(stderr, "the media map mirror is off (MC.UseMediaMap1?)\n");
        return 2;
    }
    const uint64_t frameBytes = uint64_t{o.frameKiB} * 1024;
    std::printf("media manager budget %s, frame %s, %d frames per phase (%.1f x the budget)\n",
                MiB(budget).c_str(), MiB(frameBytes).c_str(), o.frames,
                static_cast<double>(frameBytes) * o.frames / static_cast<double>(budget));

    Figures concurrent;
    const auto start = Clock::now();
    RunConcurrentPhase(o, manager, concurrent);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const uint64_t restAfterConcurrent = manager.GetRegisteredBytes();
    std::printf("phase 1: %d threads, %d renders, %d hits, %.0f requests/s\n", o.threads,
                concurrent.rendered.load(), concurrent.hits.load(), o.frames / seconds);
    PrintRest("bytes rendered", uint64_t(concurrent.rendered.load()) * frameBytes);
    PrintRest("peak registered, sampled while running", concurrent.peak.load());
    PrintRest("registered at rest", restAfterConcurrent);

    Figures settled;
    RunSettledPhase(o, manager, settled);
    std::printf("phase 2: one frame at a time, waiting for the manager after each\n");
    PrintRest("bytes rendered", uint64_t(settled.rendered.load()) * frameBytes);
    PrintRest("highest registered total at rest", settled.peak.load());

    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    const uint64_t mapBytes = MC_GetMediaMapSize();
    std::printf("at the end\n");
    PrintRest("budget", budget);
    PrintRest("registered with the manager", manager.GetRegisteredBytes());
    PrintRest("media map size (MC_GetMediaMapSize)", mapBytes);
    PrintRest("bag in-memory total",
              static_cast<uint64_t>(bag->GetInMemoryCacheSizeInBytes_LockFree()));
    std::printf("  %-44s %10zu\n", "media map entries",
                static_cast<size_t>(MCp_MediaMapEntryCount()));
    std::printf("  %-44s %10llu\n", "entries purged by the manager",
                static_cast<unsigned long long>(manager.PurgedCount()));

    const bool withinBudget = restAfterConcurrent <= budget && settled.peak.load() <= budget &&
                              manager.GetRegisteredBytes() <= budget;
    std::printf("%s\n", withinBudget ? "within budget at rest: yes" : "within budget at rest: NO");
    bag.reset();
    MC_StopAllAsyncWork();
    MC_Death();
    velacore::SetHostServices(nullptr);
    return withinBudget ? 0 : 1;
}
