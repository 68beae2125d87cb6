// The media manager: one process-wide budget for cached media, shared by its clients. Clients
// register entries (sequence number, bytes); when the registered total exceeds the budget the
// manager asks the owners of the oldest purgeable entries to purge them.
// Thread-safety: every member may be called from any thread. A manager never calls an owner
// back from inside RegisterEntry, TouchEntry or ForgetEntry, so clients may call those while
// holding their own locks.
#pragma once

#include <cstdint>

#include "mc/host/Export.h"
#include "mc/host/Guid.h"

namespace NX {

// RegisterEntry `kind`: the entry's purge class. Over budget, the manager purges the lowest
// class first and, within a class, the least recently used entry first.
constexpr int kMediaEntryScratch = 0;  // cheap to rebuild: goes first
constexpr int kMediaEntryCached = 1;   // ordinary cached media (what the cache registers)

// RegisterEntry `flags`: an entry registered with this bit is never purged.
constexpr int kMediaEntryNonPurgeable = 1;

// Implemented by a client whose entries the manager may ask to purge. The manager calls it from
// a thread that holds none of the client's locks.
class IPurgeableSupport {
public:
    virtual ~IPurgeableSupport() = default;
    // Asks the owner to purge the entry with this sequence number; returns whether it did (the
    // entry is then gone). An owner that cannot purge it now returns false and keeps it.
    virtual bool PurgeEntry(uint64_t sequence) = 0;
    // True while the owner wants the entry kept whatever the budget says.
    virtual bool IsNonPurgeable(uint64_t sequence) = 0;
};

class IMediaManager {
public:
    virtual ~IMediaManager() = default;
    // The process-wide budget in bytes.
    virtual uint64_t GetFixedMaxCacheSize() const = 0;
    // Caps what the client identified by `client` may hold (0 removes the cap).
    virtual void SetClientCacheLimit(const velacore::Guid& client, uint64_t bytes) = 0;
    // Registers an entry owned by `owner` (not owned by the manager; may be null for an entry
    // nobody can purge). `kind` is a purge class (kMediaEntry*), `flags` a set of
    // kMediaEntryNonPurgeable. Writes a manager-side handle to *out when out is non-null.
    // Returns 0 on success.
    virtual int RegisterEntry(IPurgeableSupport* owner, const velacore::Guid& client,
                              uint64_t sequence, uint64_t bytes, int kind, int flags,
                              uint64_t* out) = 0;
    // Marks an entry as used now.
    virtual void TouchEntry(uint64_t sequence, const velacore::Guid& client) = 0;
    // Forgets an entry; unknown sequences are ignored.
    virtual void ForgetEntry(uint64_t sequence) = 0;
    // Sum of the registered bytes.
    virtual uint64_t GetRegisteredBytes() const = 0;
    // Forgets every entry of `owner` and returns once no call to it is in flight (at once when
    // called from such a call). An owner calls it before it goes away, holding none of the
    // locks its PurgeEntry takes. The default suits a manager that never calls owners back.
    virtual void DetachOwner(IPurgeableSupport* /*owner*/) {}
};

}  // namespace NX
