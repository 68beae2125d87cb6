// Reports (verifications, error strings, errors, translated exceptions), quiet mode, the thread
// questions, the default services, and the test doubles (recording services, manual executor).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "host/HostOps.h"
#include "mc/host/Errors.h"
#include "mc/standalone/StandaloneHost.h"
#include "mc/standalone/StandaloneHostFactory.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "support/ManualExecutor.h"
#include "support/RecordingHostServices.h"
#include "test_services_util.h"

using mctest::ManualExecutor;
using mctest::RecordingHostServices;
using mctest::ScopedHostServices;
using velacore::StandaloneHostServices;
using namespace services_test;

namespace {

template <typename E>
std::exception_ptr Captured(E error) {
    try {
        throw error;
    } catch (...) {
        return std::current_exception();
    }
}

}  // namespace

TEST(ServicesReports, ExceptionsTranslateToHostCodes) {
    auto s = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(s);
    EXPECT_EQ(U_TranslateAndReportException(Captured(-43)), -43);
    EXPECT_EQ(U_TranslateAndReportException(Captured(velacore::IOError("disk", 28))),
              velacore::kIOErrorCode);
    EXPECT_EQ(U_TranslateAndReportException(Captured(std::bad_alloc())),
              velacore::kStandaloneOutOfMemoryError);
    EXPECT_EQ(U_TranslateAndReportException(Captured(std::runtime_error("x"))),
              velacore::kStandaloneGenericError);
    EXPECT_EQ(U_TranslateAndReportException(Captured('c')), velacore::kStandaloneGenericError);
    EXPECT_EQ(U_TranslateAndReportException(nullptr), 0);
    try {
        config::DoThrowNullPtrException("MC_Stuff");
        FAIL() << "no exception";
    } catch (const velacore::NullPointerError& e) {
        EXPECT_NE(std::string(e.what()).find("MC_Stuff"), std::string::npos);
        EXPECT_EQ(U_TranslateAndReportException(std::current_exception()),
                  velacore::kNullPointerCode);
    }
    EXPECT_EQ(s->GetCounters().translatedExceptions, 6u);
}

TEST(ServicesReports, StandaloneCountsEveryReport) {
    auto s = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(s);
    U_ReportFailedVerification("x != y");
    Up_ReportErrString(0x3A0000, 2, u"cannot write");
    U_ReportError(u"failed", 1);
    U_ReportError(u"failed again", 1);
    ALOG_Log(1, "MC", "event", "text");  // logging is off: nothing to count, nothing to crash
    const auto c = s->GetCounters();
    EXPECT_EQ(c.failedVerifications, 1u);
    EXPECT_EQ(c.errorStrings, 1u);
    EXPECT_EQ(c.errors, 2u);
}

TEST(ServicesReports, QuietModeNestsPerThread) {
    auto s = std::make_shared<StandaloneHostServices>();
    EXPECT_FALSE(s->AreErrorsQuietOnCurrentThread());
    EXPECT_EQ(s->StartQuietErrorsOnCurrentThread(1), 0);
    EXPECT_EQ(s->StartQuietErrorsOnCurrentThread(1), 0);
    s->EndQuietErrorsOnCurrentThread();
    EXPECT_TRUE(s->AreErrorsQuietOnCurrentThread());
    bool otherQuiet = true;
    std::thread([&] { otherQuiet = s->AreErrorsQuietOnCurrentThread(); }).join();
    EXPECT_FALSE(otherQuiet);
    s->EndQuietErrorsOnCurrentThread();
    EXPECT_FALSE(s->AreErrorsQuietOnCurrentThread());
    s->EndQuietErrorsOnCurrentThread();  // unbalanced end: stays at zero
    s->StartQuietErrorsOnCurrentThread(1);
    EXPECT_TRUE(s->AreErrorsQuietOnCurrentThread());
    s->EndQuietErrorsOnCurrentThread();
    EXPECT_FALSE(s->AreErrorsQuietOnCurrentThread());
}

