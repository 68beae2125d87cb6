// The disk-cache folder: layout and resolution, a bag's folder settings, the process-wide
// preferences and the one-time rescan. See DiskFolder.h.
#include "disk/DiskFolder.h"

#include <atomic>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>

#include "host/HostOps.h"
#include "lifecycle/Messages.h"
#include "lifecycle/Module.h"
#include "mc/MC_Bag.h"
#include "mc/MC_Errors.h"
#include "mc/MC_Module.h"
#include "mc/MCp_ScLock.h"
#include "mc/host/TextConvert.h"

using velacore::Dir;

namespace {

constexpr const char* kAlertNonexistent =
    "$$$/ZK/MC/DiskCacheFolderNonexistent=Disk Cache folder doesn't exist (or isn't a "
    "directory), so it will be reset to the system temporary directory. Please check your "
    "settings in Media and Disk Cache Preferences.";
constexpr const char* kAlertCantWrite =
    "$$$/ZK/MC/DiskCacheFolderCantWrite=Unable to write to Disk Cache folder, so disk caching "
    "will be disabled. Please check your settings in Media and Disk Cache Preferences.";
constexpr int kAlertCategory = 8;
constexpr int kMachineNameLStr = 23;  // "This Computer"
constexpr size_t kComputerNameSize = 64;

// Reports the alert on the main thread, then throws MCp_Err_DiskFolder on every thread.
[[noreturn]] void FailFolder(const char* alert) {
    if (U_IsOnMainThread())
        Up_ReportErrString(kMCErrorBase, kAlertCategory,
                           velacore::GetHostServices().Localize(alert));
    throw static_cast<int>(MCp_Err_DiskFolder);
}

// The root's path followed by `rest` (which starts with a separator), without doubling the
// separator when the root's path ends with one.
std::filesystem::path UnderRoot(std::u16string rootPath, const std::u16string& rest) {
    while (!rootPath.empty() && rootPath.back() == MCp_DiskFolder::PathSeparator())
        rootPath.pop_back();
    return MCp_DiskFolder::PathFromUtf16(rootPath + rest);
}

bool IsExistingFolder(const Dir& dir) {
    if (dir.IsEmpty()) return false;
    try {
        return dir.Exists();
    } catch (...) {
        return false;  // cannot tell: as unusable as a missing folder
    }
}

// --- preferences ---

constexpr const char* kSection = "Additional Disk Cache Controls";
constexpr const char* kMinimumFreeKey = "Minimum Volume Free Space (Gigabytes)";
constexpr const char* kProclivityKey = "Proclivity Multiplier 2";
constexpr const char* kSpeedCapKey = "Dont Include Speeds Above This In Average (bytes/sec) 3";
constexpr uint64_t kGigabyte = uint64_t{1} << 30;

std::atomic<uint64_t> g_minimumFreeBytes{MCp_DiskFolder::kDefaultMinimumVolumeFreeSpaceGigabytes *
                                         kGigabyte};
std::atomic<double> g_proclivity{MCp_DiskFolder::kDefaultProclivityMultiplier};
std::atomic<double> g_speedCap{MCp_DiskFolder::kDefaultSpeedCapBytesPerSecond};

// Gigabytes to bytes; negative counts as 0 and a huge count saturates.
uint64_t GigabytesToBytes(int64_t gigabytes) {
    if (gigabytes <= 0) return 0;
    const uint64_t g = static_cast<uint64_t>(gigabytes);
    if (g > std::numeric_limits<uint64_t>::max() / kGigabyte)
        return std::numeric_limits<uint64_t>::max();
    return g * kGigabyte;
}

// --- a bag's settings ---

std::atomic<bool> g_initialRescanPosted{false};
debug::TraceSite g_rescanTrace("DiskCache", 6);

int64_t MegabytesToBytes(uint64_t megabytes) {
    constexpr uint64_t kMegabyte = uint64_t{1} << 20;
    constexpr uint64_t kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (megabytes > kMax / kMegabyte) return static_cast<int64_t>(kMax);
    return static_cast<int64_t>(megabytes * kMegabyte);
}

void RunRescan(const std::weak_ptr<MC_Bag>& weakBag) {
    std::shared_ptr<MC_Bag> bag = weakBag.lock();
    if (!bag) bag = MC_GlobalBag();
    if (!bag) return;
    try {
        MCp_DiskFolder::Scan(*bag);
    } catch (...) {
        if (g_rescanTrace.Enabled()) g_rescanTrace.Write("ScanDiskCacheDir THREW\n");
    }
}

}  // namespace

