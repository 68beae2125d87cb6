// MultiTenantRecursiveMutex: an item lock with three modes.
//   read    - shared with other readers and with one upgrader;
//   upgrade - shared with readers, exclusive against other upgraders and writers;
//   write   - exclusive.
// Every mode is re-entrant on the holding thread. A writer may take read, upgrade and write
// again. An upgrader may take read, and may take write (it then waits for the other readers to
// leave). A thread holding only read that asks for upgrade or write would deadlock: that is a
// usage error and throws std::logic_error. A thread that already holds read takes read again at
// once even while a writer waits; new readers from other threads queue behind a waiting writer.
// Thread-safety: all members may be called from any thread; unlocks must come from the thread
// that locked.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "mc/host/Export.h"

namespace velacore {

class MCHOST_API MultiTenantRecursiveMutex {
public:
    MultiTenantRecursiveMutex();
    ~MultiTenantRecursiveMutex();
    MultiTenantRecursiveMutex(const MultiTenantRecursiveMutex&) = delete;
    MultiTenantRecursiveMutex& operator=(const MultiTenantRecursiveMutex&) = delete;

    void LockRead();
    void UnlockRead();
    void LockUpgrade();
    void UnlockUpgrade();
    void LockWrite();
    void UnlockWrite();

    // What the calling thread holds (any depth).
    bool IsReadLockedByCurrentThread() const;
    bool IsUpgradeLockedByCurrentThread() const;
    bool IsWriteLockedByCurrentThread() const;
    // True while some thread waits in LockWrite (new readers and upgraders then queue behind
    // it). Only a hint for diagnostics and tests: it may change as soon as it returns.
    bool HasWaitingWriter() const;

private:
    struct Holder {
        uint32_t reads = 0;
        uint32_t upgrades = 0;
        uint32_t writes = 0;
    };
    struct Slot {
        std::thread::id id;
        Holder holder;
    };
    Holder* FindHolderLocked(std::thread::id id);
    const Holder* FindHolderLocked(std::thread::id id) const;
    // Adds a slot for `id` (which has none). Pointers into overflow_ die with the next add.
    Holder* AddHolderLocked(std::thread::id id);
    void EraseIfIdleLocked(std::thread::id id);

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    // Per-thread holdings: a few inline slots so that locking never allocates; threads beyond
    // them (rare: more than four holders at once) go to the overflow list.
    static constexpr size_t kInlineSlots = 4;
    std::array<Slot, kInlineSlots> inline_{};
    std::vector<Slot> overflow_;
    uint32_t readerThreads_ = 0;       // threads holding read (not counting upgrade/write-only)
    std::thread::id upgrader_{};       // thread holding upgrade, if any
    std::thread::id writer_{};         // thread holding write, if any
    uint32_t waitingWriters_ = 0;
    uint32_t sleepers_ = 0;  // threads blocked on cv_; unlocks notify only when there are some
};

// Scoped holders. Each locks in its constructor and unlocks in its destructor unless Unlock()
// was called first. They belong to the thread that created them.
class MCHOST_API ScopedReadLockWrapper {
public:
    explicit ScopedReadLockWrapper(MultiTenantRecursiveMutex& m) : m_(&m) { m_->LockRead(); }
    ~ScopedReadLockWrapper() { Unlock(); }
    ScopedReadLockWrapper(const ScopedReadLockWrapper&) = delete;
    ScopedReadLockWrapper& operator=(const ScopedReadLockWrapper&) = delete;
    void Unlock() {
        if (owns_) m_->UnlockRead();
        owns_ = false;
    }
    bool OwnsLock() const { return owns_; }
    MultiTenantRecursiveMutex& Mutex() const { return *m_; }

private:
    MultiTenantRecursiveMutex* m_;
    bool owns_ = true;
};

class MCHOST_API ScopedUpgradeLockWrapper {
public:
    explicit ScopedUpgradeLockWrapper(MultiTenantRecursiveMutex& m) : m_(&m) { m_->LockUpgrade(); }
    ~ScopedUpgradeLockWrapper() { Unlock(); }
    ScopedUpgradeLockWrapper(const ScopedUpgradeLockWrapper&) = delete;
    ScopedUpgradeLockWrapper& operator=(const ScopedUpgradeLockWrapper&) = delete;
    void Unlock() {
        if (owns_) m_->UnlockUpgrade();
        owns_ = false;
    }
    bool OwnsLock() const { return owns_; }
    MultiTenantRecursiveMutex& Mutex() const { return *m_; }

private:
    MultiTenantRecursiveMutex* m_;
    bool owns_ = true;
};

class MCHOST_API ScopedWriteLockWrapper {
public:
    explicit ScopedWriteLockWrapper(MultiTenantRecursiveMutex& m) : m_(&m) { m_->LockWrite(); }
    ~ScopedWriteLockWrapper() { Unlock(); }
    ScopedWriteLockWrapper(const ScopedWriteLockWrapper&) = delete;
    ScopedWriteLockWrapper& operator=(const ScopedWriteLockWrapper&) = delete;
    void Unlock() {
        if (owns_) m_->UnlockWrite();
        owns_ = false;
    }
    bool OwnsLock() const { return owns_; }
    MultiTenantRecursiveMutex& Mutex() const { return *m_; }

private:
    MultiTenantRecursiveMutex* m_;
    bool owns_ = true;
};

}  // namespace velacore
