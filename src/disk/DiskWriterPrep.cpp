// Writing one item's file (MC_Stuff::PrepAndWrite): the name and sub-folder, the temporary file
// made exclusively so that a second writer (another thread, bag or process sharing the folder)
// backs off, the header and payload through the direct write stream, the speed sample, the
// commit under the final name, and the accounting.
#include <chrono>
#include <thread>
#include <vector>

#include "disk/CacheFileFormat.h"
#include "disk/DiskStats.h"
#include "disk/DiskTempSweep.h"
#include "disk/FastWriteOnlyStream.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Messages.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Stuff.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"
#include "mc/host/SafeSave.h"
#include "mc/host/Time.h"

using velacore::ScopedReadLockWrapper;
using velacore::ScopedWriteLockWrapper;

namespace {

// Claims a flag (false -> true) or a guard word (0 -> `mine`, by compare-and-swap) for the
// scope; gives it back only if this object claimed it.
class ScFlagClaim {
  public:
    explicit ScFlagClaim(std::atomic<bool>& flag) : bool_(&flag) {
        claimed_ = !flag.exchange(true);
    }
    ScFlagClaim(std::atomic<int32_t>& word, int32_t mine) : word_(&word) {
        int32_t idle = 0;
        claimed_ = word.compare_exchange_strong(idle, mine);
    }
    ~ScFlagClaim() {
        if (!claimed_) return;
        if (bool_) bool_->store(false);
        if (word_) word_->store(0);
    }
    ScFlagClaim(const ScFlagClaim&) = delete;
    ScFlagClaim& operator=(const ScFlagClaim&) = delete;
    bool Claimed() const { return claimed_; }

  private:
    std::atomic<bool>* bool_ = nullptr;
    std::atomic<int32_t>* word_ = nullptr;
    bool claimed_ = false;
};

constexpr int32_t kPurgeGuardWriting = 1;
// Removes `temp` when it was abandoned (never throws). Returns whether it is gone.
bool RemoveIfAbandoned(const velacore::File& temp) {
    try {
        const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
        if (now - temp.Modified() < kAbandonedTempFileNanos) return false;
        temp.Delete();
        return true;
    } catch (...) {
        return false;
    }
}

// Creates the temporary exclusively. Returns false when it already exists (another writer).
bool CreateTempExclusively(const velacore::File& temp) {
    try {
        temp.Create(true);
        return true;
    } catch (const velacore::IOError&) {
        if (temp.Exists()) return false;
        throw;
    }
}

// Writes header and payload; returns the seconds the write took as the speed model counts them.
double WriteContent(const velacore::File& temp, const CacheFileHeader& header,
                    const MC_StuffData& data) {
    double seconds = 0.0;
    if (const int32_t ms = mc_settings::WriteDiskDelayMs(); ms > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        seconds += ms / 1000.0;
    }
    FastWriteOnlyStream stream(temp);
    header.WriteTo(stream);
    velacore::Timer writeTimer;
    const double reported = data.Write(stream);
    // A payload that does not time itself is timed here.
    seconds += reported > 0.0 ? reported : writeTimer.GetElapsedSeconds();
    velacore::Timer flushTimer;
    stream.Flush();
    stream.Finish();
    stream.Close();
    seconds += static_cast<double>(flushTimer.GetElapsedMicroseconds()) / 1e6;
    return seconds;
}

void AddWriteSample(uint64_t bytes, double seconds) {
    if (!(seconds > 0.0)) return;
    MCp_WriteSpeedStat().AddSample(bytes, seconds);
    // Reads start from measured write speeds until enough reads were seen.
    MCp_DiskSpeedStat& reads = MCp_ReadSpeedStat();
    if (static_cast<double>(reads.GetSampleCount()) < 0.5 / reads.GetNewWeight())
        reads.AddSample(bytes, seconds);
}

}  // namespace

void MC_Stuff::PrepAndWrite(const std::shared_ptr<MC_Bag>& bag) {
    IntrusivePtr<MC_StuffData> data;
    CacheFileHeader header;
    {
        ScopedReadLockWrapper r(lock_);
        data = data_;
        header.computeTime = computeTime_;
        header.savings = cachedComputeTimeSavings_;
    }
    if (!data) MCp_FailVerification("PrepAndWrite() called on stuff with no data");
    if (!data->CanDiskCache())
        MCp_FailVerification("PrepAndWrite() called on non-diskcacheable stuff");
    if (!bag) MCp_FailVerification("PrepAndWrite() called with NULL bag");
    const velacore::Guid guid = GetGuid();
    if (guid == velacore::Guid()) MCp_FailVerification("Passed invalid GUID");

    const velacore::Dir folder = bag->GetDiskCacheDirSpec();
    if (folder.IsEmpty()) return;  // no disk-cache folder was set
    header.appVersion = bag->GetAppVersion();
    std::vector<uint8_t> headerBytes;
    data->GetHeader(headerBytes);
    const std::u16string name =
        BuildCacheFileName(guid, data->GetSubclassMatchname(), header.appVersion, headerBytes);
    EnsureCacheSubfolder(folder, name);
    if (CacheSubfolderIsLinked(folder, name)) return;  // never write through a planted link
    const velacore::File file = CacheFileFor(folder, name);
    velacore::SafeSave save(file);
    const velacore::File& temp = save.GetTempFile();

    ScFlagClaim writing(writeInProgress_);
    if (!writing.Claimed() || IsOnDisk() || (temp.Exists() && !RemoveIfAbandoned(temp)) ||
        file.Exists()) {
        save.Release();  // a temporary found here is another writer's
        return;
    }
    ScFlagClaim guard(purgeGuard_, kPurgeGuardWriting);  // a purge now skips the item
    if (!guard.Claimed() || !data->IsInMemory()) {
        save.Release();
        return;
    }
    if (!CreateTempExclusively(temp)) {
        save.Release();
        return;
    }
    if (file.Exists()) return;  // committed by another writer just now; ours is deleted
    velacore::GetFileSystem().SetNotContentIndexed(temp.GetFullPath());

    const uint64_t size = data->GetApproximateMemorySize();
    double seconds = 0.0;
    {
        MCp_ScBusyInterval busy(MCp_WriteBusyTracker());
        seconds = WriteContent(temp, header, *data);
    }
    AddWriteSample(size, seconds);
    save.Commit();
    const uint64_t fileSize = file.Size();
    {
        ScopedWriteLockWrapper w(lock_);
        diskFile_ = std::make_shared<velacore::File>(file);
    }
    SyncDiskSizeWithBag(static_cast<uint32_t>(fileSize));
    MCp_GetCounters().bytesWritten.fetch_add(fileSize);
    stateSignal_(IsInMemory(), true);
}
