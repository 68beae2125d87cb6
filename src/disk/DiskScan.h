// Bringing files already in the disk-cache folder into the bag: the one-time rescan that the
// first SetDiskCacheInfo of the process schedules. (The scan itself is MC_Bag::ScanDiskCacheDir
// and MC_Bag::ScanOneDiskCacheFile.)
// Thread-safety: any thread.
#pragma once

#include <memory>

class MC_Bag;

// On the first call in the process only, posts a ScanDiskCacheDir of `bag` (or, if it is gone,
// of the global bag) to the module's asynchronous executor. Returns whether this call posted it.
bool MCp_PostInitialDiskRescanOnce(std::weak_ptr<MC_Bag> bag);

// Marks the one-time rescan as already posted (true) or still to come (false). Tests only.
void MCp_SetInitialDiskRescanPostedForTesting(bool posted);
