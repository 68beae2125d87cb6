// Read-back: making an item's payload resident again from its disk file. A read that fails
// (missing, truncated or corrupt file, or the payload's own Read throwing) never escapes: it is
// counted, whatever the payload filled is purged, the file is deleted, and the caller is told
// that the item is not in memory, so that it renders again.
#include <chrono>
#include <cstring>
#include <thread>

#include "disk/CacheFileFormat.h"
#include "disk/DiskStats.h"
#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Messages.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Stuff.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/Time.h"

using velacore::ScopedReadLockWrapper;
using velacore::ScopedUpgradeLockWrapper;
using velacore::ScopedWriteLockWrapper;

namespace {
debug::TraceSite g_prepTrace("MC_Stuff", 7);
debug::TraceSite g_readFailedTrace("DiskCache", 6);

constexpr size_t kReadBufferSize = 2097152;  // 2 MiB
constexpr size_t kReadBlockSize = 4096;

// Quiet error reports on this thread for the scope. A host that refuses quiet mode has its code
// thrown at once: nothing is read.
class ScQuietErrors {
  public:
    ScQuietErrors() {
        if (int rc = U_StartQuietErrorsOnCurrentThread(1)) throw rc;
    }
    ~ScQuietErrors() { U_EndQuietErrorsOnCurrentThread(); }
    ScQuietErrors(const ScQuietErrors&) = delete;
    ScQuietErrors& operator=(const ScQuietErrors&) = delete;
};

// Reads up to one header's worth of bytes (fewer only at the end of the file).
size_t ReadHeaderBytes(velacore::IByteStream& in, uint8_t* bytes) {
    size_t got = 0;
    while (got < kCacheFileHeaderSize) {
        const size_t n = in.ReadSome(bytes + got, kCacheFileHeaderSize - got);
        if (n == 0) break;
        got += n;
    }
    return got;
}
}  // namespace

bool MC_Stuff::EnsureInMemory() {
    // After a failed read, under the upgrade lock: the payload drops whatever it filled, the
    // file goes, and the failure is counted.
    auto discardFailedRead = [this] {
        MCp_GetCounters().readFailures.fetch_add(1);
        if (g_readFailedTrace.Enabled())
            g_readFailedTrace.Write("read-back failed, deleting " +
                                    GetDiskCacheFile().GetFullPathUtf8() + "\n");
        try {
            if (IntrusivePtr<MC_StuffData> data = GetDataPtr()) {
                {
                    ScopedWriteLockWrapper w(lock_);
                    data->PurgeIfPossible(nullptr);
                }
                SyncMemorySizeWithBag(data->GetApproximateMemorySize());
            }
            DeleteDiskCacheFile();
        } catch (...) {
            // the item stays off the disk and out of memory as far as it could be taken
        }
    };
    bool readTookPlace = false;
    bool resident = false;
    {
        ScopedUpgradeLockWrapper up(lock_);
        if (!IsInMemory() && IsOnDisk()) {
            ScQuietErrors quiet;
            if (g_prepTrace.Enabled()) g_prepTrace.Write("MC_Stuff::EnsureInMemory pre-prep");
            try {
                readTookPlace = PrepAndRead(up);
            } catch (...) {
                discardFailedRead();
                return false;
            }
            if (g_prepTrace.Enabled()) g_prepTrace.Write("MC_Stuff::EnsureInMemory post-prep");
        }
        resident = IsInMemory();
    }
    if (readTookPlace && resident) stateSignal_(true, true);
    return resident;
}

bool MC_Stuff::PrepAndRead(ScopedUpgradeLockWrapper& upgradeLock) {
    const int32_t delayMs = mc_settings::ReadDiskDelayMs();
    if (delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    IntrusivePtr<MC_StuffData> data = GetDataPtr();
    if (!data) MCp_FailVerification("PrepAndRead() called on stuff with no data");
    std::shared_ptr<velacore::File> file;
    {
        ScopedReadLockWrapper r(lock_);
        file = diskFile_;
    }
    if (!file) return false;

    MCp_ScBusyInterval busy(MCp_ReadBusyTracker());
    velacore::IBufferedByteStream in(std::make_unique<velacore::IPlatformByteStream>(
                                         *file, velacore::IPlatformByteStream::kRead),
                                     kReadBufferSize, kReadBlockSize);
    CacheFileHeader prefilled;
    uint8_t bytes[kCacheFileHeaderSize];
    std::memcpy(bytes, prefilled.Encode().data(), kCacheFileHeaderSize);
    ReadHeaderBytes(in, bytes);
    const CacheFileHeader header = CacheFileHeader::Decode(bytes);
    const bool framed = header.magic == kCacheFileMagic;
    if (framed && header.formatVersion != kCacheFileFormatVersion) throw int{MCp_Err_FormatVersion};
    if (!framed) in.Seek(0);  // no header: the whole file is payload

    velacore::Timer readTimer;
    const double reported = data->Read(in, upgradeLock.Mutex());
    // A payload that does not time itself is timed here.
    double seconds = reported > 0.0 ? reported : readTimer.GetElapsedSeconds();
    seconds += delayMs / 1000.0;
    if (framed) {
        SetComputeTime(header.computeTime);
        SetCachedComputeTimeSavings(header.savings);
    }
    const uint32_t size = data->GetApproximateMemorySize();
    SyncMemorySizeWithBag(size);
    if (seconds > 0.0) MCp_ReadSpeedStat().AddSample(size, seconds);
    try {
        MCp_GetCounters().bytesRead.fetch_add(file->Size());
    } catch (const velacore::HostError&) {
        // removed since it was read (another cache sharing the folder): the read stands
    }
    lastReadFromDiskTime_.store(velacore::HighPrecisionTime::Now());
    return true;
}
