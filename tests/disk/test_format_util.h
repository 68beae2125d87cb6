// Helpers shared by the disk-format, layout and scan tests: a file system with a chosen block
// size, and a writer of cache files for TestPayload items exactly as the cache names them.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "disk/CacheFile.h"
#include "mc/host/File.h"
#include "mc/host/FileSystem.h"
#include "support/TempDir.h"
#include "support/TestPayload.h"

namespace disktest {

// Reports `blockSize` as every volume's efficient I/O size.
class FixedBlockFileSystem : public velacore::FileSystemWrapper {
public:
    FixedBlockFileSystem(std::shared_ptr<velacore::FileSystem> target, size_t blockSize)
        : FileSystemWrapper(std::move(target)), blockSize_(blockSize) {}
    size_t GetBlockSize(const std::filesystem::path&) override { return blockSize_; }

private:
    size_t blockSize_;
};

// The header a TestPayload of (key, variant) gives.
inline std::vector<uint8_t> PayloadHeader(uint32_t key, uint32_t variant) {
    std::vector<uint8_t> header(8);
    std::memcpy(header.data(), &key, 4);
    std::memcpy(header.data() + 4, &variant, 4);
    return header;
}

// The file content of a TestPayload of `size` bytes: cache header, then the payload's bytes.
inline std::vector<uint8_t> CacheFileContent(uint32_t key, uint32_t size, uint32_t appVersion,
                                             size_t padTo = 0) {
    CacheFileHeader h;
    h.appVersion = appVersion;
    h.computeTime = 1.5;
    h.savings = 0.25;
    const auto head = h.Encode();
    std::vector<uint8_t> bytes(head.begin(), head.end());
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(size >> (8 * i)));
    for (uint32_t i = 0; i < size; ++i)
        bytes.push_back(static_cast<uint8_t>((key * 131 + i) & 0xFF));
    if (padTo > bytes.size()) bytes.resize(padTo, 0);
    return bytes;
}

// Writes a cache file for TestPayload (key, variant) under `cacheDir`, in its sub-folder, named
// as the cache names it. Returns the file.
inline velacore::File WriteTestCacheFile(const velacore::Dir& cacheDir, uint32_t key,
                                         uint32_t variant, uint32_t appVersion,
                                         uint32_t payloadSize = 16, size_t padTo = 0) {
    const std::u16string name =
        MCp_CacheFile::BuildName(mctest::KeyGuid(key), mctest::TestPayload::kMatchname, appVersion,
                                 PayloadHeader(key, variant));
    MCp_CacheFile::EnsureSubfolder(cacheDir, name);
    const velacore::File file = MCp_CacheFile::FileFor(cacheDir, name);
    mctest::WriteWholeFile(file.GetFullPath(),
                           CacheFileContent(key, payloadSize, appVersion, padTo));
    return file;
}

// Writes `bytes` under an arbitrary name in `dir` (created if needed). Returns the file.
inline velacore::File WriteRawFile(const velacore::Dir& dir, const std::u16string& name,
                                   const std::vector<uint8_t>& bytes = {1, 2, 3}) {
    velacore::EnsureDirectoryExists(dir);
    const velacore::File file = dir.GetFile(name);
    mctest::WriteWholeFile(file.GetFullPath(), bytes);
    return file;
}

}  // namespace disktest
