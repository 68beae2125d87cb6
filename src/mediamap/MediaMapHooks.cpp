// The media map mirror's entry points for the rest of the module (see MediaMapHooks.h).
#include "mediamap/MediaMapHooks.h"

#include <atomic>
#include <mutex>

#include "host/HostOps.h"
#include "mc/MC_Stuff.h"
#include "mediamap/MC_MediaMapImpl.h"

namespace {

struct MirrorState {
    std::mutex lifecycle;  // the module's media-map mutex: creation and shutdown
    std::mutex pointer;    // held only to copy or swap `map`
    std::shared_ptr<zk::MC_MediaMapImpl> map;
    std::atomic<bool> on{false};  // fast path for the bag's checks
};

MirrorState& State() {
    static MirrorState state;
    return state;
}

std::shared_ptr<zk::MC_MediaMapImpl> CurrentMap() {
    MirrorState& s = State();
    if (!s.on.load(std::memory_order_acquire)) return nullptr;
    std::lock_guard<std::mutex> lock(s.pointer);
    return s.map;
}

}  // namespace

bool MCp_MediaMapEnabled() {
    return CurrentMap() != nullptr;
}

bool MCp_MediaMapRegister(const velacore::IntrusivePtr<MC_Stuff>& stuff) {
    std::shared_ptr<zk::MC_MediaMapImpl> map = CurrentMap();
    return map && stuff && map->Register(stuff);
}

bool MCp_MediaMapErase(const velacore::IntrusivePtr<MC_Stuff>& stuff) {
    std::shared_ptr<zk::MC_MediaMapImpl> map = CurrentMap();
    return map && stuff && map->Erase(stuff);
}

uint64_t MCp_MediaMapSize() {
    std::shared_ptr<zk::MC_MediaMapImpl> map = CurrentMap();
    return map ? map->TotalBytes() : 0;
}

uint64_t MCp_MediaMapEntryCount() {
    std::shared_ptr<zk::MC_MediaMapImpl> map = CurrentMap();
    return map ? map->EntryCount() : 0;
}

std::shared_ptr<zk::MC_MediaMapImpl> MCp_MediaMap() {
    return CurrentMap();
}

void MCp_MediaMapCreate() {
    MirrorState& s = State();
    std::lock_guard<std::mutex> lifecycle(s.lifecycle);
    std::lock_guard<std::mutex> lock(s.pointer);
    if (s.map) return;
    s.map = std::make_shared<zk::MC_MediaMapImpl>(NX::GetMediaManager(),
                                                  velacore::Guid::CreateUnique());
    s.on.store(true, std::memory_order_release);
}

void MCp_MediaMapShutdown() {
    MirrorState& s = State();
    std::lock_guard<std::mutex> lifecycle(s.lifecycle);
    std::shared_ptr<zk::MC_MediaMapImpl> map;
    {
        std::lock_guard<std::mutex> lock(s.pointer);
        s.on.store(false, std::memory_order_release);
        map = std::move(s.map);
    }
    if (map) map->Shutdown();  // tells the manager; our reference keeps the map alive meanwhile
}