// --- exported layout pieces ----------------------------------------------------------------

std::u16string MC_OstrelZKDirs() {
    const char16_t sep = MCp_DiskFolder::PathSeparator();
    std::u16string dirs;
    dirs += sep;
    dirs += u"Ostrel";
    dirs += sep;
    dirs += u"Tessaline";
    if (IsBetaPrime()) dirs += u" (Beta)";
    return dirs;
}

std::u16string MC_ZKVersDir(const std::u16string& version) {
    return std::u16string(1, MCp_DiskFolder::PathSeparator()) + version;
}

std::u16string MC_GetMachineDirName() {
    char name[kComputerNameSize] = {};
    if (int rc = U_GetComputerName(name, sizeof name)) throw rc;
    name[kComputerNameSize - 1] = '\0';
    if (name[0] == '\0') {
        if (int rc = U_CopyLocalizedString(MC_G_zref, kMachineNameLStr, name, sizeof name))
            throw rc;
        name[kComputerNameSize - 1] = '\0';
    }
    const std::u16string machine =
        velacore::ReplaceIllegalFileNameCharacters(velacore::ToUtf16(name), u'-');
    return u"Disk Cache - " + machine + u".noindex";
}

// --- internal helpers ----------------------------------------------------------------------

char16_t MCp_DiskFolder::PathSeparator() {
    return static_cast<char16_t>(std::filesystem::path::preferred_separator);
}

