// StandaloneMemoryMonitor: the standalone host's memory pressure loop. A client gives it a usage
// source and a purge hook; a thread samples usage every interval and, above the budget, records
// how much to purge (down to the low-water mark) and calls the purge hook with no lock held.
// Process exit stops every monitor's thread before the static objects that were made before the
// thread started are destroyed, so a host that exits without stopping its client never has the
// thread sample a destroyed client.
// Thread-safety: every member may be called from any thread, including from the purge hook.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace velacore {

class StandaloneMemoryMonitor {
public:
    using Usage = std::function<int64_t()>;
    using Purge = std::function<void()>;

    // budget and lowWater in bytes (lowWater <= budget); interval between two samples.
    StandaloneMemoryMonitor(uint64_t budget, uint64_t lowWater, std::chrono::milliseconds interval);
    // Stops the thread and waits for it. Must not run from the purge hook.
    ~StandaloneMemoryMonitor();
    StandaloneMemoryMonitor(const StandaloneMemoryMonitor&) = delete;
    StandaloneMemoryMonitor& operator=(const StandaloneMemoryMonitor&) = delete;

    // Replaces the client. A non-empty purge hook starts the thread; an empty one stops it and,
    // unless called from the purge hook, waits until it has finished: once this returns the old
    // hooks are no longer called and both figures below are back to their idle values.
    void SetClient(Usage usage, Purge purge);
    // Bytes the last sample asked to purge (0 when it was under the budget). Stable until the
    // next sample, so during one purge walk.
    uint64_t AmountToPurge() const { return amountToPurge_.load(std::memory_order_acquire); }
    // max(0, budget - usage) with the usage of the last sample (0 before the first one), so
    // that callers never run the client's usage source on their own thread.
    uint64_t AmountAvailable() const;
    bool IsRunning() const;
    // Makes the thread sample now instead of at the end of its interval. Takes only the
    // monitor's own lock, briefly, and never calls the client.
    void Wake();
    uint64_t Budget() const { return budget_; }
    uint64_t SampleCount() const { return samples_.load(std::memory_order_relaxed); }
    uint64_t PurgeCount() const { return purges_.load(std::memory_order_relaxed); }

private:
    struct Client {
        Usage usage;
        Purge purge;
    };
    void Run(uint64_t generation);
    void SampleOnce(const Client& client);

    const uint64_t budget_;
    const uint64_t lowWater_;
    const std::chrono::milliseconds interval_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::shared_ptr<const Client> client_;
    uint64_t generation_ = 0;  // a thread runs while its generation is current
    std::thread thread_;
    bool running_ = false;
    bool wakeRequested_ = false;
    std::atomic<uint64_t> amountToPurge_{0};
    std::atomic<uint64_t> lastUsage_{0};
    std::atomic<uint64_t> samples_{0};
    std::atomic<uint64_t> purges_{0};
};

}  // namespace velacore
