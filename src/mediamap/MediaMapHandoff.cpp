// The media map mirror's entry points as the memory tier calls them. The mirror itself is not
// built yet: it is never switched on, so every call does nothing and the size reads 0.
#include "mediamap/MediaMapHooks.h"

bool MCp_MediaMapEnabled() { return false; }
bool MCp_MediaMapRegister(const velacore::IntrusivePtr<MC_Stuff>&) { return false; }
bool MCp_MediaMapErase(const velacore::IntrusivePtr<MC_Stuff>&) { return false; }
uint64_t MCp_MediaMapSize() { return 0; }
uint64_t MCp_MediaMapEntryCount() { return 0; }
void MCp_MediaMapCreate() {}
void MCp_MediaMapShutdown() {}