std::filesystem::path MCp_DiskFolder::PathFromUtf16(std::u16string_view text) {
    const std::string utf8 = velacore::ToUtf8(text);
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

std::u16string MCp_DiskFolder::FullPathUtf16(const Dir& dir) {
    return velacore::ToUtf16(dir.GetFullPathUtf8());
}

std::u16string MCp_DiskFolder::ClientVersionText() {
    return velacore::ToUtf16(GetClientInternalVersion());
}

Dir MCp_DiskFolder::ProductDir(const std::u16string& rootPath) {
    return Dir(UnderRoot(rootPath, MC_OstrelZKDirs()));
}

Dir MCp_DiskFolder::FolderFor(const std::u16string& rootPath, const std::u16string& version) {
    const Dir versionDir(UnderRoot(rootPath, MC_OstrelZKDirs() + MC_ZKVersDir(version)));
    return versionDir.GetSubdir(MC_GetMachineDirName());
}

Dir MCp_DiskFolder::Resolve(const Dir& root, const std::u16string& version) {
    if (!IsExistingFolder(root)) FailFolder(kAlertNonexistent);

    const Dir versionDir(UnderRoot(FullPathUtf16(root), MC_OstrelZKDirs() + MC_ZKVersDir(version)));
    if (!velacore::EnsureDirectoryExists(versionDir)) FailFolder(kAlertCantWrite);

    const Dir machineDir = versionDir.GetSubdir(MC_GetMachineDirName());
    if (IsExistingFolder(machineDir)) return machineDir;
    try {
        machineDir.Create();
    } catch (...) {
        FailFolder(kAlertCantWrite);
    }
    return machineDir;
}

// --- preferences ---------------------------------------------------------------------------

uint64_t MCp_DiskFolder::MinimumVolumeFreeSpaceBytes() {
    return g_minimumFreeBytes.load();
}
double MCp_DiskFolder::ProclivityMultiplier() {
    return g_proclivity.load();
}
double MCp_DiskFolder::SpeedCapBytesPerSecond() {
    return g_speedCap.load();
}

void MCp_DiskFolder::SetMinimumVolumeFreeSpaceBytes(uint64_t bytes) {
    g_minimumFreeBytes.store(bytes);
}
void MCp_DiskFolder::SetProclivityMultiplier(double value) {
    g_proclivity.store(value);
}
void MCp_DiskFolder::SetSpeedCapBytesPerSecond(double bytesPerSecond) {
    g_speedCap.store(bytesPerSecond);
}

void MCp_DiskFolder::ReadPreferences() {
    const PREF_Handle prefs = PREF_GetPrefHandle();

    int64_t gigabytes = 0;
    if (int rc = PREF_GetTextPrefLong(prefs, kSection, kMinimumFreeKey,
                                      kDefaultMinimumVolumeFreeSpaceGigabytes, &gigabytes))
        throw rc;
    SetMinimumVolumeFreeSpaceBytes(GigabytesToBytes(gigabytes));

    double proclivity = 0.0;
    if (int rc = PREF_GetTextPrefFpLong(prefs, kSection, kProclivityKey,
                                        kDefaultProclivityMultiplier, &proclivity))
        throw rc;
    SetProclivityMultiplier(proclivity);

    double speedCap = 0.0;
    if (int rc = PREF_GetTextPrefFpLong(prefs, kSection, kSpeedCapKey,
                                        kDefaultSpeedCapBytesPerSecond, &speedCap))
        throw rc;
    SetSpeedCapBytesPerSecond(speedCap);
}

// --- a bag's settings ------------------------------------------------------------------------

bool MCp_DiskFolder::PostInitialRescanOnce(std::weak_ptr<MC_Bag> bag) {
    if (g_initialRescanPosted.exchange(true)) return false;
    std::shared_ptr<velacore::AsyncThreadedSubExecutor> executor = MCp_AsyncExecutor();
    if (!executor) return false;
    return executor->Post([bag = std::move(bag)] { RunRescan(bag); });
}

void MCp_SetInitialDiskRescanPostedForTesting(bool posted) {
    g_initialRescanPosted.store(posted);
}

void MCp_DiskFolder::SetInfo(MC_Bag& bag, const Dir& root, uint64_t maxSizeMegabytes) {
    MCp_ScLock cacheLock;
    // Throws before anything is stored when the folder cannot be used.
    const Dir folder = Resolve(root, ClientVersionText());
    {
        std::lock_guard<std::recursive_mutex> info(bag.diskInfoMutex_);
        if (!bag.diskDir_ || !(*bag.diskDir_ == folder)) {
            bag.diskDir_ = std::make_unique<Dir>(folder);
            bag.rootPath_ = FullPathUtf16(root);
            bag.lastScanMark_ = 0;  // a new folder: its files are all new to a scan
        }
        const int64_t newMax = MegabytesToBytes(maxSizeMegabytes);
        const int64_t oldMax = bag.maxDisk_.load();
        if (newMax != oldMax) {
            // Free the difference while the old budget still stands.
            if (newMax < oldMax) bag.EnsureDiskSpace(oldMax - newMax, ~uint64_t{0});
            bag.maxDisk_.store(newMax);
        }
    }
    ReadPreferences();
    PostInitialRescanOnce(bag.weak_from_this());
}

Dir MCp_DiskFolder::FolderOf(const MC_Bag& bag) {
    std::lock_guard<std::recursive_mutex> info(bag.diskInfoMutex_);
    return bag.diskDir_ ? *bag.diskDir_ : Dir();
}

std::u16string MCp_DiskFolder::RootPathOf(const MC_Bag& bag) {
    std::lock_guard<std::recursive_mutex> info(bag.diskInfoMutex_);
    return bag.rootPath_;
}
