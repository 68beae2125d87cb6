// HostServices: everything that is the embedding application's policy, behind one replaceable
// object (memory limits, reports, log and traces, debug entries, preferences, beta features,
// identity of the machine and the application, suites, media manager, localisation, labelled
// allocation). HostServicesWrapper forwards every call to another object so that a host or a
// test overrides only what it needs. Install one with SetHostServices before MC_Birth, or link
// the standalone services (mc/standalone/StandaloneHostFactory.h), which register themselves as
// the default.
// Thread-safety: every method may be called from any thread at any time, unless it says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mc/host/Export.h"

namespace NX {
class IMediaManager;
}

namespace velacore {

// The optional remote tier behind the disk cache: machines share rendered items through one or
// more Redis servers. Off while `urls` is empty.
struct RemoteTierSettings {
    // "redis://[user:password@]host:port[/db]"; several are shards (items placed by GUID).
    std::vector<std::string> urls;
    int connectTimeoutMs = 500;
    int operationTimeoutMs = 2000;
    uint64_t maxItemBytes = 64ull << 20;  // larger items are not shared
    bool readOnly = false;                // fetch only, never publish
    int backoffMs = 5000;                 // how long a failing server is left alone
    uint32_t publishQueueLength = 64;     // items waiting to be published; more are dropped
};

class MCHOST_API HostServices {
public:
    virtual ~HostServices() = default;

    // --- memory -------------------------------------------------------------------------
    // The memory budget (*limit) and physical memory (*physical), in bytes. Returns 0 or an
    // error code.
    virtual int GetMemUsageLimits(uint64_t* limit, uint64_t* physical) = 0;
    // Bytes the host wants purged now (0 when there is no pressure).
    virtual uint64_t AmountToPurge() = 0;
    // Bytes that may still be allocated before the host starts purging.
    virtual uint64_t AmountAvailableBeforePurge() = 0;
    // Asks the allocator to return recycled blocks to the system.
    virtual void PurgeRecycledMemory() = 0;
    // The cache tells the host how to read its in-memory total and how to make it purge.
    // Either may be empty (to disconnect). The purge hook is never called under a cache lock.
    virtual void SetMemoryClient(std::function<int64_t()> usage, std::function<void()> purge) = 0;
    // How the cache wakes the memory monitor the moment its in-memory total rises above
    // `threshold` bytes instead of at the next timed sample. `wake` only notifies the monitor's
    // thread (it never purges or calls back), so it may run under the cache's locks. An empty
    // `wake`: the host samples on its timer only.
    struct MemoryWake {
        uint64_t threshold = 0;
        std::function<void()> wake;
    };
    virtual MemoryWake GetMemoryWake() { return {}; }

    // --- reports ------------------------------------------------------------------------
    // A broken invariant, with its literal message.
    virtual void ReportFailedVerification(std::string_view message) = 0;
    // A user-visible error string (base is the module's error base, e.g. 0x3A0000).
    virtual void ReportErrString(uint32_t base, int severity, std::u16string_view text) = 0;
    virtual void ReportError(std::u16string_view text, int category) = 0;
    // Turns an exception into the host's integer code and reports it; returns the code.
    virtual int TranslateAndReportException(std::exception_ptr error) = 0;
    // Quiet-errors mode for the calling thread (nests). Start returns 0 or an error code.
    virtual int StartQuietErrorsOnCurrentThread(int level) = 0;
    virtual void EndQuietErrorsOnCurrentThread() = 0;
    virtual bool AreErrorsQuietOnCurrentThread() = 0;

    // --- threads ------------------------------------------------------------------------
    virtual bool IsOnMainThread() = 0;
    // Whether the calling thread holds the host's notification lock.
    virtual bool IsHoldingNotifyLock() = 0;
    virtual bool IsApplicationFrontmost() = 0;
    // Runs a function at the top level of the host's task machinery (may run it at once). Each
    // function handed over must run exactly once, also when the host shuts down: a recency task
    // keeps its item (and the item's payload) in memory until it has run.
    virtual void ExecuteTopLevelFunction(const std::function<void()>& fn) = 0;

