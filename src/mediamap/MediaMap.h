// NX::MediaMap: the media library's generic map of a client's cached entries, mirrored into the
// media manager. Each entry gets a sequence number at insertion (1, 2, ... never reused by one
// map) under which it is registered with the manager; the map is ordered by key and indexed by
// sequence. An entry may be pinned (non-purgeable count) so that the manager leaves it alone.
// NX::IMediaMap is what a map shows to the media library besides the purge callbacks.
//
// Searcher requirements (static members):
//   using Partial = ...;                              the part of a key a search starts from
//   Key First(const Partial&)                         the smallest key with that part
//   bool Matches(const Key&, const Partial&)
//   Key WithSequence(const Key&, uint64_t sequence)   the key an entry is stored under
//   uint64_t SizeOf(const Data&)                      the bytes registered with the manager
//
// Thread-safety: every member may be called from any thread; one recursive mutex guards the
// map (Mutex(), which the owner may take to make several calls atomic). The manager is called
// with that mutex held, which is safe because a manager never calls back from those calls.
// Lock order: nothing but the manager's own lock is taken inside the map's mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "host/HostOps.h"
#include "mc/host/Guid.h"
#include "mc/host/MediaManager.h"
#include "mc/host/RecursiveMutex.h"

namespace NX {

class IMediaMap {
public:
    virtual ~IMediaMap() = default;
    // Removes the entry with this sequence number and tells the manager. Returns false when
    // there is none or when it is pinned (a pinned entry stays until made purgeable).
    virtual bool Flush(uint64_t sequence) = 0;
    // Drops one pin of the entry. Returns whether the entry exists.
    virtual bool MakePurgeable(uint64_t sequence) = 0;
    // True while the entry is pinned at least once.
    virtual bool IsNonPurgeable(uint64_t sequence) = 0;
    virtual size_t EntryCount() const = 0;
};

// The mutex of a map, taken for one named operation and profiled under that name.
class ScMediaMapLock {
public:
    ScMediaMapLock(velacore::RecursiveMutex& mutex, const char* label)
        : profile_(label, 7), lock_(mutex) {}

private:
    debug::ProfileScope profile_;
    std::lock_guard<velacore::RecursiveMutex> lock_;
};

template <class Key, class Data, class Searcher, class Less = std::less<Key>>
class MediaMap {
public:
    struct Found {
        Key key;
        uint64_t sequence = 0;
        Data data;
    };

    // manager may be null (nothing is registered); owner receives the purge callbacks; client
    // is the identity the entries are registered under.
    MediaMap(IMediaManager* manager, IPurgeableSupport* owner, const velacore::Guid& client)
        : manager_(manager), owner_(owner), client_(client) {}
    MediaMap(const MediaMap&) = delete;
    MediaMap& operator=(const MediaMap&) = delete;

    // The map's mutex (recursive): hold it to make several calls one atomic step.
    velacore::RecursiveMutex& Mutex() const { return mutex_; }
    // The manager (not owned; may be null) and the identity entries are registered under.
    IMediaManager* Manager() const { return manager_; }
    const velacore::Guid& Client() const { return client_; }

    // The first entry whose key matches `partial`, if any.
    std::optional<Found> FindFirst(const typename Searcher::Partial& partial) const {
        ScMediaMapLock lock(mutex_, "MediaMap::Find");
        auto it = main_.lower_bound(Searcher::First(partial));
        if (it == main_.end() || !Searcher::Matches(it->first, partial)) return std::nullopt;
        return Found{it->first, it->second.sequence, it->second.data};
    }

    // The entry with this sequence number, if any.
    std::optional<Found> FindSequence(uint64_t sequence) const {
        ScMediaMapLock lock(mutex_, "MediaMap::Find");
        auto it = bySequence_.find(sequence);
        if (it == bySequence_.end()) return std::nullopt;
        return Found{it->second.first, sequence, it->second.second};
    }

