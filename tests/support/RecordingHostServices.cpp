// The recording host services for tests (see RecordingHostServices.h).
#include "support/RecordingHostServices.h"

#include <cstring>

namespace mctest {

int RecordingHostServices::GetMemUsageLimits(uint64_t* limit, uint64_t* physical) {
    const Limits l = Get(limits_);
    if (limit != nullptr) *limit = l.limit;
    if (physical != nullptr) *physical = l.physical;
    return l.result;
}
void RecordingHostServices::PurgeRecycledMemory() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++records_.purgeRecycled;
}
void RecordingHostServices::SetHoldingNotifyLock(bool holding) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (holding) notifyHolders_.insert(Me());
    if (!holding) notifyHolders_.erase(Me());
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
void RecordingHostServices::RecordProfile(std::string_view label, int64_t nanos) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& totals = records_.profiles[std::string(label)];
    totals.first += 1;
    totals.second += nanos;
}
std::vector<RecordingHostServices::TraceLine> RecordingHostServices::TraceLines(
    std::string_view channel) const {
    std::vector<TraceLine> out;
    for (const auto& line : Get(records_).traceLines)
        if (line.channel == channel) out.push_back(line);
    return out;
}
}  // namespace mctest
