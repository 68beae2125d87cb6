// The bag's and the purge's calls into the media map mirror. They do nothing while the mirror
// is off. Thread-safety: any thread; callers may hold the cache lock.
#pragma once

#include <cstdint>

#include "mc/host/IntrusivePtr.h"

class MC_Stuff;

// Whether the mirror is on (a media map exists).
bool MCp_MediaMapEnabled();
// Registers the item (find-or-register). Returns whether it was registered.
bool MCp_MediaMapRegister(const velacore::IntrusivePtr<MC_Stuff>& stuff);
// Erases the item's entry. Returns whether an entry was removed.
bool MCp_MediaMapErase(const velacore::IntrusivePtr<MC_Stuff>& stuff);
// The map's size as reported by MC_GetMediaMapSize, and its entry count.
uint64_t MCp_MediaMapSize();
uint64_t MCp_MediaMapEntryCount();
// Lifecycle: created by MC_Birth when the mirror is switched on, shut down by MC_Death.
void MCp_MediaMapCreate();
void MCp_MediaMapShutdown();
