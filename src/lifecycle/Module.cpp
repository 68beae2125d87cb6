// Module start-up and shut-down, the global bag, and the process-wide settings.
#include "lifecycle/Module.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <string>

#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_StuffData.h"
#include "mc/host/Guid.h"
#include "mc/host/MediaManager.h"
#include "mediamap/MediaMapHooks.h"
#include "remote/Farm.h"

namespace {

struct ModuleState {
    std::mutex executorMutex;  // guards the executor pointers
    std::shared_ptr<velacore::Executor> io;
    std::shared_ptr<velacore::AsyncThreadedSubExecutor> disk;
    std::shared_ptr<velacore::AsyncThreadedSubExecutor> async;
    std::atomic<std::shared_ptr<MC_Bag>> bag;
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> quilletMode{false};
    bool interactive = false;
};

ModuleState& State() {
    static ModuleState state;
    return state;
}

// Identifies this module to the media manager; made when the module loads.
const velacore::Guid g_mediaManagerClientKey = velacore::Guid::CreateUnique();

const BetaFeature g_quilletLimitFeature(
    "Graphics.SetMCCacheLimitForQuillets", 0,
    "$$$/ZK/BetaFeature/SetMCCacheLimitForQuillets/Name=Set memory limit on MC cache for ZK "
    "quillets.",
    "$$$/ZK/BetaFeature/SetMCCacheLimitForQuillets/Desc=Enabling memory limit set on MC cache "
    "for ZK quillets.",
    1, 1, 0);

debug::TraceSite g_minimumTrace("MC", 7);

// Lets the host's memory monitor read the bag's total and ask it to purge.
void ConnectMemoryClient() {
    velacore::GetHostServices().SetMemoryClient(
        [] {
            std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
            return bag ? bag->GetInMemoryCacheSizeInBytes_LockFree() : int64_t{0};
        },
        [] {
            if (std::shared_ptr<MC_Bag> bag = MC_GlobalBag()) bag->FreeUpSomeMemory(0);
        });
    // Crossing the budget wakes the monitor at once, so the total overshoots by about an item
    // rather than by what a timer interval lets in.
    velacore::HostServices::MemoryWake wake = velacore::GetHostServices().GetMemoryWake();
    if (std::shared_ptr<MC_Bag> bag = MC_GlobalBag(); bag && wake.wake)
        bag->SetMemoryWake(static_cast<int64_t>(std::min<uint64_t>(wake.threshold, INT64_MAX)),
                           std::move(wake.wake));
}

}  // namespace

std::shared_ptr<velacore::AsyncThreadedSubExecutor> MCp_DiskExecutor() {
    std::lock_guard<std::mutex> lock(State().executorMutex);
    return State().disk;
}

std::shared_ptr<velacore::AsyncThreadedSubExecutor> MCp_AsyncExecutor() {
    std::lock_guard<std::mutex> lock(State().executorMutex);
    return State().async;
}

bool MCp_StopRequested() {
    return State().stopRequested.load();
}

void MC_Birth(bool interactive, unsigned int appVersion, bool quilletMode) {
    ALOG_Log(10, "MC", "Birth", "MC Birth");
    ModuleState& s = State();
    s.interactive = interactive;
    s.stopRequested.store(false);
    {
        std::lock_guard<std::mutex> lock(s.executorMutex);
        s.io = velacore::CreateIOBoundExecutor();
        s.disk = velacore::CreateSubExecutor(s.io, 2);
        s.async = velacore::CreateSubExecutor(s.io, 1);
    }
    MCp_GetCounters().lastPurgedUsedTime.store(0);  // the new bag has purged nothing yet
    s.bag.store(std::make_shared<MC_Bag>(appVersion));
    s.quilletMode.store(quilletMode);
    if (MC_IsSetMCCacheLimitForQuilletsEnabled()) {
        if (NX::IMediaManager* manager = NX::GetMediaManager())
            manager->SetClientCacheLimit(g_mediaManagerClientKey, MC_GetMaxMCCacheSize());
    } else if (mc_settings::UseMediaMap() && interactive) {
        MCp_MediaMapCreate();
    }
    ConnectMemoryClient();
}

