// Administration of a disk-cache folder: list, verify, sizes per version, purge.
// Each returns the process exit status: 0 success, 1 problems found (verify), 2 usage or I/O
// error (one clear line on stderr). Thread-safety: called once from main.
#pragma once

#include <filesystem>

namespace mcache {

int ListFolder(const std::filesystem::path& folder, bool json);
int VerifyFolder(const std::filesystem::path& folder, bool deleteInvalid, bool json);
int DiskUsage(const std::filesystem::path& root, bool json);
int PurgeRoot(const std::filesystem::path& root, bool otherVersions);

}  // namespace mcache
