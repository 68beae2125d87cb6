// Waiting for the disk writer: a host that wants its items on disk before it stops the writer
// (MC_StopAllAsyncWork drops whatever is still queued) waits here until nothing is queued and
// nothing is being written.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "disk/DiskWriterQueue.h"
#include "mc/MC_Bag.h"
#include "mc/MC_ScCheckout.h"
#include "mc/MC_Stuff.h"

namespace {
std::mutex& WaitMutex() {
    static std::mutex m;
    return m;
}
std::condition_variable& WaitSignal() {
    static std::condition_variable cv;
    return cv;
}
}  // namespace

MCp_DiskWriteQueue::Entry::Entry(velacore::IntrusivePtr<MC_Stuff> s,
                                 std::shared_ptr<MC_ScCheckout> r)
    : stuff(std::move(s)), receipt(std::move(r)), pending(true) {}

void MCp_PendingDiskWrite::NotifyDone() {
    // Taking the mutex orders this wake-up after a waiter's check of the count.
    { std::lock_guard<std::mutex> lock(WaitMutex()); }
    WaitSignal().notify_all();
}

bool MC_Bag::WaitForDiskWrites(double seconds) {
    const auto limit = std::chrono::duration<double>(seconds > 0 ? seconds : 0);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(
                                               std::min(limit, std::chrono::duration<double>(1e9)));
    std::unique_lock<std::mutex> lock(WaitMutex());
    return WaitSignal().wait_until(lock, deadline, [] {
        return MCp_PendingDiskWrite::Outstanding().load(std::memory_order_acquire) == 0;
    });
}