void MC_StopAllAsyncWork() {
    ALOG_Log(10, "MC", "", "MC_StopAllAsyncWork");
    ModuleState& s = State();
    s.stopRequested.store(true);
    MCr_Shutdown();
    std::shared_ptr<velacore::AsyncThreadedSubExecutor> disk, async;
    {
        std::lock_guard<std::mutex> lock(s.executorMutex);
        disk = std::move(s.disk);
        async = std::move(s.async);
    }
    if (disk) disk->Stop();
    if (async) async->Stop();
    if (std::shared_ptr<MC_Bag> bag = MC_GlobalBag()) {
        uint64_t inMemory = 0, onDisk = 0;
        bag->GetCacheSizesInBytes(inMemory, onDisk);
    }
}

void MC_Death() {
    ALOG_Log(10, "MC", "Death", "MC Death");
    ModuleState& s = State();
    MCr_Shutdown();
    velacore::GetHostServices().SetMemoryClient({}, {});
    if (std::shared_ptr<MC_Bag> bag = s.bag.load()) {
        bag->SetMemoryWake(0, {});
        bag->ClearBagAndSortDir();
        s.bag.store(nullptr);
    }
    MCp_MediaMapShutdown();
    MC_StuffData::Death();
}

std::shared_ptr<MC_Bag> MC_GlobalBag() {
    return State().bag.load();
}

uint64_t MC_GetMaxMCCacheSize() {
    const double bytes = static_cast<double>(NX::MM::GetFixedMaxCacheSize()) *
                         mc_settings::QuilletCacheLimitMultiplier();
    if (!(bytes > 0.0)) return 0;
    if (bytes >= 18446744073709551615.0) return ~uint64_t{0};
    return static_cast<uint64_t>(bytes);
}

bool MC_IsSetMCCacheLimitForQuilletsEnabled() {
    // Asked once per process (tests may reset the settings generation to ask again).
    static std::atomic<uint64_t> askedAt{0};
    static std::atomic<bool> featureOn{false};
    const uint64_t gen = mc_settings::Generation();
    if (askedAt.load(std::memory_order_acquire) != gen) {
        featureOn.store(IsFeatureEnabled("Graphics.SetMCCacheLimitForQuillets"));
        askedAt.store(gen, std::memory_order_release);
    }
    return featureOn.load() && State().quilletMode.load();
}

bool MC_IsGlobalBagSizeAboveMinimum() {
    if (MC_IsSetMCCacheLimitForQuilletsEnabled()) return true;
    uint64_t limit = 0, second = 0;
    if (int err = U_GetMemUsageLimits(&limit, &second)) throw err;
    std::shared_ptr<MC_Bag> bag = MC_GlobalBag();
    if (!bag) return true;
    const int64_t minimum =
        static_cast<int64_t>(static_cast<double>(limit) * mc_settings::MinSizeToPurgeLimitRatio());
    const int64_t size = bag->GetInMemoryCacheSizeInBytes_LockFree();
    const bool above = size >= minimum;
    if (g_minimumTrace.Enabled())
        g_minimumTrace.Write("(memCacheSize, minMemCacheSize, memCacheAboveMin): " +
                             NumberToMemoryString(static_cast<double>(size), 2) + ", " +
                             NumberToMemoryString(static_cast<double>(minimum), 2) + ", " +
                             (above ? "true" : "false"));
    return above;
}

bool MCp_MinimumCheck::Above() {
    if (g_minimumTrace.Enabled()) return MC_IsGlobalBagSizeAboveMinimum();
    if (!known_) {
        always_ = MC_IsSetMCCacheLimitForQuilletsEnabled();
        if (!always_) {
            uint64_t limit = 0, second = 0;
            if (int err = U_GetMemUsageLimits(&limit, &second)) throw err;
            minimum_ = static_cast<int64_t>(static_cast<double>(limit) *
                                            mc_settings::MinSizeToPurgeLimitRatio());
        }
        bag_ = MC_GlobalBag();
        known_ = true;
    }
    if (always_) return true;
    return !bag_ || bag_->GetInMemoryCacheSizeInBytes_LockFree() >= minimum_;
}

uint64_t MC_GetMediaMapSize() {
    return MCp_MediaMapEnabled() ? MCp_MediaMapSize() : 0;
}
