// The disk budget: the room left in a bag's disk cache, the drive-space rule, making room by
// deleting the files of least recently used idle items, the size of every version's cache
// folder, and purging every disk cache (this version's with the bag, the others' without it).
// MC_Bag's budget members forward here.
//
// Thread-safety: any thread. The walks copy the bag's items under the cache lock and delete
// files after it, each under its item's lock.
#pragma once

#include <cstdint>
#include <functional>

class MC_Bag;
class MC_Stuff;

class MCp_DiskBudget {
public:
    using Progress = std::function<void(unsigned done, unsigned total)>;

    // The budget less what is used; negative when over budget.
    static int64_t Room(const MC_Bag& bag);
    // Whether the folder's volume has less free space than the minimum to keep plus the room.
    // False when the folder is unset, the figure is negative or the volume cannot be asked.
    static bool LimitedByDrive(const MC_Bag& bag);

    // Makes `amount` bytes of room. Rechecks counted temporaries first, then walks the items in
    // bag order (least recently used first) deleting idle items' files; the first idle item with
    // a file used at or after `lastUseLimit` ends the walk, even if later items would qualify.
    // Returns whether the room is there afterwards.
    static bool Ensure(MC_Bag& bag, int64_t amount, uint64_t lastUseLimit);
    // Deletes the item's file when it is idle (not checked out, no hold) and was last used before
    // `lastUseLimit`; sets `tooRecent` when it is idle with a file but used since.
    static void MaybeDeleteFile(MC_Stuff& stuff, uint64_t lastUseLimit, bool& deleted,
                                bool& tooRecent);

    // The bytes in this machine's cache folder of every version under the bag's root, and how
    // many version folders there are. 0 when no folder was ever set; never throws.
    static uint64_t SizeAcrossVersions(const MC_Bag& bag, unsigned& folderCount);
    // Empties this version's folder (items forget their files; those left with nothing leave the
    // bag) and, when `includeOtherVersions`, the other versions' folders. Calls `progress` once
    // per folder with (done + 1, total) and counts `done` up; the caller owns `total`. Does
    // nothing when the bag's folder or app version do not match the host's. Never throws.
    static void PurgeAll(MC_Bag& bag, const Progress& progress, bool includeOtherVersions,
                         unsigned& done, unsigned& total);
};
