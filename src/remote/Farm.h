// The calls the rest of the module makes into the remote tier (machines sharing rendered items
// through Redis). Without the tier in the build (MC_HAVE_REMOTE undefined) they do nothing.
// Thread-safety: every function may be called from any thread.
#pragma once

#include <functional>
#include <string_view>

#include "mc/MC_Stuff.h"

#ifdef MC_HAVE_REMOTE
// An item the write decision sends to disk: queued for publication, never blocking. Items that
// cannot be queued (queue full, tier down) are dropped and counted.
void MCr_Publish(const IntrusivePtr<MC_Stuff>& stuff);
// A miss that created `pending` (checked out by this thread): looks its GUID up in the remote
// tier, and on a usable hit completes the item with the fetched payload (waiters are released
// as by a render). Returns whether it did; `flags` are the check-out's.
bool MCr_FillPending(const IntrusivePtr<MC_Stuff>& pending, int flags);
// Whether the calling thread's last MCr_FillPending filled this item; asked once after the find
// (the answer is forgotten, so a later memory hit on the item is not taken for a fetch).
bool MCr_FilledByThisThread(const MC_Stuff* stuff);
// Waits until every queued publication has been sent (or dropped); false when time ran out.
bool MCr_WaitForPublishing(double seconds);
// Stops the publisher and forgets the tier; the next use after MC_Birth reads the settings again.
void MCr_Shutdown();
// Tests: called at named points of a publication or fetch ("publish:chunks-written",
// "fetch:records-read"). Empty to remove.
void MCr_SetTestHook(std::function<void(std::string_view point)> hook);
#else
inline void MCr_Publish(const IntrusivePtr<MC_Stuff>&) {}
inline bool MCr_FillPending(const IntrusivePtr<MC_Stuff>&, int) {
    return false;
}
inline bool MCr_FilledByThisThread(const MC_Stuff*) {
    return false;
}
inline void MCr_Shutdown() {}
inline bool MCr_WaitForPublishing(double) {
    return true;
}
#endif
