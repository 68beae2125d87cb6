// Helpers for the media map tests: a media manager that records every call before handing it to
// a real StandaloneMediaManager, a fixture that starts the module with the mirror on over that
// manager, and a payload that is in memory with a size of 0.
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

class RecordingMediaManager : public NX::IMediaManager {
  public:
    struct Registration {
        NX::IPurgeableSupport* owner = nullptr;
        velacore::Guid client;
        uint64_t sequence = 0;
        uint64_t bytes = 0;
        int kind = 0;
        int flags = 0;
    };

    explicit RecordingMediaManager(uint64_t budget = uint64_t{1} << 40) : inner_(budget) {}

    uint64_t GetFixedMaxCacheSize() const override { return inner_.GetFixedMaxCacheSize(); }
    void SetClientCacheLimit(const velacore::Guid& client, uint64_t bytes) override {
        Count();
        inner_.SetClientCacheLimit(client, bytes);
    }
    int RegisterEntry(NX::IPurgeableSupport* owner, const velacore::Guid& client, uint64_t sequence,
                      uint64_t bytes, int kind, int flags, uint64_t* out) override {
        {
            std::lock_guard lock(mutex_);
            ++calls_;
            registrations_.push_back({owner, client, sequence, bytes, kind, flags});
        }
        return inner_.RegisterEntry(owner, client, sequence, bytes, kind, flags, out);
    }
    void TouchEntry(uint64_t sequence, const velacore::Guid& client) override {
        {
            std::lock_guard lock(mutex_);
            ++calls_;
            touched_.push_back(sequence);
        }
        inner_.TouchEntry(sequence, client);
    }
    void ForgetEntry(uint64_t sequence) override {
        {
            std::lock_guard lock(mutex_);
            ++calls_;
            forgotten_.push_back(sequence);
        }
        inner_.ForgetEntry(sequence);
    }
    uint64_t GetRegisteredBytes() const override { return inner_.GetRegisteredBytes(); }
    void DetachOwner(NX::IPurgeableSupport* owner) override {
        Count();
        inner_.DetachOwner(owner);
    }

    // Calls other than GetFixedMaxCacheSize and GetRegisteredBytes.
    int Calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::vector<Registration> Registrations() const {
        std::lock_guard lock(mutex_);
        return registrations_;
    }
    std::vector<uint64_t> Touched() const {
        std::lock_guard lock(mutex_);
        return touched_;
    }
    std::vector<uint64_t> Forgotten() const {
        std::lock_guard lock(mutex_);
        return forgotten_;
    }
    NX::StandaloneMediaManager& Inner() { return inner_; }

  private:
    void Count() {
        std::lock_guard lock(mutex_);
        ++calls_;
    }

    mutable std::mutex mutex_;
    int calls_ = 0;
    std::vector<Registration> registrations_;
    std::vector<uint64_t> touched_;
    std::vector<uint64_t> forgotten_;
    NX::StandaloneMediaManager inner_;
};

// The module started interactively (mirror on) over a recording manager with a large budget.
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
    mctest::TestPayload& PayloadOf(const IntrusivePtr<MC_Stuff>& stuff) {
        return static_cast<mctest::TestPayload&>(*stuff->GetDataPtr());
    }

    std::unique_ptr<RecordingMediaManager> recorder_ = std::make_unique<RecordingMediaManager>();
};

// In memory, but of size 0.
class EmptyPayload : public MC_StuffData {
  public:
    uint32_t GetApproximateMemorySize() const override { return 0; }
    bool PurgeIfPossible(MC_ReleaseList*) override { return false; }
    bool IsInMemory() const override { return true; }
};

}  // namespace mediamap_test
