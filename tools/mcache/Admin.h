// Administration of a disk-cache folder: list, verify, sizes per version, purge, trim.
// Each returns the process exit status: 0 success, 1 problems found (verify), 2 usage or I/O
// error (one clear line on stderr). Thread-safety: called once from main.
#pragma once

#include <cstdint>
#include <filesystem>

namespace mcache {

int ListFolder(const std::filesystem::path& folder, bool json);
// --strict also counts files without a cache-file header (unframed) as invalid.
int VerifyFolder(const std::filesystem::path& folder, bool deleteInvalid, bool strict, bool json);
int DiskUsage(const std::filesystem::path& root, bool json);
// Creates nothing when root holds no disk cache; --dry-run only measures.
int PurgeRoot(const std::filesystem::path& root, bool otherVersions, bool dryRun, bool json);
// Deletes the least recently used cache files of `folder` until it holds at most `budget` bytes.
int TrimFolder(const std::filesystem::path& folder, uint64_t budget, bool dryRun, bool json);

}  // namespace mcache
