// Three-mode re-entrant item lock (see mc/host/MultiTenantRecursiveMutex.h).
// What a thread holds of a lock is that thread's own business: its depths live in thread-local
// tables keyed by the lock's address, so a lock is 16 bytes whatever number of threads use it.
// The shared state (who holds upgrade or write, reader threads, waiting writers, sleepers) lives
// under the lock's stripe mutex, except the fast readers: fastState_ counts the threads that hold
// read without having taken the mutex. The stripe's mutex and condition variable are shared by
// every lock whose address falls on that stripe, so that a lock carries no mutex and condition
// variable of its own: they are needed only to wait, and waits are rare. Every change that can
// unblock someone notifies the stripe (notify_all: waiters of other locks on it wake, check their
// own condition and sleep again).
#include "mc/host/MultiTenantRecursiveMutex.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <vector>

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
                 uint16_t& sleepers, Pred pred) {
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

// The slow-path holds of this thread: which lock, and how deep in each mode. The first entries
// sit in a trivially destructible array, so a thread can still lock while the process exits;
// a thread holding more locks at once than that spills into a vector.
struct Holder {
    uint32_t reads = 0;
    uint32_t upgrades = 0;
    uint32_t writes = 0;
    bool Idle() const { return reads == 0 && upgrades == 0 && writes == 0; }
};
struct HeldLock {
    const void* lock = nullptr;
    Holder holder;
};
constexpr uint32_t kInlineHolds = 16;
struct HoldTable {
    std::array<HeldLock, kInlineHolds> entries{};
    uint32_t used = 0;
};
thread_local HoldTable t_holds;
thread_local std::vector<HeldLock> t_moreHolds;

// This thread's holds of `lock`, or null. The pointer is valid until the next add or erase.
Holder* FindHolder(const void* lock) {
    for (uint32_t i = 0; i < t_holds.used; ++i)
        if (t_holds.entries[i].lock == lock) return &t_holds.entries[i].holder;
    if (t_holds.used == kInlineHolds) {
        for (HeldLock& e : t_moreHolds)
            if (e.lock == lock) return &e.holder;
    }
    return nullptr;
}

// Adds an empty entry for `lock` (which has none).
Holder* AddHolder(const void* lock) {
    if (t_holds.used < kInlineHolds) {
        HeldLock& e = t_holds.entries[t_holds.used++];
        e = HeldLock{lock, Holder{}};
        return &e.holder;
    }
    t_moreHolds.push_back(HeldLock{lock, Holder{}});
    return &t_moreHolds.back().holder;
}

// Drops the entry for `lock` once it holds nothing.
void EraseIfIdle(const void* lock) {
    for (uint32_t i = 0; i < t_holds.used; ++i) {
        HeldLock& e = t_holds.entries[i];
        if (e.lock != lock) continue;
        if (!e.holder.Idle()) return;
        e = t_holds.entries[--t_holds.used];
        t_holds.entries[t_holds.used] = HeldLock{};
        if (!t_moreHolds.empty()) {  // keep the array full while the vector has entries
            t_holds.entries[t_holds.used++] = t_moreHolds.back();
            t_moreHolds.pop_back();
        }
        return;
    }
    for (auto it = t_moreHolds.begin(); it != t_moreHolds.end(); ++it) {
        if (it->lock == lock) {
            if (it->holder.Idle()) t_moreHolds.erase(it);
            return;
        }
    }
}
}  // namespace

