// The demo session: setup, the passes, sampling and the summary.
#include "Demo.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "DemoPlugin.h"
#include "FramePayload.h"
#include "Output.h"
#include "mc/MC.h"
#include "mc/host/File.h"
#include "mc/host/Time.h"
#include "mc/standalone/StandaloneHost.h"
#include "remote/Farm.h"

namespace mcache {

namespace {

using Clock = std::chrono::steady_clock;

// The frames a pass asks for: "playback" the whole timeline in order, "loop" the work area (the
// first 15% of the timeline, which fits in memory) twice, "scrub" random frames anywhere.
std::vector<uint32_t> PassFrames(const std::string& name, uint32_t frames, uint32_t seed) {
    std::vector<uint32_t> order;
    if (name == "farm") {  // seed 0 forward, 1 backward, others shuffled
        for (uint32_t f = 0; f < frames; ++f) order.push_back(seed == 1 ? frames - 1 - f : f);
        if (seed > 1) std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    } else if (name == "loop") {
        const uint32_t area = std::max(1u, frames * 3 / 20);
        for (int round = 0; round < 2; ++round)
            for (uint32_t f = 0; f < area; ++f) order.push_back(f);
    } else if (name == "scrub") {
        std::mt19937 rng(seed);
        for (uint32_t i = 0; i < frames; ++i) order.push_back(rng() % frames);
    } else {
        for (uint32_t f = 0; f < frames; ++f) order.push_back(f);
    }
    return order;
}

// Everything the render threads share during one pass.
struct PassRun {
    const DemoOptions* options;
    DemoPlugin* plugin;
    std::vector<uint32_t> order;
    std::atomic<size_t> next{0};
    double startT = 0;  // seconds since the session started
    std::atomic<uint64_t> fromMemory{0}, fromDisk{0}, rendered{0}, fromFarm{0}, done{0};
};

// One request: find the frame, render it on a miss, look at it, check it in.
void ServeFrame(PassRun& run, uint32_t number) {
    const DemoOptions& o = *run.options;
    const FrameSpec desc{number, o.width, o.height, o.cost};
    const uint64_t start = velacore::HighPrecisionTime::Now();
    MC_ScCheckout receipt;
    const MC_CheckoutResult r = receipt.FindAndCheckout(
        FramePayload::MakeRequest(desc), MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_CreatePending |
                                             MC_CheckoutFlag_WaitIfPendingUnlessLocked);
    IntrusivePtr<MC_Stuff> stuff = receipt.GetStuffPtr();
    if (r == MC_CheckoutResult_CreatedNewPending) {
        double seconds = 0;
        IntrusivePtr<FramePayload> frame = FramePayload::Render(desc, &seconds);
        frame->SetCachePriority(o.cachePriority);
        stuff->SetStuffDataFromPendingRender(frame, seconds);
        run.rendered.fetch_add(1);
    } else if (r == MC_CheckoutResult_CheckedOut && stuff) {
        if (MCr_FilledByThisThread(stuff.get())) {
            run.fromFarm.fetch_add(1);
        } else if (stuff->GetLastReadFromDiskTime() >= start) {
            run.fromDisk.fetch_add(1);
            MC_NotifyFrameReadFromDisk();
        } else {
            run.fromMemory.fetch_add(1);
        }
    } else {
        // Could not be had (its render was abandoned elsewhere): render without caching.
        double seconds = 0;
        FramePayload::Render(desc, &seconds);
        run.rendered.fetch_add(1);
    }
    if (run.plugin) run.plugin->FrameStatistics(desc);
    run.done.fetch_add(1);
}

void RenderWorker(PassRun& run) {
    for (;;) {
        const size_t i = run.next.fetch_add(1);
        if (i >= run.order.size()) return;
        ServeFrame(run, run.order[i]);
    }
}

Sample TakeSample(const std::shared_ptr<MC_Bag>& bag, Clock::time_point t0) {
    Sample s;
    s.t = std::chrono::duration<double>(Clock::now() - t0).count();
    s.memory = bag->GetInMemoryCacheSizeInBytes_LockFree();
    s.disk = bag->GetCurrentDiskCacheSize();
    s.writeQueue = MC_GetDiskPerformanceCounters().writeQueueLength;
    return s;
}

// Samples the cache every 100 ms and refreshes the progress display meanwhile.
class Sampler {
public:
    Sampler(std::shared_ptr<MC_Bag> bag, Progress& progress, Clock::time_point t0)
        : bag_(std::move(bag)), progress_(progress), t0_(t0), thread_([this] { Loop(); }) {}
    ~Sampler() {
        stop_.store(true);
        thread_.join();
    }
    void SetPass(PassRun* run, const std::string& name) {
        std::lock_guard<std::mutex> lock(mutex_);
        run_ = run;
        passName_ = name;
    }
    std::vector<Sample> Samples() {
        std::lock_guard<std::mutex> lock(mutex_);
        return samples_;
    }

private:
    void Loop() {
        while (!stop_.load()) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                samples_.push_back(TakeSample(bag_, t0_));
                if (run_) {
                    const uint64_t done = run_->done.load();
                    const double elapsed = samples_.back().t - run_->startT;
                    progress_.Update(passName_, done, run_->order.size(),
                                     elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0,
                                     run_->fromMemory.load(), run_->fromDisk.load(),
                                     run_->rendered.load(), samples_.back());
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    std::shared_ptr<MC_Bag> bag_;
    Progress& progress_;
    Clock::time_point t0_;
    std::mutex mutex_;
    PassRun* run_ = nullptr;
    std::string passName_;
    std::vector<Sample> samples_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

PassStats RunPass(const std::string& name, const DemoOptions& o, DemoPlugin* plugin,
                  Sampler& sampler, uint32_t seed, Clock::time_point session) {
    PassRun run;
    run.startT = std::chrono::duration<double>(Clock::now() - session).count();
    run.options = &o;
    run.plugin = plugin;
    run.order = PassFrames(name, o.frames, seed);
    sampler.SetPass(&run, name);
    const auto t0 = Clock::now();
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < o.threads; ++i) threads.emplace_back([&run] { RenderWorker(run); });
    for (auto& t : threads) t.join();
    sampler.SetPass(nullptr, name);
    PassStats stats;
    stats.name = name;
    stats.start = run.startT;
    stats.requests = run.order.size();
    stats.fromMemory = run.fromMemory.load();
    stats.fromDisk = run.fromDisk.load();
    stats.rendered = run.rendered.load();
    stats.fromFarm = run.fromFarm.load();
    stats.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    return stats;
}

// The host services; an explicit --memory-budget wins over MC_MEMORY_BUDGET, which wins over
// the default. `o.memoryBudget` is set to the budget in force.
std::shared_ptr<velacore::StandaloneHostServices> StartHost(DemoOptions& o) {
    velacore::StandaloneConfig config = velacore::StandaloneConfig::FromEnvironment();
    if (o.memoryBudget)
        config.memoryBudget = o.memoryBudget;
    else if (!config.memoryBudget)
        config.memoryBudget = kDefaultMemoryBudget;
    o.memoryBudget = *config.memoryBudget;
    if (!o.remoteUrl.empty()) {
        config.remote.urls.clear();
        for (size_t start = 0; start <= o.remoteUrl.size();) {
            size_t end = o.remoteUrl.find(',', start);
            if (end == std::string::npos) end = o.remoteUrl.size();
            if (end > start) config.remote.urls.push_back(o.remoteUrl.substr(start, end - start));
            start = end + 1;
        }
    }
    auto host = std::make_shared<velacore::StandaloneHostServices>(config);
    velacore::SetHostServices(host);
    return host;
}

// Everything that can be wrong before the session starts, as one line; empty when all is well.
std::string CheckBeforeStart(const DemoOptions& o, std::unique_ptr<std::ofstream>& report) {
    std::error_code ec;
    std::filesystem::create_directories(o.folder, ec);
    if (ec) return "cannot create " + PathText(o.folder) + ": " + ec.message();
    if (!std::filesystem::is_directory(o.folder, ec)) return PathText(o.folder) + ": not a folder";
    if (!o.reportSvg.empty()) {
        report = std::make_unique<std::ofstream>(PathFromText(o.reportSvg));
        if (!*report) return "--report: cannot write " + o.reportSvg;
    }
    return {};
}

}  // namespace

int RunDemo(DemoOptions o) {
    std::unique_ptr<std::ofstream> report;
    if (const std::string problem = CheckBeforeStart(o, report); !problem.empty()) {
        std::fprintf(stderr, "mcache demo: %s\n", problem.c_str());
        return 2;
    }
    std::shared_ptr<velacore::StandaloneHostServices> host;
    try {
        host = StartHost(o);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mcache demo: %s\n", e.what());
        return 2;
    }
    const std::filesystem::path root = o.folder;
    MC_Birth(true, static_cast<unsigned>(host->AppVersion()), false);
    MC_SP_Birth();
    std::unique_ptr<DemoPlugin> plugin = DemoPlugin::Load(o.plugin);
    if (!plugin && !o.plugin.empty()) {  // asked for by name: not having it is an error
        MC_StopAllAsyncWork();
        MC_Death();
        velacore::SetHostServices(nullptr);
        return 2;
    }
    FramePayload::RegisterFactory();
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    DemoResult result;
    int status = 0;
    try {
        bag->SetDiskCacheInfo(velacore::Dir(root), o.diskBudgetMb);
        bag->EnableDiskCache(true);
        const int before = bag->GetNumItems();
        bag->ScanDiskCacheDir();  // adopt what an earlier run left, before the first pass
        result.adoptedAtStart = static_cast<uint64_t>(bag->GetNumItems() - before);

        Progress progress(o.progress);
        progress.SetBudgets(o.memoryBudget, o.diskBudgetMb << 20);
        const auto t0 = Clock::now();
        {
            Sampler sampler(bag, progress, t0);
            const std::vector<const char*> passes =
                o.farmOrder >= 0
                    ? std::vector<const char*>{"farm"}
                    : std::vector<const char*>{"playback", "scrub", "playback", "loop"};
            uint32_t seed = o.farmOrder >= 0 ? static_cast<uint32_t>(o.farmOrder) : 7;
            for (const char* name : passes) {
                result.passes.push_back(RunPass(name, o, plugin.get(), sampler, seed++, t0));
                progress.PassDone(result.passes.back());
            }
            if (!MC_Bag::WaitForDiskWrites(60))
                std::fprintf(stderr, "mcache demo: disk writes still queued after 60 s\n");
            if (!MCr_WaitForPublishing(60))
                std::fprintf(stderr, "mcache demo: farm publications still queued after 60 s\n");
            result.samples = sampler.Samples();
        }
        result.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        if (plugin) {
            result.statsComputed = plugin->Computed();
            result.statsRequests = plugin->Requests();
            result.pluginPath = PathText(plugin->Path());
        }
        PrintSummary(o, result, *bag, host->AppVersion());
        if (report && !WriteSvgReport(o, result, host->AppVersion(), *report)) {
            std::fprintf(stderr, "mcache demo: --report: cannot write %s\n", o.reportSvg.c_str());
            status = 2;
        }
    } catch (int code) {
        std::fprintf(stderr, "mcache demo: %s\n", ErrorText(code).c_str());
        status = 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mcache demo: %s\n", e.what());
        status = 2;
    }
    bag.reset();
    if (plugin) plugin->Shutdown();
    MC_StopAllAsyncWork();
    MC_Death();
    plugin.reset();
    velacore::SetHostServices(nullptr);
    return status;
}

}  // namespace mcache
