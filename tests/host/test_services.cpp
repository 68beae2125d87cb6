// The standalone services: configuration from a file and the environment (with clear errors),
// the memory monitor, exception translation and quiet errors, and cached trace sites.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <latch>
#include <map>
#include <new>
#include <stdexcept>
#include <thread>

#include "host/HostOps.h"
#include "host/WaitUntil.h"
#include "mc/host/Errors.h"
#include "mc/host/OpenOnceGate.h"
#include "mc/standalone/StandaloneHost.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"

namespace {

using hosttest::WaitUntil;

using mctest::ScopedHostServices;
using velacore::StandaloneConfig;
using velacore::StandaloneHostServices;

constexpr uint64_t kGiB = uint64_t{1} << 30;

StandaloneConfig::EnvLookup MapEnv(std::map<std::string, std::string> vars) {
    return [vars = std::move(vars)](std::string_view name) -> std::optional<std::string> {
        auto it = vars.find(std::string(name));
        return it == vars.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
}

TEST(StandaloneConfig, FileNamedByTheEnvironmentThenOverridesReachTheServices) {
    mctest::TempDir dir("mc-services-config");
    const auto file = dir / "mc.toml";
    std::ofstream(file)
        << "[memory]\nbudget = \"1G\"\nlow_water_percent = 80\n"
           "[media]\nbudget = 268435456\n[trace]\nMC = 7\nDiskCache = 6\n"
           "[debug]\nSlowDisk = \"1\"\nRetries = 3\n"
           "[preferences.Cache]\nMaxItems = 200\n[beta]\nfeatures = [\"Alpha\"]\n"
           "[identity]\nclient_version = \"26.1\"\ncomputer_name = \"render-box\"\n";
    StandaloneConfig c = StandaloneConfig::FromLookup(MapEnv({
        {"MC_CONFIG", file.string()},
        {"MC_MEDIA_BUDGET", "512M"},
        {"MC_TRACE", "MC:3, Bag:5"},
        {"MC_DEBUG", "SlowDisk=0;NewEntry=yes"},
        {"MC_PREFS", "Disk/Folder=a=b"},
    }));
    EXPECT_EQ(c.configFile, file.string());
    StandaloneHostServices s(c);
    EXPECT_EQ(s.MemoryBudget(), kGiB);
    EXPECT_EQ(s.LowWaterBytes(), kGiB / 100 * 80 + kGiB % 100 * 80 / 100);
    EXPECT_EQ(s.GetMediaManager()->GetFixedMaxCacheSize(), uint64_t{512} << 20);
    EXPECT_TRUE(s.IsTraceEnabled("MC", 3) && !s.IsTraceEnabled("MC", 4));  // overridden
    EXPECT_TRUE(s.IsTraceEnabled("DiskCache", 6) && s.IsTraceEnabled("Bag", 5));
    EXPECT_EQ(s.GetDebugEntry("SlowDisk"), "0");
    EXPECT_EQ(s.GetDebugEntry("Retries"), "3");
    EXPECT_EQ(s.GetDebugEntry("NewEntry"), "yes");
    EXPECT_EQ(s.GetPreference("Cache", "MaxItems"), "200");
    EXPECT_EQ(s.GetPreference("Disk", "Folder"), "a=b");
    EXPECT_TRUE(s.IsFeatureEnabled("Alpha") && !s.IsFeatureEnabled("Gamma"));
    EXPECT_EQ(s.AppVersion(), 26 * 256 + 1);
    char name[64];
    EXPECT_EQ(s.GetComputerName(name, 4), velacore::kStandaloneParamError);
    EXPECT_EQ(s.GetComputerName(name, sizeof(name)), 0);
    EXPECT_STREQ(name, "render-box");
    EXPECT_THROW(StandaloneConfig::FromTomlText("[memory]\nbudgte = 5\n", "t"),
                 velacore::StandaloneConfigError);  // unknown keys are errors
}

TEST(StandaloneConfig, ByteAmounts) {
    const std::pair<const char*, uint64_t> good[] = {
        {"1024", 1024},    {" 512K ", 512 * 1024},    {"64m", uint64_t{64} << 20},
        {"2GB", 2 * kGiB}, {"1T", uint64_t{1} << 40}, {"25%", 250}};
    for (const auto& [text, bytes] : good) EXPECT_EQ(velacore::ParseByteAmount(text, 1000), bytes);
    for (const char* bad : {"", "K", "12X", "-5", "1.5G", "101%", "99999999999T"}) {
        EXPECT_THROW(velacore::ParseByteAmount(bad, 1000), std::invalid_argument) << bad;
    }
}

// Budget 1000 bytes, low water 900: the monitor purges on its own thread with a stable amount,
// stops when the client is cleared (even from the purge hook) and forwards through U_*.
TEST(StandaloneMemory, MonitorPurgesAboveTheBudgetOnItsThreadAndStopsWhenCleared) {
    StandaloneConfig config;
    config.memoryBudget = 1000;
    config.monitorInterval = std::chrono::milliseconds(2);
    auto s = std::make_shared<StandaloneHostServices>(config);
    ScopedHostServices scope(s);
    s->SetMemoryClient([] { return int64_t{5000}; }, nullptr);
    EXPECT_FALSE(s->IsMemoryMonitorRunning());  // nothing to call

    std::atomic<int64_t> usage{400};
    std::atomic<int> purges{0};
    std::atomic<uint64_t> amountInHook{0};
    std::atomic<bool> onTestThread{false};
    const auto testThread = std::this_thread::get_id();
    s->SetMemoryClient([&] { return usage.load(); },
                       [&] {
                           onTestThread = onTestThread || std::this_thread::get_id() == testThread;
                           amountInHook = s->AmountToPurge();
                           usage = 100;  // the walk freed memory
                           purges.fetch_add(1);
                       });
    ASSERT_TRUE(WaitUntil([&] { return s->GetCounters().memorySamples >= 3; }));
    EXPECT_EQ(purges.load(), 0);
    EXPECT_EQ(U_AmountAvailableBeforePurge(), 600u);
    usage = 1500;
    ASSERT_TRUE(WaitUntil([&] { return purges.load() == 1; }));
    EXPECT_EQ(amountInHook.load(), 600u);  // 1500 - low water 900
    EXPECT_FALSE(onTestThread.load());
    ASSERT_TRUE(WaitUntil([&] { return U_AmountToPurge() == 0; }));
    const uint64_t samples = s->GetCounters().memorySamples;
    ASSERT_TRUE(WaitUntil([&] { return s->GetCounters().memorySamples >= samples + 3; }));
    EXPECT_EQ(purges.load(), 1);  // under the budget again: no more walks

    s->SetMemoryClient(nullptr, nullptr);
    EXPECT_FALSE(s->IsMemoryMonitorRunning());  // joined: no hook can run any more
    EXPECT_EQ(U_AmountToPurge(), 0u);

    s->SetMemoryClient([] { return int64_t{2000}; },
                       [&] {
                           purges.fetch_add(1);
                           s->SetMemoryClient(nullptr, nullptr);  // from the monitor thread itself
                       });
    ASSERT_TRUE(WaitUntil([&] { return !s->IsMemoryMonitorRunning(); }));
    EXPECT_EQ(purges.load(), 2);
}

TEST(StandaloneMemory, DestructionWaitsForARunningPurge) {
    StandaloneConfig config;
    config.memoryBudget = 1000;
    config.monitorInterval = std::chrono::milliseconds(2);
    auto s = std::make_unique<StandaloneHostServices>(config);
    StandaloneHostServices* raw = s.get();
    velacore::OpenOnceGate release;
    std::latch entered(1);
    std::atomic<bool> destroyed{false}, destroyedInsideHook{false};
    s->SetMemoryClient([] { return int64_t{2000}; },
                       [&] {
                           entered.count_down();
                           release.Pass();
                           EXPECT_EQ(raw->AmountToPurge(), 1100u);  // calls back in
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

std::exception_ptr Captured(auto thrown) {
    try {
        throw thrown;
    } catch (...) {
        return std::current_exception();
    }
}

TEST(StandaloneReports, ExceptionsTranslateAndQuietModeNestsPerThread) {
    auto s = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(s);
    EXPECT_EQ(U_TranslateAndReportException(Captured(-43)), -43);
    EXPECT_EQ(U_TranslateAndReportException(Captured(velacore::IOError("disk", 28))),
              velacore::kIOErrorCode);
    EXPECT_EQ(U_TranslateAndReportException(Captured(std::bad_alloc())),
              velacore::kStandaloneOutOfMemoryError);
    EXPECT_EQ(U_TranslateAndReportException(Captured(std::runtime_error("x"))),
              velacore::kStandaloneGenericError);
    EXPECT_EQ(U_TranslateAndReportException(nullptr), 0);
    EXPECT_EQ(s->GetCounters().translatedExceptions, 4u);

    s->StartQuietErrorsOnCurrentThread(1);
    s->StartQuietErrorsOnCurrentThread(1);
    s->EndQuietErrorsOnCurrentThread();
    bool otherQuiet = true;
    std::thread([&] { otherQuiet = s->AreErrorsQuietOnCurrentThread(); }).join();
    EXPECT_TRUE(s->AreErrorsQuietOnCurrentThread() && !otherQuiet);  // nested, per thread
    s->EndQuietErrorsOnCurrentThread();
    s->EndQuietErrorsOnCurrentThread();  // unbalanced end: stays at zero
    s->StartQuietErrorsOnCurrentThread(1);
    EXPECT_TRUE(s->AreErrorsQuietOnCurrentThread());
}

// Counts how often a trace site asks the services.
class CountingServices : public velacore::HostServicesWrapper {
public:
    explicit CountingServices(std::shared_ptr<StandaloneHostServices> target)
        : HostServicesWrapper(target), standalone(std::move(target)) {}
    bool IsTraceEnabled(std::string_view c, int l) override {
        queries++;
        return HostServicesWrapper::IsTraceEnabled(c, l);
    }
    std::shared_ptr<StandaloneHostServices> standalone;
    std::atomic<int> queries{0};
};

TEST(Trace, SitesCacheTheirAnswerUntilSettingsOrServicesChange) {
    auto counting = std::make_shared<CountingServices>(std::make_shared<StandaloneHostServices>());
    ScopedHostServices scope(counting);
    debug::TraceSite site("TestChannel", 5);
    for (int i = 0; i < 100; ++i) EXPECT_FALSE(site.Enabled());
    EXPECT_EQ(counting->queries.load(), 1);  // cached "off"
    counting->standalone->SetTraceLevel("TestChannel", 5);
    EXPECT_TRUE(site.Enabled());  // seen after the change count moved
    EXPECT_EQ(counting->queries.load(), 2);
    counting->standalone->SetTraceLevel("TestChannel", 4);  // below the site's level
    EXPECT_FALSE(site.Enabled());
    counting->standalone->SetTraceLevel("*", 5);  // every other channel
    EXPECT_TRUE(debug::IsTraceEnabled("Other", 5) && !debug::IsTraceEnabled("Other", 6));
    auto other = std::make_shared<StandaloneHostServices>();
    other->SetTraceLevel("TestChannel", 9);
    {
        ScopedHostServices swapped(other);  // installing refreshes sites
        EXPECT_TRUE(site.Enabled());
    }
    counting->standalone->SetTraceLevel("TestChannel", -1);
    counting->standalone->SetTraceLevel("*", -1);
    EXPECT_FALSE(site.Enabled());
}

}  // namespace
