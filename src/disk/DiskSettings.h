// The process-wide disk-cache preferences, read from the host's preferences each time a bag's
// disk-cache settings are set (MC_Bag::SetDiskCacheInfo) and used by the writer and the budget.
// Thread-safety: each value is one atomic word; read and write from any thread without a lock.
#pragma once

#include <cstdint>

namespace mc_disk_settings {

// Defaults used until the preferences are read.
constexpr uint64_t kDefaultMinimumVolumeFreeSpaceGigabytes = 10;
constexpr double kDefaultProclivityMultiplier = 1.0;
constexpr double kDefaultSpeedCapBytesPerSecond = 10737418240.0;

// The free space, in bytes, to keep on the cache folder's volume (preference in gigabytes x 2^30).
uint64_t MinimumVolumeFreeSpaceBytes();
// Multiplies the write decision's estimate of an item's worth (1.0 = neutral).
double ProclivityMultiplier();
// Measured disk speeds above this (bytes per second) are left out of the speed averages.
double SpeedCapBytesPerSecond();

// Stores the values (SetDiskCacheInfo and tests).
void SetMinimumVolumeFreeSpaceBytes(uint64_t bytes);
void SetProclivityMultiplier(double value);
void SetSpeedCapBytesPerSecond(double bytesPerSecond);

// Reads the three preferences (section "Additional Disk Cache Controls") with their defaults and
// stores each as it is read. Throws the int a failing read returns; values stored before it stay.
void ReadDiskCachePreferences();

}  // namespace mc_disk_settings
