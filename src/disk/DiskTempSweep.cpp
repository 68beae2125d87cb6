// Sweeping writers' temporaries (see DiskTempSweep.h). The record keeps, per bag, the size
// counted for each temporary, so that a second pass over the same folder counts nothing twice
// and a temporary that goes stops counting.
#include "disk/DiskTempSweep.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "host/HostOps.h"
#include "mc/MC_Bag.h"
#include "mc/host/Errors.h"

using velacore::File;

namespace {

debug::TraceSite g_sweepTrace("DiskCache", 6);

constexpr std::u16string_view kTempSuffix = u".zkcache.tmp";

struct CountedTemps {
    std::weak_ptr<MC_Bag> bag;
    std::map<std::filesystem::path, uint64_t> sizes;  // path -> bytes counted
};

std::mutex g_mutex;  // guards g_counted
std::vector<CountedTemps> g_counted;

// The record of `bag` (created on first use); drops the records of bags that are gone.
CountedTemps& RecordOf(MC_Bag& bag) {
    std::erase_if(g_counted, [](const CountedTemps& c) { return c.bag.expired(); });
    for (CountedTemps& c : g_counted)
        if (c.bag.lock().get() == &bag) return c;
    g_counted.push_back({bag.weak_from_this(), {}});
    return g_counted.back();
}

int64_t NowNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// What a look at one temporary found.
struct TempState {
    bool present = false;
    bool abandoned = false;
    uint64_t size = 0;
};

TempState Look(const File& temp, int64_t now) {
    TempState state;
    try {
        state.size = temp.Size();  // regular files only
        state.abandoned = now - temp.Modified() >= kAbandonedTempFileNanos;
        state.present = true;
    } catch (const velacore::HostError&) {
        // gone, or not a regular file: nothing of ours to count or remove
    }
    return state;
}

void Remove(const File& temp) {
    try {
        temp.Delete();
        if (g_sweepTrace.Enabled())
            g_sweepTrace.Write("removed abandoned temporary " + temp.GetFullPathUtf8() + "\n");
    } catch (const velacore::HostError&) {
        // already gone
    }
}

// Brings the record of one temporary up to date; returns the change of the counted bytes.
int64_t Update(CountedTemps& record, const File& temp, int64_t now) {
    const TempState state = Look(temp, now);
    if (state.present && state.abandoned) Remove(temp);
    const auto it = record.sizes.find(temp.GetFullPath());
    const int64_t before = it == record.sizes.end() ? 0 : static_cast<int64_t>(it->second);
    if (!state.present || state.abandoned) {
        if (it != record.sizes.end()) record.sizes.erase(it);
        return -before;
    }
    record.sizes[temp.GetFullPath()] = state.size;
    return static_cast<int64_t>(state.size) - before;
}

}  // namespace

bool MCp_IsCacheTempFile(const File& file) {
    const std::u16string name = file.GetName();
    return name.size() > kTempSuffix.size() && name.ends_with(kTempSuffix);
}

void MCp_SweepTempFiles(MC_Bag& bag, const std::vector<File>& temps) {
    try {
        const int64_t now = NowNanos();
        std::lock_guard<std::mutex> lock(g_mutex);
        CountedTemps& record = RecordOf(bag);
        if (record.bag.expired()) return;  // a bag nobody shares: nothing can keep the record
        int64_t delta = 0;
        for (const File& temp : temps) delta += Update(record, temp, now);
        if (delta != 0) bag.AdjustOnDiskCacheSize(delta);
    } catch (...) {
        // the sweep is housekeeping: the scan goes on without it
    }
}

void MCp_RecheckCountedTempFiles(MC_Bag& bag) {
    try {
        const int64_t now = NowNanos();
        std::lock_guard<std::mutex> lock(g_mutex);
        CountedTemps& record = RecordOf(bag);
        std::vector<File> counted;
        for (const auto& entry : record.sizes) counted.emplace_back(entry.first);
        int64_t delta = 0;
        for (const File& temp : counted) delta += Update(record, temp, now);
        if (delta != 0) bag.AdjustOnDiskCacheSize(delta);
    } catch (...) {
        // housekeeping only
    }
}
