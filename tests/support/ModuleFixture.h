// ModuleTest: a fixture that installs recording host services and starts the module around each
// test (MC_Birth in SetUp; MC_StopAllAsyncWork and MC_Death in TearDown).
// Thread-safety: the fixture belongs to the test's main thread.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "lifecycle/Counters.h"
#include "lifecycle/Settings.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Module.h"
#include "support/RecordingHostServices.h"

namespace mctest {

class ModuleTest : public ::testing::Test {
protected:
    static constexpr unsigned kAppVersion = 0x1A;

    void SetUp() override {
        services_ = std::make_shared<RecordingHostServices>();
        ConfigureHost(*services_);
        scoped_ = std::make_unique<ScopedHostServices>(services_);
        mc_settings::ResetForTesting();
        MC_Birth(Interactive(), kAppVersion, false);
        bag_ = MC_GlobalBag();
    }
    void TearDown() override {
        bag_.reset();
        MC_StopAllAsyncWork();
        MC_Death();
        scoped_.reset();
    }
    // Hooks for fixtures that need a different host or birth.
    virtual void ConfigureHost(RecordingHostServices&) {}
    virtual bool Interactive() const { return false; }

    RecordingHostServices& host() { return *services_; }
    MCp_Counters& counters() { return MCp_GetCounters(); }

    std::shared_ptr<RecordingHostServices> services_;
    std::unique_ptr<ScopedHostServices> scoped_;
    std::shared_ptr<MC_Bag> bag_;
};

}  // namespace mctest
