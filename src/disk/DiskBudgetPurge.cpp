// Purging every disk cache: the current version's folder (the bag forgets its files and drops
// the items that have nothing left) and, on request, the other versions' folders (removed
// without touching the bag). Progress: each folder purge calls the progress callable once, when
// its folder is done, with (done + 1, total); the caller owns `total`.
#include <string>
#include <vector>

#include "disk/DiskLayout.h"
#include "host/HostOps.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/File.h"
#include "mc/host/TextConvert.h"

using velacore::Dir;

namespace {
debug::TraceSite g_purgeTrace("DiskCache", 6);

using Progress = std::function<void(unsigned, unsigned)>;

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

void MC_Bag::PurgeAllDiskCaches(const Progress& progress, bool includeOtherVersions, unsigned& done,
                                unsigned& total) {
    Trace("PurgeAllDiskCaches " + std::string(includeOtherVersions ? "true" : "false") + " " +
          std::to_string(done) + " " + std::to_string(total));
    try {
        const std::u16string rootPath = GetDiskCacheRootPath();
        const std::u16string version = MCp_ClientVersionText();
        const Dir current = MCp_ResolveDiskCacheFolder(Dir(MCp_PathFromUtf16(rootPath)), version);
        if (!(current == GetDiskCacheDirSpec())) {
            Trace(
                "PurgeAllDiskCaches: Failed:  Unexpected mismatch of calculated disk cache "
                "from root path");
            return;
        }
        if (AppVersionOfClient() != GetAppVersion()) {
            Trace(
                "PurgeAllDiskCaches: Failed:  Expecting GetClientInternalVersion and app "
                "version to match");
            return;
        }
        const std::u16string machine = MC_GetMachineDirName();
        std::vector<Dir> staged;
        for (const Dir& versionDir : MCp_ProductDir(rootPath).ListSubdirs()) {
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
        MCp_PurgeCurrentDiskCache_BagAware(*this, current, progress, done, total);
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
