// Three-mode re-entrant item lock (see mc/host/MultiTenantRecursiveMutex.h).
// All state lives under the lock's stripe mutex, except the fast readers: fastState_ counts the
// threads that hold read without having taken it, and each such thread keeps its depth in a
// thread-local table. The stripe's mutex and condition variable are shared by every lock whose
// address falls on that stripe, so that a lock carries no mutex and condition variable of its
// own: they are needed only to wait, and waits are rare. Every change that can unblock someone
// notifies the stripe (notify_all: waiters of other locks on it wake, check their own condition
// and sleep again).
#include "mc/host/MultiTenantRecursiveMutex.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>

namespace velacore {

namespace {
struct alignas(64) Stripe {
    std::mutex mutex;
    std::condition_variable cv;
};
constexpr size_t kStripes = 256;

// The table is built on first use and never destroyed (the union's destructor does nothing): a
// thread a host leaves running while the process exits may still lock after statics are gone.
union StripeTable {
    StripeTable() : stripes() {}
    ~StripeTable() {}
    std::array<Stripe, kStripes> stripes;
};

Stripe& StripeOf(const void* lock) {
    static StripeTable table;
    const auto a = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(lock));
    return table.stripes[(a >> 4) * 0x9E3779B97F4A7C15ull >> 56];
}

// Waits on cv until pred holds, counting the sleeper so that unlocks skip the notify when
// nobody sleeps.
template <class Pred>
void WaitCounted(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                 uint32_t& sleepers, Pred pred) {
    if (pred()) return;
    ++sleepers;
    cv.wait(lock, pred);
    --sleepers;
}

constexpr uint32_t kWriterBit = 1;
constexpr uint32_t kOneReader = 2;

// The fast read holds of this thread: which lock, how deep.
struct FastHold {
    const void* lock = nullptr;
    uint32_t depth = 0;
};
constexpr size_t kFastHolds = 8;
thread_local std::array<FastHold, kFastHolds> t_fastHolds{};

FastHold* FindFastHold(const void* lock) {
    for (FastHold& h : t_fastHolds)
        if (h.lock == lock) return &h;
    return nullptr;
}
}  // namespace

void MultiTenantRecursiveMutex::SyncFastGateLocked() {
    if (writer_ != std::thread::id() || waitingWriters_ != 0)
        fastState_.fetch_or(kWriterBit);
    else
        fastState_.fetch_and(~kWriterBit);
}

