// FaultInjectingFileSystem: a FileSystemWrapper that counts every operation (file-object calls
// included) and makes chosen calls fail: "no space" (IOError ENOSPC), an I/O error (IOError EIO),
// a vanished path (FileNotFoundError), or a short write (Append writes part of the bytes through
// to the target, then fails with ENOSPC). ScopedFileSystem installs a FileSystem for a scope.
// Thread-safety: every method may be called from any thread; the files it opens belong to one
// thread at a time, like any file.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "mc/host/FileSystem.h"

namespace mctest {

// Every operation that can be counted and made to fail.
enum class FsOp : int {
    kOpenForDirectWrite,
    kAppend,  // WritableFile
    kSync,    // WritableFile
    kClose,   // WritableFile
    kOpenForRead,
    kRead,          // ReadableFile
    kSeek,          // ReadableFile
    kReadableSize,  // ReadableFile::Size
    kCreateFile,
    kDeleteFile,
    kRename,
    kFileSize,
    kCreationTime,
    kModificationTime,
    kExists,
    kIsDirectory,
    kCreateDirectory,
    kRemoveDirectory,
    kRemoveDirectoryRecursive,
    kListDirectory,
    kGetBlockSize,
    kGetFreeSpace,
    kSetNotContentIndexed,
    kCount
};
constexpr int kFsOpCount = static_cast<int>(FsOp::kCount);

// The operation's name, for messages ("Append").
std::string_view FsOpName(FsOp op);

enum class Fault {
    kNoSpace,     // IOError with ENOSPC
    kIoError,     // IOError with EIO
    kNotFound,    // FileNotFoundError
    kShortWrite,  // Append: half the bytes reach the file, then IOError ENOSPC; else as kIoError
};

class FaultInjectingFileSystem : public velacore::FileSystemWrapper {
  public:
    // Wraps `target` (the operating system's by default).
    explicit FaultInjectingFileSystem(
        std::shared_ptr<velacore::FileSystem> target = velacore::GetDefaultFileSystem());
    ~FaultInjectingFileSystem() override;

    // The n-th call of `op` from now (1 = the next one; 0 counts as 1) fails with `fault`; the
    // others pass. Pending failures of one operation count down together; when two are due on
    // the same call, the one added first decides the fault.
    void FailNth(FsOp op, uint64_t n, Fault fault);
    // Every call of `op` from the n-th from now on fails with `fault`, until ClearFaults.
    void FailFrom(FsOp op, uint64_t n, Fault fault);
    // Forgets every pending failure.
    void ClearFaults();

    // Calls of `op` since construction or ResetCounts (failed ones included).
    uint64_t CallCount(FsOp op) const;
    // Calls of `op` that were made to fail.
    uint64_t FaultCount(FsOp op) const;
    void ResetCounts();

    std::unique_ptr<velacore::WritableFile> OpenForDirectWrite(
        const std::filesystem::path& path) override;
    std::unique_ptr<velacore::ReadableFile> OpenForRead(const std::filesystem::path& path) override;
    void CreateFile(const std::filesystem::path& path, bool failIfExists) override;
    void DeleteFile(const std::filesystem::path& path) override;
    void Rename(const std::filesystem::path& from, const std::filesystem::path& to) override;
    uint64_t FileSize(const std::filesystem::path& path) override;
    int64_t CreationTime(const std::filesystem::path& path) override;
    int64_t ModificationTime(const std::filesystem::path& path) override;
    bool Exists(const std::filesystem::path& path) override;
    bool IsDirectory(const std::filesystem::path& path) override;
    void CreateDirectory(const std::filesystem::path& path) override;
    void RemoveDirectory(const std::filesystem::path& path) override;
    void RemoveDirectoryRecursive(const std::filesystem::path& path) override;
    std::vector<velacore::DirectoryEntry> ListDirectory(const std::filesystem::path& path) override;
    size_t GetBlockSize(const std::filesystem::path& path) override;
    uint64_t GetFreeSpace(const std::filesystem::path& path) override;
    void SetNotContentIndexed(const std::filesystem::path& path) override;

    class State;  // shared with the files it opens

  private:
    std::shared_ptr<State> state_;
};

// Installs a FileSystem for the lifetime of the object, then puts back the previous one.
class ScopedFileSystem {
  public:
    explicit ScopedFileSystem(std::shared_ptr<velacore::FileSystem> fileSystem)
        : previous_(velacore::SetFileSystem(std::move(fileSystem))) {}
    ~ScopedFileSystem() { velacore::SetFileSystem(std::move(previous_)); }
    ScopedFileSystem(const ScopedFileSystem&) = delete;
    ScopedFileSystem& operator=(const ScopedFileSystem&) = delete;

  private:
    std::shared_ptr<velacore::FileSystem> previous_;
};

}  // namespace mctest
