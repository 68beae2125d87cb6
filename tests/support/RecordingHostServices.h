// RecordingHostServices: the standalone services with what tests script or observe on top.
// Memory pressure and limits are scripted (no monitor thread runs); reports, log and trace lines
// are recorded; the thread questions (main thread, notify lock) are switches; identity can change
// at any time; top-level functions can be deferred and allocations made to fail. Everything else
// forwards to a StandaloneHostServices (Standalone()). ScopedHostServices installs services for
// a scope.
// Thread-safety: every method may be called from any thread (one mutex guards the records;
// scripted functions and memory-client hooks are called with it released).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "mc/host/HostServices.h"
#include "mc/standalone/StandaloneHost.h"
#include "mc/standalone/StandaloneMediaManager.h"

namespace mctest {

class RecordingHostServices : public velacore::HostServicesWrapper {
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
        std::string text;
    };
    struct TraceLine {
        std::string channel;
        int level = 0;
        std::string text;
    };

    // The constructing thread is the main thread; memory limits 1 GiB of 4 GiB, media budget
    // 1 GiB, computer "recording-host", client version "1.0"; no pressure.
    RecordingHostServices();

    // --- overridden: scripted ---------------------------------------------------------------
    int GetMemUsageLimits(uint64_t* limit, uint64_t* physical) override;
    uint64_t AmountToPurge() override { return Get(amountToPurge_); }
    uint64_t AmountAvailableBeforePurge() override { return Get(amountAvailable_); }
    void PurgeRecycledMemory() override;
    // Kept (HasMemoryClient), never called: memory pressure is scripted.
    void SetMemoryClient(std::function<int64_t()> usage, std::function<void()> purge) override;
    int StartQuietErrorsOnCurrentThread(int level) override;
    bool IsOnMainThread() override;
    bool IsHoldingNotifyLock() override;
    // Runs fn at once, or queues it while deferring (see SetDeferTopLevelFunctions).
    void ExecuteTopLevelFunction(const std::function<void()>& fn) override;
    int GetComputerName(char* buf, size_t size) override;
    std::string GetClientInternalVersion() override { return Get(clientVersion_); }
    bool IsBetaPrime() override { return Get(betaPrime_); }
    NX::IMediaManager* GetMediaManager() override;
    void* AllocatePtrClear(size_t size, std::string_view label) override;  // null while failing

    // --- overridden: recorded ---------------------------------------------------------------
    void ReportFailedVerification(std::string_view message) override;
    void ReportErrString(uint32_t base, int severity, std::u16string_view text) override;
    void ReportError(std::u16string_view text, int category) override;
    void Log(int level, std::string_view category, std::string_view event,
             std::string_view text) override;
    // Records every line, enabled or not (callers are expected to ask first).
    void Trace(std::string_view channel, int level, std::string_view text) override;
    void RecordProfile(std::string_view label, int64_t nanos) override;

    // --- scripting ----------------------------------------------------------------------------
    velacore::StandaloneHostServices& Standalone() { return *standalone_; }
    void SetAmountToPurge(uint64_t bytes) { Set(amountToPurge_, bytes); }
    void SetAmountAvailable(uint64_t bytes) { Set(amountAvailable_, bytes); }
    // What GetMemUsageLimits writes and returns.
    void SetMemUsageLimits(uint64_t limit, uint64_t physical, int result = 0);
    uint64_t PurgeRecycledCount() const { return Get(purgeRecycled_); }
    bool HasMemoryClient() const;
    // While deferring, top-level functions wait until RunDeferredTopLevelFunctions (on the
    // calling thread) runs the ones queued so far and returns how many.
    void SetDeferTopLevelFunctions(bool defer) { Set(deferTopLevel_, defer); }
    size_t RunDeferredTopLevelFunctions();
    size_t DeferredTopLevelFunctionCount() const { return Get(deferredTopLevel_).size(); }
    // Forces IsOnMainThread for every thread (true or false); nullopt restores the answer.
    void SetEveryThreadMain(std::optional<bool> answer) { Set(everyThreadMain_, answer); }
    // Whether the calling thread holds the notification lock.
    void SetHoldingNotifyLock(bool holding);
    // A non-zero code makes StartQuietErrorsOnCurrentThread refuse with it (0 accepts again).
    void SetQuietErrorsRefusal(int code) { Set(quietRefusal_, code); }
    void SetComputerName(std::string name) { Set(computerName_, std::move(name)); }
    void SetClientVersion(std::string version) { Set(clientVersion_, std::move(version)); }
    void SetBetaPrime(bool beta) { Set(betaPrime_, beta); }
    // Uses manager (not owned; null restores the services' own one).
    void SetMediaManager(NX::IMediaManager* manager) { Set(media_, manager); }
    NX::StandaloneMediaManager& OwnMediaManager() { return standalone_->MediaManager(); }
    void SetMediaBudget(uint64_t bytes) { OwnMediaManager().SetBudget(bytes); }
    void SetFailAllocations(bool fail) { Set(failAllocations_, fail); }
    void SetTraceLevel(std::string_view channel, int level) {
        standalone_->SetTraceLevel(channel, level);
    }
    void SetDebugEntry(std::string_view name, std::string_view value) {
        standalone_->SetDebugEntry(name, value);
    }
    void SetPreference(std::string_view section, std::string_view key, std::string_view value) {
        standalone_->SetPreference(section, key, value);
    }
    void SetProfiling(bool on, int volume) { standalone_->SetConditionalProfiling(on, volume); }
    void SetFeatureEnabled(std::string_view name, bool enabled) {
        standalone_->SetFeatureEnabled(name, enabled);
    }

