// Where the disk cache lives: the per-product, per-version, per-machine folder under a root the
// user chose ("<root>/Ostrel/Tessaline[ (Beta)]/<version>/Disk Cache - <machine>.noindex"), and
// the resolution of that folder with its two alerts. The exported pieces (MC_OstrelZKDirs,
// MC_ZKVersDir, MC_GetMachineDirName) are declared in mc/MC_Module.h.
// Paths are UTF-16 text joined with the native separator.
// Thread-safety: stateless; callable from any thread (alerts are raised on the main thread only).
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "mc/host/File.h"

// The error thrown when the folder cannot be used (every setting then stays as it was).
constexpr int kDiskCacheFolderError = 14855;

// The native path separator ('/' on POSIX, '\' on Windows).
char16_t MCp_PathSeparator();
// Path <-> UTF-16 text, the same conversion on every system.
std::filesystem::path MCp_PathFromUtf16(std::u16string_view text);
std::u16string MCp_FullPathUtf16(const velacore::Dir& dir);
// The host's client internal version text, as UTF-16 (the version folder's name).
std::u16string MCp_ClientVersionText();

// <rootPath> + MC_OstrelZKDirs(): the folder holding one sub-folder per host version.
velacore::Dir MCp_ProductDir(const std::u16string& rootPath);
// <rootPath> + MC_OstrelZKDirs() + MC_ZKVersDir(version) + separator + MC_GetMachineDirName().
// Pure path arithmetic, nothing is touched on disk. Throws the int of a failed computer-name
// query.
velacore::Dir MCp_DiskCacheFolderFor(const std::u16string& rootPath, const std::u16string& version);

// Resolves (creating what is missing) the disk-cache folder of `root` for host `version` and
// returns it. Throws kDiskCacheFolderError when `root` is not an existing folder (alert
// "DiskCacheFolderNonexistent") or when the folders cannot be created (alert
// "DiskCacheFolderCantWrite"); alerts are raised only on the main thread. A failed computer-name
// query throws its own int.
velacore::Dir MCp_ResolveDiskCacheFolder(const velacore::Dir& root, const std::u16string& version);
