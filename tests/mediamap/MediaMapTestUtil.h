// Helpers for the media map tests: a media manager that records registrations and forgets before
// handing them to a real StandaloneMediaManager, and a fixture that starts the module with the
// mirror on over that manager.
// Thread-safety: the recorder may be called from any thread; the fixture belongs to the test.
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

class RecordingMediaManager : public NX::StandaloneMediaManager {
public:
    struct Registration {
        NX::IPurgeableSupport* owner = nullptr;
        uint64_t sequence = 0;
        uint64_t bytes = 0;
        int kind = 0;
        int flags = 0;
    };
    explicit RecordingMediaManager(uint64_t budget = uint64_t{1} << 40)
        : StandaloneMediaManager(budget) {}
    int RegisterEntry(NX::IPurgeableSupport* owner, const velacore::Guid& client, uint64_t sequence,
                      uint64_t bytes, int kind, int flags, uint64_t* out) override {
        {
            std::lock_guard lock(mutex_);
            registrations_.push_back({owner, sequence, bytes, kind, flags});
        }
        return StandaloneMediaManager::RegisterEntry(owner, client, sequence, bytes, kind, flags,
                                                     out);
    }
    void ForgetEntry(uint64_t sequence) override {
        {
            std::lock_guard lock(mutex_);
            forgotten_.push_back(sequence);
        }
        StandaloneMediaManager::ForgetEntry(sequence);
    }
    std::vector<Registration> Registrations() const {
        std::lock_guard lock(mutex_);
        return registrations_;
    }
    std::vector<uint64_t> Forgotten() const {
        std::lock_guard lock(mutex_);
        return forgotten_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Registration> registrations_;
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
