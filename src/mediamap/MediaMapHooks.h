// The bag's, the purge's and the lifecycle's calls into the media map mirror. They do nothing
// while the mirror is off. Thread-safety: any thread; callers may hold the cache lock (and, for
// Erase, the item's lock). Create and Shutdown are serialised by the module's media-map mutex;
// the other calls never take it, so a purge call in flight during Shutdown cannot deadlock.
#pragma once

#include <cstdint>
#include <memory>

#include "mc/host/IntrusivePtr.h"

class MC_Stuff;
namespace zk {
class MC_MediaMapImpl;
}

// Whether the mirror is on (a media map exists).
bool MCp_MediaMapEnabled();
// Registers the item (find-or-register). Returns whether it was registered.
bool MCp_MediaMapRegister(const velacore::IntrusivePtr<MC_Stuff>& stuff);
// Erases the item's entry. Returns whether an entry was removed.
bool MCp_MediaMapErase(const velacore::IntrusivePtr<MC_Stuff>& stuff);
// The map's size as reported by MC_GetMediaMapSize (the bytes of its entries), and its entry
// count; 0 while the mirror is off.
uint64_t MCp_MediaMapSize();
uint64_t MCp_MediaMapEntryCount();
// The mirror itself (null while off), for diagnostics and tests.
std::shared_ptr<zk::MC_MediaMapImpl> MCp_MediaMap();
// Lifecycle: created by MC_Birth when the mirror is switched on (over the installed host's media
// manager, under a client identity of its own; a second call keeps the existing map), shut down
// by MC_Death (every entry forgotten by the manager, a purge call in flight waited for).
void MCp_MediaMapCreate();
void MCp_MediaMapShutdown();
