// StandaloneMediaManager: the media manager of the standalone host. It keeps a process-wide
// budget, the registered entries in least-recently-used order and per-client totals and caps.
// When the total exceeds the budget (or a client its cap) a worker thread, holding none of the
// clients' locks, asks the owners of purgeable entries to purge them until it fits: lowest purge
// class first, least recently used first within a class. Registering never purges on the
// caller's thread, so clients may register while holding their own locks.
// Entries are keyed by their sequence number, which must be unique in the process. An owner must
// stay alive while it has entries registered; DetachOwner drops them all and waits for a call in
// flight. Thread-safety: every member may be called from any thread, including from an owner's
// PurgeEntry (which usually calls ForgetEntry).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>

#include "mc/host/Guid.h"
#include "mc/host/MediaManager.h"
#include "mc/standalone/Export.h"

namespace NX {

class MCSTANDALONE_API StandaloneMediaManager : public IMediaManager {
public:
    // budget: the process-wide budget in bytes.
    explicit StandaloneMediaManager(uint64_t budget);
    // Stops the worker, waiting for a purge call in flight.
    ~StandaloneMediaManager() override;
    StandaloneMediaManager(const StandaloneMediaManager&) = delete;
    StandaloneMediaManager& operator=(const StandaloneMediaManager&) = delete;

    uint64_t GetFixedMaxCacheSize() const override;
    // A cap of 0 removes the client's cap.
    void SetClientCacheLimit(const velacore::Guid& client, uint64_t bytes) override;
    // `kind` is the purge class (lower classes go first); `flags` may hold
    // kMediaEntryNonPurgeable. A null owner makes the entry non-purgeable. Registering a known
    // sequence again replaces the entry and marks it used. *out (when non-null) receives the
    // sequence as the handle. Returns 0.
    int RegisterEntry(IPurgeableSupport* owner, const velacore::Guid& client, uint64_t sequence,
                      uint64_t bytes, int kind, int flags, uint64_t* out) override;
    void TouchEntry(uint64_t sequence, const velacore::Guid& client) override;
    void ForgetEntry(uint64_t sequence) override;
    uint64_t GetRegisteredBytes() const override;

    // Changes the budget; purging starts when the total no longer fits.
    void SetBudget(uint64_t bytes);
    // Bytes registered by client.
    uint64_t ClientBytes(const velacore::Guid& client) const;
    size_t EntryCount() const;
    // Entries purged so far (PurgeEntry returned true).
    uint64_t PurgedCount() const;
    // Waits until the worker has handled every registration so far that needed a purge.
    // Returns false when timeout passed first.
    bool WaitUntilSettled(std::chrono::milliseconds timeout);
    // Forgets every entry of owner and waits for a call to it in flight (unless called from
    // that call). Call it before destroying an owner, holding none of the locks its PurgeEntry
    // takes.
    void DetachOwner(IPurgeableSupport* owner) override;

private:
    struct Entry {
        IPurgeableSupport* owner = nullptr;
        velacore::Guid client;
        uint64_t bytes = 0;
        int kind = 0;
        int flags = 0;
        std::list<uint64_t>::iterator lru;
    };
    struct Candidate {
        IPurgeableSupport* owner = nullptr;
        uint64_t sequence = 0;
    };

    bool ClientOverLocked(const velacore::Guid& client) const;
    bool NeedsPurgeLocked() const;
    void RequestPurgeLocked();
    void EraseLocked(std::unordered_map<uint64_t, Entry>::iterator it);
    bool PickLocked(const std::set<uint64_t>& tried, Candidate& out) const;
    void RunWorker();
    void Walk();

    mutable std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable idle_;
    uint64_t budget_;
    uint64_t registered_ = 0;
    std::unordered_map<uint64_t, Entry> entries_;
    std::list<uint64_t> lru_;  // oldest first
    std::map<velacore::Guid, uint64_t> clientBytes_;
    std::map<velacore::Guid, uint64_t> clientLimits_;
    uint64_t changes_ = 0;    // purge requests so far
    uint64_t processed_ = 0;  // requests the worker has walked for
    uint64_t purged_ = 0;
    IPurgeableSupport* inFlight_ = nullptr;
    bool stop_ = false;
    std::thread worker_;
};

}  // namespace NX
