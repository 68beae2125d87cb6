// The disk reader: read-back, holds and deleting an item's file. See DiskReader.h.
#include "disk/DiskReader.h"

#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

#include "disk/CacheFile.h"
#include "disk/DiskFolder.h"
#include "disk/SpeedStats.h"
#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Messages.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Stuff.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/Time.h"

using velacore::IntrusivePtr;
using velacore::ScopedReadLockWrapper;
using velacore::ScopedUpgradeLockWrapper;
using velacore::ScopedWriteLockWrapper;

namespace {
debug::TraceSite g_prepTrace("MC_Stuff", 7);
debug::TraceSite g_readFailedTrace("DiskCache", 6);

// Small on purpose: a payload read at least this long goes straight into the payload's memory,
// only the header and small reads pass through the buffer.
constexpr size_t kReadBufferSize = 65536;
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

bool MCp_DiskReader::EnsureInMemory(MC_Stuff& stuff) {
    // After a failed read, under the upgrade lock: the payload drops whatever it filled, the
    // file goes, and the failure is counted.
    auto discardFailedRead = [&stuff] {
        MCp_GetCounters().readFailures.fetch_add(1);
        if (g_readFailedTrace.Enabled())
            g_readFailedTrace.Write("read-back failed, deleting " +
                                    stuff.GetDiskCacheFile().GetFullPathUtf8() + "\n");
        try {
            if (IntrusivePtr<MC_StuffData> data = stuff.GetDataPtr()) {
                {
                    ScopedWriteLockWrapper w(stuff.lock_);
                    data->PurgeIfPossible(nullptr);
                }
                stuff.SyncMemorySizeWithBag(data->GetApproximateMemorySize());
            }
            DeleteFile(stuff);
        } catch (...) {
            // the item stays off the disk and out of memory as far as it could be taken
        }
    };
    bool readTookPlace = false;
    bool resident = false;
    {
        ScopedUpgradeLockWrapper up(stuff.lock_);
        if (!stuff.IsInMemory() && stuff.IsOnDisk()) {
            ScQuietErrors quiet;
            if (g_prepTrace.Enabled()) g_prepTrace.Write("MC_Stuff::EnsureInMemory pre-prep");
            try {
                readTookPlace = Read(stuff, up);
            } catch (...) {
                discardFailedRead();
                return false;
            }
            if (g_prepTrace.Enabled()) g_prepTrace.Write("MC_Stuff::EnsureInMemory post-prep");
        }
        resident = stuff.IsInMemory();
    }
    if (readTookPlace && resident) stuff.stateSignal_(true, true);
    return resident;
}

bool MCp_DiskReader::Read(MC_Stuff& stuff, ScopedUpgradeLockWrapper& upgradeLock) {
    const int32_t delayMs = mc_settings::ReadDiskDelayMs();
    if (delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    IntrusivePtr<MC_StuffData> data = stuff.GetDataPtr();
    if (!data) MCp_FailVerification("PrepAndRead() called on stuff with no data");
    std::optional<velacore::File> file;  // a copy: the item may drop its file meanwhile
    {
        ScopedReadLockWrapper r(stuff.lock_);
        if (stuff.diskFile_) file = *stuff.diskFile_;
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
        stuff.SetComputeTime(header.computeTime);
        stuff.SetCachedComputeTimeSavings(header.savings);
    }
    const uint32_t size = data->GetApproximateMemorySize();
    stuff.SyncMemorySizeWithBag(size);
    if (seconds > 0.0) MCp_ReadSpeedStat().AddSample(size, seconds);
    try {
        MCp_GetCounters().bytesRead.fetch_add(file->Size());
    } catch (const velacore::HostError&) {
        // removed since it was read (another cache sharing the folder): the read stands
    }
    stuff.lastReadFromDiskTime_.store(velacore::HighPrecisionTime::Now());
    return true;
}

// --- holds and deletion --------------------------------------------------------------------

std::unique_ptr<MC_Stuff::DiskCacheCheckoutScoper> MCp_DiskReader::Hold(MC_Stuff& stuff,
                                                                        bool onlyIfOnDisk) {
    if (onlyIfOnDisk && !stuff.IsOnDisk()) return nullptr;
    return std::make_unique<MC_Stuff::DiskCacheCheckoutScoper>(stuff.diskHolds_,
                                                               MCp_GetCounters().numDiskHolds);
}

bool MCp_DiskReader::DeleteFile(MC_Stuff& stuff) {
    uint64_t size = 0;
    bool hadFile = false;
    {
        ScopedWriteLockWrapper w(stuff.lock_);
        if (stuff.diskFile_) {
            hadFile = true;
            try {
                size = stuff.diskFile_->Size();
            } catch (...) {
                size = 0;
            }
            if (!stuff.sortDir_.expired() || stuff.LockBagHeld()) {
                MCp_DiskFolder::NoteFileDeleted();
                try {
                    stuff.diskFile_->Delete();
                } catch (...) {
                    // the file is forgotten either way
                }
            }
            stuff.diskFile_.reset();
        }
    }
    if (size == 0) {
        // A file whose size could not be read (already gone) still leaves the accounting.
        if (hadFile) stuff.SyncDiskSizeWithBag(0);
        return false;
    }
    stuff.stateSignal_(stuff.IsInMemory(), false);
    stuff.SyncDiskSizeWithBag(0);
    return true;
}
