// The recording host services for tests (see RecordingHostServices.h).
#include "support/RecordingHostServices.h"

#include <cstring>
#include <new>

#include "host/HostOps.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"
#include "mc/standalone/StandaloneHost.h"

namespace mctest {

using Lock = std::lock_guard<std::mutex>;

RecordingHostServices::RecordingHostServices()
    : mainThread_(std::this_thread::get_id()),
      ownMedia_(std::make_unique<NX::StandaloneMediaManager>(uint64_t{1} << 30)),
      media_(ownMedia_.get()) {}

RecordingHostServices::~RecordingHostServices() = default;

// --- memory -------------------------------------------------------------------------------

int RecordingHostServices::GetMemUsageLimits(uint64_t* limit, uint64_t* physical) {
    Lock lock(mutex_);
    if (limit != nullptr) *limit = limit_;
    if (physical != nullptr) *physical = physical_;
    return limitsResult_;
}

uint64_t RecordingHostServices::AmountToPurge() {
    std::function<uint64_t()> fn;
    {
        Lock lock(mutex_);
        if (!amountToPurgeFn_) return amountToPurge_;
        fn = amountToPurgeFn_;
    }
    return fn();
}

uint64_t RecordingHostServices::AmountAvailableBeforePurge() {
    Lock lock(mutex_);
    return amountAvailable_;
}

void RecordingHostServices::PurgeRecycledMemory() {
    Lock lock(mutex_);
    ++purgeRecycled_;
}

void RecordingHostServices::SetMemoryClient(std::function<int64_t()> usage,
                                            std::function<void()> purge) {
    Lock lock(mutex_);
    clientUsage_ = std::move(usage);
    clientPurge_ = std::move(purge);
}

void RecordingHostServices::SetAmountToPurge(uint64_t bytes) {
    Lock lock(mutex_);
    amountToPurge_ = bytes;
    amountToPurgeFn_ = nullptr;
}

void RecordingHostServices::SetAmountToPurgeFunction(std::function<uint64_t()> fn) {
    Lock lock(mutex_);
    amountToPurgeFn_ = std::move(fn);
}

void RecordingHostServices::SetAmountAvailable(uint64_t bytes) {
    Lock lock(mutex_);
    amountAvailable_ = bytes;
}

void RecordingHostServices::SetMemUsageLimits(uint64_t limit, uint64_t physical, int result) {
    Lock lock(mutex_);
    limit_ = limit;
    physical_ = physical;
    limitsResult_ = result;
}

uint64_t RecordingHostServices::PurgeRecycledCount() const {
    Lock lock(mutex_);
    return purgeRecycled_;
}

bool RecordingHostServices::HasMemoryClient() const {
    Lock lock(mutex_);
    return static_cast<bool>(clientUsage_) || static_cast<bool>(clientPurge_);
}

int64_t RecordingHostServices::SampleClientUsage() {
    std::function<int64_t()> usage;
    {
        Lock lock(mutex_);
        usage = clientUsage_;
    }
    return usage ? usage() : 0;
}

bool RecordingHostServices::RunClientPurge() {
    std::function<void()> purge;
    {
        Lock lock(mutex_);
        purge = clientPurge_;
    }
    if (!purge) return false;
    purge();
    return true;
}

// --- reports ------------------------------------------------------------------------------

bool RecordingHostServices::QuietLocked() const {
    auto it = quietDepth_.find(std::this_thread::get_id());
    return it != quietDepth_.end() && it->second > 0;
}

void RecordingHostServices::ReportFailedVerification(std::string_view message) {
    Lock lock(mutex_);
    verifications_.emplace_back(message);
}

void RecordingHostServices::ReportErrString(uint32_t base, int severity, std::u16string_view text) {
    Lock lock(mutex_);
    errStrings_.push_back({base, severity, std::u16string(text), QuietLocked()});
}

void RecordingHostServices::ReportError(std::u16string_view text, int category) {
    Lock lock(mutex_);
    errors_.push_back({std::u16string(text), category, QuietLocked()});
}

int RecordingHostServices::TranslateAndReportException(std::exception_ptr error) {
    if (!error) return 0;
    TranslatedException out{velacore::kStandaloneGenericError, "unknown exception", false};
    try {
        std::rethrow_exception(error);
    } catch (int value) {
        out = {value, "error " + std::to_string(value), false};
    } catch (const velacore::HostError& e) {
        out = {e.Code(), e.what(), false};
    } catch (const std::bad_alloc& e) {
        out = {velacore::kStandaloneOutOfMemoryError, e.what(), false};
    } catch (const std::exception& e) {
        out.what = e.what();
    } catch (...) {
    }
    Lock lock(mutex_);
    out.quiet = QuietLocked();
    exceptions_.push_back(out);
    return out.code;
}

int RecordingHostServices::StartQuietErrorsOnCurrentThread(int) {
    Lock lock(mutex_);
    if (quietRefusal_ != 0) return quietRefusal_;
    ++quietDepth_[std::this_thread::get_id()];
    return 0;
}

void RecordingHostServices::SetQuietErrorsRefusal(int code) {
    Lock lock(mutex_);
    quietRefusal_ = code;
}

void RecordingHostServices::EndQuietErrorsOnCurrentThread() {
    Lock lock(mutex_);
    auto it = quietDepth_.find(std::this_thread::get_id());
    if (it != quietDepth_.end() && --it->second <= 0) quietDepth_.erase(it);
}

bool RecordingHostServices::AreErrorsQuietOnCurrentThread() {
    Lock lock(mutex_);
    return QuietLocked();
}

std::vector<std::string> RecordingHostServices::FailedVerifications() const {
    Lock lock(mutex_);
    return verifications_;
}

std::vector<RecordingHostServices::ErrString> RecordingHostServices::ErrStrings() const {
    Lock lock(mutex_);
    return errStrings_;
}

std::vector<RecordingHostServices::ErrorReport> RecordingHostServices::Errors() const {
    Lock lock(mutex_);
    return errors_;
}

std::vector<RecordingHostServices::TranslatedException>
RecordingHostServices::TranslatedExceptions() const {
    Lock lock(mutex_);
    return exceptions_;
}

// --- threads ------------------------------------------------------------------------------

bool RecordingHostServices::IsOnMainThread() {
    Lock lock(mutex_);
    if (everyThreadMain_) return *everyThreadMain_;
    return mainThread_ == std::this_thread::get_id();
}

bool RecordingHostServices::IsHoldingNotifyLock() {
    Lock lock(mutex_);
    return notifyHolders_.count(std::this_thread::get_id()) != 0;
}

bool RecordingHostServices::IsApplicationFrontmost() {
    Lock lock(mutex_);
    return frontmost_;
}

void RecordingHostServices::ExecuteTopLevelFunction(const std::function<void()>& fn) {
    {
        Lock lock(mutex_);
        ++topLevel_;
        if (deferTopLevel_) {
            deferredTopLevel_.push_back(fn);
            return;
        }
    }
    fn();
}

void RecordingHostServices::SetDeferTopLevelFunctions(bool defer) {
    Lock lock(mutex_);
    deferTopLevel_ = defer;
}

size_t RecordingHostServices::RunDeferredTopLevelFunctions() {
    std::vector<std::function<void()>> tasks;
    {
        Lock lock(mutex_);
        tasks.swap(deferredTopLevel_);
    }
    for (const auto& task : tasks) task();
    return tasks.size();
}

size_t RecordingHostServices::DeferredTopLevelFunctionCount() const {
    Lock lock(mutex_);
    return deferredTopLevel_.size();
}

uint64_t RecordingHostServices::TopLevelFunctionCount() const {
    Lock lock(mutex_);
    return topLevel_;
}

void RecordingHostServices::SetMainThread(std::thread::id id) {
    Lock lock(mutex_);
    mainThread_ = id;
}

void RecordingHostServices::SetEveryThreadMain(std::optional<bool> answer) {
    Lock lock(mutex_);
    everyThreadMain_ = answer;
}

void RecordingHostServices::SetHoldingNotifyLock(bool holding) {
    Lock lock(mutex_);
    if (holding) {
        notifyHolders_.insert(std::this_thread::get_id());
    } else {
        notifyHolders_.erase(std::this_thread::get_id());
    }
}

void RecordingHostServices::SetFrontmost(bool frontmost) {
    Lock lock(mutex_);
    frontmost_ = frontmost;
}

// --- log, traces, profiling ---------------------------------------------------------------

void RecordingHostServices::Log(int level, std::string_view category, std::string_view event,
                                std::string_view text) {
    Lock lock(mutex_);
    logLines_.push_back({level, std::string(category), std::string(event), std::string(text)});
}

bool RecordingHostServices::IsTraceEnabled(std::string_view channel, int level) {
    Lock lock(mutex_);
    auto it = traceLevels_.find(channel);
    return it != traceLevels_.end() && it->second >= level;
}

void RecordingHostServices::Trace(std::string_view channel, int level, std::string_view text) {
    Lock lock(mutex_);
    traceLines_.push_back({std::string(channel), level, std::string(text)});
}

void RecordingHostServices::SetTraceLevel(std::string_view channel, int level) {
    {
        Lock lock(mutex_);
        if (level < 0) {
            if (auto it = traceLevels_.find(channel); it != traceLevels_.end()) {
                traceLevels_.erase(it);
            }
        } else {
            traceLevels_.insert_or_assign(std::string(channel), level);
        }
    }
    debug::NoteTraceSettingsChanged();
}

bool RecordingHostServices::IsConditionalProfiling() {
    Lock lock(mutex_);
    return profiling_;
}

int RecordingHostServices::ProfilingVolume() {
    Lock lock(mutex_);
    return profilingVolume_;
}

void RecordingHostServices::SetProfiling(bool on, int volume) {
    Lock lock(mutex_);
    profiling_ = on;
    profilingVolume_ = volume;
}

void RecordingHostServices::RecordProfile(std::string_view label, int64_t nanos) {
    Lock lock(mutex_);
    auto& totals = profiles_[std::string(label)];
    totals.first += 1;
    totals.second += nanos;
}

std::vector<RecordingHostServices::LogLine> RecordingHostServices::LogLines() const {
    Lock lock(mutex_);
    return logLines_;
}

std::vector<RecordingHostServices::TraceLine> RecordingHostServices::TraceLines() const {
    Lock lock(mutex_);
    return traceLines_;
}

std::vector<RecordingHostServices::TraceLine> RecordingHostServices::TraceLines(
    std::string_view channel) const {
    Lock lock(mutex_);
    std::vector<TraceLine> out;
    for (const auto& line : traceLines_) {
        if (line.channel == channel) out.push_back(line);
    }
    return out;
}

std::map<std::string, std::pair<uint64_t, int64_t>> RecordingHostServices::Profiles() const {
    Lock lock(mutex_);
    return profiles_;
}

void RecordingHostServices::ClearRecords() {
    Lock lock(mutex_);
    verifications_.clear();
    errStrings_.clear();
    errors_.clear();
    exceptions_.clear();
    logLines_.clear();
    traceLines_.clear();
    profiles_.clear();
    betaFeatures_.clear();
    topLevel_ = 0;
    purgeRecycled_ = 0;
}

// --- configuration and identity -----------------------------------------------------------

std::optional<std::string> RecordingHostServices::GetDebugEntry(std::string_view name) {
    Lock lock(mutex_);
    auto it = debug_.find(name);
    if (it == debug_.end()) return std::nullopt;
    return it->second;
}

void RecordingHostServices::SetDebugEntry(std::string_view name, std::optional<std::string> value) {
    Lock lock(mutex_);
    if (value) {
        debug_.insert_or_assign(std::string(name), std::move(*value));
    } else if (auto it = debug_.find(name); it != debug_.end()) {
        debug_.erase(it);
    }
}

std::optional<std::string> RecordingHostServices::GetPreference(std::string_view section,
                                                                std::string_view key) {
    Lock lock(mutex_);
    auto it = prefs_.find({std::string(section), std::string(key)});
    if (it == prefs_.end()) return std::nullopt;
    return it->second;
}

void RecordingHostServices::SetPreference(std::string_view section, std::string_view key,
                                          std::optional<std::string> value) {
    Lock lock(mutex_);
    std::pair<std::string, std::string> k{std::string(section), std::string(key)};
    if (value) {
        prefs_.insert_or_assign(std::move(k), std::move(*value));
    } else {
        prefs_.erase(k);
    }
}

void RecordingHostServices::RegisterBetaFeature(std::string_view name, int stage,
                                                std::string_view title,
                                                std::string_view description, int, int, int) {
    Lock lock(mutex_);
    betaFeatures_.push_back(
        {std::string(name), stage, std::string(title), std::string(description)});
}

std::vector<RecordingHostServices::BetaFeatureInfo> RecordingHostServices::RegisteredBetaFeatures()
    const {
    Lock lock(mutex_);
    return betaFeatures_;
}

bool RecordingHostServices::IsFeatureEnabled(std::string_view name) {
    Lock lock(mutex_);
    return enabledFeatures_.find(name) != enabledFeatures_.end();
}

void RecordingHostServices::SetFeatureEnabled(std::string_view name, bool enabled) {
    Lock lock(mutex_);
    if (enabled) {
        enabledFeatures_.emplace(name);
    } else if (auto it = enabledFeatures_.find(name); it != enabledFeatures_.end()) {
        enabledFeatures_.erase(it);
    }
}

int RecordingHostServices::GetComputerName(char* buf, size_t size) {
    Lock lock(mutex_);
    if (buf == nullptr || size <= computerName_.size()) {
        if (buf != nullptr && size > 0) buf[0] = '\0';
        return velacore::kStandaloneParamError;
    }
    std::memcpy(buf, computerName_.c_str(), computerName_.size() + 1);
    return 0;
}

std::string RecordingHostServices::GetClientInternalVersion() {
    Lock lock(mutex_);
    return clientVersion_;
}

bool RecordingHostServices::IsBetaPrime() {
    Lock lock(mutex_);
    return betaPrime_;
}

void RecordingHostServices::SetComputerName(std::string name) {
    Lock lock(mutex_);
    computerName_ = std::move(name);
}

void RecordingHostServices::SetClientVersion(std::string version) {
    Lock lock(mutex_);
    clientVersion_ = std::move(version);
}

void RecordingHostServices::SetBetaPrime(bool beta) {
    Lock lock(mutex_);
    betaPrime_ = beta;
}

// --- suites, media manager, localisation, allocation --------------------------------------

int RecordingHostServices::AddSuite(std::string_view name, int32_t major, int32_t minor,
                                    int32_t count, const void* table) {
    if (table == nullptr || count < 0) return velacore::kStandaloneParamError;
    Lock lock(mutex_);
    const bool added = suites_.try_emplace({std::string(name), major, minor}, table).second;
    return added ? 0 : velacore::kStandaloneDuplicateError;
}

int RecordingHostServices::AcquireSuite(std::string_view name, int32_t major, int32_t minor,
                                        const void** table) {
    if (table == nullptr) return velacore::kStandaloneParamError;
    Lock lock(mutex_);
    auto it = suites_.find({std::string(name), major, minor});
    *table = it == suites_.end() ? nullptr : it->second;
    return it == suites_.end() ? velacore::kStandaloneGenericError : 0;
}

NX::IMediaManager* RecordingHostServices::GetMediaManager() {
    Lock lock(mutex_);
    return media_;
}

void RecordingHostServices::SetMediaManager(NX::IMediaManager* manager) {
    Lock lock(mutex_);
    media_ = manager != nullptr ? manager : ownMedia_.get();
}

void RecordingHostServices::SetMediaBudget(uint64_t bytes) {
    ownMedia_->SetBudget(bytes);
}

std::u16string RecordingHostServices::Localize(std::string_view keyAndDefault) {
    return velacore::LocalizeDefaultText(keyAndDefault);
}

void* RecordingHostServices::AllocatePtrClear(size_t size, std::string_view label) {
    Lock lock(mutex_);
    if (failAllocations_) return nullptr;
    std::unique_ptr<void, FreeDeleter> block(std::calloc(size == 0 ? 1 : size, 1));
    if (!block) return nullptr;
    auto it = allocations_.find(label);
    if (it == allocations_.end())
        it = allocations_.emplace(std::string(label), Allocations{}).first;
    it->second.blocks.push_back(std::move(block));
    it->second.bytes += size;
    return it->second.blocks.back().get();
}

uint64_t RecordingHostServices::AllocatedBytes(std::string_view label) {
    Lock lock(mutex_);
    auto it = allocations_.find(label);
    return it == allocations_.end() ? 0 : it->second.bytes;
}

uint64_t RecordingHostServices::AllocatedBlocks(std::string_view label) const {
    Lock lock(mutex_);
    auto it = allocations_.find(label);
    return it == allocations_.end() ? 0 : it->second.blocks.size();
}

void RecordingHostServices::SetFailAllocations(bool fail) {
    Lock lock(mutex_);
    failAllocations_ = fail;
}

// --- ScopedHostServices -------------------------------------------------------------------

ScopedHostServices::ScopedHostServices(std::shared_ptr<velacore::HostServices> services)
    : previous_(velacore::GetHostServicesShared()) {
    velacore::SetHostServices(std::move(services));
}

ScopedHostServices::~ScopedHostServices() {
    velacore::SetHostServices(std::move(previous_));
}

}  // namespace mctest
