// The disk-cache budget: the room left in it, the drive-space rule, making room by deleting the
// files of least recently used idle items, and the size of every version's cache folder.
#include <vector>

#include "disk/DiskLayout.h"
#include "disk/DiskSettings.h"
#include "disk/DiskTempSweep.h"
#include "host/HostOps.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"

namespace {
debug::TraceSite g_budgetTrace("DiskCache", 6);

// A file that vanished since the walk listed it (a writer's temporary) counts nothing.
uint64_t SizeOrZero(const velacore::File& file) {
    try {
        return file.Size();
    } catch (const velacore::FileNotFoundError&) {
        return 0;
    }
}
}  // namespace

int64_t MC_Bag::GetCurrentFreeDiskSpace() const {
    return maxDisk_.load() - diskSize_.load();
}

bool MC_Bag::IsDiskCacheLimitedDueToDriveSpace() const {
    const int64_t need = static_cast<int64_t>(mc_disk_settings::MinimumVolumeFreeSpaceBytes()) +
                         GetCurrentFreeDiskSpace();
    const velacore::Dir folder = GetDiskCacheDirSpec();
    if (need < 0 || folder.IsEmpty()) return false;
    try {
        const uint64_t free = velacore::GetVolumeFreeSpace(folder.GetFullPath());
        return free < static_cast<uint64_t>(need);
    } catch (...) {
        return false;  // the volume cannot be asked: nothing is known to limit the budget
    }
}

bool MC_Bag::EnsureDiskSpace(int64_t amount, uint64_t lastUseLimit) {
    if (GetCurrentFreeDiskSpace() >= amount) return true;
    debug::ProfileScope profile("ZK.MC_Bag::EnsureDiskSpace", 7);
    // Temporaries counted by a scan may have been committed or abandoned since.
    MCp_RecheckCountedTempFiles(*this);
    if (GetCurrentFreeDiskSpace() >= amount) return true;
    std::vector<StuffPtr> items;
    {
        debug::ProfileScope copyProfile("- bag copy", 7);
        items = SnapshotItems();  // under the cache lock; files are deleted after it
    }
    // Oldest first; the first idle item with a file that was used at or after the limit ends
    // the walk, even if later items would qualify.
    for (const StuffPtr& stuff : items) {
        if (GetCurrentFreeDiskSpace() >= amount) break;
        bool deleted = false, tooRecent = false;
        stuff->MaybeDeleteDiskCacheFile(lastUseLimit, deleted, tooRecent);
        if (tooRecent) break;
    }
    items.clear();
    return GetCurrentFreeDiskSpace() >= amount;
}

uint64_t MC_Bag::FindDiskCacheSizeAcrossVersions(unsigned& folderCount) {
    folderCount = 0;
    uint64_t total = 0;
    const std::u16string root = GetDiskCacheRootPath();
    if (root.empty()) return 0;  // no folder was ever set
    try {
        const velacore::Dir product = MCp_ProductDir(root);
        const std::u16string machine = MC_GetMachineDirName();
        for (const velacore::Dir& version : product.ListSubdirs()) {
            velacore::RecursiveFileIterator walk(version.GetSubdir(machine));
            velacore::File file;
            while (walk.Next(file)) total += SizeOrZero(file);
            ++folderCount;
        }
    } catch (...) {
        if (g_budgetTrace.Enabled()) g_budgetTrace.Write("FindDiskCacheSizeAcrossVersions THREW");
    }
    return total;
}
