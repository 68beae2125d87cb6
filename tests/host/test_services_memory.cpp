// The standalone memory monitor: it samples a fake usage source, calls the purge hook above the
// budget with a stable amount to purge, stays quiet below it, and stops cleanly.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "host/HostOps.h"
#include "support/RecordingHostServices.h"
#include "test_services_util.h"

using velacore::StandaloneConfig;
using velacore::StandaloneHostServices;
using namespace services_test;

namespace {

// Budget 1000 bytes, low water 900, sampling every 2 ms.
std::unique_ptr<StandaloneHostServices> SmallBudgetServices() {
    StandaloneConfig config;
    config.memoryBudget = 1000;
    config.lowWaterPercent = 90;
    config.monitorInterval = std::chrono::milliseconds(2);
    return std::make_unique<StandaloneHostServices>(config);
}

}  // namespace

TEST(ServicesMemory, NoMonitorWithoutAPurgeHook) {
    auto s = SmallBudgetServices();
    EXPECT_FALSE(s->IsMemoryMonitorRunning());
    s->SetMemoryClient([] { return int64_t{5000}; }, nullptr);
    EXPECT_FALSE(s->IsMemoryMonitorRunning());
    EXPECT_EQ(s->AmountToPurge(), 0u);
    EXPECT_EQ(s->AmountAvailableBeforePurge(), 1000u);
}

TEST(ServicesMemory, UnderBudgetNeverPurges) {
    auto s = SmallBudgetServices();
    std::atomic<int> purges{0};
    s->SetMemoryClient([] { return int64_t{400}; }, [&] { purges++; });
    EXPECT_TRUE(s->IsMemoryMonitorRunning());
    ASSERT_TRUE(WaitUntil([&] { return s->GetCounters().memorySamples >= 5; }));
    EXPECT_EQ(purges.load(), 0);
    EXPECT_EQ(s->AmountToPurge(), 0u);
    EXPECT_EQ(s->AmountAvailableBeforePurge(), 600u);
    s->SetMemoryClient(nullptr, nullptr);
}

TEST(ServicesMemory, OverBudgetCallsPurgeWithAStableAmount) {
    auto s = SmallBudgetServices();
    std::atomic<int64_t> usage{500};
    std::mutex m;
    std::vector<std::pair<uint64_t, uint64_t>> walks;  // AmountToPurge at start and end of a walk
    std::atomic<bool> onMonitorThread{true};
    const auto testThread = std::this_thread::get_id();
    s->SetMemoryClient([&] { return usage.load(); },
                       [&] {
                           if (std::this_thread::get_id() == testThread) onMonitorThread = false;
                           const uint64_t first = s->AmountToPurge();
                           usage = 1400;                       // usage moves during the walk...
                           std::this_thread::sleep_for(10ms);  // ...over several intervals
                           const uint64_t last = s->AmountToPurge();
                           usage = 100;  // the walk freed memory
                           std::lock_guard lock(m);
                           walks.emplace_back(first, last);
                       });
    ASSERT_TRUE(WaitUntil([&] { return s->GetCounters().memorySamples >= 2; }));
    usage = 1500;
    ASSERT_TRUE(WaitUntil([&] {
        std::lock_guard lock(m);
        return !walks.empty();
    }));
    {
        std::lock_guard lock(m);
        EXPECT_EQ(walks[0].first, 600u);  // 1500 - low water 900
        EXPECT_EQ(walks[0].second, 600u);
    }
    EXPECT_TRUE(onMonitorThread.load());
    // The next sample sees 100 bytes: no more pressure.
    ASSERT_TRUE(WaitUntil([&] { return s->AmountToPurge() == 0; }));
    ASSERT_TRUE(WaitUntil([&] { return s->AmountAvailableBeforePurge() == 900; }));
    const uint64_t purgeCalls = s->GetCounters().purgeCalls;
    const uint64_t samples = s->GetCounters().memorySamples;
    ASSERT_TRUE(WaitUntil([&] { return s->GetCounters().memorySamples >= samples + 3; }));
    EXPECT_EQ(s->GetCounters().purgeCalls, purgeCalls);
    s->SetMemoryClient(nullptr, nullptr);
    std::lock_guard lock(m);
    EXPECT_EQ(walks.size(), purgeCalls);
}

TEST(ServicesMemory, ClearingTheClientStopsTheThreadAndTheHooks) {
    auto s = SmallBudgetServices();
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto afterClear = std::make_shared<std::atomic<int>>(0);
    auto cleared = std::make_shared<std::atomic<bool>>(false);
    s->SetMemoryClient(
        [=] {
            (*calls)++;
            if (*cleared) (*afterClear)++;
            return int64_t{2000};
        },
        [=] {
            if (*cleared) (*afterClear)++;
        });
    ASSERT_TRUE(WaitUntil([&] { return calls->load() >= 3; }));
    s->SetMemoryClient(nullptr, nullptr);
    *cleared = true;
    EXPECT_FALSE(s->IsMemoryMonitorRunning());
    EXPECT_EQ(s->AmountToPurge(), 0u);
    EXPECT_EQ(s->AmountAvailableBeforePurge(), 1000u);
    const int before = calls->load();
    std::this_thread::sleep_for(20ms);  // ten intervals for a thread that failed to stop
    EXPECT_EQ(calls->load(), before);
    EXPECT_EQ(afterClear->load(), 0);
}