bool MultiTenantRecursiveMutex::TryLockReadFast() {
    if (FastHold* mine = FindFastHold(this)) {
        ++mine->depth;  // a reader is granted again at once, even while a writer waits
        return true;
    }
    FastHold* free = FindFastHold(nullptr);
    if (!free) return false;
    uint32_t s = fastState_.load(std::memory_order_relaxed);
    while ((s & kWriterBit) == 0) {
        if (fastState_.compare_exchange_weak(s, s + kOneReader, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
            *free = FastHold{this, 1};
            return true;
        }
    }
    return false;
}

bool MultiTenantRecursiveMutex::TryUnlockReadFast() {
    FastHold* mine = FindFastHold(this);
    if (!mine) return false;
    if (--mine->depth != 0) return true;
    *mine = FastHold{};
    // A writer that came meanwhile sleeps until the fast readers are gone: wake it under the
    // mutex, which it holds from setting the bit until it sleeps.
    if (fastState_.fetch_sub(kOneReader, std::memory_order_acq_rel) & kWriterBit) {
        std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
        if (sleepers_ != 0) StripeOf(this).cv.notify_all();
    }
    return true;
}

MultiTenantRecursiveMutex::MultiTenantRecursiveMutex() = default;
MultiTenantRecursiveMutex::~MultiTenantRecursiveMutex() = default;

MultiTenantRecursiveMutex::Holder* MultiTenantRecursiveMutex::FindHolderLocked(std::thread::id id) {
    for (Slot& slot : inline_)
        if (slot.id == id) return &slot.holder;
    for (Slot& slot : overflow_)
        if (slot.id == id) return &slot.holder;
    return nullptr;
}

const MultiTenantRecursiveMutex::Holder* MultiTenantRecursiveMutex::FindHolderLocked(
    std::thread::id id) const {
    return const_cast<MultiTenantRecursiveMutex*>(this)->FindHolderLocked(id);
}

MultiTenantRecursiveMutex::Holder* MultiTenantRecursiveMutex::AddHolderLocked(std::thread::id id) {
    for (Slot& slot : inline_) {
        if (slot.id == std::thread::id()) {
            slot.id = id;
            slot.holder = Holder{};
            return &slot.holder;
        }
    }
    overflow_.push_back(Slot{id, Holder{}});
    return &overflow_.back().holder;
}

void MultiTenantRecursiveMutex::EraseIfIdleLocked(std::thread::id id) {
    auto idle = [](const Holder& h) { return h.reads == 0 && h.upgrades == 0 && h.writes == 0; };
    for (Slot& slot : inline_) {
        if (slot.id == id) {
            if (idle(slot.holder)) slot.id = std::thread::id();
            return;
        }
    }
    for (auto it = overflow_.begin(); it != overflow_.end(); ++it) {
        if (it->id == id) {
            if (idle(it->holder)) overflow_.erase(it);
            return;
        }
    }
}

void MultiTenantRecursiveMutex::LockRead() {
    if (TryLockReadFast()) return;
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(StripeOf(this).mutex);
    Holder* h = FindHolderLocked(self);
    if (!h) {
        // A new reader queues behind the writer and behind anyone waiting to write.
        WaitCounted(StripeOf(this).cv, lock, sleepers_,
                    [this] { return writer_ == std::thread::id() && waitingWriters_ == 0; });
        h = AddHolderLocked(self);
    }
    // Otherwise the thread already holds some mode, which excludes every writer but itself.
    if (h->reads++ == 0) ++readerThreads_;
}

void MultiTenantRecursiveMutex::UnlockRead() {
    if (TryUnlockReadFast()) return;
    const std::thread::id self = std::this_thread::get_id();
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    Holder* h = FindHolderLocked(self);
    if (!h || h->reads == 0) throw std::logic_error("UnlockRead: read lock not held");
    if (--h->reads == 0) {
        --readerThreads_;
        EraseIfIdleLocked(self);
        if (sleepers_ != 0) StripeOf(this).cv.notify_all();
    }
}

void MultiTenantRecursiveMutex::LockUpgrade() {
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(StripeOf(this).mutex);
    Holder* h = FindHolderLocked(self);
    const bool readOnly = h ? h->upgrades == 0 && h->writes == 0 : FindFastHold(this) != nullptr;
    if (readOnly) {
        throw std::logic_error("LockUpgrade: the thread holds only read; it would deadlock");
    }
    if (!h) {
        WaitCounted(StripeOf(this).cv, lock, sleepers_, [this] {
            return upgrader_ == std::thread::id() && writer_ == std::thread::id() &&
                   waitingWriters_ == 0;
        });
        h = AddHolderLocked(self);
    }
    // A writer taking upgrade becomes the upgrader too, so that it keeps upgrade after
    // releasing write.
    if (h->upgrades++ == 0) upgrader_ = self;
}

void MultiTenantRecursiveMutex::UnlockUpgrade() {
    const std::thread::id self = std::this_thread::get_id();
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    Holder* h = FindHolderLocked(self);
    if (!h || h->upgrades == 0) throw std::logic_error("UnlockUpgrade: upgrade lock not held");
    if (--h->upgrades == 0) {
        upgrader_ = std::thread::id();
        EraseIfIdleLocked(self);
        if (sleepers_ != 0) StripeOf(this).cv.notify_all();
    }
}

void MultiTenantRecursiveMutex::LockWrite() {
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(StripeOf(this).mutex);
    Holder* h = FindHolderLocked(self);
    if (h && h->writes > 0) {
        ++h->writes;
        return;
    }
    const bool ownFast = FindFastHold(this) != nullptr;
    if (h ? h->upgrades == 0 : ownFast) {
        throw std::logic_error("LockWrite: the thread holds only read; it would deadlock");
    }
    // Either the upgrader (waits for the other readers) or a new writer (waits for everyone).
    // While waiting it holds back new readers and upgraders.
    ++waitingWriters_;
    SyncFastGateLocked();
    if (h) {
        const uint32_t ownRead = h->reads > 0 ? 1 : 0;
        WaitCounted(StripeOf(this).cv, lock, sleepers_, [this, ownRead, ownFast] {
            return readerThreads_ == ownRead && FastReadersLocked() == (ownFast ? 1u : 0u);
        });
    } else {
        WaitCounted(StripeOf(this).cv, lock, sleepers_, [this] {
            return writer_ == std::thread::id() && upgrader_ == std::thread::id() &&
                   readerThreads_ == 0 && FastReadersLocked() == 0;
        });
    }
    --waitingWriters_;
    Holder* mine = FindHolderLocked(self);  // re-found: the wait may have moved the overflow list
    if (!mine) mine = AddHolderLocked(self);
    mine->writes = 1;
    writer_ = self;
}

void MultiTenantRecursiveMutex::UnlockWrite() {
    const std::thread::id self = std::this_thread::get_id();
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    Holder* h = FindHolderLocked(self);
    if (!h || h->writes == 0) throw std::logic_error("UnlockWrite: write lock not held");
    if (--h->writes == 0) {
        writer_ = std::thread::id();
        SyncFastGateLocked();
        EraseIfIdleLocked(self);
        if (sleepers_ != 0) StripeOf(this).cv.notify_all();
    }
}

bool MultiTenantRecursiveMutex::IsReadLockedByCurrentThread() const {
    if (FindFastHold(this)) return true;
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    const Holder* h = FindHolderLocked(std::this_thread::get_id());
    return h && h->reads > 0;
}

bool MultiTenantRecursiveMutex::IsUpgradeLockedByCurrentThread() const {
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    const Holder* h = FindHolderLocked(std::this_thread::get_id());
    return h && h->upgrades > 0;
}

bool MultiTenantRecursiveMutex::IsWriteLockedByCurrentThread() const {
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    const Holder* h = FindHolderLocked(std::this_thread::get_id());
    return h && h->writes > 0;
}

bool MultiTenantRecursiveMutex::HasWaitingWriter() const {
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    return waitingWriters_ > 0;
}

uint32_t MultiTenantRecursiveMutex::BlockedThreads() const {
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    return sleepers_;
}

}  // namespace velacore
