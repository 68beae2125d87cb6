// The standalone services: configuration (file, environment overrides, clear errors), the memory
// monitor, exception translation with per-thread quiet errors, and cached trace sites. Executors:
// the I/O pool and sub-executors. Stop rules (nothing queued starts after Stop returns, running
// jobs finish first, later posts are dropped), caps, FIFO order, errors swallowed, and
// destruction from inside a job.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bag/Eventually.h"
#include "host/HostOps.h"
#include "mc/host/Errors.h"
#include "mc/host/Executor.h"
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
    for (const char* bad : {"12X", "-5", "101%", "99999999999T"})
        EXPECT_THROW(velacore::ParseByteAmount(bad, 1000), std::invalid_argument) << bad;
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

namespace velacore {
namespace {

// A job that counts its runs, and its destruction without having run in `dropped`.
std::function<void()> CountingJob(std::atomic<int>& ran, std::atomic<int>& dropped) {
    struct Token {
        std::atomic<int>* dropped;
        bool ran = false;
        ~Token() { *dropped += ran ? 0 : 1; }
    };
    auto token = std::make_shared<Token>(&dropped);
    return [token, &ran] {
        token->ran = true;
        ran.fetch_add(1);
    };
}

// Posts a job that blocks its thread until `gate` opens, and returns once it started.
void Occupy(Executor& ex, OpenOnceGate& gate, std::atomic<int>& finished) {
    mctest::Latch started(1);
    ASSERT_TRUE(ex.Post([&] {
        started.count_down();
        gate.Pass();
        finished.fetch_add(1);
    }));
    started.wait();
}

// Kinds: the pool's Stop, a sub-executor's Stop, the stopping parent, and the pool's destructor.
TEST(Executor, StopDropsTheQueueWaitsForRunningJobsAndRefusesPosts) {
    for (int kind = 0; kind < 4; ++kind) {
        SCOPED_TRACE(kind);
        std::shared_ptr<Executor> pool = CreateIOBoundExecutor(kind == 1 ? 4 : 1);
        std::shared_ptr<Executor> target =
            kind == 1 || kind == 2 ? std::shared_ptr<Executor>(CreateSubExecutor(pool, kind))
                                   : pool;
        OpenOnceGate gate;
        std::atomic<int> finished{0}, ran{0}, dropped{0}, finishedAtStop{-1};
        Occupy(kind == 1 ? *target : *pool, gate, finished);
        for (int i = 0; i < 30; ++i) ASSERT_TRUE(target->Post(CountingJob(ran, dropped)));
        EXPECT_EQ(target->QueuedCount(), 30u);
        std::thread stopper([&, t = kind == 3 ? std::move(target) : target]() mutable {
            if (kind == 3) {
                pool.reset();
                t.reset();  // the last reference: destruction stops the pool
            } else {
                (kind == 2 ? pool : t)->Stop();
            }
            finishedAtStop = finished.load();
        });
        ASSERT_TRUE(Eventually([&] { return dropped.load() == 30; }));  // before the wait
        if (kind != 3) {
            EXPECT_TRUE(target->IsStopped());
            EXPECT_FALSE(target->Post([&ran] { ran.fetch_add(1); }));
        }
        gate.Open();
        stopper.join();
        EXPECT_EQ(finishedAtStop.load(), 1);
        EXPECT_EQ(ran.load(), 0);
        if (kind == 1) {  // the parent keeps running
            mctest::Latch parentRan(1);
            ASSERT_TRUE(pool->Post([&] { parentRan.count_down(); }));
            parentRan.wait();
        }
    }
}

TEST(Executor, ConcurrentStopsAllWaitAndAJobDroppedByStopCannotPost) {
    auto pool = CreateIOBoundExecutor(2);
    Executor* raw = pool.get();
    mctest::Latch tried(1);
    pool->Post([&] {
        EXPECT_THROW(raw->Stop(), std::logic_error);  // from its own job
        tried.count_down();
    });
    ASSERT_TRUE(tried.wait());
    OpenOnceGate gate;
    std::atomic<int> finished{0}, repost{0}, returnedEarly{0};  // repost 1: accepted, 2: refused
    Occupy(*pool, gate, finished);
    Occupy(*pool, gate, finished);
    struct PostOnDrop {
        Executor* ex;
        std::atomic<int>* result;
        ~PostOnDrop() {
            *result = ex->Post([] {}) ? 1 : 2;
        }
    };
    pool->Post([holder = std::make_shared<PostOnDrop>(raw, &repost)] {});
    std::thread stoppers(mctest::RunThreads, 3, [&](int) {
        pool->Stop();
        returnedEarly += finished.load() < 2 ? 1 : 0;
    });
    ASSERT_TRUE(Eventually([&] { return repost.load() != 0; }));
    gate.Open();
    stoppers.join();
    EXPECT_EQ(repost.load(), 2);
    EXPECT_EQ(returnedEarly.load(), 0);
}

// Four jobs run at once, their errors are swallowed, and the last references to a pool and a
// sub-executor may be dropped inside their own jobs.
TEST(Executor, PoolRunsFourJobsAtOnceSwallowsErrorsAndMayDieInItsOwnJob) {
    std::atomic<int> ran{0};
    mctest::Latch after(1);
    {
        auto pool = CreateIOBoundExecutor();
        auto together = std::make_shared<mctest::Latch>(4);  // the jobs may outlive this scope
        for (int i = 0; i < 4; ++i) {
            pool->Post([together] {
                together->arrive_and_wait();  // hangs unless four run at once
                throw std::runtime_error("job failure");
            });
        }
        pool->Post([&] { after.count_down(); });  // the failures left the threads alive
        ASSERT_TRUE(after.wait());
        auto sub = CreateSubExecutor(pool, 1);
        sub->Post([s = sub, &ran] { ran.fetch_add(1); });
        pool->Post([p = pool, &ran] { ran.fetch_add(1); });
    }
    EXPECT_TRUE(Eventually([&] { return ran.load() == 2; }));
}

// Nested caps, FIFO for a serial one, and a sub-executor stopped from a job of its parent.
TEST(Executor, SubExecutorsNeverExceedTheirCapAndKeepOrder) {
    auto pool = CreateIOBoundExecutor(8);
    auto outer = CreateSubExecutor(pool, 3);
    auto inner = CreateSubExecutor(outer, 2);
    auto serial = CreateSubExecutor(pool, 1);
    std::atomic<int> active{0}, peak{0}, done{0};
    std::vector<int> order;  // touched by one serial job at a time
    for (int i = 0; i < 300; ++i) {
        inner->Post([&] {
            const int now = active.fetch_add(1) + 1;
            for (int seen = peak.load(); now > seen;) peak.compare_exchange_weak(seen, now);
            std::this_thread::yield();
            active.fetch_sub(1);
            done.fetch_add(1);
        });
        serial->Post([&order, i] { order.push_back(i); });
    }
    mctest::Latch serialDone(1);
    serial->Post([&] { serialDone.count_down(); });  // FIFO: runs after the 300
    serialDone.wait();
    ASSERT_TRUE(Eventually([&] { return done.load() == 300; }));
    EXPECT_LE(peak.load(), 2);
    ASSERT_EQ(order.size(), 300u);
    for (int i = 0; i < 300; ++i) ASSERT_EQ(order[i], i);
    mctest::Latch stopped(1);
    outer->Post([&] {
        inner->Stop();
        stopped.count_down();
    });
    stopped.wait();
    EXPECT_TRUE(inner->IsStopped() && !outer->IsStopped());
}

}  // namespace
}  // namespace velacore