    // --- log, traces and profiling ------------------------------------------------------
    virtual void Log(int level, std::string_view category, std::string_view event,
                     std::string_view text) = 0;
    virtual bool IsTraceEnabled(std::string_view channel, int level) = 0;
    // Writes one trace line. Implementations that change which channels are enabled call
    // debug::NoteTraceSettingsChanged() so that cached call sites re-query.
    virtual void Trace(std::string_view channel, int level, std::string_view text) = 0;
    // Conditional profiling and its volume; when off, a profiled scope costs one flag test.
    virtual bool IsConditionalProfiling() = 0;
    virtual int ProfilingVolume() = 0;
    virtual void RecordProfile(std::string_view label, int64_t nanos) = 0;

    // --- configuration ------------------------------------------------------------------
    // A debug database entry as text, or nothing when absent.
    virtual std::optional<std::string> GetDebugEntry(std::string_view name) = 0;
    // Preferences: the value stored under section/key as text, or nothing when absent.
    virtual std::optional<std::string> GetPreference(std::string_view section,
                                                     std::string_view key) = 0;
    virtual void RegisterBetaFeature(std::string_view name, int stage, std::string_view title,
                                     std::string_view description, int a, int b, int c) = 0;
    virtual bool IsFeatureEnabled(std::string_view name) = 0;

    // --- identity -----------------------------------------------------------------------
    // Writes the NUL-terminated computer name into buf (size bytes). Returns 0 or an error.
    virtual int GetComputerName(char* buf, size_t size) = 0;
    // The application's internal version text (e.g. "26.1") and whether this is a beta build.
    virtual std::string GetClientInternalVersion() = 0;
    virtual bool IsBetaPrime() = 0;

    // --- suites -------------------------------------------------------------------------
    // Publishes a function table under (name, major, minor). Returns 0 or an error code.
    virtual int AddSuite(std::string_view name, int32_t major, int32_t minor, int32_t count,
                         const void* table) = 0;
    // Finds a published table; *table is set to null when absent. Returns 0 or an error code.
    virtual int AcquireSuite(std::string_view name, int32_t major, int32_t minor,
                             const void** table) = 0;

    // --- media manager, localisation, allocation ----------------------------------------
    virtual NX::IMediaManager* GetMediaManager() = 0;
    // Looks up a localised text given as "key=default{{*COMMENT*}}note"; without a
    // translation this is the default text with the host's markup resolved.
    virtual std::u16string Localize(std::string_view keyAndDefault) = 0;
    // Allocates size cleared bytes under a label, tracked per label. Null on failure.
    virtual void* AllocatePtrClear(size_t size, std::string_view label) = 0;
    // Bytes currently allocated under a label.
    virtual uint64_t AllocatedBytes(std::string_view label) = 0;

    // --- remote tier --------------------------------------------------------------------
    // Read when the tier first starts after MC_Birth. Default: off.
    virtual RemoteTierSettings GetRemoteTierSettings() { return {}; }
};

// Forwards every call to a target; derive from it and override what you need.
class MCHOST_API HostServicesWrapper : public HostServices {
public:
    explicit HostServicesWrapper(std::shared_ptr<HostServices> target)
        : target_(std::move(target)) {}
    HostServices* Target() const { return target_.get(); }

