// MC_Bag's disk members (and the exported scan of one file): each forwards to the folder, the
// budget, the writer or the speed statistics.
#include "disk/DiskBudget.h"
#include "disk/DiskFolder.h"
#include "disk/DiskWriter.h"
#include "disk/SpeedStats.h"
#include "lifecycle/Module.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/host/File.h"

// --- folder --------------------------------------------------------------------------------

void MC_Bag::SetDiskCacheInfo(const velacore::Dir& root, uint64_t maxSizeMegabytes) {
    MCp_DiskFolder::SetInfo(*this, root, maxSizeMegabytes);
}
velacore::Dir MC_Bag::GetDiskCacheDirSpec() const {
    return MCp_DiskFolder::FolderOf(*this);
}
std::u16string MC_Bag::GetDiskCacheRootPath() const {
    return MCp_DiskFolder::RootPathOf(*this);
}
void MC_Bag::ScanOneDiskCacheFile(const velacore::File& file) {
    MCp_DiskFolder::ScanOne(*this, file);
}
void MC_Bag::ScanDiskCacheDir() {
    MCp_DiskFolder::Scan(*this);
}
void MC_ScanOneDiskCacheFile(const velacore::File& file) {
    if (std::shared_ptr<MC_Bag> bag = MC_GlobalBag()) bag->ScanOneDiskCacheFile(file);
}

// --- budget --------------------------------------------------------------------------------

int64_t MC_Bag::GetCurrentFreeDiskSpace() const {
    return MCp_DiskBudget::Room(*this);
}
bool MC_Bag::IsDiskCacheLimitedDueToDriveSpace() const {
    return MCp_DiskBudget::LimitedByDrive(*this);
}
bool MC_Bag::EnsureDiskSpace(int64_t amount, uint64_t lastUseLimit) {
    return MCp_DiskBudget::Ensure(*this, amount, lastUseLimit);
}
uint64_t MC_Bag::FindDiskCacheSizeAcrossVersions(unsigned& folderCount) {
    return MCp_DiskBudget::SizeAcrossVersions(*this, folderCount);
}
void MC_Bag::PurgeAllDiskCaches(const std::function<void(unsigned, unsigned)>& progress,
                                bool includeOtherVersions, unsigned& done, unsigned& total) {
    MCp_DiskBudget::PurgeAll(*this, progress, includeOtherVersions, done, total);
}

// --- writer and speed statistics -----------------------------------------------------------

bool MC_Bag::WaitForDiskWrites(double seconds) {
    return MCp_DiskWriter::WaitForWrites(seconds);
}
double MC_Bag::GetDiskWriteQueueSizePercentFull() const {
    return MCp_DiskWriteQueue::Get().FillFraction();
}
double MC_Bag::GetAdjustedWriteTimePercent(double spanSeconds, double threshold) const {
    if (1.0 - MCp_DiskWriteQueue::Get().FreeShare() > threshold) return 2.0;  // saturated
    return GetPercentTimeWritingToDisk(spanSeconds);
}
double MC_Bag::GetPercentTimeReadingFromDisk(double spanSeconds) const {
    return MCp_ReadBusyTracker().PercentBusy(spanSeconds);
}
double MC_Bag::GetPercentTimeWritingToDisk(double spanSeconds) const {
    return MCp_WriteBusyTracker().PercentBusy(spanSeconds);
}
