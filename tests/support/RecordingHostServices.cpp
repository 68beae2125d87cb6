// The recording host services for tests (see RecordingHostServices.h).
#include "support/RecordingHostServices.h"

#include <cstring>

namespace mctest {

namespace {
std::shared_ptr<velacore::StandaloneHostServices> MakeStandalone() {
    velacore::StandaloneConfig config;
    config.memoryBudget = uint64_t{1} << 30;
    config.mediaBudget = uint64_t{1} << 30;
    return std::make_shared<velacore::StandaloneHostServices>(std::move(config));
}
}  // namespace

RecordingHostServices::RecordingHostServices() : RecordingHostServices(MakeStandalone()) {}
RecordingHostServices::RecordingHostServices(
    std::shared_ptr<velacore::StandaloneHostServices> standalone)
    : HostServicesWrapper(standalone), standalone_(std::move(standalone)) {}

int RecordingHostServices::GetMemUsageLimits(uint64_t* limit, uint64_t* physical) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (limit != nullptr) *limit = limit_;
    if (physical != nullptr) *physical = physical_;
    return limitsResult_;
}
void RecordingHostServices::SetMemUsageLimits(uint64_t limit, uint64_t physical, int result) {
    std::lock_guard<std::mutex> lock(mutex_);
    limit_ = limit;
    physical_ = physical;
    limitsResult_ = result;
}
void RecordingHostServices::PurgeRecycledMemory() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++purgeRecycled_;
}
void RecordingHostServices::SetMemoryClient(std::function<int64_t()> usage,
                                            std::function<void()> purge) {
    std::lock_guard<std::mutex> lock(mutex_);
    clientUsage_ = std::move(usage);
    clientPurge_ = std::move(purge);
}
bool RecordingHostServices::HasMemoryClient() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return clientUsage_ || clientPurge_;
}
int RecordingHostServices::StartQuietErrorsOnCurrentThread(int level) {
    const int refusal = Get(quietRefusal_);
    return refusal != 0 ? refusal : standalone_->StartQuietErrorsOnCurrentThread(level);
}
bool RecordingHostServices::IsOnMainThread() {
    return Get(everyThreadMain_).value_or(standalone_->IsOnMainThread());
}
bool RecordingHostServices::IsHoldingNotifyLock() {
    std::lock_guard<std::mutex> lock(mutex_);
    return notifyHolders_.count(std::this_thread::get_id()) != 0;
}
void RecordingHostServices::SetHoldingNotifyLock(bool holding) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (holding) {
        notifyHolders_.insert(std::this_thread::get_id());
    } else {
        notifyHolders_.erase(std::this_thread::get_id());
    }
}
void RecordingHostServices::ExecuteTopLevelFunction(const std::function<void()>& fn) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (deferTopLevel_) return deferredTopLevel_.push_back(fn);
    }
    fn();
}
size_t RecordingHostServices::RunDeferredTopLevelFunctions() {
    std::vector<std::function<void()>> tasks;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tasks.swap(deferredTopLevel_);
    }
    for (const auto& task : tasks) task();
    return tasks.size();
}
int RecordingHostServices::GetComputerName(char* buf, size_t size) {
    const std::string name = Get(computerName_);
    if (buf == nullptr || size <= name.size()) {
        if (buf != nullptr && size > 0) buf[0] = '\0';
        return velacore::kStandaloneParamError;
    }
    std::memcpy(buf, name.c_str(), name.size() + 1);
    return 0;
}
NX::IMediaManager* RecordingHostServices::GetMediaManager() {
    NX::IMediaManager* media = Get(media_);
    return media != nullptr ? media : &standalone_->MediaManager();
}
void* RecordingHostServices::AllocatePtrClear(size_t size, std::string_view label) {
    return Get(failAllocations_) ? nullptr : standalone_->AllocatePtrClear(size, label);
}

void RecordingHostServices::ReportFailedVerification(std::string_view message) {
    Append(verifications_, std::string(message));
}
void RecordingHostServices::ReportErrString(uint32_t base, int severity, std::u16string_view text) {
    const bool quiet = standalone_->AreErrorsQuietOnCurrentThread();
    Append(errStrings_, ErrString{base, severity, std::u16string(text), quiet});
}
void RecordingHostServices::ReportError(std::u16string_view text, int category) {
    const bool quiet = standalone_->AreErrorsQuietOnCurrentThread();
    Append(errors_, ErrorReport{std::u16string(text), category, quiet});
}
void RecordingHostServices::Log(int level, std::string_view category, std::string_view,
                                std::string_view text) {
    Append(logLines_, LogLine{level, std::string(category), std::string(text)});
}
void RecordingHostServices::Trace(std::string_view channel, int level, std::string_view text) {
    Append(traceLines_, TraceLine{std::string(channel), level, std::string(text)});
}
void RecordingHostServices::RecordProfile(std::string_view label, int64_t nanos) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& totals = profiles_[std::string(label)];
    totals.first += 1;
    totals.second += nanos;
}
std::vector<RecordingHostServices::TraceLine> RecordingHostServices::TraceLines(
    std::string_view channel) const {
    std::vector<TraceLine> out;
    for (const auto& line : Get(traceLines_)) {
        if (line.channel == channel) out.push_back(line);
    }
    return out;
}
void RecordingHostServices::ClearRecords() {
    std::lock_guard<std::mutex> lock(mutex_);
    verifications_.clear();
    errStrings_.clear();
    errors_.clear();
    logLines_.clear();
    traceLines_.clear();
    profiles_.clear();
    purgeRecycled_ = 0;
}

}  // namespace mctest