TEST(ServicesMemory, RestartsAfterBeingCleared) {
    auto s = SmallBudgetServices();
    std::atomic<int> firstPurges{0};
    s->SetMemoryClient([] { return int64_t{2000}; }, [&] { firstPurges++; });
    ASSERT_TRUE(WaitUntil([&] { return firstPurges.load() > 0; }));
    s->SetMemoryClient(nullptr, nullptr);
    std::atomic<int> secondPurges{0};
    s->SetMemoryClient([] { return int64_t{3000}; }, [&] { secondPurges++; });
    EXPECT_TRUE(s->IsMemoryMonitorRunning());
    ASSERT_TRUE(WaitUntil([&] { return secondPurges.load() > 0; }));
    EXPECT_EQ(s->AmountToPurge(), 2100u);
    s->SetMemoryClient(nullptr, nullptr);
}

TEST(ServicesMemory, PurgeHookMayDisconnectTheClient) {
    auto s = SmallBudgetServices();
    std::atomic<int> purges{0};
    s->SetMemoryClient([] { return int64_t{2000}; },
                       [&] {
                           purges++;
                           s->SetMemoryClient(nullptr, nullptr);  // from the monitor thread
                       });
    ASSERT_TRUE(WaitUntil([&] { return !s->IsMemoryMonitorRunning(); }));
    EXPECT_EQ(purges.load(), 1);
}

TEST(ServicesMemory, DestructionWaitsForARunningPurge) {
    auto s = SmallBudgetServices();
    std::mutex m;
    std::condition_variable cv;
    bool entered = false;
    bool release = false;
    std::atomic<bool> destroyed{false};
    std::atomic<bool> sawDestroyedInsideHook{false};
    std::atomic<uint64_t> amountAfterRelease{0};
    StandaloneHostServices* raw = s.get();
    s->SetMemoryClient([] { return int64_t{2000}; },
                       [&, raw] {
                           std::unique_lock lock(m);
                           entered = true;
                           cv.notify_all();
                           cv.wait(lock, [&] { return release; });
                           lock.unlock();
                           std::this_thread::sleep_for(5ms);
                           amountAfterRelease = raw->AmountToPurge();  // calls back in
                           if (destroyed) sawDestroyedInsideHook = true;
                       });
    {
        std::unique_lock lock(m);
        ASSERT_TRUE(cv.wait_for(lock, 60s, [&] { return entered; }));
    }
    std::thread destroyer([&] {
        s.reset();
        destroyed = true;
    });
    {
        std::lock_guard lock(m);
        release = true;
    }
    cv.notify_all();
    destroyer.join();
    EXPECT_TRUE(destroyed.load());
    EXPECT_FALSE(sawDestroyedInsideHook.load());
    EXPECT_EQ(amountAfterRelease.load(), 1100u);
}

TEST(ServicesMemory, HostOperationsForwardToTheInstalledServices) {
    std::shared_ptr<StandaloneHostServices> s = SmallBudgetServices();
    mctest::ScopedHostServices scope(s);
    std::atomic<int> purges{0};
    s->SetMemoryClient([] { return int64_t{1200}; }, [&] { purges++; });
    ASSERT_TRUE(WaitUntil([&] { return U_AmountToPurge() == 300; }));
    EXPECT_EQ(U_AmountAvailableBeforePurge(), 0u);
    uint64_t limit = 0;
    uint64_t physical = 0;
    EXPECT_EQ(U_GetMemUsageLimits(&limit, &physical), 0);
    EXPECT_EQ(limit, 1000u);
    EXPECT_EQ(physical, s->PhysicalMemory());
    U_PurgeRecycledMemory();
    U_PurgeRecycledMemory();
    EXPECT_EQ(s->GetCounters().recycledMemoryPurges, 2u);
    s->SetMemoryClient(nullptr, nullptr);
}

TEST(ServicesMemory, RecordingServicesScriptPressure) {
    auto rec = std::make_shared<mctest::RecordingHostServices>();
    mctest::ScopedHostServices scope(rec);
    EXPECT_EQ(U_AmountToPurge(), 0u);
    rec->SetAmountToPurge(4096);
    rec->SetAmountAvailable(77);
    EXPECT_EQ(U_AmountToPurge(), 4096u);
    EXPECT_EQ(U_AmountAvailableBeforePurge(), 77u);
    int calls = 0;
    rec->SetAmountToPurgeFunction([&] { return uint64_t(++calls * 10); });
    EXPECT_EQ(U_AmountToPurge(), 10u);
    EXPECT_EQ(U_AmountToPurge(), 20u);
    rec->SetMemUsageLimits(123, 456, -3);
    uint64_t limit = 0;
    uint64_t physical = 0;
    EXPECT_EQ(U_GetMemUsageLimits(&limit, &physical), -3);
    EXPECT_EQ(limit, 123u);
    EXPECT_EQ(physical, 456u);
    U_PurgeRecycledMemory();
    EXPECT_EQ(rec->PurgeRecycledCount(), 1u);
    int purged = 0;
    rec->SetMemoryClient([] { return int64_t{99}; }, [&] { purged++; });
    EXPECT_TRUE(rec->HasMemoryClient());
    EXPECT_EQ(rec->SampleClientUsage(), 99);
    EXPECT_TRUE(rec->RunClientPurge());
    EXPECT_EQ(purged, 1);
    rec->SetMemoryClient(nullptr, nullptr);
    EXPECT_FALSE(rec->HasMemoryClient());
    EXPECT_FALSE(rec->RunClientPurge());
}
