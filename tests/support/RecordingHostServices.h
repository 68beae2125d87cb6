// RecordingHostServices: a self-contained HostServices for tests. Memory pressure is scripted,
// every report, log and trace line is captured, the thread questions (main thread, notify lock)
// are switches, and configuration entries, identity, suites, media manager and labelled
// allocation are set per test. ScopedHostServices installs a services object for a scope.
// Thread-safety: every method may be called from any thread (one mutex guards the records;
// scripted functions and memory-client hooks are called with it released).
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "mc/host/HostServices.h"
#include "mc/standalone/StandaloneMediaManager.h"

namespace mctest {

class RecordingHostServices : public velacore::HostServices {
  public:
    struct ErrString {
        uint32_t base = 0;
        int severity = 0;
        std::u16string text;
        bool quiet = false;  // reported while errors were quiet on that thread
    };
    struct ErrorReport {
        std::u16string text;
        int category = 0;
        bool quiet = false;
    };
    struct LogLine {
        int level = 0;
        std::string category;
        std::string event;
        std::string text;
    };
    struct TraceLine {
        std::string channel;
        int level = 0;
        std::string text;
    };
    struct BetaFeatureInfo {
        std::string name;
        int stage = 0;
        std::string title;
        std::string description;
    };
    // The integer TranslateAndReportException returned, and what it was given.
    struct TranslatedException {
        int code = 0;
        std::string what;
        bool quiet = false;
    };

    // The constructing thread is the main thread; memory limits default to 1 GiB of 4 GiB;
    // the own media manager's budget to 1 GiB; no pressure.
    RecordingHostServices();
    ~RecordingHostServices() override;
    RecordingHostServices(const RecordingHostServices&) = delete;
    RecordingHostServices& operator=(const RecordingHostServices&) = delete;

    // --- HostServices -------------------------------------------------------------------
    int GetMemUsageLimits(uint64_t* limit, uint64_t* physical) override;
    uint64_t AmountToPurge() override;
    uint64_t AmountAvailableBeforePurge() override;
    void PurgeRecycledMemory() override;
    void SetMemoryClient(std::function<int64_t()> usage, std::function<void()> purge) override;
    void ReportFailedVerification(std::string_view message) override;
    void ReportErrString(uint32_t base, int severity, std::u16string_view text) override;
    void ReportError(std::u16string_view text, int category) override;
    // int -> itself, HostError -> Code(), bad_alloc -> -108, anything else -> -1.
    int TranslateAndReportException(std::exception_ptr error) override;
    int StartQuietErrorsOnCurrentThread(int level) override;
    void EndQuietErrorsOnCurrentThread() override;
    bool AreErrorsQuietOnCurrentThread() override;
    bool IsOnMainThread() override;
    bool IsHoldingNotifyLock() override;
    bool IsApplicationFrontmost() override;
    // Counts fn and runs it at once, or queues it while deferring (see below).
    void ExecuteTopLevelFunction(const std::function<void()>& fn) override;
    void Log(int level, std::string_view category, std::string_view event,
             std::string_view text) override;
    bool IsTraceEnabled(std::string_view channel, int level) override;
    // Records every line, enabled or not (callers are expected to ask first).
    void Trace(std::string_view channel, int level, std::string_view text) override;
    bool IsConditionalProfiling() override;
    int ProfilingVolume() override;
    void RecordProfile(std::string_view label, int64_t nanos) override;
    std::optional<std::string> GetDebugEntry(std::string_view name) override;
    std::optional<std::string> GetPreference(std::string_view section,
                                             std::string_view key) override;
    void RegisterBetaFeature(std::string_view name, int stage, std::string_view title,
                             std::string_view description, int a, int b, int c) override;
    bool IsFeatureEnabled(std::string_view name) override;
    int GetComputerName(char* buf, size_t size) override;
    std::string GetClientInternalVersion() override;
    bool IsBetaPrime() override;
    int AddSuite(std::string_view name, int32_t major, int32_t minor, int32_t count,
                 const void* table) override;
    int AcquireSuite(std::string_view name, int32_t major, int32_t minor,
                     const void** table) override;
    NX::IMediaManager* GetMediaManager() override;
    std::u16string Localize(std::string_view keyAndDefault) override;
    // Blocks are owned by the services and freed when it is destroyed. Null while failing.
    void* AllocatePtrClear(size_t size, std::string_view label) override;
    uint64_t AllocatedBytes(std::string_view label) override;

    // --- memory script ------------------------------------------------------------------
    void SetAmountToPurge(uint64_t bytes);
    // Replaces the fixed amount; called on every AmountToPurge (without the mutex held).
    void SetAmountToPurgeFunction(std::function<uint64_t()> fn);
    void SetAmountAvailable(uint64_t bytes);
    // What GetMemUsageLimits writes and returns.
    void SetMemUsageLimits(uint64_t limit, uint64_t physical, int result = 0);
    uint64_t PurgeRecycledCount() const;
    // The memory client last given by SetMemoryClient.
    bool HasMemoryClient() const;
    // Calls the client's usage source on this thread (0 without one).
    int64_t SampleClientUsage();
    // Calls the client's purge hook on this thread; false without one.
    bool RunClientPurge();

