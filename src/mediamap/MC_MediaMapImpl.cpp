// The media map mirror (see MC_MediaMapImpl.h).
#include "mediamap/MC_MediaMapImpl.h"

#include <optional>
#include <string>

#include "host/HostOps.h"
#include "mc/MC_Bag.h"
#include "mc/MCp_ScLock.h"

using velacore::Guid;

namespace zk {
namespace {

debug::TraceSite g_eraseTrace("ZKLIB.MediaMapImpl", 6);

// Whether the manager may have the item's memory now: not checked out, not pending, and its
// payload allows purging. A busy item keeps its entry and goes on being counted.
bool IsIdle(const MC_Stuff& stuff) {
    return stuff.GetCheckoutCount() == 0 && !stuff.IsPendingRender() && stuff.ShouldAllowPurge();
}

// Whether the item still holds its payload in memory inside a bag after a purge attempt.
bool StillResident(const MC_Stuff& stuff) {
    return stuff.IsInMemory() && !stuff.GetBag().expired();
}

}  // namespace

bool operator<(const MC_MediaMapDataKey& a, const MC_MediaMapDataKey& b) {
    const Guid::Bytes ab = velacore::GuidToBytes(a.guid);
    const Guid::Bytes bb = velacore::GuidToBytes(b.guid);
    for (size_t i = 0; i < ab.size(); ++i) {
        if (ab[i] != bb[i]) return ab[i] < bb[i];
    }
    return a.id < b.id;
}

// --- MC_MediaMapData ---------------------------------------------------------------------------

MC_MediaMapData::MC_MediaMapData(const IntrusivePtr<MC_Stuff>& stuff, uint64_t bytes)
    : stuff_(stuff), bytes_(bytes) {}

MC_MediaMapData::~MC_MediaMapData() = default;

void MC_MediaMapData::Purge() {
    if (IntrusivePtr<MC_Stuff> stuff = stuff_.Lock()) stuff->PurgeFromMediaMap();
}

// --- MC_MediaMapImpl ---------------------------------------------------------------------------

MC_MediaMapImpl::MC_MediaMapImpl(NX::IMediaManager* manager, const Guid& client)
    : map_(manager, this, client) {}

MC_MediaMapImpl::~MC_MediaMapImpl() {
    try {
        Shutdown();
    } catch (...) {
        // Nothing useful to do while going away.
    }
}

bool MC_MediaMapImpl::Register(const IntrusivePtr<MC_Stuff>& stuff) {
    if (shutDown_.load()) return false;
    Guid guid = stuff->GetMediaMapGuid();
    if (!guid.IsNull()) {
        if (std::optional<Map::Found> old = map_.FindFirst(guid)) {
            // A stale entry is replaced, never updated in place.
            if (NX::IMediaManager* manager = map_.Manager())
                manager->TouchEntry(old->sequence, map_.Client());
            EraseKey(old->key);
        }
    }
    if (guid.IsNull()) {
        guid = Guid::CreateUnique();
        stuff->SetMediaMapGuid(guid);
    }
    if (!stuff->IsInMemory()) return false;
    const uint64_t bytes = stuff->GetApproximateMemorySize();
    if (bytes == 0) return false;
    auto data = std::make_shared<MC_MediaMapData>(stuff, bytes);
    uint64_t sequence = 0;
    {
        std::lock_guard<velacore::RecursiveMutex> lock(map_.Mutex());
        sequence = Insert(MC_MediaMapDataKey{guid, 0}, data, false);
        if (sequence == 0) return false;
        if (idIndex_.try_emplace(sequence, IdRecord{stuff, data, bytes}).second)
            totalBytes_ += bytes;
    }
    stuff->SetMediaMapID(sequence);  // the item's lock is never taken under the map's mutex
    return true;
}

uint64_t MC_MediaMapImpl::Insert(const MC_MediaMapDataKey& key, const MC_MediaMapDataPtr& data,
                                 bool nonPurgeable) {
    std::lock_guard<velacore::RecursiveMutex> lock(map_.Mutex());
    if (shutDown_.load()) return 0;
    return map_.Insert(key, data, nonPurgeable);
}

bool MC_MediaMapImpl::Erase(const IntrusivePtr<MC_Stuff>& stuff) {
    const MC_MediaMapDataKey key{stuff->GetMediaMapGuid(), stuff->GetMediaMapID()};
    if (key.guid.IsNull()) return false;
    return EraseKey(key);
}

bool MC_MediaMapImpl::EraseKey(const MC_MediaMapDataKey& key) {
    uint64_t bytes = 0;
    uint64_t total = 0;
    {
        std::lock_guard<velacore::RecursiveMutex> lock(map_.Mutex());
        if (!map_.Erase(key)) return false;
        bytes = DropIdRecordLocked(key.id);
        total = totalBytes_;
    }
    if (g_eraseTrace.Enabled())
        g_eraseTrace.Write("Purged entry " + std::to_string(key.id) + " hash " +
                           key.guid.AsString() + " with " + std::to_string(bytes) +
                           " bytes. Current cache size " + std::to_string(total) + "\n");
    return true;
}

uint64_t MC_MediaMapImpl::DropIdRecordLocked(uint64_t id) {
    auto it = idIndex_.find(id);
    if (it == idIndex_.end()) return 0;
    const uint64_t bytes = it->second.bytes;
    totalBytes_ -= bytes;
    idIndex_.erase(it);
    return bytes;
}

bool MC_MediaMapImpl::MakePurgeable(const MC_MediaMapDataKey& key) {
    return map_.MakePurgeable(key);
}

bool MC_MediaMapImpl::Flush(uint64_t sequence) {
    std::lock_guard<velacore::RecursiveMutex> lock(map_.Mutex());
    std::optional<MC_MediaMapDataKey> key = map_.Flush(sequence);
    if (!key) return false;
    DropIdRecordLocked(key->id);
    return true;
}

bool MC_MediaMapImpl::MakePurgeable(uint64_t sequence) {
    return map_.MakePurgeable(sequence);
}

bool MC_MediaMapImpl::IsNonPurgeable(uint64_t sequence) {
    return map_.IsNonPurgeable(sequence);
}

size_t MC_MediaMapImpl::EntryCount() const {
    return map_.Size();
}

bool MC_MediaMapImpl::PurgeEntry(uint64_t sequence) {
    MCp_ScLock cacheLock;  // as on every bag path: cache lock first, then items, then the map
    std::optional<Map::Found> entry = map_.FindSequence(sequence);
    if (!entry || map_.IsNonPurgeable(sequence)) return false;
    if (IntrusivePtr<MC_Stuff> stuff = entry->data->GetStuff()) {
        if (!IsIdle(*stuff)) return false;
        entry->data->Purge();
        if (StillResident(*stuff)) return false;  // a check-out won the race: keep counting it
    }
    EraseKey(entry->key);  // usually gone already: the item's purge erases its own entry
    return true;
}

uint64_t MC_MediaMapImpl::TotalBytes() const {
    std::lock_guard<velacore::RecursiveMutex> lock(map_.Mutex());
    return totalBytes_;
}

uint64_t MC_MediaMapImpl::SequenceOf(const IntrusivePtr<MC_Stuff>& stuff) const {
    const Guid guid = stuff->GetMediaMapGuid();
    if (guid.IsNull()) return 0;
    std::optional<Map::Found> found = map_.FindFirst(guid);
    return found ? found->sequence : 0;
}

void MC_MediaMapImpl::Shutdown() {
    {
        // Under the map's mutex so that no insertion slips in after the manager let go of us.
        std::lock_guard<velacore::RecursiveMutex> lock(map_.Mutex());
        if (shutDown_.exchange(true)) return;
    }
    if (NX::IMediaManager* manager = map_.Manager()) manager->DetachOwner(this);
    std::lock_guard<velacore::RecursiveMutex> lock(map_.Mutex());
    map_.Clear();
    idIndex_.clear();
    totalBytes_ = 0;
}

}  // namespace zk