    // --- records ------------------------------------------------------------------------------
    std::vector<std::string> FailedVerifications() const { return Get(verifications_); }
    std::vector<ErrString> ErrStrings() const { return Get(errStrings_); }
    std::vector<ErrorReport> Errors() const { return Get(errors_); }
    std::vector<LogLine> LogLines() const { return Get(logLines_); }
    std::vector<TraceLine> TraceLines(std::string_view channel) const;
    // Totals per profiling label: (count, total nanoseconds).
    std::map<std::string, std::pair<uint64_t, int64_t>> Profiles() const { return Get(profiles_); }
    // Forgets every record above (not the settings).
    void ClearRecords();

private:
    explicit RecordingHostServices(std::shared_ptr<velacore::StandaloneHostServices> standalone);
    template <class T>
    T Get(const T& field) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return field;
    }
    template <class T, class V>
    void Set(T& field, V&& value) {
        std::lock_guard<std::mutex> lock(mutex_);
        field = std::forward<V>(value);
    }
    template <class T, class V>
    void Append(std::vector<T>& records, V&& record) {
        std::lock_guard<std::mutex> lock(mutex_);
        records.push_back(std::forward<V>(record));
    }

    std::shared_ptr<velacore::StandaloneHostServices> standalone_;
    mutable std::mutex mutex_;
    uint64_t amountToPurge_ = 0;
    uint64_t amountAvailable_ = 0;
    uint64_t limit_ = uint64_t{1} << 30;
    uint64_t physical_ = uint64_t{4} << 30;
    int limitsResult_ = 0;
    uint64_t purgeRecycled_ = 0;
    std::function<int64_t()> clientUsage_;
    std::function<void()> clientPurge_;
    std::vector<std::string> verifications_;
    std::vector<ErrString> errStrings_;
    std::vector<ErrorReport> errors_;
    std::vector<LogLine> logLines_;
    std::vector<TraceLine> traceLines_;
    std::map<std::string, std::pair<uint64_t, int64_t>> profiles_;
    bool deferTopLevel_ = false;
    std::vector<std::function<void()>> deferredTopLevel_;
    std::optional<bool> everyThreadMain_;
    std::set<std::thread::id> notifyHolders_;
    int quietRefusal_ = 0;
    std::string computerName_ = "recording-host";
    std::string clientVersion_ = "1.0";
    bool betaPrime_ = false;
    NX::IMediaManager* media_ = nullptr;
    bool failAllocations_ = false;
};

// Installs services for the scope and restores the previous ones at the end.
class ScopedHostServices {
public:
    explicit ScopedHostServices(std::shared_ptr<velacore::HostServices> services)
        : previous_(velacore::GetHostServicesShared()) {
        velacore::SetHostServices(std::move(services));
    }
    ~ScopedHostServices() { velacore::SetHostServices(std::move(previous_)); }
    ScopedHostServices(const ScopedHostServices&) = delete;
    ScopedHostServices& operator=(const ScopedHostServices&) = delete;

private:
    std::shared_ptr<velacore::HostServices> previous_;
};

}  // namespace mctest
