// The standalone host's media manager (see mc/standalone/StandaloneMediaManager.h).
#include "mc/standalone/StandaloneMediaManager.h"

namespace NX {

StandaloneMediaManager::StandaloneMediaManager(uint64_t budget) : budget_(budget) {}

StandaloneMediaManager::~StandaloneMediaManager() {
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
    }
    work_.notify_all();
    if (worker_.joinable()) worker_.join();
}

uint64_t StandaloneMediaManager::GetFixedMaxCacheSize() const {
    std::lock_guard lock(mutex_);
    return budget_;
}

void StandaloneMediaManager::SetBudget(uint64_t bytes) {
    std::lock_guard lock(mutex_);
    budget_ = bytes;
    RequestPurgeLocked();
}

void StandaloneMediaManager::SetClientCacheLimit(const velacore::Guid& client, uint64_t bytes) {
    std::lock_guard lock(mutex_);
    if (bytes == 0) {
        clientLimits_.erase(client);
    } else {
        clientLimits_[client] = bytes;
    }
    RequestPurgeLocked();
}

int StandaloneMediaManager::RegisterEntry(IPurgeableSupport* owner, const velacore::Guid& client,
                                          uint64_t sequence, uint64_t bytes, int kind, int flags,
                                          uint64_t* out) {
    std::lock_guard lock(mutex_);
    if (auto it = entries_.find(sequence); it != entries_.end()) EraseLocked(it);
    lru_.push_back(sequence);
    entries_.emplace(sequence, Entry{owner, client, bytes, kind, flags, std::prev(lru_.end())});
    registered_ += bytes;
    clientBytes_[client] += bytes;
    if (out != nullptr) *out = sequence;
    RequestPurgeLocked();
    return 0;
}

void StandaloneMediaManager::TouchEntry(uint64_t sequence, const velacore::Guid& /*client*/) {
    std::lock_guard lock(mutex_);
    auto it = entries_.find(sequence);
    if (it != entries_.end()) lru_.splice(lru_.end(), lru_, it->second.lru);
}

void StandaloneMediaManager::ForgetEntry(uint64_t sequence) {
    std::lock_guard lock(mutex_);
    if (auto it = entries_.find(sequence); it != entries_.end()) EraseLocked(it);
}

uint64_t StandaloneMediaManager::GetRegisteredBytes() const {
    std::lock_guard lock(mutex_);
    return registered_;
}

uint64_t StandaloneMediaManager::ClientBytes(const velacore::Guid& client) const {
    std::lock_guard lock(mutex_);
    auto it = clientBytes_.find(client);
    return it == clientBytes_.end() ? 0 : it->second;
}

size_t StandaloneMediaManager::EntryCount() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

uint64_t StandaloneMediaManager::PurgedCount() const {
    std::lock_guard lock(mutex_);
    return purged_;
}

bool StandaloneMediaManager::WaitUntilSettled(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return idle_.wait_for(lock, timeout, [&] { return processed_ == changes_ || stop_; });
}

void StandaloneMediaManager::DetachOwner(IPurgeableSupport* owner) {
    std::unique_lock lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end();) {
        auto next = std::next(it);
        if (it->second.owner == owner) EraseLocked(it);
        it = next;
    }
    if (std::this_thread::get_id() == worker_.get_id()) return;
    idle_.wait(lock, [&] { return inFlight_ != owner; });
}

bool StandaloneMediaManager::ClientOverLocked(const velacore::Guid& client) const {
    auto limit = clientLimits_.find(client);
    if (limit == clientLimits_.end()) return false;
    auto bytes = clientBytes_.find(client);
    return bytes != clientBytes_.end() && bytes->second > limit->second;
}

bool StandaloneMediaManager::NeedsPurgeLocked() const {
    if (registered_ > budget_) return true;
    for (const auto& [client, limit] : clientLimits_) {
        if (ClientOverLocked(client)) return true;
    }
    return false;
}

void StandaloneMediaManager::RequestPurgeLocked() {
    if (stop_ || !NeedsPurgeLocked()) return;
    ++changes_;
    if (!worker_.joinable()) worker_ = std::thread([this] { RunWorker(); });
    work_.notify_one();
}

void StandaloneMediaManager::EraseLocked(std::unordered_map<uint64_t, Entry>::iterator it) {
    const Entry& e = it->second;
    registered_ -= e.bytes;
    if (auto c = clientBytes_.find(e.client); c != clientBytes_.end()) {
        c->second -= e.bytes;
        if (c->second == 0) clientBytes_.erase(c);
    }
    lru_.erase(e.lru);
    entries_.erase(it);
}

// The next entry to purge: among the untried purgeable entries that count towards an excess,
// the one of the lowest purge class, the least recently used within that class.
bool StandaloneMediaManager::PickLocked(const std::set<uint64_t>& tried, Candidate& out) const {
    const bool overBudget = registered_ > budget_;
    const Entry* best = nullptr;
    uint64_t bestSequence = 0;
    for (uint64_t sequence : lru_) {
        const Entry& e = entries_.at(sequence);
        if (e.owner == nullptr || (e.flags & kMediaEntryNonPurgeable) != 0) continue;
        if (tried.count(sequence) != 0) continue;
        if (!overBudget && !ClientOverLocked(e.client)) continue;
        if (best == nullptr || e.kind < best->kind) {
            best = &e;
            bestSequence = sequence;
        }
    }
    if (best == nullptr) return false;
    out = Candidate{best->owner, bestSequence};
    return true;
}

void StandaloneMediaManager::RunWorker() {
    std::unique_lock lock(mutex_);
    for (;;) {
        work_.wait(lock, [&] { return stop_ || processed_ != changes_; });
        if (stop_) break;
        const uint64_t target = changes_;
        lock.unlock();
        Walk();
        lock.lock();
        processed_ = target;
        idle_.notify_all();
    }
    idle_.notify_all();
}

void StandaloneMediaManager::Walk() {
    std::set<uint64_t> tried;
    for (;;) {
        Candidate c;
        {
            std::lock_guard lock(mutex_);
            if (stop_ || !PickLocked(tried, c)) return;
            inFlight_ = c.owner;
        }
        tried.insert(c.sequence);
        bool purged = false;
        try {
            purged = !c.owner->IsNonPurgeable(c.sequence) && c.owner->PurgeEntry(c.sequence);
        } catch (...) {
            purged = false;  // an owner that fails keeps its entry
        }
        {
            std::lock_guard lock(mutex_);
            inFlight_ = nullptr;
            if (purged) {
                ++purged_;
                auto it = entries_.find(c.sequence);
                if (it != entries_.end() && it->second.owner == c.owner) EraseLocked(it);
            }
        }
        idle_.notify_all();
    }
}

}  // namespace NX
