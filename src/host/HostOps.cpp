// The installed host services and the host operations that forward to them (see HostOps.h).
// The state below is never destroyed, so that threads still running at exit find it intact.
#include "host/HostOps.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <vector>

#include "host/HostOpsInternal.h"
#include "mc/host/Errors.h"

namespace velacore {
namespace {

struct BetaFeatureRecord {
    std::string name;
    int stage;
    std::string title;
    std::string description;
    int a, b, c;
};

struct ServicesState {
    std::mutex mutex;
    std::atomic<HostServices*> current{nullptr};   // hot path
    std::shared_ptr<HostServices> installed;       // keeps `current` alive when installed
    std::shared_ptr<HostServices> fallback;        // the default, created lazily
    HostServicesFactory defaultFactory = nullptr;  // makes `fallback`
    std::vector<BetaFeatureRecord> betaFeatures;   // replayed into every services object
};

ServicesState& State() {
    union Holder {
        Holder() : state() {}
        ~Holder() {}  // never destroyed on purpose
        ServicesState state;
    };
    static Holder holder;
    return holder.state;
}

[[noreturn]] void FailWithoutServices() {
    std::fputs(
        "MC: no host services. Install them with velacore::SetHostServices before the first "
        "host call, or link the standalone host (MC::standalone) and call "
        "velacore::InstallStandaloneHost().\n",
        stderr);
    std::abort();
}

void ReplayBetaFeaturesLocked(ServicesState& s, HostServices& target) {
    for (const auto& f : s.betaFeatures) {
        target.RegisterBetaFeature(f.name, f.stage, f.title, f.description, f.a, f.b, f.c);
    }
}

// Makes the default current when nothing else is; returns the current services.
HostServices& EnsureCurrent() {
    ServicesState& s = State();
    HostServices* now = nullptr;
    {
        std::lock_guard lock(s.mutex);
        now = s.current.load(std::memory_order_acquire);
        if (now != nullptr) return *now;
        if (!s.fallback) {
            if (s.defaultFactory == nullptr) FailWithoutServices();
            s.fallback = s.defaultFactory();
            if (!s.fallback) FailWithoutServices();
        }
        now = s.fallback.get();
        ReplayBetaFeaturesLocked(s, *now);
        s.current.store(now, std::memory_order_release);
    }
    debug::SetProfiling(now->IsConditionalProfiling(), now->ProfilingVolume());
    debug::NoteTraceSettingsChanged();
    return *now;
}

}  // namespace

HostServices* InstalledHostServicesOrNull() {
    return State().current.load(std::memory_order_acquire);
}

void SetHostServices(std::shared_ptr<HostServices> services) {
    ServicesState& s = State();
    std::shared_ptr<HostServices> previous;  // released outside the lock
    HostServices* now = nullptr;
    {
        std::lock_guard lock(s.mutex);
        previous = std::move(s.installed);
        s.installed = std::move(services);
        now = s.installed ? s.installed.get() : s.fallback.get();
        if (s.installed) ReplayBetaFeaturesLocked(s, *now);
        s.current.store(now, std::memory_order_release);
    }
    previous.reset();
    if (now != nullptr) {
        debug::SetProfiling(now->IsConditionalProfiling(), now->ProfilingVolume());
    } else {
        debug::SetProfiling(false, 0);
    }
    debug::NoteTraceSettingsChanged();
}

void SetDefaultHostServicesFactory(HostServicesFactory factory) {
    ServicesState& s = State();
    std::lock_guard lock(s.mutex);
    s.defaultFactory = factory;
}

int AppVersionFromClientVersion(std::string_view text) {
    const char* p = text.data();
    const char* end = p + text.size();
    int major = 0;
    auto [afterMajor, ec] = std::from_chars(p, end, major);
    if (ec != std::errc() || major < 0) return 0;
    int minor = 0;
    if (afterMajor != end && *afterMajor == '.') {
        auto [afterMinor, ec2] = std::from_chars(afterMajor + 1, end, minor);
        if (ec2 != std::errc()) minor = 0;
    }
    if (major > (std::numeric_limits<int>::max() - 255) / 256) return 0;
    return major * 256 + std::clamp(minor, 0, 255);
}

HostServices& GetHostServices() {
    HostServices* now = State().current.load(std::memory_order_acquire);
    return now != nullptr ? *now : EnsureCurrent();
}

std::shared_ptr<HostServices> GetHostServicesShared() {
    EnsureCurrent();
    ServicesState& s = State();
    std::lock_guard lock(s.mutex);
    return s.installed ? s.installed : s.fallback;
}

}  // namespace velacore

using velacore::GetHostServices;

