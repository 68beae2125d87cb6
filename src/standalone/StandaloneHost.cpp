// StandaloneHostServices: construction and the memory, report, thread and log services (see
// mc/standalone/StandaloneHost.h). Configuration, settings, suites and the rest live beside it.
#include "mc/standalone/StandaloneHost.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <new>

#include "host/HostOps.h"
#include "host/HostOpsInternal.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"
#include "mc/standalone/StandaloneMediaManager.h"
#include "standalone/StandaloneHostAllocator.h"
#include "standalone/StandaloneHostLog.h"
#include "standalone/StandaloneHostMemory.h"
#include "standalone/StandaloneHostSettings.h"
#include "standalone/StandaloneHostSuites.h"
#include "standalone/StandaloneSystem.h"

namespace velacore {
namespace {

// Quiet-errors depth of the calling thread (shared by every services object).
thread_local int tQuietDepth = 0;

constexpr int kLogError = 3;
constexpr int kLogCritical = 4;

uint64_t Percent(uint64_t total, int percent) {
    return total / 100 * static_cast<uint64_t>(percent) + total % 100 * percent / 100;
}

std::string ResolveLogLevel(const StandaloneConfig& config) {
    if (config.logLevel) return *config.logLevel;
    return config.logTarget.empty() ? "off" : "info";
}

}  // namespace

StandaloneHostServices::StandaloneHostServices() : StandaloneHostServices(StandaloneConfig{}) {}

StandaloneHostServices::StandaloneHostServices(StandaloneConfig config)
    : config_(std::move(config)),
      physical_(hostsys::PhysicalMemoryBytes()),
      mainThread_(std::this_thread::get_id()),
      frontmost_(config_.frontmost),
      profiling_(config_.profiling),
      profilingVolume_(config_.profilingVolume) {
    budget_ = config_.memoryBudget.value_or(Percent(physical_, 25));
    lowWater_ = Percent(budget_, std::clamp(config_.lowWaterPercent, 1, 100));
    mediaBudget_ = config_.mediaBudget.value_or(Percent(physical_, 50));
    computerName_ = config_.computerName.value_or(hostsys::MachineName());
    logger_ = std::make_unique<StandaloneLogger>(config_.logTarget, ResolveLogLevel(config_),
                                                 config_.traceLevels);
    settings_ = std::make_unique<StandaloneSettings>(config_);
    suites_ = std::make_unique<StandaloneSuiteRegistry>();
    allocator_ = std::make_unique<StandaloneLabelledAllocator>();
    media_ = std::make_unique<NX::StandaloneMediaManager>(mediaBudget_);
    monitor_ =
        std::make_unique<StandaloneMemoryMonitor>(budget_, lowWater_, config_.monitorInterval);
}

StandaloneHostServices::~StandaloneHostServices() {
    // Stop the monitor while every member is intact: a running purge hook may still call in.
    monitor_->SetClient(nullptr, nullptr);
    media_.reset();
}

std::shared_ptr<StandaloneHostServices> StandaloneHostServices::CreateFromEnvironment() {
    return std::make_shared<StandaloneHostServices>(StandaloneConfig::FromEnvironment());
}

// --- memory -------------------------------------------------------------------------------

int StandaloneHostServices::GetMemUsageLimits(uint64_t* limit, uint64_t* physical) {
    if (limit != nullptr) *limit = budget_;
    if (physical != nullptr) *physical = physical_;
    return 0;
}

uint64_t StandaloneHostServices::AmountToPurge() {
    return monitor_->AmountToPurge();
}

uint64_t StandaloneHostServices::AmountAvailableBeforePurge() {
    return monitor_->AmountAvailable();
}

// Every request is counted; the heap is trimmed at most once a second (a trim walks the heap).
void StandaloneHostServices::PurgeRecycledMemory() {
    recycledPurges_.fetch_add(1, std::memory_order_relaxed);
    static std::atomic<int64_t> lastTrim{INT64_MIN / 2};
    const int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count();
    int64_t last = lastTrim.load(std::memory_order_relaxed);
    if (now - last < 1000 || !lastTrim.compare_exchange_strong(last, now)) return;
    hostsys::ReleaseFreeHeapMemory();
}

void StandaloneHostServices::SetMemoryClient(std::function<int64_t()> usage,
                                             std::function<void()> purge) {
    monitor_->SetClient(std::move(usage), std::move(purge));
}

velacore::HostServices::MemoryWake StandaloneHostServices::GetMemoryWake() {
    // The monitor lives as long as these services; the cache drops the hook before they go.
    StandaloneMemoryMonitor* monitor = monitor_.get();
    return {monitor->Budget(), [monitor] { monitor->Wake(); }};
}

bool StandaloneHostServices::IsMemoryMonitorRunning() const {
    return monitor_->IsRunning();
}

// --- reports ------------------------------------------------------------------------------

void StandaloneHostServices::CountAndLog(std::atomic<uint64_t>& counter, int level,
                                         std::string_view event, std::string_view text) {
    counter.fetch_add(1, std::memory_order_relaxed);
    if (tQuietDepth == 0) logger_->Log(level, "MC", event, text);
}

void StandaloneHostServices::ReportFailedVerification(std::string_view message) {
    CountAndLog(failedVerifications_, kLogCritical, "verification failed", message);
}

void StandaloneHostServices::ReportErrString(uint32_t base, int severity,
                                             std::u16string_view text) {
    const std::string line = ToUtf8(text) + " (base " + std::to_string(base) + ", severity " +
                             std::to_string(severity) + ")";
    CountAndLog(errorStrings_, kLogError, "error string", line);
}

void StandaloneHostServices::ReportError(std::u16string_view text, int category) {
    CountAndLog(errors_, kLogError, "error",
                ToUtf8(text) + " (category " + std::to_string(category) + ")");
}

int StandaloneHostServices::TranslateAndReportException(std::exception_ptr error) {
    if (!error) return 0;
    int code = kStandaloneGenericError;
    std::string what = "unknown exception";
    try {
        std::rethrow_exception(error);
    } catch (int value) {
        code = value;
        what = "error " + std::to_string(value);
    } catch (const HostError& e) {
        code = e.Code();
        what = e.what();
    } catch (const std::bad_alloc& e) {
        code = kStandaloneOutOfMemoryError;
        what = e.what();
    } catch (const std::exception& e) {
        what = e.what();
    } catch (...) {
    }
    CountAndLog(translatedExceptions_, kLogError, "exception",
                what + " (code " + std::to_string(code) + ")");
    return code;
}

int StandaloneHostServices::StartQuietErrorsOnCurrentThread(int /*level*/) {
    ++tQuietDepth;
    return 0;
}

void StandaloneHostServices::EndQuietErrorsOnCurrentThread() {
    if (tQuietDepth > 0) --tQuietDepth;
}

bool StandaloneHostServices::AreErrorsQuietOnCurrentThread() {
    return tQuietDepth > 0;
}

// --- threads ------------------------------------------------------------------------------

bool StandaloneHostServices::IsOnMainThread() {
    return mainThread_.load(std::memory_order_acquire) == std::this_thread::get_id();
}

void StandaloneHostServices::SetMainThread() {
    SetMainThread(std::this_thread::get_id());
}

void StandaloneHostServices::SetMainThread(std::thread::id id) {
    mainThread_.store(id, std::memory_order_release);
}

bool StandaloneHostServices::IsApplicationFrontmost() {
    return frontmost_.load(std::memory_order_relaxed);
}

void StandaloneHostServices::SetApplicationFrontmost(bool frontmost) {
    frontmost_.store(frontmost, std::memory_order_relaxed);
}

// --- log, traces and profiling ------------------------------------------------------------

void StandaloneHostServices::Log(int level, std::string_view category, std::string_view event,
                                 std::string_view text) {
    logger_->Log(level, category, event, text);
}

bool StandaloneHostServices::IsTraceEnabled(std::string_view channel, int level) {
    return logger_->IsTraceEnabled(channel, level);
}

void StandaloneHostServices::Trace(std::string_view channel, int level, std::string_view text) {
    logger_->Trace(channel, level, text);
}

void StandaloneHostServices::SetTraceLevel(std::string_view channel, int level) {
    logger_->SetTraceLevel(channel, level);
    debug::NoteTraceSettingsChanged();
}

std::vector<std::pair<std::string, int>> StandaloneHostServices::TraceChannels() const {
    return logger_->Channels();
}

bool StandaloneHostServices::IsConditionalProfiling() {
    return profiling_.load(std::memory_order_relaxed);
}

int StandaloneHostServices::ProfilingVolume() {
    return profilingVolume_.load(std::memory_order_relaxed);
}

void StandaloneHostServices::SetConditionalProfiling(bool on, int volume) {
    profiling_.store(on, std::memory_order_relaxed);
    profilingVolume_.store(volume, std::memory_order_relaxed);
    if (InstalledHostServicesOrNull() == this) debug::SetProfiling(on, volume);
}

void StandaloneHostServices::RecordProfile(std::string_view label, int64_t nanos) {
    std::lock_guard lock(profileMutex_);
    auto it = profiles_.find(label);
    if (it == profiles_.end()) it = profiles_.emplace(std::string(label), ProfileTotals{}).first;
    it->second.count += 1;
    it->second.totalNanos += nanos;
}

std::optional<StandaloneHostServices::ProfileTotals> StandaloneHostServices::ProfileFor(
    std::string_view label) const {
    std::lock_guard lock(profileMutex_);
    auto it = profiles_.find(label);
    if (it == profiles_.end()) return std::nullopt;
    return it->second;
}

StandaloneHostServices::Counters StandaloneHostServices::GetCounters() const {
    Counters c;
    c.failedVerifications = failedVerifications_.load(std::memory_order_relaxed);
    c.errorStrings = errorStrings_.load(std::memory_order_relaxed);
    c.errors = errors_.load(std::memory_order_relaxed);
    c.translatedExceptions = translatedExceptions_.load(std::memory_order_relaxed);
    c.recycledMemoryPurges = recycledPurges_.load(std::memory_order_relaxed);
    c.memorySamples = monitor_->SampleCount();
    c.purgeCalls = monitor_->PurgeCount();
    return c;
}

}  // namespace velacore
