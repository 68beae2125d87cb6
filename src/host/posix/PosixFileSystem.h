// PosixFileSystem: FileSystem on top of the POSIX calls (Linux first: O_DIRECT, statx).
// MakeNativeFileSystem builds the process default used by GetFileSystem().
// Thread-safety: every method may be called from any thread concurrently; the files it opens
// belong to one thread at a time.
#pragma once

#include <memory>

#include "host/NativeFileSystem.h"
#include "mc/host/Export.h"
#include "mc/host/FileSystem.h"

namespace velacore {

class MCHOST_API PosixFileSystem final : public FileSystem {
public:
    using Options = NativeFileSystemOptions;

    PosixFileSystem() = default;
    explicit PosixFileSystem(Options options) : options_(options) {}

    std::unique_ptr<WritableFile> OpenForDirectWrite(const std::filesystem::path& path) override;
    std::unique_ptr<WritableFile> CreateForDirectWrite(const std::filesystem::path& path) override;
    std::unique_ptr<ReadableFile> OpenForRead(const std::filesystem::path& path) override;
    void CreateFile(const std::filesystem::path& path, bool failIfExists) override;
    void DeleteFile(const std::filesystem::path& path) override;
    void Rename(const std::filesystem::path& from, const std::filesystem::path& to) override;
    uint64_t FileSize(const std::filesystem::path& path) override;
    int64_t CreationTime(const std::filesystem::path& path) override;
    int64_t ModificationTime(const std::filesystem::path& path) override;
    bool Exists(const std::filesystem::path& path) override;
    bool IsDirectory(const std::filesystem::path& path) override;
    bool IsSymbolicLink(const std::filesystem::path& path) override;
    void CreateDirectory(const std::filesystem::path& path) override;
    void RemoveDirectory(const std::filesystem::path& path) override;
    void RemoveDirectoryRecursive(const std::filesystem::path& path) override;
    std::vector<DirectoryEntry> ListDirectory(const std::filesystem::path& path) override;
    std::vector<DirectoryEntry> ListDirectoryWithStats(const std::filesystem::path& path) override;
    size_t GetBlockSize(const std::filesystem::path& path) override;
    uint64_t GetFreeSpace(const std::filesystem::path& path) override;
    void SetNotContentIndexed(const std::filesystem::path& path) override;

private:
    Options options_;
};

}  // namespace velacore
