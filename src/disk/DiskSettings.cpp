// The process-wide disk-cache preferences.
#include "disk/DiskSettings.h"

#include <atomic>
#include <limits>

#include "host/HostOps.h"

namespace mc_disk_settings {
namespace {

constexpr const char* kSection = "Additional Disk Cache Controls";
constexpr const char* kMinimumFreeKey = "Minimum Volume Free Space (Gigabytes)";
constexpr const char* kProclivityKey = "Proclivity Multiplier 2";
constexpr const char* kSpeedCapKey = "Dont Include Speeds Above This In Average (bytes/sec) 3";
constexpr uint64_t kGigabyte = uint64_t{1} << 30;

std::atomic<uint64_t> g_minimumFreeBytes{kDefaultMinimumVolumeFreeSpaceGigabytes * kGigabyte};
std::atomic<double> g_proclivity{kDefaultProclivityMultiplier};
std::atomic<double> g_speedCap{kDefaultSpeedCapBytesPerSecond};

// Gigabytes to bytes; negative counts as 0 and a huge count saturates.
uint64_t GigabytesToBytes(int64_t gigabytes) {
    if (gigabytes <= 0) return 0;
    const uint64_t g = static_cast<uint64_t>(gigabytes);
    if (g > std::numeric_limits<uint64_t>::max() / kGigabyte)
        return std::numeric_limits<uint64_t>::max();
    return g * kGigabyte;
}

}  // namespace

uint64_t MinimumVolumeFreeSpaceBytes() {
    return g_minimumFreeBytes.load();
}
double ProclivityMultiplier() {
    return g_proclivity.load();
}
double SpeedCapBytesPerSecond() {
    return g_speedCap.load();
}

void SetMinimumVolumeFreeSpaceBytes(uint64_t bytes) {
    g_minimumFreeBytes.store(bytes);
}
void SetProclivityMultiplier(double value) {
    g_proclivity.store(value);
}
void SetSpeedCapBytesPerSecond(double bytesPerSecond) {
    g_speedCap.store(bytesPerSecond);
}

void ReadDiskCachePreferences() {
    const PREF_Handle prefs = PREF_GetPrefHandle();

    int64_t gigabytes = 0;
    if (int rc = PREF_GetTextPrefLong(prefs, kSection, kMinimumFreeKey,
                                      kDefaultMinimumVolumeFreeSpaceGigabytes, &gigabytes))
        throw rc;
    SetMinimumVolumeFreeSpaceBytes(GigabytesToBytes(gigabytes));

    double proclivity = 0.0;
    if (int rc = PREF_GetTextPrefFpLong(prefs, kSection, kProclivityKey,
                                        kDefaultProclivityMultiplier, &proclivity))
        throw rc;
    SetProclivityMultiplier(proclivity);

    double speedCap = 0.0;
    if (int rc = PREF_GetTextPrefFpLong(prefs, kSection, kSpeedCapKey,
                                        kDefaultSpeedCapBytesPerSecond, &speedCap))
        throw rc;
    SetSpeedCapBytesPerSecond(speedCap);
}

}  // namespace mc_disk_settings
