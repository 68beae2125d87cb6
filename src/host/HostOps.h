// The host operations the module calls, under their host names, in one place. Each forwards to
// the installed HostServices (include/mc/host/HostServices.h) or is a portable primitive.
// Thread-safety: every function may be called from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "mc/host/Export.h"
#include "mc/host/HostServices.h"
#include "mc/host/LStrCache.h"
#include "mc/host/MediaManager.h"

// --- utility library ----------------------------------------------------------------------
MCHOST_API int U_GetMemUsageLimits(uint64_t* limit, uint64_t* second);
MCHOST_API uint64_t U_AmountToPurge();
MCHOST_API uint64_t U_AmountAvailableBeforePurge();
MCHOST_API void U_PurgeRecycledMemory();
MCHOST_API void U_ReportFailedVerification(std::string_view message);
MCHOST_API void Up_ReportErrString(uint32_t base, int severity, std::u16string_view text);
MCHOST_API void U_ReportError(std::u16string_view text, int category);
// Hands the exception to the host's translation; returns the integer it stands for.
MCHOST_API int U_TranslateAndReportException(std::exception_ptr error);
MCHOST_API int U_StartQuietErrorsOnCurrentThread(int level);
MCHOST_API void U_EndQuietErrorsOnCurrentThread();
MCHOST_API bool U_IsOnMainThread();
MCHOST_API int U_GetComputerName(char* buf, size_t size);
MCHOST_API void* U_AllocatePtrClear(size_t size, std::string_view label);
// Publishes a suite; the two leading arguments are reserved and must be 0.
MCHOST_API int U_SP_AddSPSuite(int reserved1, int reserved2, const char* name, int32_t major,
                               int32_t minor, int32_t count, const void* table);
MCHOST_API int U_SP_AcquireSuite(const char* name, int32_t major, int32_t minor,
                                 const void** table);
MCHOST_API void ALOG_Log(int level, std::string_view category, std::string_view event,
                         std::string_view text);

// Localised-string cache: see include/mc/host/LStrCache.h.
// Looks up entry `index` of the table `zref` points at; empty for an index past the end.
MCHOST_API std::u16string U_ZLookupLStrCache(const U_LStrCacheEntry* zref, int index, int, int);
// Copies a localised string into a narrow buffer (UTF-8, NUL-terminated). Returns 0 or an error.
MCHOST_API int U_CopyLocalizedString(const U_LStrCacheEntry* zref, int index, char* buf,
                                     size_t size);

namespace U {
// Whether the calling thread holds the host's notification lock.
struct ScNotifyHoldingMutexLock {
    static bool IsHoldingLock() { return velacore::GetHostServices().IsHoldingNotifyLock(); }
};
}  // namespace U
using U::ScNotifyHoldingMutexLock;

// Runs the profiler-free formatting of a byte count ("1.50 GB").
MCHOST_API std::string NumberToMemoryString(double bytes, int decimals);

// --- application support and preferences --------------------------------------------------
class MCHOST_API BetaFeature {
public:
    BetaFeature(const char* name, int stage, const char* title, const char* description, int a,
                int b, int c);
    const char* Name() const { return name_; }

private:
    const char* name_;
};
MCHOST_API bool IsFeatureEnabled(std::string_view name);
MCHOST_API std::string GetClientInternalVersion();
MCHOST_API bool IsBetaPrime();
MCHOST_API bool IsApplicationFrontmost();

using PREF_Handle = const void*;
MCHOST_API PREF_Handle PREF_GetPrefHandle();
// Reads an integer preference; *value = default when absent or unparsable. Returns 0 or an error.
MCHOST_API int PREF_GetTextPrefLong(PREF_Handle h, const char* section, const char* key,
                                    int64_t defaultValue, int64_t* value);
MCHOST_API int PREF_GetTextPrefFpLong(PREF_Handle h, const char* section, const char* key,
                                      double defaultValue, double* value);

// --- core library -------------------------------------------------------------------------
namespace velacore {
struct DebugDatabase {
    // The entry's text, or nothing when absent.
    static std::optional<std::string> GetEntry(std::string_view name) {
        return GetHostServices().GetDebugEntry(name);
    }
};
}  // namespace velacore

namespace config {
MCHOST_API void ExecuteTopLevelFunction(const std::function<void()>& fn);
// Throws velacore::NullPointerError naming the type.
[[noreturn]] MCHOST_API void DoThrowNullPtrException(const char* typeName);
}  // namespace config

namespace debug {
// Moves whenever trace settings change anywhere; call sites cache against it.
MCHOST_API uint64_t TraceChangeCount();
MCHOST_API void NoteTraceSettingsChanged();
MCHOST_API bool IsTraceEnabled(std::string_view channel, int level);
MCHOST_API void Trace(std::string_view channel, int level, std::string_view text);

// One trace call site: caches whether its channel is on at its level, re-querying only when the
// change count moved. Cheap when tracing is off: two relaxed loads and a compare.
class MCHOST_API TraceSite {
public:
    constexpr TraceSite(const char* channel, int level) : channel_(channel), level_(level) {}
    bool Enabled() {
        const uint64_t now = TraceChangeCount();
        if (seen_.load(std::memory_order_relaxed) != now) Refresh(now);
        return enabled_.load(std::memory_order_relaxed);
    }
    void Write(std::string_view text) { Trace(channel_, level_, text); }

private:
    void Refresh(uint64_t now);
    const char* channel_;
    int level_;
    std::atomic<uint64_t> seen_{~uint64_t{0}};
    std::atomic<bool> enabled_{false};
};

// Conditional profiling state, refreshed from the services; one relaxed load when off.
MCHOST_API bool IsProfiling(int volume);
MCHOST_API void SetProfiling(bool on, int volume);

// Measures a scope under a label when conditional profiling runs at or above `volume`.
class MCHOST_API ProfileScope {
public:
    ProfileScope(const char* label, int volume);
    ~ProfileScope();
    ProfileScope(const ProfileScope&) = delete;
    ProfileScope& operator=(const ProfileScope&) = delete;

private:
    const char* label_;
    uint64_t start_ = 0;
};
}  // namespace debug

// --- media library ------------------------------------------------------------------------
namespace NX {
MCHOST_API IMediaManager* GetMediaManager();
namespace MM {
MCHOST_API uint64_t GetFixedMaxCacheSize();
}
}  // namespace NX
