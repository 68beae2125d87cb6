// Helpers for the media map tests: a real StandaloneMediaManager that records what it forgets, and
// a fixture that starts the module with the mirror on over that manager. Thread-safety: the
// recorder may be called from any thread; the fixture belongs to the test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "mc/MC_Stuff.h"
#include "mc/MCp_ScLock.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "mediamap/MC_MediaMapImpl.h"
#include "mediamap/MediaMapHooks.h"
#include "support/ModuleFixture.h"
#include "support/TestPayload.h"

namespace mediamap_test {

using namespace std::chrono_literals;

// Records the sequences it is told to forget.
class RecordingMediaManager : public NX::StandaloneMediaManager {
public:
    explicit RecordingMediaManager(uint64_t budget = uint64_t{1} << 40)
        : StandaloneMediaManager(budget) {}
    void ForgetEntry(uint64_t sequence) override {
        {
            std::lock_guard lock(mutex_);
            forgotten_.push_back(sequence);
        }
        StandaloneMediaManager::ForgetEntry(sequence);
    }
    std::vector<uint64_t> Forgotten() const {
        std::lock_guard lock(mutex_);
        return forgotten_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<uint64_t> forgotten_;
};

// The module started interactively (mirror on) over a recording manager.
class MirrorTest : public mctest::ModuleTest {
protected:
    void ConfigureHost(mctest::RecordingHostServices& h) override {
        h.SetMediaManager(recorder_.get());
    }
    bool Interactive() const override { return true; }
    void TearDown() override {
        ModuleTest::TearDown();
        services_->SetMediaManager(nullptr);
    }
    std::shared_ptr<zk::MC_MediaMapImpl> Map() { return MCp_MediaMap(); }
    // Registers under the cache lock, as the bag does.
    bool Register(const IntrusivePtr<MC_Stuff>& stuff) {
        MCp_ScLock lock;
        return Map()->Register(stuff);
    }
    IntrusivePtr<MC_Stuff> AddItem(uint32_t key, uint32_t size) {
        IntrusivePtr<MC_Stuff> stuff = mctest::MakeItem(key, size);
        stuff->AddToBagAndSortDir(bag_);
        return stuff;
    }
    std::unique_ptr<RecordingMediaManager> recorder_ = std::make_unique<RecordingMediaManager>();
};

}  // namespace mediamap_test