void MultiTenantRecursiveMutex::SyncFastGateLocked() {
    if (writeHeld_ || waitingWriters_ != 0)
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

void MultiTenantRecursiveMutex::LockRead() {
    if (TryLockReadFast()) return;
    Holder* h = FindHolder(this);
    if (h && h->reads > 0) {
        ++h->reads;  // depths are this thread's own: no mutex
        return;
    }
    std::unique_lock<std::mutex> lock(StripeOf(this).mutex);
    if (!h) {
        // A new reader queues behind the writer and behind anyone waiting to write.
        WaitCounted(StripeOf(this).cv, lock, sleepers_,
                    [this] { return !writeHeld_ && waitingWriters_ == 0; });
        h = AddHolder(this);
    }
    // Otherwise the thread already holds some mode, which excludes every writer but itself.
    if (h->reads++ == 0) ++readerThreads_;
}

void MultiTenantRecursiveMutex::UnlockRead() {
    if (TryUnlockReadFast()) return;
    Holder* h = FindHolder(this);
    if (!h || h->reads == 0) throw std::logic_error("UnlockRead: read lock not held");
    if (h->reads > 1) {
        --h->reads;
        return;
    }
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    if (--h->reads == 0) {
        --readerThreads_;
        EraseIfIdle(this);
        if (sleepers_ != 0) StripeOf(this).cv.notify_all();
    }
}

void MultiTenantRecursiveMutex::LockUpgrade() {
    Holder* h = FindHolder(this);
    const bool readOnly = h ? h->upgrades == 0 && h->writes == 0 : FindFastHold(this) != nullptr;
    if (readOnly) {
        throw std::logic_error("LockUpgrade: the thread holds only read; it would deadlock");
    }
    if (h && h->upgrades > 0) {
        ++h->upgrades;
        return;
    }
    std::unique_lock<std::mutex> lock(StripeOf(this).mutex);
    if (!h) {
        WaitCounted(StripeOf(this).cv, lock, sleepers_,
                    [this] { return !upgradeHeld_ && !writeHeld_ && waitingWriters_ == 0; });
        h = AddHolder(this);
    }
    // A writer taking upgrade becomes the upgrader too, so that it keeps upgrade after
    // releasing write.
    if (h->upgrades++ == 0) upgradeHeld_ = true;
}

void MultiTenantRecursiveMutex::UnlockUpgrade() {
    Holder* h = FindHolder(this);
    if (!h || h->upgrades == 0) throw std::logic_error("UnlockUpgrade: upgrade lock not held");
    if (h->upgrades > 1) {
        --h->upgrades;
        return;
    }
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    if (--h->upgrades == 0) {
        upgradeHeld_ = false;
        EraseIfIdle(this);
        if (sleepers_ != 0) StripeOf(this).cv.notify_all();
    }
}

void MultiTenantRecursiveMutex::LockWrite() {
    Holder* h = FindHolder(this);
    if (h && h->writes > 0) {
        ++h->writes;  // only this thread reads or writes its own depths
        return;
    }
    const bool ownFast = FindFastHold(this) != nullptr;
    if (h ? h->upgrades == 0 : ownFast) {
        throw std::logic_error("LockWrite: the thread holds only read; it would deadlock");
    }
    std::unique_lock<std::mutex> lock(StripeOf(this).mutex);
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
            return !writeHeld_ && !upgradeHeld_ && readerThreads_ == 0 && FastReadersLocked() == 0;
        });
        h = AddHolder(this);
    }
    --waitingWriters_;
    h->writes = 1;
    writeHeld_ = true;
}

void MultiTenantRecursiveMutex::UnlockWrite() {
    Holder* h = FindHolder(this);
    if (!h || h->writes == 0) throw std::logic_error("UnlockWrite: write lock not held");
    if (h->writes > 1) {
        --h->writes;
        return;
    }
    std::lock_guard<std::mutex> lock(StripeOf(this).mutex);
    h->writes = 0;
    writeHeld_ = false;
    SyncFastGateLocked();
    EraseIfIdle(this);
    if (sleepers_ != 0) StripeOf(this).cv.notify_all();
}

bool MultiTenantRecursiveMutex::IsReadLockedByCurrentThread() const {
    if (FindFastHold(this)) return true;
    const Holder* h = FindHolder(this);
    return h && h->reads > 0;
}

bool MultiTenantRecursiveMutex::IsUpgradeLockedByCurrentThread() const {
    const Holder* h = FindHolder(this);
    return h && h->upgrades > 0;
}

bool MultiTenantRecursiveMutex::IsWriteLockedByCurrentThread() const {
    const Holder* h = FindHolder(this);
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