    int GetMemUsageLimits(uint64_t* l, uint64_t* p) override {
        return target_->GetMemUsageLimits(l, p);
    }
    uint64_t AmountToPurge() override { return target_->AmountToPurge(); }
    uint64_t AmountAvailableBeforePurge() override { return target_->AmountAvailableBeforePurge(); }
    void PurgeRecycledMemory() override { target_->PurgeRecycledMemory(); }
    void SetMemoryClient(std::function<int64_t()> u, std::function<void()> p) override {
        target_->SetMemoryClient(std::move(u), std::move(p));
    }
    MemoryWake GetMemoryWake() override { return target_->GetMemoryWake(); }
    void ReportFailedVerification(std::string_view m) override {
        target_->ReportFailedVerification(m);
    }
    void ReportErrString(uint32_t b, int s, std::u16string_view t) override {
        target_->ReportErrString(b, s, t);
    }
    void ReportError(std::u16string_view t, int c) override { target_->ReportError(t, c); }
    int TranslateAndReportException(std::exception_ptr e) override {
        return target_->TranslateAndReportException(std::move(e));
    }
    int StartQuietErrorsOnCurrentThread(int l) override {
        return target_->StartQuietErrorsOnCurrentThread(l);
    }
    void EndQuietErrorsOnCurrentThread() override { target_->EndQuietErrorsOnCurrentThread(); }
    bool AreErrorsQuietOnCurrentThread() override {
        return target_->AreErrorsQuietOnCurrentThread();
    }
    bool IsOnMainThread() override { return target_->IsOnMainThread(); }
    bool IsHoldingNotifyLock() override { return target_->IsHoldingNotifyLock(); }
    bool IsApplicationFrontmost() override { return target_->IsApplicationFrontmost(); }
    void ExecuteTopLevelFunction(const std::function<void()>& f) override {
        target_->ExecuteTopLevelFunction(f);
    }
    void Log(int l, std::string_view c, std::string_view e, std::string_view t) override {
        target_->Log(l, c, e, t);
    }
    bool IsTraceEnabled(std::string_view c, int l) override {
        return target_->IsTraceEnabled(c, l);
    }
    void Trace(std::string_view c, int l, std::string_view t) override { target_->Trace(c, l, t); }
    bool IsConditionalProfiling() override { return target_->IsConditionalProfiling(); }
    int ProfilingVolume() override { return target_->ProfilingVolume(); }
    void RecordProfile(std::string_view l, int64_t n) override { target_->RecordProfile(l, n); }
    std::optional<std::string> GetDebugEntry(std::string_view n) override {
        return target_->GetDebugEntry(n);
    }
    std::optional<std::string> GetPreference(std::string_view s, std::string_view k) override {
        return target_->GetPreference(s, k);
    }
    void RegisterBetaFeature(std::string_view n, int s, std::string_view t, std::string_view d,
                             int a, int b, int c) override {
        target_->RegisterBetaFeature(n, s, t, d, a, b, c);
    }
    bool IsFeatureEnabled(std::string_view n) override { return target_->IsFeatureEnabled(n); }
    int GetComputerName(char* b, size_t s) override { return target_->GetComputerName(b, s); }
    std::string GetClientInternalVersion() override { return target_->GetClientInternalVersion(); }
    bool IsBetaPrime() override { return target_->IsBetaPrime(); }
    int AddSuite(std::string_view n, int32_t ma, int32_t mi, int32_t c, const void* t) override {
        return target_->AddSuite(n, ma, mi, c, t);
    }
    int AcquireSuite(std::string_view n, int32_t ma, int32_t mi, const void** t) override {
        return target_->AcquireSuite(n, ma, mi, t);
    }
    NX::IMediaManager* GetMediaManager() override { return target_->GetMediaManager(); }
    std::u16string Localize(std::string_view k) override { return target_->Localize(k); }
    void* AllocatePtrClear(size_t s, std::string_view l) override {
        return target_->AllocatePtrClear(s, l);
    }
    uint64_t AllocatedBytes(std::string_view l) override { return target_->AllocatedBytes(l); }
    RemoteTierSettings GetRemoteTierSettings() override { return target_->GetRemoteTierSettings(); }

private:
    std::shared_ptr<HostServices> target_;
};

// Installs the services object every host operation forwards to (null restores the default).
// Install before MC_Birth and keep it until after MC_Death.
MCHOST_API void SetHostServices(std::shared_ptr<HostServices> services);
// The installed services, else the default (created by the default factory on first use).
// Never null: with neither installed services nor a default factory the process is aborted
// with a message that names both remedies.
MCHOST_API HostServices& GetHostServices();
MCHOST_API std::shared_ptr<HostServices> GetHostServicesShared();

// The numeric application version of a "major.minor[...]" client version text: major * 256 +
// minor, the minor clamped to 0..255 and absent counting as 0; 0 when the text has no leading
// number.
MCHOST_API int AppVersionFromClientVersion(std::string_view clientVersion);

// Makes the services used when none are installed. Called once, at first need, under the
// services lock (it must not call host operations); it must not return null.
using HostServicesFactory = std::shared_ptr<HostServices> (*)();
// Sets the default factory (null forgets it). The default already created stays in use.
MCHOST_API void SetDefaultHostServicesFactory(HostServicesFactory factory);

}  // namespace velacore
