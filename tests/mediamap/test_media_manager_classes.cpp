// The standalone media manager as the mirror uses it: purge classes (the register call's `kind`),
// detaching an owner through the interface while a purge call to it is in flight.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "mc/standalone/StandaloneMediaManager.h"

using namespace std::chrono_literals;
using NX::StandaloneMediaManager;

namespace {

const velacore::Guid kClient(std::string_view("0F0E0D0C-0B0A-0908-0706-050403020100"));

// Records its purges and forgets them; with `block` set, its purge instead holds until released
// (to keep a call in flight) and fails.
class Owner : public NX::IPurgeableSupport {
public:
    explicit Owner(NX::IMediaManager& manager, bool block = false)
        : manager_(manager), block_(block) {}
    bool PurgeEntry(uint64_t sequence) override {
        std::unique_lock lock(mutex_);
        purged_.push_back(sequence);
        cv_.notify_all();
        cv_.wait(lock, [&] { return !block_ || released_; });
        lock.unlock();
        finished_.store(true);
        if (!block_) manager_.ForgetEntry(sequence);
        return !block_;
    }
    bool IsNonPurgeable(uint64_t) override { return false; }
    std::vector<uint64_t> Purged() const {
        std::lock_guard lock(mutex_);
        return purged_;
    }
    void WaitEntered() {
        std::unique_lock lock(mutex_);
        ASSERT_TRUE(cv_.wait_for(lock, 50s, [&] { return !purged_.empty(); }));
    }
    void Release() {
        std::lock_guard lock(mutex_);
        released_ = true;
        cv_.notify_all();
    }
    std::atomic<bool> finished_{false};

private:
    NX::IMediaManager& manager_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<uint64_t> purged_;
    const bool block_;
    bool released_ = false;
};

// Scratch entries go before cached ones whatever their age; within a class the least recently
// used goes first, and a touch makes an entry the youngest.
TEST(MediaManagerClasses, PurgeOrderIsClassThenLeastRecentlyUsed) {
    StandaloneMediaManager m(350);
    Owner owner(m);
    for (uint64_t seq : {1, 2, 3})
        m.RegisterEntry(&owner, kClient, seq, 100, NX::kMediaEntryCached, 0, nullptr);
    m.TouchEntry(1, kClient);
    m.RegisterEntry(&owner, kClient, 4, 100, NX::kMediaEntryScratch, 0, nullptr);  // youngest
    ASSERT_TRUE(m.WaitUntilSettled(50s));
    EXPECT_EQ(owner.Purged(), (std::vector<uint64_t>{4}));
    m.RegisterEntry(&owner, kClient, 5, 100, NX::kMediaEntryCached, 0, nullptr);
    ASSERT_TRUE(m.WaitUntilSettled(50s));
    EXPECT_EQ(owner.Purged(), (std::vector<uint64_t>{4, 2}));  // 1 was touched after 2
    EXPECT_EQ(m.GetRegisteredBytes(), 300u);
}

TEST(MediaManagerClasses, DetachThroughTheInterfaceWaitsForTheCallInFlight) {
    StandaloneMediaManager m(10);
    Owner owner(m, true);
    NX::IMediaManager& manager = m;
    manager.RegisterEntry(&owner, kClient, 1, 100, NX::kMediaEntryCached, 0, nullptr);
    owner.WaitEntered();
    std::atomic<bool> finishedWhenDetached{false};
    std::thread detacher([&] {
        manager.DetachOwner(&owner);
        finishedWhenDetached.store(owner.finished_.load());
    });
    owner.Release();
    detacher.join();
    EXPECT_TRUE(finishedWhenDetached.load());
    EXPECT_EQ(m.EntryCount(), 0u);
}

}  // namespace
