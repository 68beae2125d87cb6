// The disk-cache folder layout and its resolution.
#include "disk/DiskLayout.h"

#include <cstring>
#include <string>

#include "host/HostOps.h"
#include "lifecycle/Messages.h"
#include "mc/MC_Module.h"
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

// Reports the alert on the main thread, then throws kDiskCacheFolderError on every thread.
[[noreturn]] void FailFolder(const char* alert) {
    if (U_IsOnMainThread())
        Up_ReportErrString(kMCErrorBase, kAlertCategory,
                           velacore::GetHostServices().Localize(alert));
    throw kDiskCacheFolderError;
}

// The root's path followed by `rest` (which starts with a separator), without doubling the
// separator when the root's path ends with one.
std::filesystem::path UnderRoot(std::u16string rootPath, const std::u16string& rest) {
    while (!rootPath.empty() && rootPath.back() == MCp_PathSeparator()) rootPath.pop_back();
    return MCp_PathFromUtf16(rootPath + rest);
}

bool IsExistingFolder(const Dir& dir) {
    if (dir.IsEmpty()) return false;
    try {
        return dir.Exists();
    } catch (...) {
        return false;  // cannot tell: as unusable as a missing folder
    }
}

}  // namespace

// --- exported layout pieces ----------------------------------------------------------------

std::u16string MC_OstrelZKDirs() {
    const char16_t sep = MCp_PathSeparator();
    std::u16string dirs;
    dirs += sep;
    dirs += u"Ostrel";
    dirs += sep;
    dirs += u"Tessaline";
    if (IsBetaPrime()) dirs += u" (Beta)";
    return dirs;
}

std::u16string MC_ZKVersDir(const std::u16string& version) {
    return std::u16string(1, MCp_PathSeparator()) + version;
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

char16_t MCp_PathSeparator() {
    return static_cast<char16_t>(std::filesystem::path::preferred_separator);
}

std::filesystem::path MCp_PathFromUtf16(std::u16string_view text) {
    const std::string utf8 = velacore::ToUtf8(text);
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

std::u16string MCp_FullPathUtf16(const Dir& dir) {
    return velacore::ToUtf16(dir.GetFullPathUtf8());
}

std::u16string MCp_ClientVersionText() {
    return velacore::ToUtf16(GetClientInternalVersion());
}

Dir MCp_ProductDir(const std::u16string& rootPath) {
    return Dir(UnderRoot(rootPath, MC_OstrelZKDirs()));
}

Dir MCp_DiskCacheFolderFor(const std::u16string& rootPath, const std::u16string& version) {
    const Dir versionDir(UnderRoot(rootPath, MC_OstrelZKDirs() + MC_ZKVersDir(version)));
    return versionDir.GetSubdir(MC_GetMachineDirName());
}

Dir MCp_ResolveDiskCacheFolder(const Dir& root, const std::u16string& version) {
    if (!IsExistingFolder(root)) FailFolder(kAlertNonexistent);

    const Dir versionDir(
        UnderRoot(MCp_FullPathUtf16(root), MC_OstrelZKDirs() + MC_ZKVersDir(version)));
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
