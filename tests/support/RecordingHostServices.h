// RecordingHostServices: the standalone services with what tests script or observe on top.
// Memory pressure and limits are scripted (no monitor thread runs); reports, log and trace lines
// are recorded; the thread questions (main thread, notify lock) are switches; top-level functions
// can be deferred and allocations made to fail. Everything else is the standalone services'.
// ScopedHostServices installs services for a scope.
// Thread-safety: every method may be called from any thread (one mutex guards the records;
// scripted functions are called with it released).
#pragma once

#include <cstdint>
#include <cstring>
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

class RecordingHostServices : public velacore::StandaloneHostServices {
public:
    struct ErrString {
        uint32_t base = 0;
        int severity = 0;
        std::u16string text;
    };
    struct LogLine {
        int level = 0;
        std::string category, text;
    };
    struct TraceLine {
        std::string channel;
        int level = 0;
        std::string text;
    };

    // The constructing thread is the main thread; memory limits 1 GiB of 4 GiB, memory and media
    // budgets 1 GiB, computer "recording-host", client version "1.0"; no pressure.
    RecordingHostServices() : StandaloneHostServices(Config()) {}

    // --- scripted -----------------------------------------------------------------------------
    int GetMemUsageLimits(uint64_t* limit, uint64_t* physical) override {
        const Limits l = Get(limits_);
        if (limit != nullptr) *limit = l.limit;
        if (physical != nullptr) *physical = l.physical;
        return l.result;
    }
    uint64_t AmountToPurge() override { return Get(amountToPurge_); }
    uint64_t AmountAvailableBeforePurge() override { return Get(amountAvailable_); }
    void PurgeRecycledMemory() override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++records_.purgeRecycled;
    }
    // Kept (HasMemoryClient), never called: memory pressure is scripted.
    void SetMemoryClient(std::function<int64_t()> usage, std::function<void()> purge) override {
        Set(hasMemoryClient_, usage || purge);
    }
    bool IsOnMainThread() override {
        return Get(everyThreadMain_).value_or(StandaloneHostServices::IsOnMainThread());
    }
    bool IsHoldingNotifyLock() override { return Get(notifyHolders_).count(Me()) != 0; }
    // Runs fn at once, or queues it while deferring (see SetDeferTopLevelFunctions).
    void ExecuteTopLevelFunction(const std::function<void()>& fn) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (deferTopLevel_) return deferredTopLevel_.push_back(fn);
        }
        fn();
    }
    int GetComputerName(char* buf, size_t size) override {
        const std::string name = Get(computerName_);
        if (buf == nullptr || size <= name.size()) {
            if (buf != nullptr && size > 0) buf[0] = '\0';
            return velacore::kStandaloneParamError;
        }
        std::memcpy(buf, name.c_str(), name.size() + 1);
        return 0;
    }
    std::string GetClientInternalVersion() override { return Get(clientVersion_); }
    bool IsBetaPrime() override { return Get(betaPrime_); }
    NX::IMediaManager* GetMediaManager() override {
        NX::IMediaManager* media = Get(media_);
        return media != nullptr ? media : &MediaManager();
    }
    void* AllocatePtrClear(size_t size, std::string_view label) override {
        return Get(failAllocations_) ? nullptr
                                     : StandaloneHostServices::AllocatePtrClear(size, label);
    }

    // --- recorded -----------------------------------------------------------------------------
    void ReportFailedVerification(std::string_view message) override {
        Append(records_.verifications, std::string(message));
    }
    void ReportErrString(uint32_t base, int severity, std::u16string_view text) override {
        Append(records_.errStrings, ErrString{base, severity, std::u16string(text)});
    }
    void ReportError(std::u16string_view text, int) override {
        Append(records_.errors, std::u16string(text));
    }
    void Log(int level, std::string_view category, std::string_view,
             std::string_view text) override {
        Append(records_.logLines, LogLine{level, std::string(category), std::string(text)});
    }
    // Records every line, enabled or not (callers are expected to ask first).
    void Trace(std::string_view channel, int level, std::string_view text) override {
        Append(records_.traceLines, TraceLine{std::string(channel), level, std::string(text)});
    }
    void RecordProfile(std::string_view label, int64_t nanos) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto& totals = records_.profiles[std::string(label)];
        totals.first += 1;
        totals.second += nanos;
    }

    // --- scripting ----------------------------------------------------------------------------
    void SetAmountToPurge(uint64_t bytes) { Set(amountToPurge_, bytes); }
    void SetAmountAvailable(uint64_t bytes) { Set(amountAvailable_, bytes); }
    // What GetMemUsageLimits writes and returns.
    void SetMemUsageLimits(uint64_t limit, uint64_t physical, int result = 0) {
        Set(limits_, Limits{limit, physical, result});
    }
    uint64_t PurgeRecycledCount() const { return Get(records_).purgeRecycled; }
    bool HasMemoryClient() const { return Get(hasMemoryClient_); }
    // While deferring, top-level functions wait until RunDeferredTopLevelFunctions (on the
    // calling thread) runs the ones queued so far and returns how many.
    void SetDeferTopLevelFunctions(bool defer) { Set(deferTopLevel_, defer); }
    size_t RunDeferredTopLevelFunctions() {
        std::vector<std::function<void()>> tasks;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            tasks.swap(deferredTopLevel_);
        }
        for (const auto& task : tasks) task();
        return tasks.size();
    }
    // Forces IsOnMainThread for every thread (true or false); nullopt restores the answer.
    void SetEveryThreadMain(std::optional<bool> answer) { Set(everyThreadMain_, answer); }
    // Whether the calling thread holds the notification lock.
    void SetHoldingNotifyLock(bool holding) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (holding) notifyHolders_.insert(Me());
        if (!holding) notifyHolders_.erase(Me());
    }
    void SetComputerName(std::string name) { Set(computerName_, std::move(name)); }
    void SetClientVersion(std::string version) { Set(clientVersion_, std::move(version)); }
    void SetBetaPrime(bool beta) { Set(betaPrime_, beta); }
    // Uses manager (not owned; null restores the services' own one).
    void SetMediaManager(NX::IMediaManager* manager) { Set(media_, manager); }
    void SetMediaBudget(uint64_t bytes) { MediaManager().SetBudget(bytes); }
    void SetFailAllocations(bool fail) { Set(failAllocations_, fail); }
    void SetProfiling(bool on, int volume) {
        StandaloneHostServices::SetConditionalProfiling(on, volume);
    }

    // --- records ------------------------------------------------------------------------------
    std::vector<std::string> FailedVerifications() const { return Get(records_).verifications; }
    std::vector<ErrString> ErrStrings() const { return Get(records_).errStrings; }
    std::vector<std::u16string> Errors() const { return Get(records_).errors; }
    std::vector<LogLine> LogLines() const { return Get(records_).logLines; }
    std::vector<TraceLine> TraceLines(std::string_view channel) const {
        std::vector<TraceLine> out;
        for (const auto& line : Get(records_).traceLines)
            if (line.channel == channel) out.push_back(line);
        return out;
    }
    // Totals per profiling label: (count, total nanoseconds).
    std::map<std::string, std::pair<uint64_t, int64_t>> Profiles() const {
        return Get(records_).profiles;
    }
    // Forgets every record above (not the settings).
    void ClearRecords() { Set(records_, Records{}); }

