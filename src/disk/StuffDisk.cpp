// MC_Stuff's disk members: each forwards to the writer, the reader, the budget or the speed
// statistics; only the file accessors are the item's own.
#include "disk/DiskBudget.h"
#include "disk/DiskReader.h"
#include "disk/DiskWriter.h"
#include "disk/SpeedStats.h"
#include "mc/MC_Bag.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/File.h"

using velacore::File;
using velacore::ScopedReadLockWrapper;
using velacore::ScopedWriteLockWrapper;

// --- writer --------------------------------------------------------------------------------

void MC_Stuff::MaybeWriteToDisk() {
    MCp_DiskWriter::MaybeWrite(*this);
}
void MC_Stuff::ReconsiderWriteToDisk() {
    MCp_DiskWriter::Reconsider(*this);
}
bool MC_Stuff::WorthWritingToDiskCache(double computeTime, bool* canDiskCache,
                                       bool* wouldWriteButQueueFull, bool* isLowPriority) {
    return MCp_DiskWriter::Worth(*this, computeTime, canDiskCache, wouldWriteButQueueFull,
                                 isLowPriority);
}
void MC_Stuff::GetAdjustedAverageReadSpeed(double* readSpeed, double* queueScaledReadSpeed,
                                           bool lowPriority) {
    MCp_DiskWriter::AdjustedReadSpeed(readSpeed, queueScaledReadSpeed, lowPriority);
}
void MC_Stuff::WriteToDiskAsyncOnDiskThread(IntrusivePtr<MC_Stuff> stuff) {
    MCp_DiskWriter::Enqueue(std::move(stuff));
}
void MC_Stuff::WriteToDiskAsyncFromQueue() {
    MCp_DiskWriter::RunOldest();
}
void MC_Stuff::WriteToDiskAsync(IntrusivePtr<MC_Stuff> stuff,
                                std::shared_ptr<MC_ScCheckout> receipt) {
    MCp_DiskWriter::Write(std::move(stuff), std::move(receipt));
}
void MC_Stuff::PrepAndWrite(const std::shared_ptr<MC_Bag>& bag) {
    MCp_DiskWriter::WriteFile(*this, bag);
}

// --- reader --------------------------------------------------------------------------------

bool MC_Stuff::EnsureInMemory() {
    return MCp_DiskReader::EnsureInMemory(*this);
}
bool MC_Stuff::PrepAndRead(velacore::ScopedUpgradeLockWrapper& upgradeLock) {
    return MCp_DiskReader::Read(*this, upgradeLock);
}
std::unique_ptr<MC_Stuff::DiskCacheCheckoutScoper> MC_Stuff::CheckoutDiskCache(bool onlyIfOnDisk) {
    return MCp_DiskReader::Hold(*this, onlyIfOnDisk);
}
bool MC_Stuff::DeleteDiskCacheFile() {
    return MCp_DiskReader::DeleteFile(*this);
}

// --- budget --------------------------------------------------------------------------------

void MC_Stuff::MaybeDeleteDiskCacheFile(uint64_t lastUseLimit, bool& deleted, bool& tooRecent) {
    MCp_DiskBudget::MaybeDeleteFile(*this, lastUseLimit, deleted, tooRecent);
}

// --- speed statistics ----------------------------------------------------------------------

double MC_Stuff::GetAverageDiskReadSpeed() {
    return MCp_ReadSpeedStat().GetAverage();
}
double MC_Stuff::GetAverageDiskWriteSpeed() {
    return MCp_WriteSpeedStat().GetAverage();
}
double MC_Stuff::GetMaxDiskReadSpeed() {
    return MCp_ReadSpeedStat().GetMaxAverage();
}
double MC_Stuff::GetMaxDiskWriteSpeed() {
    return MCp_WriteSpeedStat().GetMaxAverage();
}

// --- the item's file -----------------------------------------------------------------------

File MC_Stuff::GetDiskCacheFile() const {
    ScopedReadLockWrapper r(lock_);
    return diskFile_ ? *diskFile_ : File();
}

bool MC_Stuff::SetDiskCacheFile(const File& file, bool onlyIfNone) {
    ScopedWriteLockWrapper w(lock_);
    if (onlyIfNone && diskFile_) return false;
    diskFile_ = std::make_unique<File>(file);
    return true;
}

void MC_Stuff::ClearDiskCacheFile() {
    {
        ScopedWriteLockWrapper w(lock_);
        diskFile_.reset();
    }
    SyncDiskSizeWithBag(0);
}
