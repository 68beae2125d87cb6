// The disk budget: room, drive space, making room, size across versions and purging every
// disk cache. See DiskBudget.h.
#include "disk/DiskBudget.h"

#include <string>
#include <vector>

#include "disk/DiskFolder.h"
#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/TextConvert.h"

using velacore::Dir;
using velacore::ScopedWriteLockWrapper;

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

debug::TraceSite g_purgeTrace("DiskCache", 6);

using Progress = MCp_DiskBudget::Progress;

void Trace(const std::string& text) {
    if (g_purgeTrace.Enabled()) g_purgeTrace.Write(text);
}

std::string PathText(const Dir& dir) {
    return dir.GetFullPathUtf8();
}

// Quiet error reports on this thread for the scope (when the host agreed to it).
class ScQuietErrors {
public:
    ScQuietErrors() : on_(U_StartQuietErrorsOnCurrentThread(1) == 0) {}
    ~ScQuietErrors() {
        if (on_) U_EndQuietErrorsOnCurrentThread();
    }
    ScQuietErrors(const ScQuietErrors&) = delete;
    ScQuietErrors& operator=(const ScQuietErrors&) = delete;

private:
    bool on_;
};

// Removes the folder with everything in it and makes it again, empty. A missing folder is
// created only when `always`.
void RecreateEmpty(const Dir& folder, bool always) {
    const bool existed = folder.Exists();
    if (existed) folder.Delete(true);
    if (existed || always) folder.Create();
}

void ReportProgress(const Progress& progress, unsigned done, unsigned total) {
    if (progress) progress(done + 1, total);
}

// The numeric application version that goes with the host's client internal version text
// ("major.minor..." -> major * 256 + minor, as the standalone host defines it).
unsigned AppVersionOfClient() {
    const int v = velacore::AppVersionFromClientVersion(GetClientInternalVersion());
    return static_cast<unsigned>(v) & 0x7FFFFFFFu;
}

// The current version's folder: every item of `bag` forgets its file; an item then neither in
// memory nor pending leaves the bag. Then the folder is emptied. Never throws.
void MCp_PurgeCurrentDiskCache_BagAware(MC_Bag& bag, const Dir& folder, Progress progress,
                                        unsigned done, unsigned total) {
    Trace("MCp_PurgeCurrentDiskCache_BagAware " + PathText(folder));
    try {
        ScQuietErrors quiet;
        {
            MCp_ScLock lock;
            for (const IntrusivePtr<MC_Stuff>& stuff : bag.SnapshotItems()) {
                stuff->ClearDiskCacheFile();
                if (!stuff->IsInMemory() && !stuff->IsPendingRender())
                    stuff->RemoveFromBagAndSortDir();
            }
        }
        RecreateEmpty(folder, true);  // outside the cache lock
    } catch (...) {
        Trace("MCp_PurgeCurrentDiskCache_BagAware THREW");
    }
    ReportProgress(progress, done, total);
}

// Another version's folder: emptied without touching any bag. Never throws.
void MCp_PurgeDiskCacheFiles_NoBag(const Dir& folder, Progress progress, unsigned done,
                                   unsigned total) {
    Trace("MCp_PurgeDiskCacheFiles_NoBag " + PathText(folder));
    try {
        ScQuietErrors quiet;
        RecreateEmpty(folder, false);
    } catch (...) {
        Trace("MCp_PurgeDiskCacheFiles_NoBag THREW");
    }
    ReportProgress(progress, done, total);
}

}  // namespace

int64_t MCp_DiskBudget::Room(const MC_Bag& bag) {
    return static_cast<int64_t>(bag.GetCurrentMaxDiskCacheSize()) - bag.GetCurrentDiskCacheSize();
}

bool MCp_DiskBudget::LimitedByDrive(const MC_Bag& bag) {
    const int64_t need =
        static_cast<int64_t>(MCp_DiskFolder::MinimumVolumeFreeSpaceBytes()) + Room(bag);
    const velacore::Dir folder = bag.GetDiskCacheDirSpec();
    if (need < 0 || folder.IsEmpty()) return false;
    try {
        const uint64_t free = velacore::GetVolumeFreeSpace(folder.GetFullPath());
        return free < static_cast<uint64_t>(need);
    } catch (...) {
        return false;  // the volume cannot be asked: nothing is known to limit the budget
    }
}