    // Adds an entry under Searcher::WithSequence(key, its sequence), pinned once when
    // nonPurgeable, and registers it with the manager as (sequence, bytes, cached class, no
    // flags). Returns the sequence number (the stored key carries it).
    uint64_t Insert(const Key& key, const Data& data, bool nonPurgeable) {
        ScMediaMapLock lock(mutex_, "MediaMap::Insert");
        const uint64_t sequence = ++lastSequence_;
        const Key stored = Searcher::WithSequence(key, sequence);
        auto [it, isNew] = main_.try_emplace(stored, sequence, data);
        if (nonPurgeable) Pin(it->second);
        if (isNew) {
            bySequence_.emplace(sequence, std::make_pair(stored, data));
            if (manager_ != nullptr) {
                uint64_t handle = 0;
                manager_->RegisterEntry(owner_, client_, sequence, Searcher::SizeOf(data),
                                        kMediaEntryCached, 0, &handle);
            }
        }
        return it->second.sequence;
    }

    // Removes the entry stored under `key` from both indexes and from the manager. Returns
    // whether there was one.
    bool Erase(const Key& key) {
        ScMediaMapLock lock(mutex_, "MediaMap::Erase");
        auto it = main_.find(key);
        if (it == main_.end()) return false;
        EraseLocked(it);
        return true;
    }

    // See IMediaMap::Flush. Returns the key of the removed entry.
    std::optional<Key> Flush(uint64_t sequence) {
        ScMediaMapLock lock(mutex_, "MediaMap::Flush");
        auto s = bySequence_.find(sequence);
        if (s == bySequence_.end()) return std::nullopt;
        auto it = main_.find(s->second.first);
        if (it->second.nonPurgeable.load() > 0) return std::nullopt;
        const Key key = it->first;
        EraseLocked(it);
        return key;
    }

    // See IMediaMap. MakePurgeable returns whether the entry exists; a count never goes below 0.
    bool IsNonPurgeable(uint64_t sequence) const {
        ScMediaMapLock lock(mutex_, "MediaMap::IsNonPurgeable");
        auto s = bySequence_.find(sequence);
        if (s == bySequence_.end()) return false;
        return main_.find(s->second.first)->second.nonPurgeable.load() >= 1;
    }

    bool MakePurgeable(uint64_t sequence) {
        ScMediaMapLock lock(mutex_, "MediaMap::MakePurgeable");
        auto s = bySequence_.find(sequence);
        if (s == bySequence_.end()) return false;
        Unpin(main_.find(s->second.first)->second);
        return true;
    }

    bool MakePurgeable(const Key& key) {
        ScMediaMapLock lock(mutex_, "MediaMap::MakePurgeable");
        auto it = main_.find(key);
        if (it == main_.end()) return false;
        Unpin(it->second);
        return true;
    }

    // The number of entries.
    size_t Size() const {
        std::lock_guard<velacore::RecursiveMutex> lock(mutex_);
        return main_.size();
    }

    // Removes every entry and tells the manager to forget each. Returns the removed keys.
    std::vector<Key> Clear() {
        ScMediaMapLock lock(mutex_, "MediaMap::Flush");
        std::vector<Key> keys;
        keys.reserve(main_.size());
        while (!main_.empty()) {
            keys.push_back(main_.begin()->first);
            EraseLocked(main_.begin());
        }
        return keys;
    }

private:
    struct Entry {
        Entry(uint64_t seq, const Data& d) : sequence(seq), data(d) {}
        uint64_t sequence;
        Data data;
        std::atomic<int32_t> nonPurgeable{0};
        std::atomic<bool> pinned{false};  // cleared when the count returns to 0
    };
    using Main = std::map<Key, Entry, Less>;

    static void Pin(Entry& e) {
        e.nonPurgeable.fetch_add(1);
        e.pinned.store(true);
    }
    static void Unpin(Entry& e) {
        int32_t count = e.nonPurgeable.load();
        while (count > 0 && !e.nonPurgeable.compare_exchange_weak(count, count - 1)) {
        }
        if (count == 1) e.pinned.store(false);
    }

    void EraseLocked(typename Main::iterator it) {
        const uint64_t sequence = it->second.sequence;
        bySequence_.erase(sequence);
        if (manager_ != nullptr) manager_->ForgetEntry(sequence);
        main_.erase(it);
    }

    IMediaManager* const manager_;
    IPurgeableSupport* const owner_;
    const velacore::Guid client_;
    mutable velacore::RecursiveMutex mutex_;
    Main main_;
    std::map<uint64_t, std::pair<Key, Data>> bySequence_;
    uint64_t lastSequence_ = 0;
};

}  // namespace NX
