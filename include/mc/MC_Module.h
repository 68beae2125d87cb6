// The module's entry points: start-up and shut-down, the global bag, the memory-limit settings,
// and the disk-cache folder layout. Thread-safety: MC_Birth and MC_Death run once each while no
// other cache operation runs; everything else may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "mc/Export.h"

class MC_Bag;
namespace velacore {
class File;
}

// Starts the module: the disk executor, the global bag, the media-map switch. `appVersion` is
// major * 256 + minor (1.0 is 256); disk-cache files of other versions are never read.
MC_API void MC_Birth(bool interactive, unsigned int appVersion, bool quilletMode);
// Publishes the compute-cache suite to plug-ins. Throws the host's int error on failure.
MC_API void MC_SP_Birth();
// Empties and releases the global bag, the media map and the payload factories.
MC_API void MC_Death();
// Stops background disk work; later disk-write requests do nothing.
MC_API void MC_StopAllAsyncWork();
// The global bag; empty before birth and after death.
MC_API std::shared_ptr<MC_Bag> MC_GlobalBag();
// Bytes the cache may hold when the quillet limit is on (a share of the media budget).
MC_API uint64_t MC_GetMaxMCCacheSize();
MC_API bool MC_IsSetMCCacheLimitForQuilletsEnabled();
// Whether the bag holds enough that purging it is worthwhile.
MC_API bool MC_IsGlobalBagSizeAboveMinimum();
// The media map's size while the mirror is on, else 0.
MC_API uint64_t MC_GetMediaMapSize();

// Disk-cache folder layout (UTF-16 path pieces with the native separator).
MC_API std::u16string MC_OstrelZKDirs();
MC_API std::u16string MC_ZKVersDir(const std::u16string& version);
MC_API std::u16string MC_GetMachineDirName();
// Hands one file to the global bag's scan.
MC_API void MC_ScanOneDiskCacheFile(const velacore::File& file);

// The module's localised message table (27 entries and a terminator), for the host's cache.
struct U_LStrCacheEntry;
MC_API extern const U_LStrCacheEntry* const MC_G_zref;