namespace {

std::optional<std::string> PreferenceText(const char* section, const char* key) {
    if (section == nullptr || key == nullptr) return std::nullopt;
    auto text = GetHostServices().GetPreference(section, key);
    if (!text) return std::nullopt;
    // Numbers may be written with surrounding blanks and a leading '+'.
    const auto first = text->find_first_not_of(" \t\r\n");
    const auto last = text->find_last_not_of(" \t\r\n");
    if (first == std::string::npos) return std::nullopt;
    std::string trimmed = text->substr(first, last - first + 1);
    if (trimmed.size() > 1 && trimmed[0] == '+') trimmed.erase(0, 1);
    return trimmed;
}

template <typename T>
std::optional<T> ParseWhole(const std::string& text) {
    T value{};
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace

// --- utility library ----------------------------------------------------------------------

int U_GetMemUsageLimits(uint64_t* limit, uint64_t* second) {
    return GetHostServices().GetMemUsageLimits(limit, second);
}
uint64_t U_AmountToPurge() {
    return GetHostServices().AmountToPurge();
}
uint64_t U_AmountAvailableBeforePurge() {
    return GetHostServices().AmountAvailableBeforePurge();
}
void U_PurgeRecycledMemory() {
    GetHostServices().PurgeRecycledMemory();
}
void U_ReportFailedVerification(std::string_view message) {
    GetHostServices().ReportFailedVerification(message);
}
void Up_ReportErrString(uint32_t base, int severity, std::u16string_view text) {
    GetHostServices().ReportErrString(base, severity, text);
}
void U_ReportError(std::u16string_view text, int category) {
    GetHostServices().ReportError(text, category);
}
int U_TranslateAndReportException(std::exception_ptr error) {
    return GetHostServices().TranslateAndReportException(std::move(error));
}
int U_StartQuietErrorsOnCurrentThread(int level) {
    return GetHostServices().StartQuietErrorsOnCurrentThread(level);
}
void U_EndQuietErrorsOnCurrentThread() {
    GetHostServices().EndQuietErrorsOnCurrentThread();
}
bool U_IsOnMainThread() {
    return GetHostServices().IsOnMainThread();
}
int U_GetComputerName(char* buf, size_t size) {
    return GetHostServices().GetComputerName(buf, size);
}
void* U_AllocatePtrClear(size_t size, std::string_view label) {
    return GetHostServices().AllocatePtrClear(size, label);
}

int U_SP_AddSPSuite(int reserved1, int reserved2, const char* name, int32_t major, int32_t minor,
                    int32_t count, const void* table) {
    if (reserved1 != 0 || reserved2 != 0 || name == nullptr) return velacore::kHostParamError;
    return GetHostServices().AddSuite(name, major, minor, count, table);
}

int U_SP_AcquireSuite(const char* name, int32_t major, int32_t minor, const void** table) {
    if (table == nullptr) return velacore::kHostParamError;
    *table = nullptr;
    if (name == nullptr) return velacore::kHostParamError;
    return GetHostServices().AcquireSuite(name, major, minor, table);
}

void ALOG_Log(int level, std::string_view category, std::string_view event, std::string_view text) {
    GetHostServices().Log(level, category, event, text);
}

// --- application support and preferences --------------------------------------------------

BetaFeature::BetaFeature(const char* name, int stage, const char* title, const char* description,
                         int a, int b, int c)
    : name_(name) {
    auto& s = velacore::State();
    std::lock_guard lock(s.mutex);
    s.betaFeatures.push_back(
        {name ? name : "", stage, title ? title : "", description ? description : "", a, b, c});
    // Services not yet current get the feature when they become current.
    if (auto* now = s.current.load(std::memory_order_acquire)) {
        const auto& f = s.betaFeatures.back();
        now->RegisterBetaFeature(f.name, f.stage, f.title, f.description, a, b, c);
    }
}

bool IsFeatureEnabled(std::string_view name) {
    return GetHostServices().IsFeatureEnabled(name);
}
std::string GetClientInternalVersion() {
    return GetHostServices().GetClientInternalVersion();
}
bool IsBetaPrime() {
    return GetHostServices().IsBetaPrime();
}
bool IsApplicationFrontmost() {
    return GetHostServices().IsApplicationFrontmost();
}

PREF_Handle PREF_GetPrefHandle() {
    static const char handle = 0;
    return &handle;
}

int PREF_GetTextPrefLong(PREF_Handle, const char* section, const char* key, int64_t defaultValue,
                         int64_t* value) {
    if (value == nullptr) return velacore::kHostParamError;
    auto text = PreferenceText(section, key);
    auto parsed = text ? ParseWhole<int64_t>(*text) : std::nullopt;
    *value = parsed.value_or(defaultValue);
    return 0;
}

int PREF_GetTextPrefFpLong(PREF_Handle, const char* section, const char* key, double defaultValue,
                           double* value) {
    if (value == nullptr) return velacore::kHostParamError;
    auto text = PreferenceText(section, key);
    auto parsed = text ? ParseWhole<double>(*text) : std::nullopt;
    *value = parsed.value_or(defaultValue);
    return 0;
}

// --- core library -------------------------------------------------------------------------

namespace config {
void ExecuteTopLevelFunction(const std::function<void()>& fn) {
    GetHostServices().ExecuteTopLevelFunction(fn);
}

void DoThrowNullPtrException(const char* typeName) {
    throw velacore::NullPointerError(std::string("null pointer to ") +
                                     (typeName != nullptr ? typeName : "an object"));
}
}  // namespace config

// --- media library ------------------------------------------------------------------------

namespace NX {
IMediaManager* GetMediaManager() {
    return GetHostServices().GetMediaManager();
}
namespace MM {
uint64_t GetFixedMaxCacheSize() {
    IMediaManager* manager = GetMediaManager();
    return manager != nullptr ? manager->GetFixedMaxCacheSize() : 0;
}
}  // namespace MM
}  // namespace NX
