// Bringing cache files found in the folder into the bag: one file (ScanOneDiskCacheFile) and a
// pass over the folder (ScanDiskCacheDir). Bad files never crash the scan and are never adopted:
// a name of another version or not of our format is deleted, an unknown data class is left
// alone, a file that vanished is skipped. The walk follows no link and reads past folders it
// cannot read; writers' temporaries it meets go to the sweep (DiskTempSweep.h).
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

#include "bag/MC_SortDir.h"
#include "disk/CacheFileFormat.h"
#include "disk/DiskTempSweep.h"
#include "host/HostOps.h"
#include "lifecycle/Module.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/MC_StuffData.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/TextConvert.h"

using velacore::File;

namespace {

debug::TraceSite g_scanTrace("DiskCache", 7);

// Files created this long before a pass started are looked at again by the next pass: file
// system clocks are coarse, and a file committed by rename keeps the birth time of its
// temporary. Seeing a file again is harmless: its item already holds it.
constexpr uint64_t kScanMarkSlackNanos = 10'000'000'000ull;

// Quiet-errors mode for the calling thread, for one scope.
class ScQuietErrors {
public:
    ScQuietErrors() {
        if (int rc = U_StartQuietErrorsOnCurrentThread(1)) throw rc;
    }
    ~ScQuietErrors() { U_EndQuietErrorsOnCurrentThread(); }
    ScQuietErrors(const ScQuietErrors&) = delete;
    ScQuietErrors& operator=(const ScQuietErrors&) = delete;
};

uint64_t NowNanos() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

uint32_t ClampToU32(uint64_t value) {
    return static_cast<uint32_t>(std::min<uint64_t>(value, std::numeric_limits<uint32_t>::max()));
}

void DeleteQuietly(const File& file) {
    try {
        file.Delete();
    } catch (...) {
        // already gone, or not ours to delete: either way it is not adopted
    }
}

// Gives `file` to the item identical to the file's own (same GUID, `IdenticalRequest` true), or
// to a new item around `data`. An item that merely satisfies the file's item is not the file's:
// it keeps its own state, and the new item joins it in the directory without displacing it. The
// search and the addition run under the cache lock so that two scans of the same file cannot
// both add it, and so that no budget purge sees the item before its size is accounted.
void Adopt(MC_Bag& bag, const File& file, uint64_t size, const velacore::Guid& guid,
           IntrusivePtr<MC_StuffData> data) {
    IntrusivePtr<MC_Stuff> item = MC_Stuff::CreateNew(std::move(data), 0.0);
    item->SetDiskCacheFile(file, false);
    item->SetGuid(guid);

    IntrusivePtr<MC_Stuff> same;
    {
        MCp_ScLock lock;
        const std::shared_ptr<MC_SortDir> dir = bag.GetSortDir();
        same = dir->FindIdentical(item);
        if (!same) {
            bag.AddStuff(item);
            dir->AddStuff(item, false);
            item->SyncDiskSizeWithBag(ClampToU32(size));
            return;
        }
    }
    // Under the item's lock, which its own deletions take too: a file it deleted since the scan
    // listed it is not attached again, and a deletion after this sees the size accounted.
    velacore::ScopedWriteLockWrapper w(same->GetLock());
    if (!same->IsOnDisk() && file.Exists() && same->SetDiskCacheFile(file, true))
        same->SyncDiskSizeWithBag(ClampToU32(size));
}

// The cache files under `dir` created at or after `mark` (0: all of them), and every writer's
// temporary into `temps`. Sets `stopped` when the module's stop request cut the walk short.
std::vector<File> CollectCacheFiles(const velacore::Dir& dir, uint64_t mark, bool& stopped,
                                    std::vector<File>& temps) {
    std::vector<File> files;
    velacore::RecursiveFileIterator walk(
        dir, [](const File& f) { return IsCacheFile(f) || MCp_IsCacheTempFile(f); });
    File file;
    while (walk.Next(file)) {
        if (MCp_StopRequested()) {
            stopped = true;
            break;
        }
        if (MCp_IsCacheTempFile(file)) {
            temps.push_back(file);
            continue;
        }
        if (mark != 0) {
            try {
                if (static_cast<uint64_t>(std::max<int64_t>(file.Created(), 0)) < mark) continue;
            } catch (const velacore::HostError&) {
                continue;  // vanished meanwhile
            }
        }
        files.push_back(file);
    }
    return files;
}

}  // namespace

void MC_Bag::ScanOneDiskCacheFile(const File& file) {
    if (!IsCacheFile(file)) return;  // never touch what is not ours
    ScQuietErrors quiet;
    uint64_t size = 0;
    try {
        size = file.Size();  // also the existence check: a vanished file is skipped
    } catch (const velacore::HostError&) {
        return;
    }
    try {
        ParsedCacheFileName parsed = ParseCacheFileName(file, GetAppVersion());
        const std::string matchname = velacore::ToUtf8(parsed.matchname);
        IntrusivePtr<MC_StuffData> data =
            MC_StuffData::CreateSubclass(matchname.c_str(), parsed.header);
        if (!data) return;  // no data class for it here: leave the file for someone who knows it
        Adopt(*this, file, size, parsed.guid, std::move(data));
    } catch (int code) {
        if (g_scanTrace.Enabled())
            g_scanTrace.Write("ScanOneDiskCacheFile: deleting " + file.GetFullPathUtf8() +
                              " (error " + std::to_string(code) + ")\n");
        DeleteQuietly(file);
    }
}

void MC_ScanOneDiskCacheFile(const File& file) {
    if (std::shared_ptr<MC_Bag> bag = MC_GlobalBag()) bag->ScanOneDiskCacheFile(file);
}

void MC_Bag::ScanDiskCacheDir() {
    const velacore::Dir dir = GetDiskCacheDirSpec();
    if (dir.IsEmpty()) return;
    ScQuietErrors quiet;
    uint64_t mark = 0;
    {
        std::lock_guard<std::recursive_mutex> info(diskInfoMutex_);
        mark = lastScanMark_;
    }
    const uint64_t passStart = NowNanos();
    bool stopped = false;
    std::vector<File> files, temps;
    try {
        files = CollectCacheFiles(dir, mark, stopped, temps);
    } catch (...) {
        if (g_scanTrace.Enabled()) g_scanTrace.Write("ScanDiskCacheDir: walk failed\n");
        return;
    }
    MCp_SweepTempFiles(*this, temps);
    for (const File& file : files) {
        if (MCp_StopRequested()) {
            stopped = true;
            break;
        }
        try {
            ScanOneDiskCacheFile(file);
        } catch (...) {
            if (g_scanTrace.Enabled())
                g_scanTrace.Write("ScanDiskCacheDir: skipped " + file.GetFullPathUtf8() + "\n");
        }
    }
    if (stopped) return;  // the next pass must still see what this one did not reach
    std::lock_guard<std::recursive_mutex> info(diskInfoMutex_);
    const uint64_t next = passStart > kScanMarkSlackNanos ? passStart - kScanMarkSlackNanos : 1;
    lastScanMark_ = std::max(lastScanMark_, next);
}
