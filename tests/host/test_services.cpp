// The standalone services: configuration (file, environment overrides, clear errors), the memory
// monitor, exception translation with per-thread quiet errors, and cached trace sites.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <map>
#include <new>
#include <stdexcept>
#include <thread>

#include "bag/Eventually.h"
#include "host/HostOps.h"
#include "mc/host/Errors.h"
#include "mc/host/OpenOnceGate.h"
#include "mc/standalone/StandaloneHost.h"
#include "support/Latch.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"

namespace {

using mctest::Eventually;
using mctest::ScopedHostServices;
using velacore::StandaloneConfig;
using velacore::StandaloneHostServices;

TEST(StandaloneConfig, FileThenEnvironmentOverridesAndBadInputIsAnError) {
    mctest::TempDir dir("mc-services-config");
    std::ofstream(dir / "mc.toml") << "[memory]\nbudget = \"1G\"\n[trace]\nMC = 7\n"
                                      "[debug]\nSlowDisk = \"1\"\n[preferences.Cache]\nMax = 2\n";
    const std::map<std::string, std::string> env = {{"MC_CONFIG", (dir / "mc.toml").string()},
                                                    {"MC_TRACE", "MC:3"},
                                                    {"MC_DEBUG", "SlowDisk=0"},
                                                    {"MC_PREFS", "Disk/Folder=a=b"}};
    StandaloneHostServices s(StandaloneConfig::FromLookup([&](std::string_view n) {
        auto it = env.find(std::string(n));
        return it == env.end() ? std::nullopt : std::optional<std::string>(it->second);
    }));
    EXPECT_EQ(s.MemoryBudget(), uint64_t{1} << 30);
    EXPECT_TRUE(s.IsTraceEnabled("MC", 3) && !s.IsTraceEnabled("MC", 4));
    EXPECT_EQ(s.GetDebugEntry("SlowDisk"), "0");
    EXPECT_EQ(s.GetPreference("Cache", "Max"), "2");
    EXPECT_EQ(s.GetPreference("Disk", "Folder"), "a=b");
    EXPECT_THROW(StandaloneConfig::FromTomlText("[memory]\nbudgte = 5\n", "t"),
                 velacore::StandaloneConfigError);
    EXPECT_EQ(velacore::ParseByteAmount(" 64m ", 1000), uint64_t{64} << 20);
    EXPECT_EQ(velacore::ParseByteAmount("25%", 1000), 250u);
    for (const char* bad : {"12X", "-5", "101%", "99999999999T"}) {
        EXPECT_THROW(velacore::ParseByteAmount(bad, 1000), std::invalid_argument) << bad;
    }
}

// Budget 1000, low water 900: the monitor purges on its own thread with a stable amount, stops
// walking once under the budget, and stops when the client is cleared (even from the hook).
TEST(StandaloneMemory, MonitorPurgesAboveTheBudgetOnItsThreadAndStopsWhenCleared) {
    StandaloneConfig config;
    config.memoryBudget = 1000;
    config.monitorInterval = std::chrono::milliseconds(2);
    auto s = std::make_shared<StandaloneHostServices>(config);
    ScopedHostServices scope(s);
    std::atomic<int64_t> usage{1500};
    std::atomic<int> purges{0};
    std::atomic<uint64_t> amountInHook{0};
    std::atomic<bool> onTestThread{false};
    const auto testThread = std::this_thread::get_id();
    s->SetMemoryClient([&] { return usage.load(); },
                       [&] {
                           onTestThread = onTestThread || std::this_thread::get_id() == testThread;
                           amountInHook = s->AmountToPurge();
                           usage = 100;
                           purges.fetch_add(1);
                       });
    ASSERT_TRUE(Eventually([&] { return purges.load() == 1; }));
    EXPECT_EQ(amountInHook.load(), 600u);  // 1500 - low water 900
    EXPECT_FALSE(onTestThread.load());
    const uint64_t samples = s->GetCounters().memorySamples;
    ASSERT_TRUE(Eventually([&] { return s->GetCounters().memorySamples >= samples + 3; }));
    EXPECT_EQ(purges.load(), 1);
    EXPECT_EQ(U_AmountAvailableBeforePurge(), 900u);
    s->SetMemoryClient([] { return int64_t{2000}; },
                       [&] {
                           purges.fetch_add(1);
                           s->SetMemoryClient(nullptr, nullptr);  // from the monitor thread
                       });
    ASSERT_TRUE(Eventually([&] { return !s->IsMemoryMonitorRunning(); }));
    EXPECT_EQ(purges.load(), 2);
}

TEST(StandaloneMemory, DestructionWaitsForARunningPurge) {
    StandaloneConfig config;
    config.memoryBudget = 1000;
    config.monitorInterval = std::chrono::milliseconds(2);
    auto s = std::make_unique<StandaloneHostServices>(config);
    velacore::OpenOnceGate release;
    mctest::Latch entered(1);
    std::atomic<bool> destroyed{false}, destroyedInsideHook{false};
    s->SetMemoryClient([] { return int64_t{2000}; },
                       [&] {
                           entered.count_down();
                           release.Pass();
                           destroyedInsideHook = destroyed.load();
                       });
    entered.wait();
    std::thread destroyer([&] {
        s.reset();
        destroyed = true;
    });
    release.Open();
    destroyer.join();
    EXPECT_FALSE(destroyedInsideHook.load());
}

TEST(StandaloneReports, ExceptionsTranslateAndQuietModeNestsPerThread) {
    auto s = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(s);
    auto translated = [](auto thrown) {
        try {
            throw thrown;
        } catch (...) {
            return U_TranslateAndReportException(std::current_exception());
        }
    };
    EXPECT_EQ(translated(-43), -43);
    EXPECT_EQ(translated(velacore::IOError("disk", 28)), velacore::kIOErrorCode);
    EXPECT_EQ(translated(std::bad_alloc()), velacore::kStandaloneOutOfMemoryError);
    EXPECT_EQ(translated(std::runtime_error("x")), velacore::kStandaloneGenericError);
    s->StartQuietErrorsOnCurrentThread(1);
    s->StartQuietErrorsOnCurrentThread(1);
    s->EndQuietErrorsOnCurrentThread();
    bool otherQuiet = true;
    std::thread([&] { otherQuiet = s->AreErrorsQuietOnCurrentThread(); }).join();
    EXPECT_TRUE(s->AreErrorsQuietOnCurrentThread() && !otherQuiet);  // nested, per thread
    s->EndQuietErrorsOnCurrentThread();
    EXPECT_FALSE(s->AreErrorsQuietOnCurrentThread());
}

TEST(Trace, SitesSeeALevelChangeAndANewServices) {
    auto services = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(services);
    debug::TraceSite site("TestChannel", 5);
    EXPECT_FALSE(site.Enabled());
    services->SetTraceLevel("TestChannel", 5);
    EXPECT_TRUE(site.Enabled());
    services->SetTraceLevel("TestChannel", 4);
    EXPECT_FALSE(site.Enabled());
    auto other = std::make_shared<StandaloneHostServices>();
    other->SetTraceLevel("TestChannel", 9);
    ScopedHostServices swapped(other);
    EXPECT_TRUE(site.Enabled());
}

}  // namespace
