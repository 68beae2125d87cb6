// Hand-offs from the memory tier to the disk writer and read-back, replaced when they are
// built. Until then an item is never written and never read back.
#include "lifecycle/Counters.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"
#include "mc/host/File.h"

// No disk writer yet: nothing is queued.
void MC_Stuff::MaybeWriteToDisk() {}
void MC_Stuff::ReconsiderWriteToDisk() {}
bool MC_Stuff::WorthWritingToDiskCache(double, bool* canDiskCache, bool* queueFull,
                                       bool* lowPriority) {
    if (canDiskCache) *canDiskCache = false;
    if (queueFull) *queueFull = false;
    if (lowPriority) *lowPriority = false;
    return false;
}
void MC_Stuff::WriteToDiskAsyncOnDiskThread(IntrusivePtr<MC_Stuff>) {}
void MC_Stuff::WriteToDiskAsyncFromQueue() {}
void MC_Stuff::WriteToDiskAsync(IntrusivePtr<MC_Stuff>, std::shared_ptr<MC_ScCheckout>) {}
void MC_Stuff::PrepAndWrite(const std::shared_ptr<MC_Bag>&) {}

// No read-back yet: an item is resident or it is not.
bool MC_Stuff::EnsureInMemory() { return IsInMemory(); }
bool MC_Stuff::PrepAndRead(velacore::ScopedUpgradeLockWrapper&) { return false; }

void MC_Stuff::GetAdjustedAverageReadSpeed(double* readSpeed, double* queueScaled, bool) {
    if (readSpeed) *readSpeed = 0.0;
    if (queueScaled) *queueScaled = 0.0;
}
double MC_Stuff::GetAverageDiskReadSpeed() { return 0.0; }
double MC_Stuff::GetAverageDiskWriteSpeed() { return 0.0; }
double MC_Stuff::GetMaxDiskReadSpeed() { return 0.0; }
double MC_Stuff::GetMaxDiskWriteSpeed() { return 0.0; }

// No budget enforcement yet: nothing is deleted.
int64_t MC_Bag::GetCurrentFreeDiskSpace() const { return maxDisk_.load() - diskSize_.load(); }
bool MC_Bag::IsDiskCacheLimitedDueToDriveSpace() const { return false; }
bool MC_Bag::EnsureDiskSpace(int64_t amount, uint64_t) {
    return GetCurrentFreeDiskSpace() >= amount;
}
uint64_t MC_Bag::FindDiskCacheSizeAcrossVersions(unsigned& folderCount) {
    folderCount = 0;
    return 0;
}
void MC_Bag::PurgeAllDiskCaches(const std::function<void(unsigned, unsigned)>&, bool, unsigned&,
                                unsigned&) {}
double MC_Bag::GetDiskWriteQueueSizePercentFull() const { return 0.0; }
double MC_Bag::GetAdjustedWriteTimePercent(double, double) const { return 0.0; }
double MC_Bag::GetPercentTimeReadingFromDisk(double) const { return 0.0; }
double MC_Bag::GetPercentTimeWritingToDisk(double) const { return 0.0; }
