// The standalone host: the HostServices MC uses when the embedding application installs none,
// configured by a StandaloneConfig (a TOML file named by MC_CONFIG, then MC_* environment
// overrides; docs/configuration.md lists every key). It owns a memory monitor thread (started
// by the first SetMemoryClient with a purge hook), a logger, trace levels, profiling totals,
// a suite registry, a media manager and the blocks handed out by AllocatePtrClear.
// Thread-safety: every method may be called from any thread, setters included. Construct and
// destroy from one thread; destruction waits for the memory monitor thread to finish.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "mc/host/Errors.h"
#include "mc/host/HostServices.h"
#include "mc/standalone/Export.h"

namespace NX {
class StandaloneMediaManager;
}

namespace velacore {

class StandaloneMemoryMonitor;
class StandaloneLogger;
class StandaloneSettings;
class StandaloneSuiteRegistry;
class StandaloneLabelledAllocator;

// Error codes returned by the standalone services (the host operations' codes, Errors.h).
constexpr int kStandaloneGenericError = kHostGenericError;
constexpr int kStandaloneDuplicateError = kHostDuplicateError;
constexpr int kStandaloneParamError = kHostParamError;
constexpr int kStandaloneOutOfMemoryError = kHostOutOfMemoryError;

// A configuration that cannot be used; the message names the file or variable and the key.
class MCSTANDALONE_API StandaloneConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Everything the standalone services can be told. Empty optionals mean "use the default".
struct MCSTANDALONE_API StandaloneConfig {
    // Looks up an environment variable by name; nothing when unset.
    using EnvLookup = std::function<std::optional<std::string>(std::string_view name)>;

    std::optional<uint64_t> memoryBudget;  // default: 25% of physical memory
    int lowWaterPercent = 90;              // purge down to this share of the budget
    std::chrono::milliseconds monitorInterval{20};
    std::optional<uint64_t> mediaBudget;  // default: 50% of physical memory
    std::string logTarget;                // "" or "stderr", else a file path
    std::optional<std::string> logLevel;  // default: "info" with a target, else "off"
    std::map<std::string, int, std::less<>> traceLevels;  // channel -> highest level shown
    bool profiling = false;
    int profilingVolume = 0;
    std::map<std::string, std::string, std::less<>> debugEntries;
    std::map<std::pair<std::string, std::string>, std::string> preferences;  // (section, key)
    std::set<std::string, std::less<>> betaFeatures;  // enabled feature names
    std::string clientVersion = "1.0";
    bool betaBuild = false;
    std::optional<std::string> computerName;  // default: the machine's name
    bool frontmost = true;
    RemoteTierSettings remote;  // [remote] / MC_REMOTE_*: off without URLs
    std::string configFile;     // the TOML file read, empty when none

    // Reads a TOML document; `source` names it in error messages. Throws StandaloneConfigError.
    static StandaloneConfig FromTomlText(std::string_view text, std::string_view source);
    // Reads a TOML file (configFile is set to path). Throws StandaloneConfigError.
    static StandaloneConfig FromTomlFile(const std::string& path);
    // The file named by MC_CONFIG (if any), then the MC_* overrides, both read through lookup.
    // Throws StandaloneConfigError.
    static StandaloneConfig FromLookup(const EnvLookup& lookup);
    // FromLookup over the process environment.
    static StandaloneConfig FromEnvironment();
    // Applies the MC_* overrides found through lookup. Throws StandaloneConfigError.
    void ApplyEnvironment(const EnvLookup& lookup);
};

// Parses a byte amount: "1048576", "512K", "64M", "2G", "1T" (1024 steps, optional trailing
// "B", any case) or "25%" of `physical`. Throws std::invalid_argument with the reason.
MCSTANDALONE_API uint64_t ParseByteAmount(std::string_view text, uint64_t physical);

// The default text of a localisable "key=default{{*COMMENT*}}note" string with the host's
// markup resolved ("#{rsquo}" becomes U+2019), as UTF-16. Without "=" the whole text counts.
MCSTANDALONE_API std::u16string LocalizeDefaultText(std::string_view keyAndDefault);

class MCSTANDALONE_API StandaloneHostServices : public HostServices {
public:
    // Running totals of one profiling label.
    struct ProfileTotals {
        uint64_t count = 0;
        int64_t totalNanos = 0;
    };
    // How often each kind of report and memory event happened.
    struct Counters {
        uint64_t failedVerifications = 0;
        uint64_t errorStrings = 0;
        uint64_t errors = 0;
        uint64_t translatedExceptions = 0;
        uint64_t recycledMemoryPurges = 0;
        uint64_t memorySamples = 0;  // usage() calls by the monitor
        uint64_t purgeCalls = 0;     // purge() calls by the monitor
    };
    // A registered beta feature.
    struct BetaFeatureInfo {
        std::string name;
        int stage = 0;
        std::string title;
        std::string description;
    };

