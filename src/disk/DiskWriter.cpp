// The disk writer: the write decision, the runs on the disk executor, and the write of one
// item's file. See DiskWriter.h.
#include "disk/DiskWriter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "disk/CacheFile.h"
#include "disk/DiskFolder.h"
#include "disk/SpeedStats.h"
#include "host/HostOps.h"
#include "lifecycle/Counters.h"
#include "lifecycle/Messages.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/AlignedBuffer.h"
#include "mc/host/Errors.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"
#include "mc/host/SafeSave.h"
#include "mc/host/Time.h"
#include "remote/Farm.h"

using velacore::IntrusivePtr;
using velacore::ScopedReadLockWrapper;
using velacore::ScopedUpgradeLockWrapper;
using velacore::ScopedWriteLockWrapper;

namespace {
debug::TraceSite g_writeFailedTrace("DiskCache", 6);

// Reading back never counts as faster than this.
constexpr double kMinReadBackSeconds = 0.001;

// Whether reading `size` bytes at `speed` (bytes/s, floored at one millisecond) beats
// `recomputeSpeed`.
bool ReadBackBeats(double size, double speed, double recomputeSpeed) {
    const double seconds = std::max(size / speed, kMinReadBackSeconds);
    return size / seconds > recomputeSpeed;
}

// One scheduled run of RunOldest. If the executor drops the run without starting it (it was
// stopped), the ticket drops the oldest queued entry in its place, so that the queue never keeps
// entries that no run will take.
class WriteRunTicket {
public:
    WriteRunTicket() = default;
    WriteRunTicket(const WriteRunTicket&) = delete;
    WriteRunTicket& operator=(const WriteRunTicket&) = delete;
    ~WriteRunTicket() {
        if (ran_) return;
        try {
            MCp_DiskWriteQueue::Get().DropFront();
        } catch (...) {
            // the entry's receipt reported its own failure
        }
    }
    void Run() {
        ran_ = true;
        MCp_DiskWriter::RunOldest();
    }

private:
    bool ran_ = false;
};

// The file an item's payload of `size` bytes is expected to take: header and payload rounded up
// to whole write buffers (64 blocks of the folder's volume).
int64_t ExpectedFileSize(uint64_t size, const velacore::Dir& folder) {
    const uint64_t block =
        folder.IsEmpty()
            ? 4096
            : velacore::FileUtils::GetEfficientDiskBufferSizeFromPath(folder.GetFullPathUtf8());
    const uint64_t buffer = FastWriteOnlyStream::kBlocksPerBuffer * (block == 0 ? 4096 : block);
    return static_cast<int64_t>(velacore::RoundUpToBlock(size + kCacheFileHeaderSize, buffer));
}

std::string DescribeCurrentException() {
    try {
        throw;
    } catch (int code) {
        return "error " + std::to_string(code);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

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
        if (now - temp.Modified() < MCp_DiskFolder::kAbandonedTempFileNanos) return false;
        temp.Delete();
        return true;
    } catch (...) {
        return false;
    }
}

// Creates and opens the temporary in one step. Returns null when another writer holds it; an
// abandoned one is removed and the create tried once more.
std::unique_ptr<FastWriteOnlyStream> CreateTemp(const velacore::File& temp, uint64_t expected) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            return std::make_unique<FastWriteOnlyStream>(FastWriteOnlyStream::CreateNew{}, temp,
                                                         expected);
        } catch (const velacore::IOError& e) {
            if (e.SysErrno() != EEXIST) throw;
            if (!RemoveIfAbandoned(temp)) return nullptr;
        }
    }
    return nullptr;
}

