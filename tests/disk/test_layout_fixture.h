// DiskModuleTest: the module started around each test with recording host services that can
// also fail the computer-name query and note whether the cache lock was held during it, plus a
// temporary root folder for the disk cache. The one-time rescan is marked as done so that no
// background scan runs unless a test asks for it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

#include "disk/DiskFolder.h"
#include "lifecycle/Module.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "mc/MCp_ScLock.h"
#include "support/RecordingHostServices.h"
#include "support/TempDir.h"
#include "support/TestPayload.h"

namespace disktest {

class DiskHostServices : public mctest::RecordingHostServices {
public:
    int GetComputerName(char* buf, size_t size) override {
        nameAskedUnderCacheLock.store(MCp_ScLock::IsHeldByCurrentThread());
        if (int rc = computerNameError.load()) return rc;
        return RecordingHostServices::GetComputerName(buf, size);
    }
    std::atomic<int> computerNameError{0};
    std::atomic<bool> nameAskedUnderCacheLock{false};
};

class DiskModuleTest : public ::testing::Test {
protected:
    static constexpr unsigned kAppVersion = 0x1A;

    void SetUp() override {
        services_ = std::make_shared<DiskHostServices>();
        services_->SetClientVersion("26.1");
        services_->SetComputerName("bench-host");
        scoped_ = std::make_unique<mctest::ScopedHostServices>(services_);
        mc_settings::ResetForTesting();
        MCp_SetInitialDiskRescanPostedForTesting(true);
        MC_Birth(false, kAppVersion, false);
        bag_ = MC_GlobalBag();
        mctest::TestPayload::RegisterFactory();
    }
    void TearDown() override {
        bag_.reset();
        MC_StopAllAsyncWork();
        MC_Death();
        scoped_.reset();
    }

    // Waits until every job posted to the module's asynchronous executor so far has run.
    // Returns false when the executor is stopped or the generous deadline passed.
    static bool DrainAsyncExecutor() {
        auto executor = MCp_AsyncExecutor();
        if (!executor) return false;
        auto done = std::make_shared<std::promise<void>>();
        std::future<void> ran = done->get_future();
        if (!executor->Post([done] { done->set_value(); })) return false;
        return ran.wait_for(std::chrono::minutes(2)) == std::future_status::ready;
    }

    DiskHostServices& host() { return *services_; }

    std::shared_ptr<DiskHostServices> services_;
    std::unique_ptr<mctest::ScopedHostServices> scoped_;
    std::shared_ptr<MC_Bag> bag_;
    mctest::TempDir root_{"mc-diskA"};
};

}  // namespace disktest