private:
    struct Limits {
        uint64_t limit = uint64_t{1} << 30, physical = uint64_t{4} << 30;
        int result = 0;
    };
    static velacore::StandaloneConfig Config() {
        velacore::StandaloneConfig config;
        config.memoryBudget = config.mediaBudget = uint64_t{1} << 30;
        return config;
    }
    static std::thread::id Me() { return std::this_thread::get_id(); }
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

    // Everything ClearRecords forgets.
    struct Records {
        uint64_t purgeRecycled = 0;
        std::vector<std::string> verifications;
        std::vector<ErrString> errStrings;
        std::vector<std::u16string> errors;
        std::vector<LogLine> logLines;
        std::vector<TraceLine> traceLines;
        std::map<std::string, std::pair<uint64_t, int64_t>> profiles;
    };

    mutable std::mutex mutex_;
    Records records_;
    uint64_t amountToPurge_ = 0, amountAvailable_ = 0;
    Limits limits_;
    bool hasMemoryClient_ = false, deferTopLevel_ = false, betaPrime_ = false;
    bool failAllocations_ = false;
    std::vector<std::function<void()>> deferredTopLevel_;
    std::optional<bool> everyThreadMain_;
    std::set<std::thread::id> notifyHolders_;
    std::string computerName_ = "recording-host", clientVersion_ = "1.0";
    NX::IMediaManager* media_ = nullptr;
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
