// The media map mirror: the cache's items whose payload is in memory, registered with the host's
// media manager so that the manager counts their bytes against its budget and can ask for them
// to be purged. Each item carries a media-map GUID (assigned on its first registration) and a
// media-map ID (the sequence number of its current entry). Registering an item always erases
// its old entry and inserts a new one. An ID index keeps each entry's bytes and the running
// total that MC_GetMediaMapSize reports.
//
// Thread-safety: every member may be called from any thread. Lock order: the cache lock, then an
// item's lock, then the map's mutex, then the manager's. The map never takes an item lock or the
// cache lock while holding its mutex, and never calls into the bag; the purge callback (from the
// manager's thread, holding none of these) takes the cache lock first, as every bag path does.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "mc/MC_Stuff.h"
#include "mc/host/Guid.h"
#include "mc/host/IntrusivePtr.h"
#include "mc/host/MediaManager.h"
#include "mediamap/MediaMap.h"

namespace zk {

// An entry's key: the item's media-map GUID (compared as 16 unsigned bytes in GuidToBytes
// order), then its media-map ID.
struct MC_MediaMapDataKey {
    velacore::Guid guid;
    uint64_t id = 0;
};
bool operator<(const MC_MediaMapDataKey& a, const MC_MediaMapDataKey& b);

// What an entry holds: a weak reference to the item and the bytes it was registered with.
class MC_MediaMapData {
public:
    MC_MediaMapData(const IntrusivePtr<MC_Stuff>& stuff, uint64_t bytes);
    virtual ~MC_MediaMapData();
    MC_MediaMapData(const MC_MediaMapData&) = delete;
    MC_MediaMapData& operator=(const MC_MediaMapData&) = delete;

    // Asks the item to give its memory back and leave the map (MC_Stuff::PurgeFromMediaMap).
    // Does nothing once the item is gone. Requires the caller to hold the cache lock.
    virtual void Purge();
    // The bytes registered for the entry.
    uint64_t GetSizeInBytes() const { return bytes_; }
    // The item, or null once its last reference went away.
    IntrusivePtr<MC_Stuff> GetStuff() const { return stuff_.Lock(); }

private:
    velacore::WeakPtr<MC_Stuff> stuff_;
    const uint64_t bytes_;
};
using MC_MediaMapDataPtr = std::shared_ptr<MC_MediaMapData>;

struct MC_MediaMapSearcher {
    using Partial = velacore::Guid;
    static MC_MediaMapDataKey First(const velacore::Guid& guid) { return {guid, 0}; }
    static bool Matches(const MC_MediaMapDataKey& key, const velacore::Guid& guid) {
        return key.guid == guid;
    }
    static MC_MediaMapDataKey WithSequence(MC_MediaMapDataKey key, uint64_t sequence) {
        key.id = sequence;
        return key;
    }
    static uint64_t SizeOf(const MC_MediaMapDataPtr& data) { return data->GetSizeInBytes(); }
};

class MC_MediaMapImpl : public NX::IMediaMap, public NX::IPurgeableSupport {
public:
    using Map = NX::MediaMap<MC_MediaMapDataKey, MC_MediaMapDataPtr, MC_MediaMapSearcher>;

    // manager: the host's media manager (not owned; null: entries are kept but not
    // registered); it must outlive Shutdown. client: the identity entries are registered under.
    MC_MediaMapImpl(NX::IMediaManager* manager, const velacore::Guid& client);
    // Shuts down when that was not done.
    ~MC_MediaMapImpl() override;
    MC_MediaMapImpl(const MC_MediaMapImpl&) = delete;
    MC_MediaMapImpl& operator=(const MC_MediaMapImpl&) = delete;

    // Find-or-register: erases the item's entry if it has one, gives it a media-map GUID when it
    // has none, and, when its payload is in memory with a non-zero size, inserts a new entry
    // whose sequence becomes the item's media-map ID. Returns whether the item was registered.
    // Requires the caller to hold the cache lock (the bag does) and no lock of the item.
    bool Register(const IntrusivePtr<MC_Stuff>& stuff);
    // Erases the item's entry (found by its media-map GUID and ID). Returns whether there was
    // one. The caller may hold the cache lock and the item's lock.
    bool Erase(const IntrusivePtr<MC_Stuff>& stuff);
    // Adds an entry under `key` with a new sequence number; see NX::MediaMap::Insert. The ID
    // index is not touched (Register maintains it). Returns the sequence.
    uint64_t Insert(const MC_MediaMapDataKey& key, const MC_MediaMapDataPtr& data,
                    bool nonPurgeable);
    bool MakePurgeable(const MC_MediaMapDataKey& key);

    // NX::IMediaMap
    bool Flush(uint64_t sequence) override;
    bool MakePurgeable(uint64_t sequence) override;
    bool IsNonPurgeable(uint64_t sequence) override;
    size_t EntryCount() const override;

    // NX::IPurgeableSupport: purges the item of the entry (when it is idle and allows it) and
    // erases the entry. Returns whether the entry is gone. Takes the cache lock.
    bool PurgeEntry(uint64_t sequence) override;

    // Sum of the bytes of the entries in the ID index (what MC_GetMediaMapSize reports): the
    // cache's own registered items. Entries added with Insert alone are counted by the manager,
    // not here, on purpose.
    uint64_t TotalBytes() const;
    // The sequence number of the entry of `stuff`, 0 when it has none.
    uint64_t SequenceOf(const IntrusivePtr<MC_Stuff>& stuff) const;
    const velacore::Guid& ClientId() const { return map_.Client(); }

    // Stops registering, forgets every entry with the manager and waits for a purge call in
    // flight. Call without holding the cache lock or any item lock.
    void Shutdown();

private:
    struct IdRecord {
        velacore::WeakPtr<MC_Stuff> stuff;
        MC_MediaMapDataPtr data;
        uint64_t bytes = 0;
    };

    // Erases the entry stored under key and its ID record; traces. Returns whether it existed.
    bool EraseKey(const MC_MediaMapDataKey& key);
    // Drops the ID record of `id` (map mutex held). Returns its bytes, 0 without one.
    uint64_t DropIdRecordLocked(uint64_t id);

    Map map_;
    std::map<uint64_t, IdRecord> idIndex_;  // guarded by map_.Mutex()
    uint64_t totalBytes_ = 0;               // guarded by map_.Mutex()
    std::atomic<bool> shutDown_{false};
};

}  // namespace zk
