// The disk-cache folder: where it lives ("<root>/Ostrel/Tessaline[ (Beta)]/<version>/Disk Cache -
// <machine>.noindex", resolved with its two alerts), a bag's folder settings and the
// process-wide disk-cache preferences, the scan that brings files found there into the bag, and
// the sweep of writers' temporaries. MC_Bag's folder and scan members forward here; the exported
// layout pieces (MC_OstrelZKDirs, MC_ZKVersDir, MC_GetMachineDirName) are declared in
// mc/MC_Module.h. Paths are UTF-16 text joined with the native separator.
//
// The folder is hostile ground: the scan follows no link, opens only regular files and reads
// past folders it cannot read. Bad files never crash it and are never adopted: a name of another
// version or not of our format is deleted, an unknown data class is left alone, a file that
// vanished is skipped.
//
// Thread-safety: any thread. A bag's folder, root path and scan mark are guarded by its
// disk-info mutex (taken after the cache lock, never before); each preference is one atomic
// word; the record of counted temporaries has its own mutex, never taken with the cache lock.
// Alerts are raised on the main thread only.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "mc/host/File.h"

class MC_Bag;

class MCp_DiskFolder {
public:
    // --- layout ---
    // The native path separator ('/' on POSIX, '\' on Windows).
    static char16_t PathSeparator();
    // Path <-> UTF-16 text, the same conversion on every system.
    static std::filesystem::path PathFromUtf16(std::u16string_view text);
    static std::u16string FullPathUtf16(const velacore::Dir& dir);
    // The host's client internal version text, as UTF-16 (the version folder's name).
    static std::u16string ClientVersionText();
    // <rootPath> + MC_OstrelZKDirs(): the folder holding one sub-folder per host version.
    static velacore::Dir ProductDir(const std::u16string& rootPath);
    // <rootPath> + MC_OstrelZKDirs() + MC_ZKVersDir(version) + separator +
    // MC_GetMachineDirName(). Pure path arithmetic. Throws the int of a failed computer-name
    // query.
    static velacore::Dir FolderFor(const std::u16string& rootPath, const std::u16string& version);
    // Resolves (creating what is missing) the folder of `root` for host `version` and returns
    // it. Throws the int MCp_Err_DiskFolder when `root` is not an existing folder (alert
    // "DiskCacheFolderNonexistent") or when the folders cannot be created (alert
    // "DiskCacheFolderCantWrite"). A failed computer-name query throws its own int.
    static velacore::Dir Resolve(const velacore::Dir& root, const std::u16string& version);

    // --- a bag's settings ---
    // Resolves and stores `bag`'s folder (a new folder resets the scan mark) and budget; a
    // smaller budget first frees the difference. Reads the preferences and posts the one-time
    // rescan. Throws (nothing stored) what Resolve throws.
    static void SetInfo(MC_Bag& bag, const velacore::Dir& root, uint64_t maxSizeMegabytes);
    // The bag's folder (empty when unset) and the root path it was set with.
    static velacore::Dir FolderOf(const MC_Bag& bag);
    static std::u16string RootPathOf(const MC_Bag& bag);

    // --- process-wide preferences (section "Additional Disk Cache Controls") ---
    static constexpr uint64_t kDefaultMinimumVolumeFreeSpaceGigabytes = 10;
    static constexpr double kDefaultProclivityMultiplier = 1.0;
    static constexpr double kDefaultSpeedCapBytesPerSecond = 10737418240.0;
    // The free space, in bytes, to keep on the folder's volume (preference in GiB x 2^30).
    static uint64_t MinimumVolumeFreeSpaceBytes();
    // Multiplies the write decision's estimate of an item's worth (1.0 = neutral).
    static double ProclivityMultiplier();
    // Measured disk speeds at or above this (bytes per second) are left out of the averages.
    static double SpeedCapBytesPerSecond();
    static void SetMinimumVolumeFreeSpaceBytes(uint64_t bytes);
    static void SetProclivityMultiplier(double value);
    static void SetSpeedCapBytesPerSecond(double bytesPerSecond);
    // Reads the three preferences with their defaults and stores each as it is read. Throws the
    // int a failing read returns; values stored before it stay.
    static void ReadPreferences();

    // --- scan ---
    // Adopts one cache file into `bag`: the item identical to the file's own gets it, else a new
    // item joins. Deletes a file of another version or not of our format; leaves a file of an
    // unknown data class alone; skips a vanished file. Throws only the code of a host that
    // refuses quiet error mode.
    static void ScanOne(MC_Bag& bag, const velacore::File& file);
    // Adopts every cache file created since the last complete pass (all of them the first time)
    // and sweeps the temporaries met on the way. A stop request cuts the pass short, and the
    // next pass sees again what it did not reach.
    static void Scan(MC_Bag& bag);
    // On the first call in the process only, posts a Scan of `bag` (or, if it is gone, of the
    // global bag) to the module's asynchronous executor. Returns whether this call posted it.
    static bool PostInitialRescanOnce(std::weak_ptr<MC_Bag> bag);
    // Items' files deleted by this process so far. A scan that sees the count move between its
    // listing and an adoption looks again whether the file is there: a file deleted since it was
    // listed must not go to a new item. NoteFileDeleted is called before the file is unlinked.
    static void NoteFileDeleted();
    static uint64_t FilesDeleted();

    // --- writers' temporaries ---
    // A temporary untouched for this long belongs to no live writer: writers touch theirs with
    // every block and remove them when they give up.
    static constexpr int64_t kAbandonedTempFileNanos = int64_t{600} * 1'000'000'000;
    // Removes the abandoned files among `temps` and counts the others against `bag`'s budget,
    // each once however often it is seen. Vanished or irregular files are skipped. Never throws.
    static void SweepTempFiles(MC_Bag& bag, const std::vector<velacore::File>& temps);
    // Looks again at the temporaries counted for `bag`: those gone stop counting, those
    // abandoned since are removed. Never throws.
    static void RecheckCountedTempFiles(MC_Bag& bag);
    // `committed` was just written or adopted: the temporary it was written as, if counted, is
    // that file now and stops counting. Never throws.
    static void ForgetTempOf(MC_Bag& bag, const velacore::File& committed);
};

// Marks the one-time rescan as already posted (true) or still to come (false). Tests and tools
// that scan by themselves.
void MCp_SetInitialDiskRescanPostedForTesting(bool posted);
