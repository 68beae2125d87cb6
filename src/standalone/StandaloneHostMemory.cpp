// The standalone host's memory monitor thread (see StandaloneHostMemory.h).
#include "standalone/StandaloneHostMemory.h"

#include <algorithm>
#include <cstdlib>
#include <utility>
#include <vector>

namespace velacore {
namespace {

// The monitors alive in the process. Never destroyed, so that it outlives every exit handler.
struct LiveMonitors {
    std::mutex mutex;
    std::vector<StandaloneMemoryMonitor*> monitors;
};

LiveMonitors& Live() {
    static LiveMonitors* live = new LiveMonitors;
    return *live;
}

// Exit handler: stops the thread of every live monitor. Registered at each thread start, so it
// runs before the destructors of the statics that existed then (the client's among them).
void StopMonitorsAtExit() {
    LiveMonitors& live = Live();
    std::lock_guard lock(live.mutex);
    for (StandaloneMemoryMonitor* monitor : live.monitors) monitor->SetClient(nullptr, nullptr);
}

}  // namespace

StandaloneMemoryMonitor::StandaloneMemoryMonitor(uint64_t budget, uint64_t lowWater,
                                                 std::chrono::milliseconds interval)
    : budget_(budget),
      lowWater_(std::min(lowWater, budget)),
      interval_(std::max(interval, std::chrono::milliseconds(1))) {
    std::lock_guard lock(Live().mutex);
    Live().monitors.push_back(this);
}

StandaloneMemoryMonitor::~StandaloneMemoryMonitor() {
    {
        std::lock_guard lock(Live().mutex);
        std::erase(Live().monitors, this);
    }
    std::thread finished;
    {
        std::lock_guard lock(mutex_);
        running_ = false;
        ++generation_;
        client_.reset();
        finished = std::move(thread_);
    }
    wake_.notify_all();
    if (finished.joinable()) finished.join();
}

void StandaloneMemoryMonitor::SetClient(Usage usage, Purge purge) {
    const bool start = static_cast<bool>(purge);
    std::shared_ptr<const Client> client;
    if (usage || purge)
        client = std::make_shared<const Client>(Client{std::move(usage), std::move(purge)});
    std::thread finished;  // joined outside the lock
    {
        std::lock_guard lock(mutex_);
        client_ = std::move(client);
        if (thread_.joinable() && thread_.get_id() == std::this_thread::get_id()) {
            // From the purge hook: the running thread keeps or drops its loop by itself.
            running_ = start;
            return;
        }
        if (start == running_) return;  // a new client for a running thread, or nothing to stop
        running_ = start;
        ++generation_;
        finished = std::move(thread_);
        if (start) thread_ = std::thread([this, g = generation_] { Run(g); });
    }
    if (start) std::atexit(StopMonitorsAtExit);
    wake_.notify_all();
    if (finished.joinable()) finished.join();
}

uint64_t StandaloneMemoryMonitor::AmountAvailable() const {
    const uint64_t usage = lastUsage_.load(std::memory_order_acquire);
    return usage >= budget_ ? 0 : budget_ - usage;
}

bool StandaloneMemoryMonitor::IsRunning() const {
    std::lock_guard lock(mutex_);
    return running_;
}

void StandaloneMemoryMonitor::Wake() {
    {
        std::lock_guard lock(mutex_);
        wakeRequested_ = true;
    }
    wake_.notify_all();
}

void StandaloneMemoryMonitor::Run(uint64_t generation) {
    std::unique_lock lock(mutex_);
    const auto current = [&] { return running_ && generation_ == generation; };
    while (current()) {
        std::shared_ptr<const Client> client = client_;
        lock.unlock();
        if (client) SampleOnce(*client);
        client.reset();
        lock.lock();
        wake_.wait_for(lock, interval_, [&] { return !current() || wakeRequested_; });
        wakeRequested_ = false;
    }
    if (!running_) {  // stopped, not replaced: the figures of the last sample no longer hold
        amountToPurge_.store(0, std::memory_order_release);
        lastUsage_.store(0, std::memory_order_release);
    }
}

void StandaloneMemoryMonitor::SampleOnce(const Client& client) {
    int64_t usage = 0;
    try {
        if (client.usage) usage = std::max<int64_t>(0, client.usage());
    } catch (...) {
        return;  // a failing usage source is skipped; the next sample tries again
    }
    samples_.fetch_add(1, std::memory_order_relaxed);
    const auto bytes = static_cast<uint64_t>(usage);
    lastUsage_.store(bytes, std::memory_order_release);
    const uint64_t amount = bytes > budget_ ? bytes - lowWater_ : 0;
    amountToPurge_.store(amount, std::memory_order_release);
    if (amount == 0 || !client.purge) return;
    purges_.fetch_add(1, std::memory_order_relaxed);
    try {
        client.purge();
    } catch (...) {
        // The hook's own errors are its business; the monitor keeps going.
    }
}

}  // namespace velacore
