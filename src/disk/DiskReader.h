// The disk reader: makes an item's payload resident again from its cache file, keeps files from
// being deleted while someone holds them, and drops an item's file. MC_Stuff's read-back, hold
// and delete members forward here.
//
// A read that fails (missing, truncated or corrupt file, or the payload's own Read throwing)
// never escapes: it is counted, whatever the payload filled is purged, the file is deleted, and
// the caller is told that the item is not in memory, so that it renders again.
//
// Thread-safety: any thread. Read runs under the caller's upgrade lock on the item, so at most
// one thread reads an item's file at a time; the others wait for it and find the item resident.
// No file is read or deleted under the cache lock.
#pragma once

#include <cstdint>
#include <memory>

#include "mc/MC_Stuff.h"

class MCp_DiskReader {
public:
    // Reads the item back when it is on disk only. Returns whether it is resident afterwards
    // (false after a failed read, which deleted the file). Emits the state signal (true, true)
    // after a read. Throws only the code of a host that refuses quiet error mode.
    static bool EnsureInMemory(MC_Stuff& stuff);

    // Reads the item's file into its payload; the caller holds `upgradeLock` on the item.
    // Returns false when the item has no file. Restores compute time and savings from the header
    // (a file without header is all payload), updates the bag's sizes, the read speed and the
    // counters. Throws MCp_Err_FormatVersion for a header of another format version, and what
    // the file or the payload throws.
    static bool Read(MC_Stuff& stuff, velacore::ScopedUpgradeLockWrapper& upgradeLock);

    // A hold on the item's file (it is not deleted while the hold lives); null when
    // `onlyIfOnDisk` and the item has no file. The caller owns the hold.
    static std::unique_ptr<MC_Stuff::DiskCacheCheckoutScoper> Hold(MC_Stuff& stuff,
                                                                   bool onlyIfOnDisk);

    // Deletes and forgets the item's file (never throws; a file already gone is forgotten).
    // Returns whether a file with a readable size was let go of; then the state signal reports
    // the item off disk. The bag's disk size follows either way. An item that has left its
    // bag and directory only forgets its file: identical items name the same file, so it may be the
    // file of the item that replaced it by now (given by a scan or a write); a later full scan
    // adopts a file that nobody took.
    static bool DeleteFile(MC_Stuff& stuff);
};
