// Writers' temporaries in the disk-cache folder ("<cache file name>.tmp"). A writer that dies
// leaves its temporary behind. One untouched for longer than any live writer leaves its own is
// abandoned and removed; the younger ones count against the disk budget until they are gone.
// Thread-safety: any thread; the record of counted temporaries is guarded by its own mutex,
// never taken together with the cache lock.
#pragma once

#include <cstdint>
#include <vector>

#include "mc/host/File.h"

class MC_Bag;

// A temporary untouched (not modified) for this long belongs to no live writer: writers touch
// theirs with every block and remove them when they give up.
constexpr int64_t kAbandonedTempFileNanos = int64_t{600} * 1'000'000'000;

// Whether `file` is named like a writer's temporary of a cache file.
bool MCp_IsCacheTempFile(const velacore::File& file);

// Removes the abandoned files among `temps` (found by a walk of `bag`'s folder) and counts the
// others against `bag`'s disk budget, each once however often it is seen. Files that vanished
// or are not regular files are skipped. Never throws.
void MCp_SweepTempFiles(MC_Bag& bag, const std::vector<velacore::File>& temps);

// Looks again at the temporaries counted for `bag`: those gone (committed or removed by their
// writer) stop counting, those abandoned since are removed. Never throws.
void MCp_RecheckCountedTempFiles(MC_Bag& bag);