    // --- records ------------------------------------------------------------------------
    std::vector<std::string> FailedVerifications() const;
    std::vector<ErrString> ErrStrings() const;
    std::vector<ErrorReport> Errors() const;
    std::vector<TranslatedException> TranslatedExceptions() const;
    std::vector<LogLine> LogLines() const;
    std::vector<TraceLine> TraceLines() const;
    std::vector<TraceLine> TraceLines(std::string_view channel) const;
    // Totals per profiling label: (count, total nanoseconds).
    std::map<std::string, std::pair<uint64_t, int64_t>> Profiles() const;
    std::vector<BetaFeatureInfo> RegisteredBetaFeatures() const;
    uint64_t TopLevelFunctionCount() const;
    // A host whose top-level runner queues tasks and runs them after the call returned: while
    // deferring, tasks wait until RunDeferredTopLevelFunctions (on the calling thread) runs the
    // ones queued so far and returns how many. Tasks still queued die with the services.
    void SetDeferTopLevelFunctions(bool defer);
    size_t RunDeferredTopLevelFunctions();
    size_t DeferredTopLevelFunctionCount() const;
    // Forgets every record above (not the settings).
    void ClearRecords();

    // --- switches -----------------------------------------------------------------------
    // Makes one thread the main thread (default: the calling thread).
    void SetMainThread(std::thread::id id = std::this_thread::get_id());
    // Forces IsOnMainThread for every thread (true or false); nothing restores the per-thread
    // answer.
    void SetEveryThreadMain(std::optional<bool> answer);
    // Whether the calling thread holds the notification lock.
    void SetHoldingNotifyLock(bool holding);
    void SetFrontmost(bool frontmost);
    // A non-zero code makes StartQuietErrorsOnCurrentThread refuse with it (0 accepts again).
    void SetQuietErrorsRefusal(int code);
    // Shows channel up to level (negative hides it) and notifies cached trace sites.
    void SetTraceLevel(std::string_view channel, int level);
    void SetProfiling(bool on, int volume);

    // --- configuration, identity, media, allocation -------------------------------------
    void SetDebugEntry(std::string_view name, std::optional<std::string> value);
    void SetPreference(std::string_view section, std::string_view key,
                       std::optional<std::string> value);
    void SetFeatureEnabled(std::string_view name, bool enabled);
    void SetComputerName(std::string name);
    void SetClientVersion(std::string version);
    void SetBetaPrime(bool beta);
    // Uses manager (not owned; null restores the own one).
    void SetMediaManager(NX::IMediaManager* manager);
    NX::StandaloneMediaManager& OwnMediaManager() { return *ownMedia_; }
    void SetMediaBudget(uint64_t bytes);
    void SetFailAllocations(bool fail);
    uint64_t AllocatedBlocks(std::string_view label) const;

  private:
    struct FreeDeleter {
        void operator()(void* p) const { std::free(p); }
    };
    struct Allocations {
        uint64_t bytes = 0;
        std::vector<std::unique_ptr<void, FreeDeleter>> blocks;
    };
    bool QuietLocked() const;

    mutable std::mutex mutex_;
    // memory
    uint64_t amountToPurge_ = 0;
    std::function<uint64_t()> amountToPurgeFn_;
    uint64_t amountAvailable_ = 0;
    uint64_t limit_ = uint64_t{1} << 30;
    uint64_t physical_ = uint64_t{4} << 30;
    int limitsResult_ = 0;
    uint64_t purgeRecycled_ = 0;
    std::function<int64_t()> clientUsage_;
    std::function<void()> clientPurge_;
    // records
    std::vector<std::string> verifications_;
    std::vector<ErrString> errStrings_;
    std::vector<ErrorReport> errors_;
    std::vector<TranslatedException> exceptions_;
    std::vector<LogLine> logLines_;
    std::vector<TraceLine> traceLines_;
    std::map<std::string, std::pair<uint64_t, int64_t>> profiles_;
    std::vector<BetaFeatureInfo> betaFeatures_;
    uint64_t topLevel_ = 0;
    bool deferTopLevel_ = false;
    std::vector<std::function<void()>> deferredTopLevel_;
    // switches
    std::map<std::thread::id, int> quietDepth_;
    std::thread::id mainThread_;
    std::optional<bool> everyThreadMain_;
    std::set<std::thread::id> notifyHolders_;
    bool frontmost_ = true;
    int quietRefusal_ = 0;
    std::map<std::string, int, std::less<>> traceLevels_;
    bool profiling_ = false;
    int profilingVolume_ = 0;
    // configuration and identity
    std::map<std::string, std::string, std::less<>> debug_;
    std::map<std::pair<std::string, std::string>, std::string> prefs_;
    std::set<std::string, std::less<>> enabledFeatures_;
    std::string computerName_ = "recording-host";
    std::string clientVersion_ = "1.0";
    bool betaPrime_ = false;
    std::map<std::tuple<std::string, int32_t, int32_t>, const void*> suites_;
    std::unique_ptr<NX::StandaloneMediaManager> ownMedia_;
    NX::IMediaManager* media_ = nullptr;
    bool failAllocations_ = false;
    std::map<std::string, Allocations, std::less<>> allocations_;
};

// Installs services for the scope and restores the previous ones at the end.
class ScopedHostServices {
  public:
    explicit ScopedHostServices(std::shared_ptr<velacore::HostServices> services);
    ~ScopedHostServices();
    ScopedHostServices(const ScopedHostServices&) = delete;
    ScopedHostServices& operator=(const ScopedHostServices&) = delete;

  private:
    std::shared_ptr<velacore::HostServices> previous_;
};

}  // namespace mctest
