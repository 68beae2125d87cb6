// An item's disk file: attach, forget, delete, conditional delete, and disk holds. Deleting
// never throws (a file that is already gone is simply forgotten).
#include "lifecycle/Counters.h"
#include "mc/MC_Stuff.h"
#include "mc/host/File.h"

using velacore::File;
using velacore::ScopedReadLockWrapper;
using velacore::ScopedWriteLockWrapper;

std::unique_ptr<MC_Stuff::DiskCacheCheckoutScoper> MC_Stuff::CheckoutDiskCache(bool onlyIfOnDisk) {
    if (onlyIfOnDisk && !IsOnDisk()) return nullptr;
    return std::make_unique<DiskCacheCheckoutScoper>(diskHolds_, MCp_GetCounters().numDiskHolds);
}

File MC_Stuff::GetDiskCacheFile() const {
    ScopedReadLockWrapper r(lock_);
    return diskFile_ ? *diskFile_ : File();
}

bool MC_Stuff::SetDiskCacheFile(const File& file, bool onlyIfNone) {
    ScopedWriteLockWrapper w(lock_);
    if (onlyIfNone && diskFile_) return false;
    diskFile_ = std::make_shared<File>(file);
    return true;
}

void MC_Stuff::ClearDiskCacheFile() {
    {
        ScopedWriteLockWrapper w(lock_);
        diskFile_.reset();
    }
    SyncDiskSizeWithBag(0);
}

bool MC_Stuff::DeleteDiskCacheFile() {
    uint64_t size = 0;
    bool hadFile = false;
    {
        ScopedWriteLockWrapper w(lock_);
        if (diskFile_) {
            hadFile = true;
            try {
                size = diskFile_->Size();
            } catch (...) {
                size = 0;
            }
            try {
                diskFile_->Delete();
            } catch (...) {
                // the file is forgotten either way
            }
            diskFile_.reset();
        }
    }
    if (size == 0) {
        // A file whose size could not be read (already gone) still leaves the accounting.
        if (hadFile) SyncDiskSizeWithBag(0);
        return false;
    }
    stateSignal_(IsInMemory(), false);
    SyncDiskSizeWithBag(0);
    return true;
}

void MC_Stuff::MaybeDeleteDiskCacheFile(uint64_t lastUseLimit, bool& deleted, bool& tooRecent) {
    deleted = false;
    tooRecent = false;
    ScopedWriteLockWrapper w(lock_);
    if (GetCheckoutCount() != 0 || !diskFile_ || diskHolds_.load() != 0) return;
    if (GetLastUseTime() < lastUseLimit)
        deleted = DeleteDiskCacheFile();
    else
        tooRecent = true;
}
