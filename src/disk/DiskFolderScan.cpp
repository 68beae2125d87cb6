// The disk-cache folder's scan and the sweep of writers' temporaries. See DiskFolder.h.
//
// The sweep keeps, per bag, the size counted for each temporary, so that a second pass over the
// same folder counts nothing twice and a temporary that goes stops counting.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "bag/MC_SortDir.h"
#include "disk/CacheFile.h"
#include "disk/DiskFolder.h"
#include "host/HostOps.h"
#include "lifecycle/Module.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_Stuff.h"
#include "mc/MC_StuffData.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"
#include "mc/host/SafeSave.h"
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

int64_t NowNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
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
// A new item is added only while no item's file was deleted since `deletionsSeen` (counted
// before the file was listed); else the file is looked at again outside the cache lock first.
void Adopt(MC_Bag& bag, const File& file, uint64_t size, const velacore::Guid& guid,
           IntrusivePtr<MC_StuffData> data, uint64_t deletionsSeen) {
    IntrusivePtr<MC_Stuff> item = MC_Stuff::CreateNew(std::move(data), 0.0);
    item->SetDiskCacheFile(file, false);
    item->SetGuid(guid);

    IntrusivePtr<MC_Stuff> same;
    for (;;) {
        {
            MCp_ScLock lock;
            const std::shared_ptr<MC_SortDir> dir = bag.GetSortDir();
            same = dir->FindIdentical(item, &file);
            if (same) break;
            if (MCp_DiskFolder::FilesDeleted() == deletionsSeen) {
                bag.AddStuff(item);
                dir->AddStuff(item, false);
                item->SyncDiskSizeWithBag(ClampToU32(size));
                return;
            }
        }
        deletionsSeen = MCp_DiskFolder::FilesDeleted();
        if (!file.Exists()) return;  // deleted since it was listed
    }
    // Under the item's lock, which its own deletions take too: a file it deleted since the scan
    // listed it is not attached again, and a deletion after this sees the size accounted.
    velacore::ScopedWriteLockWrapper w(same->GetLock());
    if (!same->IsOnDisk() && file.Exists() && same->SetDiskCacheFile(file, true))
        same->SyncDiskSizeWithBag(ClampToU32(size));
}

// A cache file met by the walk: its name (UTF-8), its folder (an index into Walk::folders) and
// the size the listing saw. Its path is made only when it is adopted: a path is large, and a
// scan may list a great many files.
struct ListedFile {
    std::string name;
    uint64_t size = 0;
    size_t folder = 0;
};

std::filesystem::path Join(const std::filesystem::path& folder, const std::string& name) {
    return folder / std::u8string_view(reinterpret_cast<const char8_t*>(name.data()), name.size());
}

// What one walk over the cache folder gathers.
struct Walk {
    uint64_t mark = 0;  // cache files created before this are skipped (0: none)
    bool stopped = false;
    std::vector<std::filesystem::path> folders;
    std::vector<ListedFile> files;
    std::vector<File> temps;

    File FileOf(const ListedFile& listed) const {
        return File(Join(folders[listed.folder], listed.name));
    }

    // Lists `folder` (one look per file, relative to the folder) and the folders below it. A
    // failure to list the top folder throws; below it, a folder that cannot be listed is skipped.
    // Names are tested as the listing gives them.
    void Folder(const std::filesystem::path& folder, int depth) {
        std::vector<velacore::DirectoryEntry> entries;
        try {
            entries = velacore::GetFileSystem().ListDirectoryWithStats(folder);
        } catch (const velacore::HostError&) {
            if (depth == 0) throw;
            return;
        }
        const size_t folderIndex = folders.size();
        folders.push_back(folder);
        for (velacore::DirectoryEntry& entry : entries) {
            if (stopped || (stopped = MCp_StopRequested())) return;
            if (entry.isDirectory) {
                if (depth < velacore::RecursiveFileIterator::kMaxDepth)
                    Folder(Join(folder, entry.name), depth + 1);
            } else if (entry.isRegularFile) {
                if (MCp_CacheFile::IsTempFileName(entry.name)) {
                    temps.emplace_back(Join(folder, entry.name));
                } else if (MCp_CacheFile::IsCacheFileName(entry.name) &&
                           (mark == 0 ||
                            static_cast<uint64_t>(std::max<int64_t>(entry.created, 0)) >= mark)) {
                    files.push_back({std::move(entry.name), entry.size, folderIndex});
                }
            }
        }
    }
};

// --- temporaries ---

debug::TraceSite g_sweepTrace("DiskCache", 6);