TEST(ServicesReports, RecordingServicesCaptureReportsWithQuietness) {
    auto rec = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(rec);
    U_ReportFailedVerification("broken invariant");
    Up_ReportErrString(0x3A0000, 3, u"text");
    EXPECT_EQ(U_StartQuietErrorsOnCurrentThread(0), 0);
    U_ReportError(u"quiet one", 4);
    EXPECT_EQ(U_TranslateAndReportException(Captured(velacore::FormatError("bad"))),
              velacore::kFormatErrorCode);
    U_EndQuietErrorsOnCurrentThread();
    U_ReportError(u"loud one", 5);
    ALOG_Log(2, "Cat", "Ev", "Line");

    ASSERT_EQ(rec->FailedVerifications().size(), 1u);
    EXPECT_EQ(rec->FailedVerifications()[0], "broken invariant");
    ASSERT_EQ(rec->ErrStrings().size(), 1u);
    EXPECT_EQ(rec->ErrStrings()[0].base, 0x3A0000u);
    EXPECT_EQ(rec->ErrStrings()[0].severity, 3);
    EXPECT_FALSE(rec->ErrStrings()[0].quiet);
    const auto errors = rec->Errors();
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].text, u"quiet one");
    EXPECT_TRUE(errors[0].quiet);
    EXPECT_EQ(errors[1].category, 5);
    EXPECT_FALSE(errors[1].quiet);
    const auto exceptions = rec->TranslatedExceptions();
    ASSERT_EQ(exceptions.size(), 1u);
    EXPECT_EQ(exceptions[0].what, "bad");
    EXPECT_TRUE(exceptions[0].quiet);
    const auto logs = rec->LogLines();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].level, 2);
    EXPECT_EQ(logs[0].event, "Ev");
    rec->ClearRecords();
    EXPECT_TRUE(rec->Errors().empty());
    EXPECT_TRUE(rec->LogLines().empty());
}

TEST(ServicesThreads, MainThreadIsTheConstructorsUntilSet) {
    auto s = std::make_shared<StandaloneHostServices>();
    ScopedHostServices scope(s);
    EXPECT_TRUE(U_IsOnMainThread());
    bool workerMain = true;
    std::thread([&] { workerMain = U_IsOnMainThread(); }).join();
    EXPECT_FALSE(workerMain);
    std::thread([&] {
        s->SetMainThread();
        workerMain = U_IsOnMainThread();
    }).join();
    EXPECT_TRUE(workerMain);
    EXPECT_FALSE(U_IsOnMainThread());
    EXPECT_FALSE(ScNotifyHoldingMutexLock::IsHoldingLock());
    EXPECT_TRUE(IsApplicationFrontmost());
    s->SetApplicationFrontmost(false);
    EXPECT_FALSE(IsApplicationFrontmost());
    int ran = 0;
    config::ExecuteTopLevelFunction([&] { ++ran; });
    EXPECT_EQ(ran, 1);
}

TEST(ServicesThreads, RecordingSwitches) {
    auto rec = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(rec);
    EXPECT_TRUE(U_IsOnMainThread());
    rec->SetHoldingNotifyLock(true);
    EXPECT_TRUE(ScNotifyHoldingMutexLock::IsHoldingLock());
    bool other = true;
    std::thread([&] { other = ScNotifyHoldingMutexLock::IsHoldingLock(); }).join();
    EXPECT_FALSE(other);  // per thread
    rec->SetHoldingNotifyLock(false);
    EXPECT_FALSE(ScNotifyHoldingMutexLock::IsHoldingLock());
    rec->SetEveryThreadMain(true);
    std::thread([&] { other = U_IsOnMainThread(); }).join();
    EXPECT_TRUE(other);
    rec->SetEveryThreadMain(false);
    EXPECT_FALSE(U_IsOnMainThread());
    rec->SetEveryThreadMain(std::nullopt);
    EXPECT_TRUE(U_IsOnMainThread());
    config::ExecuteTopLevelFunction([] {});
    EXPECT_EQ(rec->TopLevelFunctionCount(), 1u);
}

TEST(ServicesIdentity, RecordingIdentityAndMediaManager) {
    auto rec = std::make_shared<RecordingHostServices>();
    ScopedHostServices scope(rec);
    rec->SetComputerName("bench-7");
    rec->SetClientVersion("26.2");
    rec->SetBetaPrime(true);
    char name[16];
    EXPECT_EQ(U_GetComputerName(name, sizeof(name)), 0);
    EXPECT_STREQ(name, "bench-7");
    EXPECT_EQ(GetClientInternalVersion(), "26.2");
    EXPECT_TRUE(IsBetaPrime());
    rec->SetMediaBudget(12345);
    EXPECT_EQ(NX::MM::GetFixedMaxCacheSize(), 12345u);
    NX::StandaloneMediaManager other(777);
    rec->SetMediaManager(&other);
    EXPECT_EQ(NX::GetMediaManager(), &other);
    EXPECT_EQ(NX::MM::GetFixedMaxCacheSize(), 777u);
    rec->SetMediaManager(nullptr);
    EXPECT_EQ(NX::GetMediaManager(), &rec->OwnMediaManager());
    rec->SetDebugEntry("Flag", "on");
    EXPECT_EQ(velacore::DebugDatabase::GetEntry("Flag"), "on");
    rec->SetDebugEntry("Flag", std::nullopt);
    EXPECT_FALSE(velacore::DebugDatabase::GetEntry("Flag").has_value());
}