// Writes header and payload; returns the seconds the write took as the speed model counts them.
double WriteContent(FastWriteOnlyStream& stream, const CacheFileHeader& header,
                    const MC_StuffData& data) {
    double seconds = 0.0;
    if (const int32_t ms = mc_settings::WriteDiskDelayMs(); ms > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        seconds += ms / 1000.0;
    }
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

// --- decision ------------------------------------------------------------------------------

void MCp_DiskWriter::AdjustedReadSpeed(double* readSpeed, double* queueScaledReadSpeed,
                                       bool lowPriority) {
    double r = MCp_ReadSpeedStat().GetAverage();
    const double proclivity = MCp_DiskFolder::ProclivityMultiplier();
    if (proclivity > 0.0) r /= proclivity;
    const double factor = mc_settings::LowPriorityFactor();
    if (lowPriority && factor != 0.0) r /= factor;
    const double p = MCp_DiskWriteQueue::Get().FreeShare();
    if (readSpeed) *readSpeed = r;
    if (queueScaledReadSpeed) *queueScaledReadSpeed = p * p * r;
}

bool MCp_DiskWriter::Worth(MC_Stuff& stuff, double computeTime, bool* canDiskCache,
                           bool* wouldWriteButQueueFull, bool* isLowPriority) {
    bool can = true, queueFull = false, low = false;
    bool worth = false;
    IntrusivePtr<MC_StuffData> data = stuff.GetDataPtr();
    const int32_t priority = data ? data->GetCachePriority() : MC_CachePriority_Never;
    if (!data || priority == MC_CachePriority_Never) {
        can = false;
    } else if (priority == MC_CachePriority_High) {
        worth = MCp_DiskWriteQueue::Get().FillFraction() < 1.0;
        queueFull = !worth;
    } else {
        low = priority == MC_CachePriority_Low;
        const double size = data->GetApproximateMemorySize();
        // A compute time of 0 (or less) makes recomputing infinitely fast: never worth it.
        const double recomputeSpeed =
            computeTime > 0.0 ? size / computeTime : std::numeric_limits<double>::infinity();
        double r = 0.0, rq = 0.0;
        AdjustedReadSpeed(&r, &rq, low);
        if (rq > 0.0 && size != 0.0) {
            worth = ReadBackBeats(size, rq, recomputeSpeed);
            if (!worth) queueFull = r > 0.0 && ReadBackBeats(size, r, recomputeSpeed);
        }
    }
    if (canDiskCache) *canDiskCache = can;
    if (wouldWriteButQueueFull) *wouldWriteButQueueFull = queueFull;
    if (isLowPriority) *isLowPriority = low;
    return worth;
}

void MCp_DiskWriter::MaybeWrite(MC_Stuff& stuff) {
    const double computeTime = stuff.GetComputeTime();
    // Without a compute time (an item a folder scan found) there is nothing to weigh.
    if (!(computeTime > 0.0) || !MCp_DiskExecutor()) return;
    std::shared_ptr<MC_Bag> bag = stuff.LockBag();
    IntrusivePtr<MC_StuffData> data = stuff.GetDataPtr();
    if (!data || !bag || !stuff.IsInMemory() || stuff.IsOnDisk()) return;
    if (!bag->IsDiskCacheEnabled() || !data->CanDiskCache()) return;
    bool queueFull = false, low = false;
    if (Worth(stuff, computeTime, nullptr, &queueFull, &low)) {
        Enqueue(IntrusivePtr<MC_Stuff>(&stuff));
        stuff.taggedToWrite_.store(true);
        auto& c = MCp_GetCounters();
        (low ? c.lowPriorityWritesQueued : c.normalWritesQueued).fetch_add(1);
    }
    if (queueFull) data->SetReasonWhyNoDiskCache(MC_StuffData::NoDiskCacheReason_DiskBusy);
    MCp_CountNoDiskCacheReason(data->GetReasonWhyNoDiskCache());
}

void MCp_DiskWriter::Reconsider(MC_Stuff& stuff) {
    {
        ScopedUpgradeLockWrapper up(stuff.lock_);
        if (!stuff.data_ ||
            stuff.data_->GetReasonWhyNoDiskCache() != MC_StuffData::NoDiskCacheReason_5)
            return;
        ScopedWriteLockWrapper w(stuff.lock_);
        stuff.data_->SetReasonWhyNoDiskCache(MC_StuffData::NoDiskCacheReason_None);
        stuff.data_->SetCachePriority(MC_CachePriority_Low);
    }
    MaybeWrite(stuff);
}

// --- queue runs ----------------------------------------------------------------------------

void MCp_DiskWriter::Enqueue(IntrusivePtr<MC_Stuff> stuff) {
    if (!stuff) return;
    std::shared_ptr<velacore::AsyncThreadedSubExecutor> exec = MCp_DiskExecutor();
    if (!exec) return;   // stopped: nothing is queued any more
    MCr_Publish(stuff);  // the remote tier shares what goes to disk
    std::shared_ptr<MC_ScCheckout> receipt;
    IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr();
    if (data && data->GetCachePriority() == MC_CachePriority_High) {
        // Keeps the item resident until its turn comes.
        receipt = std::make_shared<MC_ScCheckout>(
            stuff, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_MemoryOnly);
        std::shared_ptr<MC_Bag> bag = stuff->LockBag();
        if (bag && bag->IsDiskCacheEnabled() && receipt->DidCheckout())
            receipt->SetCheckinFlags(MC_CheckinFlag_DontUpdateLastUsed);
    }
    MCp_DiskWriteQueue::Get().Push({stuff, std::move(receipt)});
    auto ticket = std::make_shared<WriteRunTicket>();
    exec->Post([ticket] { ticket->Run(); });  // a refused post drops the ticket, and the entry
}

void MCp_DiskWriter::RunOldest() {
    MCp_DiskWriteQueue::Entry entry;
    if (!MCp_DiskWriteQueue::Get().PopFront(entry)) return;
    Write(std::move(entry.stuff), std::move(entry.receipt));
}

void MCp_DiskWriter::Write(IntrusivePtr<MC_Stuff> stuff, std::shared_ptr<MC_ScCheckout> receipt) {
    if (!stuff) return;
    IntrusivePtr<MC_StuffData> data = stuff->GetDataPtr();
    std::shared_ptr<MC_Bag> bag = stuff->LockBag();
    if (!data) MCp_FailVerification("WriteToDiskAsync() called on stuff with no data");
    if (!bag) return;  // left the bag while queued: nothing to account the file to
    try {
        const int64_t need =
            ExpectedFileSize(data->GetApproximateMemorySize(), bag->GetDiskCacheDirSpec());
        if (!bag->EnsureDiskSpace(need, stuff->GetLastUseTime())) {
            bag->GetDiskOutOfSpaceSignal()();
        } else {
            if (!receipt || !receipt->DidCheckout()) {
                receipt = std::make_shared<MC_ScCheckout>(
                    stuff, MC_CheckoutFlag_ReadOnly | MC_CheckoutFlag_MemoryOnly);
                receipt->SetCheckinFlags(MC_CheckinFlag_DontUpdateLastUsed);
            }
            if (receipt->DidCheckout() && stuff->IsInMemory() && !stuff->IsOnDisk())
                WriteFile(*stuff, bag);
        }
    } catch (...) {
        MCp_GetCounters().writeFailures.fetch_add(1);
        if (g_writeFailedTrace.Enabled())
            g_writeFailedTrace.Write("WriteToDiskAsync failed: " + DescribeCurrentException() +
                                     "\n");
    }
    if (receipt) receipt->Checkin();
}

// --- one file ------------------------------------------------------------------------------

void MCp_DiskWriter::WriteFile(MC_Stuff& stuff, const std::shared_ptr<MC_Bag>& bag) {
    IntrusivePtr<MC_StuffData> data;
    CacheFileHeader header;
    {
        ScopedReadLockWrapper r(stuff.lock_);
        data = stuff.data_;
        header.computeTime = stuff.computeTime_;
        header.savings = stuff.cachedComputeTimeSavings_;
    }
    if (!data) MCp_FailVerification("PrepAndWrite() called on stuff with no data");
    if (!data->CanDiskCache())
        MCp_FailVerification("PrepAndWrite() called on non-diskcacheable stuff");
    if (!bag) MCp_FailVerification("PrepAndWrite() called with NULL bag");
    const velacore::Guid guid = stuff.GetGuid();
    if (guid == velacore::Guid()) MCp_FailVerification("Passed invalid GUID");

    const velacore::Dir folder = bag->GetDiskCacheDirSpec();
    if (folder.IsEmpty()) return;  // no disk-cache folder was set
    header.appVersion = bag->GetAppVersion();
    std::vector<uint8_t> headerBytes;
    data->GetHeader(headerBytes);
    const std::u16string name = MCp_CacheFile::BuildName(guid, data->GetSubclassMatchname(),
                                                         header.appVersion, headerBytes);
    MCp_CacheFile::EnsureSubfolder(folder, name);
    if (MCp_CacheFile::SubfolderIsLinked(folder, name)) return;  // never write through a link
    const velacore::File file = MCp_CacheFile::FileFor(folder, name);
    velacore::SafeSave save(file);
    const velacore::File& temp = save.GetTempFile();

    ScFlagClaim writing(stuff.writeInProgress_);
    std::optional<ScFlagClaim> guard;  // while claimed, a purge skips the item
    if (writing.Claimed() && !stuff.IsOnDisk())
        guard.emplace(stuff.purgeGuard_, kPurgeGuardWriting);
    const uint64_t size = data->GetApproximateMemorySize();
    std::unique_ptr<FastWriteOnlyStream> stream;
    if (guard && guard->Claimed() && data->IsInMemory())
        stream = CreateTemp(temp, kCacheFileHeaderSize + size);
    // No temporary of ours: the one found there (if any) is another writer's. A file already
    // committed under the final name wins; our temporary goes with `save`.
    if (!stream) save.Release();
    if (!stream || file.Exists()) return;

    double seconds = 0.0;
    {
        MCp_ScBusyInterval busy(MCp_WriteBusyTracker());
        seconds = WriteContent(*stream, header, *data);
    }
    AddWriteSample(size, seconds);
    const uint64_t fileSize = stream->BytesWritten();
    stream.reset();
    save.Commit();
    {
        ScopedWriteLockWrapper w(stuff.lock_);
        stuff.diskFile_ = std::make_unique<velacore::File>(file);
    }
    stuff.SyncDiskSizeWithBag(static_cast<uint32_t>(fileSize));
    MCp_DiskFolder::ForgetTempOf(*bag, file);  // a scan may have counted it as a temporary
    MCp_GetCounters().bytesWritten.fetch_add(fileSize);
    stuff.stateSignal_(stuff.IsInMemory(), true);
}