struct CountedTemps {
    std::weak_ptr<MC_Bag> bag;
    std::map<std::filesystem::path, uint64_t> sizes;  // path -> bytes counted
};

std::mutex g_mutex;  // guards g_counted
std::vector<CountedTemps> g_counted;
// Whether any record holds a size; lets adoption skip the record when nothing is counted.
std::atomic<bool> g_anyCounted{false};

// Brings g_anyCounted up to date as a section that holds g_mutex ends (declare it after the
// lock).
struct ScPublishCounted {
    ScPublishCounted() = default;
    ScPublishCounted(const ScPublishCounted&) = delete;
    ScPublishCounted& operator=(const ScPublishCounted&) = delete;
    ~ScPublishCounted() {
        g_anyCounted.store(std::any_of(g_counted.begin(), g_counted.end(),
                                       [](const CountedTemps& c) { return !c.sizes.empty(); }));
    }
};

// The record of `bag` (created on first use); drops the records of bags that are gone.
CountedTemps& RecordOf(MC_Bag& bag) {
    std::erase_if(g_counted, [](const CountedTemps& c) { return c.bag.expired(); });
    for (CountedTemps& c : g_counted)
        if (c.bag.lock().get() == &bag) return c;
    g_counted.push_back({bag.weak_from_this(), {}});
    return g_counted.back();
}

// What a look at one temporary found.
struct TempState {
    bool present = false;
    bool abandoned = false;
    uint64_t size = 0;
};

TempState Look(const File& temp, int64_t now) {
    TempState state;
    try {
        state.size = temp.Size();  // regular files only
        state.abandoned = now - temp.Modified() >= MCp_DiskFolder::kAbandonedTempFileNanos;
        state.present = true;
    } catch (const velacore::HostError&) {
        // gone, or not a regular file: nothing of ours to count or remove
    }
    return state;
}

void Remove(const File& temp) {
    try {
        temp.Delete();
        if (g_sweepTrace.Enabled())
            g_sweepTrace.Write("removed abandoned temporary " + temp.GetFullPathUtf8() + "\n");
    } catch (const velacore::HostError&) {
        // already gone
    }
}

// Brings the record of one temporary up to date; returns the change of the counted bytes.
int64_t Update(CountedTemps& record, const File& temp, int64_t now) {
    const TempState state = Look(temp, now);
    if (state.present && state.abandoned) Remove(temp);
    const auto it = record.sizes.find(temp.GetFullPath());
    const int64_t before = it == record.sizes.end() ? 0 : static_cast<int64_t>(it->second);
    if (!state.present || state.abandoned) {
        if (it != record.sizes.end()) record.sizes.erase(it);
        return -before;
    }
    record.sizes[temp.GetFullPath()] = state.size;
    return static_cast<int64_t>(state.size) - before;
}

}  // namespace

namespace {

// The UTF-8 form of a match name; data classes have ASCII names, which need no conversion.
std::string Narrow(const std::u16string& name) {
    if (std::all_of(name.begin(), name.end(), [](char16_t c) { return c < 0x80; }))
        return std::string(name.begin(), name.end());
    return velacore::ToUtf8(name);
}

// Adopts the cache file `file` (named `name`, UTF-8) of `size` bytes, or deletes it when its
// name is not of this version or format.
void AdoptOrDelete(MC_Bag& bag, const File& file, std::string_view name, uint64_t size,
                   uint64_t deletionsSeen) {
    int code = 0;
    try {
        ParsedCacheFileName parsed;
        code = MCp_CacheFile::ParseName(name, bag.GetAppVersion(), parsed);
        if (code == 0) {
            const std::string matchname = Narrow(parsed.matchname);
            IntrusivePtr<MC_StuffData> data =
                MC_StuffData::CreateSubclass(matchname.c_str(), parsed.header);
            // No data class for it here: leave the file for someone who knows it.
            if (!data) return;
            Adopt(bag, file, size, parsed.guid, std::move(data), deletionsSeen);
            MCp_DiskFolder::ForgetTempOf(bag, file);
            return;
        }
    } catch (int thrown) {
        code = thrown;
    }
    if (g_scanTrace.Enabled())
        g_scanTrace.Write("ScanOneDiskCacheFile: deleting " + file.GetFullPathUtf8() + " (error " +
                          std::to_string(code) + ")\n");
    DeleteQuietly(file);
}

}  // namespace