TEST(ServicesDefault, NullRestoresTheStandaloneDefault) {
    auto rec = std::make_shared<RecordingHostServices>();
    std::weak_ptr<RecordingHostServices> weak = rec;
    velacore::SetHostServices(rec);
    EXPECT_EQ(&velacore::GetHostServices(), rec.get());
    EXPECT_EQ(velacore::GetHostServicesShared(), rec);
    rec.reset();
    EXPECT_FALSE(weak.expired());  // kept alive while installed
    velacore::SetHostServices(nullptr);
    EXPECT_TRUE(weak.expired());
    auto* standalone = dynamic_cast<StandaloneHostServices*>(&velacore::GetHostServices());
    ASSERT_NE(standalone, nullptr);
    EXPECT_EQ(velacore::GetHostServicesShared().get(), standalone);
    EXPECT_EQ(&velacore::GetHostServices(), standalone);  // created once
    char name[256];
    EXPECT_EQ(U_GetComputerName(name, sizeof(name)), 0);
}

// Each case runs in a fresh copy of the program: the default is created once per process.
TEST(ServicesDefault, WithoutAFactoryTheFirstHostCallStopsNamingBothRemedies) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            velacore::SetDefaultHostServicesFactory(nullptr);
            U_AmountToPurge();
        },
        "no host services.*SetHostServices.*InstallStandaloneHost");
    EXPECT_EXIT(
        {
            velacore::SetDefaultHostServicesFactory(nullptr);
            velacore::InstallStandaloneHost();
            std::exit(dynamic_cast<StandaloneHostServices*>(&velacore::GetHostServices()) ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(ServicesExecutor, RunsOnlyWhenAsked) {
    ManualExecutor ex;
    std::vector<int> order;
    EXPECT_TRUE(ex.Post([&] { order.push_back(1); }));
    EXPECT_TRUE(ex.Post([&] {
        order.push_back(2);
        ex.Post([&] { order.push_back(4); });  // posted from a job: runs in the same RunAll
    }));
    EXPECT_TRUE(ex.Post([&] { order.push_back(3); }));
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(ex.QueuedCount(), 3u);
    EXPECT_TRUE(ex.RunOne());
    EXPECT_EQ(order, (std::vector<int>{1}));
    EXPECT_EQ(ex.RunAll(), 3u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_FALSE(ex.RunOne());
    EXPECT_TRUE(ex.Post([] { throw std::runtime_error("job failed"); }));
    EXPECT_EQ(ex.RunAll(), 1u);
    EXPECT_EQ(ex.FailedCount(), 1u);
    EXPECT_EQ(ex.PostedCount(), 5u);
}

TEST(ServicesExecutor, StopDiscardsQueuedAndWaitsForRunning) {
    auto ex = std::make_shared<ManualExecutor>();
    auto kept = std::make_shared<int>(0);
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    std::atomic<bool> discardedRan{false};
    ex->Post([&] {
        entered = true;
        while (!release) std::this_thread::yield();
        finished = true;
    });
    ex->Post([&, kept] { discardedRan = true; });
    std::thread runner([&] { ex->RunOne(); });
    ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
    std::atomic<bool> stopReturned{false};
    std::thread stopper([&] {
        ex->Stop();
        stopReturned = true;
        EXPECT_TRUE(finished.load());  // the running job ended before Stop returned
    });
    ASSERT_TRUE(WaitUntil([&] { return ex->IsStopped(); }));
    EXPECT_FALSE(stopReturned.load());
    release = true;
    stopper.join();
    runner.join();
    EXPECT_EQ(kept.use_count(), 1);  // the discarded job is gone
    EXPECT_FALSE(ex->Post([] {}));
    EXPECT_FALSE(ex->RunOne());
    EXPECT_FALSE(discardedRan.load());
    EXPECT_EQ(ex->QueuedCount(), 0u);
}