    // Defaults for everything (no file, no environment).
    StandaloneHostServices();
    // Takes the configuration as given. The constructing thread becomes the main thread.
    explicit StandaloneHostServices(StandaloneConfig config);
    // Stops the memory monitor (waiting for a running purge) and the media manager's worker;
    // frees every block AllocatePtrClear handed out.
    ~StandaloneHostServices() override;
    StandaloneHostServices(const StandaloneHostServices&) = delete;
    StandaloneHostServices& operator=(const StandaloneHostServices&) = delete;

    // Services configured from MC_CONFIG and the environment. Throws StandaloneConfigError.
    static std::shared_ptr<StandaloneHostServices> CreateFromEnvironment();
    // The numeric application version of a "major.minor[...]" text: major * 256 + minor, the
    // minor clamped to 0..255 and absent counting as 0; 0 when the text has no leading number.
    static int AppVersionFromClientVersion(std::string_view clientVersion) {
        return velacore::AppVersionFromClientVersion(clientVersion);
    }

    // --- HostServices (contracts in HostServices.h; what the standalone host does) --------
    // The configured budget and the installed physical memory. Returns 0; null pointers skipped.
    int GetMemUsageLimits(uint64_t* limit, uint64_t* physical) override;
    // usage - low water as found by the monitor's last sample above the budget, else 0.
    uint64_t AmountToPurge() override;
    // max(0, budget - usage of the last sample).
    uint64_t AmountAvailableBeforePurge() override;
    // Trims the heap (glibc) and counts the call.
    void PurgeRecycledMemory() override;
    // A non-empty purge starts the monitor thread, which samples usage every interval and calls
    // purge above the budget; empty hooks stop it (waiting for a purge in flight, unless called
    // from purge itself). The services keep copies of both functions until replaced.
    void SetMemoryClient(std::function<int64_t()> usage, std::function<void()> purge) override;
    MemoryWake GetMemoryWake() override;
    // Reports are counted, and logged unless errors are quiet on the calling thread.
    void ReportFailedVerification(std::string_view message) override;
    void ReportErrString(uint32_t base, int severity, std::u16string_view text) override;
    void ReportError(std::u16string_view text, int category) override;
    // int -> itself, HostError -> Code(), std::bad_alloc -> kStandaloneOutOfMemoryError,
    // anything else -> kStandaloneGenericError; a null error -> 0 (not reported).
    int TranslateAndReportException(std::exception_ptr error) override;
    // Quiet depth is per thread and shared by every StandaloneHostServices object.
    int StartQuietErrorsOnCurrentThread(int level) override;
    void EndQuietErrorsOnCurrentThread() override;
    bool AreErrorsQuietOnCurrentThread() override;
    // Whether the calling thread is the constructing thread or the one SetMainThread named.
    bool IsOnMainThread() override;
    // The standalone host has no notification lock.
    bool IsHoldingNotifyLock() override { return false; }
    bool IsApplicationFrontmost() override;
    // Runs fn at once on the calling thread.
    void ExecuteTopLevelFunction(const std::function<void()>& fn) override { fn(); }
    // Levels: <= 0 debug, 1 info, 2 warning, 3 error, >= 4 critical.
    void Log(int level, std::string_view category, std::string_view event,
             std::string_view text) override;
    bool IsTraceEnabled(std::string_view channel, int level) override;
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
    // Returns kStandaloneParamError (and writes "" when size > 0) when buf cannot hold the name.
    int GetComputerName(char* buf, size_t size) override;
    std::string GetClientInternalVersion() override { return config_.clientVersion; }
    bool IsBetaPrime() override { return config_.betaBuild; }
    // Tables are not owned. Duplicates give kStandaloneDuplicateError; a missing suite gives
    // kStandaloneGenericError and a null *table.
    int AddSuite(std::string_view name, int32_t major, int32_t minor, int32_t count,
                 const void* table) override;
    int AcquireSuite(std::string_view name, int32_t major, int32_t minor,
                     const void** table) override;
    // The services' own StandaloneMediaManager (owned by the services, never null).
    NX::IMediaManager* GetMediaManager() override;
    // LocalizeDefaultText: the standalone host has no translations.
    std::u16string Localize(std::string_view keyAndDefault) override;
    // Blocks stay owned by the services and are freed when it is destroyed; never free them.
    void* AllocatePtrClear(size_t size, std::string_view label) override;
    uint64_t AllocatedBytes(std::string_view label) override;
    RemoteTierSettings GetRemoteTierSettings() override { return config_.remote; }

