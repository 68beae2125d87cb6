// The media manager: one process-wide budget for cached media, shared by its clients. Clients
// register entries (sequence number, bytes); when the registered total exceeds the budget the
// manager asks the owners of the oldest purgeable entries to purge them.
// Thread-safety: every member may be called from any thread.
#pragma once

#include <cstdint>

#include "mc/host/Export.h"
#include "mc/host/Guid.h"

namespace NX {

// Implemented by a client whose entries the manager may ask to purge. The manager calls it from
// a thread that holds none of the client's locks.
class IPurgeableSupport {
public:
    virtual ~IPurgeableSupport() = default;
    // Asks the owner to purge the entry with this sequence number; returns whether it did.
    virtual bool PurgeEntry(uint64_t sequence) = 0;
    virtual bool IsNonPurgeable(uint64_t sequence) = 0;
};

class IMediaManager {
public:
    virtual ~IMediaManager() = default;
    // The process-wide budget in bytes.
    virtual uint64_t GetFixedMaxCacheSize() const = 0;
    // Caps what the client identified by `client` may hold.
    virtual void SetClientCacheLimit(const velacore::Guid& client, uint64_t bytes) = 0;
    // Registers an entry. `kind` and `flags` are the caller's constants (see the implementation).
    // Writes a manager-side handle to *out when out is non-null. Returns 0 on success.
    virtual int RegisterEntry(IPurgeableSupport* owner, const velacore::Guid& client,
                              uint64_t sequence, uint64_t bytes, int kind, int flags,
                              uint64_t* out) = 0;
    // Marks an entry as used now.
    virtual void TouchEntry(uint64_t sequence, const velacore::Guid& client) = 0;
    // Forgets an entry; unknown sequences are ignored.
    virtual void ForgetEntry(uint64_t sequence) = 0;
    // Sum of the registered bytes.
    virtual uint64_t GetRegisteredBytes() const = 0;
};

}  // namespace NX
