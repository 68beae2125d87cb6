// MC_Bag's disk-cache settings: folder, root path, budget and the process-wide preferences.
// Lock order: the cache lock, then the disk-info mutex (recursive: the budget shrink re-enters
// it through EnsureDiskSpace).
#include <atomic>
#include <limits>
#include <mutex>

#include "disk/DiskLayout.h"
#include "disk/DiskScan.h"
#include "disk/DiskSettings.h"
#include "host/HostOps.h"
#include "lifecycle/Module.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/File.h"

using velacore::Dir;

namespace {

std::atomic<bool> g_initialRescanPosted{false};
debug::TraceSite g_rescanTrace("DiskCache", 6);

int64_t MegabytesToBytes(uint64_t megabytes) {
    constexpr uint64_t kMegabyte = uint64_t{1} << 20;
    constexpr uint64_t kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (megabytes > kMax / kMegabyte) return static_cast<int64_t>(kMax);
    return static_cast<int64_t>(megabytes * kMegabyte);
}

void RunRescan(const std::weak_ptr<MC_Bag>& weakBag) {
    std::shared_ptr<MC_Bag> bag = weakBag.lock();
    if (!bag) bag = MC_GlobalBag();
    if (!bag) return;
    try {
        bag->ScanDiskCacheDir();
    } catch (...) {
        if (g_rescanTrace.Enabled()) g_rescanTrace.Write("ScanDiskCacheDir THREW\n");
    }
}

}  // namespace

bool MCp_PostInitialDiskRescanOnce(std::weak_ptr<MC_Bag> bag) {
    if (g_initialRescanPosted.exchange(true)) return false;
    std::shared_ptr<velacore::AsyncThreadedSubExecutor> executor = MCp_AsyncExecutor();
    if (!executor) return false;
    return executor->Post([bag = std::move(bag)] { RunRescan(bag); });
}

void MCp_SetInitialDiskRescanPostedForTesting(bool posted) {
    g_initialRescanPosted.store(posted);
}

void MC_Bag::SetDiskCacheInfo(const Dir& root, uint64_t maxSizeMegabytes) {
    MCp_ScLock cacheLock;
    // Throws before anything is stored when the folder cannot be used.
    const Dir folder = MCp_ResolveDiskCacheFolder(root, MCp_ClientVersionText());
    {
        std::lock_guard<std::recursive_mutex> info(diskInfoMutex_);
        if (!diskDir_ || !(*diskDir_ == folder)) {
            diskDir_ = std::make_unique<Dir>(folder);
            rootPath_ = MCp_FullPathUtf16(root);
            lastScanMark_ = 0;  // a new folder: its files are all new to a scan
        }
        const int64_t newMax = MegabytesToBytes(maxSizeMegabytes);
        const int64_t oldMax = maxDisk_.load();
        if (newMax != oldMax) {
            // Free the difference while the old budget still stands.
            if (newMax < oldMax) EnsureDiskSpace(oldMax - newMax, ~uint64_t{0});
            maxDisk_.store(newMax);
        }
    }
    mc_disk_settings::ReadDiskCachePreferences();
    MCp_PostInitialDiskRescanOnce(weak_from_this());
}

Dir MC_Bag::GetDiskCacheDirSpec() const {
    std::lock_guard<std::recursive_mutex> info(diskInfoMutex_);
    return diskDir_ ? *diskDir_ : Dir();
}

std::u16string MC_Bag::GetDiskCacheRootPath() const {
    std::lock_guard<std::recursive_mutex> info(diskInfoMutex_);
    return rootPath_;
}