void MCp_DiskFolder::ScanOne(MC_Bag& bag, const File& file) {
    if (!MCp_CacheFile::IsCacheFile(file)) return;  // never touch what is not ours
    ScQuietErrors quiet;
    uint64_t size = 0;
    const uint64_t deletionsSeen = FilesDeleted();
    try {
        size = file.Size();  // also the existence check: a vanished file is skipped
    } catch (const velacore::HostError&) {
        return;
    }
    AdoptOrDelete(bag, file, velacore::ToUtf8(file.GetName()), size, deletionsSeen);
}

namespace {
std::atomic<uint64_t> g_filesDeleted{0};
}  // namespace

void MCp_DiskFolder::NoteFileDeleted() {
    g_filesDeleted.fetch_add(1, std::memory_order_seq_cst);
}
uint64_t MCp_DiskFolder::FilesDeleted() {
    return g_filesDeleted.load(std::memory_order_seq_cst);
}

void MCp_DiskFolder::Scan(MC_Bag& bag) {
    const velacore::Dir dir = bag.GetDiskCacheDirSpec();
    if (dir.IsEmpty()) return;
    ScQuietErrors quiet;
    uint64_t mark = 0;
    {
        std::lock_guard<std::recursive_mutex> info(bag.diskInfoMutex_);
        mark = bag.lastScanMark_;
    }
    const uint64_t passStart = static_cast<uint64_t>(NowNanos());
    Walk walk;
    walk.mark = mark;
    const uint64_t deletionsBeforeListing = FilesDeleted();
    try {
        walk.Folder(dir.GetFullPath(), 0);
    } catch (...) {
        if (g_scanTrace.Enabled()) g_scanTrace.Write("ScanDiskCacheDir: walk failed\n");
        return;
    }
    SweepTempFiles(bag, walk.temps);
    bag.GetSortDir()->Reserve(walk.files.size());
    bool stopped = walk.stopped;
    for (const ListedFile& listed : walk.files) {
        if (MCp_StopRequested()) {
            stopped = true;
            break;
        }
        try {
            AdoptOrDelete(bag, walk.FileOf(listed), listed.name, listed.size,
                          deletionsBeforeListing);
        } catch (...) {
            if (g_scanTrace.Enabled())
                g_scanTrace.Write("ScanDiskCacheDir: skipped " +
                                  walk.FileOf(listed).GetFullPathUtf8() + "\n");
        }
    }
    if (stopped) return;  // the next pass must still see what this one did not reach
    std::lock_guard<std::recursive_mutex> info(bag.diskInfoMutex_);
    const uint64_t next = passStart > kScanMarkSlackNanos ? passStart - kScanMarkSlackNanos : 1;
    bag.lastScanMark_ = std::max(bag.lastScanMark_, next);
}

// --- temporaries -----------------------------------------------------------------------------

void MCp_DiskFolder::SweepTempFiles(MC_Bag& bag, const std::vector<File>& temps) {
    try {
        const int64_t now = NowNanos();
        std::lock_guard<std::mutex> lock(g_mutex);
        ScPublishCounted publish;
        CountedTemps& record = RecordOf(bag);
        if (record.bag.expired()) return;  // a bag nobody shares: nothing can keep the record
        int64_t delta = 0;
        for (const File& temp : temps) delta += Update(record, temp, now);
        if (delta != 0) bag.AdjustOnDiskCacheSize(delta);
    } catch (...) {
        // the sweep is housekeeping: the scan goes on without it
    }
}

void MCp_DiskFolder::RecheckCountedTempFiles(MC_Bag& bag) {
    try {
        const int64_t now = NowNanos();
        std::lock_guard<std::mutex> lock(g_mutex);
        ScPublishCounted publish;
        CountedTemps& record = RecordOf(bag);
        std::vector<File> counted;
        for (const auto& entry : record.sizes) counted.emplace_back(entry.first);
        int64_t delta = 0;
        for (const File& temp : counted) delta += Update(record, temp, now);
        if (delta != 0) bag.AdjustOnDiskCacheSize(delta);
    } catch (...) {
        // housekeeping only
    }
}

void MCp_DiskFolder::ForgetTempOf(MC_Bag& bag, const File& committed) {
    if (!g_anyCounted.load()) return;  // the usual case: no temporary counted anywhere
    try {
        const File temp = velacore::SafeSave::TempFileFor(committed);
        std::lock_guard<std::mutex> lock(g_mutex);
        ScPublishCounted publish;
        CountedTemps& record = RecordOf(bag);
        const auto it = record.sizes.find(temp.GetFullPath());
        if (it == record.sizes.end()) return;
        bag.AdjustOnDiskCacheSize(-static_cast<int64_t>(it->second));
        record.sizes.erase(it);
    } catch (...) {
        // housekeeping only
    }
}
