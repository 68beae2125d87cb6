// MultiTenantRecursiveMutex: an item lock with three modes.
//   read    - shared with other readers and with one upgrader;
//   upgrade - shared with readers, exclusive against other upgraders and writers;
//   write   - exclusive.
//
// What the calling thread already holds x what it asks for:
//
//   holds \ asks   | read              | upgrade                    | write
//   ---------------+-------------------+----------------------------+---------------------------
//   nothing        | waits while       | waits while another thread | waits until no other
//                  | another thread    | holds upgrade or write, or | thread holds any mode
//                  | writes or waits   | waits to write             |
//                  | to write          |                            |
//   read only      | granted at once   | throws std::logic_error    | throws std::logic_error
//                  | (even while a     | (it would deadlock)        | (it would deadlock)
//                  | writer waits)     |                            |
//   upgrade (with  | granted at once   | granted at once            | waits for the other
//   or w/o read)   |                   |                            | threads' reads to end;
//                  |                   |                            | meanwhile new readers and
//                  |                   |                            | upgraders queue
//   write (with    | granted at once   | granted at once; the       | granted at once
//   anything)      |                   | thread is the upgrader     |
//                  |                   | after releasing write      |
//
// An uncontended read takes no internal mutex: while no writer holds or waits, a reader joins
// with one atomic operation and the thread remembers the hold in a small thread-local table.
// Every grant is counted: each Lock* needs its own Unlock* on the same thread.
// Unlocking a mode the thread does not hold throws std::logic_error. A waiting writer (from
// "nothing" or from upgrade) holds back new readers and upgraders from other threads.
// Thread-safety: all members may be called from any thread; unlocks must come from the thread
// that locked.
#pragma once

#include <atomic>
#include <cstdint>

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
    // Threads blocked in a Lock* call right now. A hint for tests, like HasWaitingWriter.
    uint32_t BlockedThreads() const;

private:
    // Readers that joined without the mutex; and the bit that turns new ones to the slow path.
    uint32_t FastReadersLocked() const { return fastState_.load(std::memory_order_acquire) >> 1; }
    void SyncFastGateLocked();
    bool TryLockReadFast();
    bool TryUnlockReadFast();

    // The lock carries only what other threads must see. What each thread holds of it (depth of
    // read, upgrade and write) lives in that thread's own table, keyed by the lock's address, and
    // needs no synchronisation. The mutex guarding the members below and the condition variable
    // to wait on are those of the lock's stripe (shared with other locks; see the .cpp).
    uint32_t readerThreads_ = 0;  // threads holding read (not counting upgrade/write-only)
    uint16_t waitingWriters_ = 0;
    uint16_t sleepers_ = 0;  // threads of this lock asleep; unlocks notify only when there are some
    // Bit 0: a writer holds or waits (set under the stripe mutex); above it, the number of threads
    // holding read through the fast path.
    std::atomic<uint32_t> fastState_{0};
    bool upgradeHeld_ = false;  // some thread holds upgrade
    bool writeHeld_ = false;    // some thread holds write
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