bool MCp_DiskBudget::Ensure(MC_Bag& bag, int64_t amount, uint64_t lastUseLimit) {
    if (Room(bag) >= amount) return true;
    debug::ProfileScope profile("ZK.MC_Bag::EnsureDiskSpace", 7);
    // Temporaries counted by a scan may have been committed or abandoned since.
    MCp_DiskFolder::RecheckCountedTempFiles(bag);
    if (Room(bag) >= amount) return true;
    std::vector<MC_Bag::StuffPtr> items;
    {
        debug::ProfileScope copyProfile("- bag copy", 7);
        items = bag.SnapshotItems();  // under the cache lock; files are deleted after it
    }
    // Oldest first; the first idle item with a file that was used at or after the limit ends
    // the walk, even if later items would qualify.
    for (const MC_Bag::StuffPtr& stuff : items) {
        if (Room(bag) >= amount) break;
        bool deleted = false, tooRecent = false;
        MaybeDeleteFile(*stuff, lastUseLimit, deleted, tooRecent);
        if (tooRecent) break;
    }
    items.clear();
    return Room(bag) >= amount;
}

void MCp_DiskBudget::MaybeDeleteFile(MC_Stuff& stuff, uint64_t lastUseLimit, bool& deleted,
                                     bool& tooRecent) {
    deleted = false;
    tooRecent = false;
    ScopedWriteLockWrapper w(stuff.lock_);
    if (stuff.GetCheckoutCount() != 0 || !stuff.diskFile_ || stuff.diskHolds_.load() != 0) return;
    if (stuff.GetLastUseTime() < lastUseLimit)
        deleted = stuff.DeleteDiskCacheFile();
    else
        tooRecent = true;
}

uint64_t MCp_DiskBudget::SizeAcrossVersions(const MC_Bag& bag, unsigned& folderCount) {
    folderCount = 0;
    uint64_t total = 0;
    const std::u16string root = bag.GetDiskCacheRootPath();
    if (root.empty()) return 0;  // no folder was ever set
    try {
        const velacore::Dir product = MCp_DiskFolder::ProductDir(root);
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

void MCp_DiskBudget::PurgeAll(MC_Bag& bag, const Progress& progress, bool includeOtherVersions,
                              unsigned& done, unsigned& total) {
    Trace("PurgeAllDiskCaches " + std::string(includeOtherVersions ? "true" : "false") + " " +
          std::to_string(done) + " " + std::to_string(total));
    try {
        const std::u16string rootPath = bag.GetDiskCacheRootPath();
        const std::u16string version = MCp_DiskFolder::ClientVersionText();
        const Dir current =
            MCp_DiskFolder::Resolve(Dir(MCp_DiskFolder::PathFromUtf16(rootPath)), version);
        if (!(current == bag.GetDiskCacheDirSpec())) {
            Trace(
                "PurgeAllDiskCaches: Failed:  Unexpected mismatch of calculated disk cache "
                "from root path");
            return;
        }
        if (AppVersionOfClient() != bag.GetAppVersion()) {
            Trace(
                "PurgeAllDiskCaches: Failed:  Expecting GetClientInternalVersion and app "
                "version to match");
            return;
        }
        const std::u16string machine = MC_GetMachineDirName();
        std::vector<Dir> staged;
        for (const Dir& versionDir : MCp_DiskFolder::ProductDir(rootPath).ListSubdirs()) {
            const Dir machineDir = versionDir.GetSubdir(machine);
            if (versionDir.GetName() == version) {
                Trace("PurgeAllDiskCaches: found match curr " + PathText(versionDir));
            } else if (includeOtherVersions) {
                Trace("PurgeAllDiskCaches: staged to clear: " + PathText(machineDir));
                staged.push_back(machineDir);
            } else {
                Trace("PurgeAllDiskCaches: ignoring: " + PathText(machineDir));
            }
        }
        MCp_PurgeCurrentDiskCache_BagAware(bag, current, progress, done, total);
        ++done;
        for (const Dir& folder : staged) {
            MCp_PurgeDiskCacheFiles_NoBag(folder, progress, done, total);
            ++done;
        }
        Trace("PurgeAllDiskCaches: Finished\n");
    } catch (...) {
        Trace("PurgeAllDiskCaches THREW");
    }
}