    // --- standalone extras --------------------------------------------------------------
    // The configuration as given (budgets not yet resolved; see the resolved figures below).
    const StandaloneConfig& Config() const { return config_; }
    // Resolved figures in bytes, fixed at construction.
    uint64_t MemoryBudget() const { return budget_; }
    uint64_t LowWaterBytes() const { return lowWater_; }
    uint64_t PhysicalMemory() const { return physical_; }
    uint64_t MediaBudget() const { return mediaBudget_; }
    // AppVersionFromClientVersion of the configured client version.
    int AppVersion() const { return AppVersionFromClientVersion(config_.clientVersion); }
    // The configured name, else the machine's network name (may be empty when unknown).
    std::string ComputerName() const { return computerName_; }
    // The media manager, owned by the services.
    NX::StandaloneMediaManager& MediaManager() { return *media_; }

    // Makes `id` the main thread.
    void SetMainThread(std::thread::id id);
    // The calling thread becomes the main thread. Its id is taken inside this library: a
    // statically linked thread runtime gives each Windows module its own ids.
    void SetMainThread();
    void SetApplicationFrontmost(bool frontmost);
    // Shows channel up to level (a negative level hides it); notifies cached trace sites.
    void SetTraceLevel(std::string_view channel, int level);
    // Configured channels and their levels.
    std::vector<std::pair<std::string, int>> TraceChannels() const;
    // Switches conditional profiling; refreshes the global flag when these services are
    // the installed ones.
    void SetConditionalProfiling(bool on, int volume);
    // Totals recorded for label, nothing when none.
    std::optional<ProfileTotals> ProfileFor(std::string_view label) const;
    // Add or replace a debug entry, a preference; enable or disable a beta feature.
    void SetDebugEntry(std::string_view name, std::string_view value);
    void SetPreference(std::string_view section, std::string_view key, std::string_view value);
    void SetFeatureEnabled(std::string_view name, bool enabled);
    // Features registered so far (by name order), enabled or not.
    std::vector<BetaFeatureInfo> RegisteredBetaFeatures() const;
    // Blocks currently handed out under label.
    uint64_t AllocatedBlocks(std::string_view label) const;
    // Whether the memory monitor thread runs.
    bool IsMemoryMonitorRunning() const;
    // A snapshot of the counters.
    Counters GetCounters() const;

private:
    void CountAndLog(std::atomic<uint64_t>& counter, int level, std::string_view event,
                     std::string_view text);

    StandaloneConfig config_;
    uint64_t physical_ = 0;
    uint64_t budget_ = 0;
    uint64_t lowWater_ = 0;
    uint64_t mediaBudget_ = 0;
    std::string computerName_;
    std::atomic<std::thread::id> mainThread_;
    std::atomic<bool> frontmost_{true};
    std::atomic<uint64_t> failedVerifications_{0};
    std::atomic<uint64_t> errorStrings_{0};
    std::atomic<uint64_t> errors_{0};
    std::atomic<uint64_t> translatedExceptions_{0};
    std::atomic<uint64_t> recycledPurges_{0};
    std::atomic<bool> profiling_{false};
    std::atomic<int> profilingVolume_{0};
    mutable std::mutex profileMutex_;
    std::map<std::string, ProfileTotals, std::less<>> profiles_;
    std::unique_ptr<StandaloneLogger> logger_;
    std::unique_ptr<StandaloneSettings> settings_;
    std::unique_ptr<StandaloneSuiteRegistry> suites_;
    std::unique_ptr<StandaloneLabelledAllocator> allocator_;
    std::unique_ptr<NX::StandaloneMediaManager> media_;
    std::unique_ptr<StandaloneMemoryMonitor> monitor_;  // last: stopped first
};

}  // namespace velacore
