// FileSystem: the one door to the operating system's files and folders. Everything in MC that
// touches the disk goes through GetFileSystem(), so a host can redirect it and a test can inject
// faults (FileSystemWrapper forwards every call to a target; override only what you need).
//
// Errors: a missing path throws FileNotFoundError; any other failure throws IOError carrying the
// system error number (ENOSPC for a full disk) and the path in its message.
// Thread-safety: every FileSystem method may be called from any thread concurrently. A
// WritableFile or ReadableFile belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "mc/host/Export.h"

namespace velacore {

// A file opened for sequential, write-through writing.
class MCHOST_API WritableFile {
public:
    // Closes the file if Close() was not called, ignoring errors (no durability promised then).
    virtual ~WritableFile();

    // Writes all `size` bytes at the current end. A short write from the system is retried; a
    // failure throws IOError (with ENOSPC when the disk is full), after which the file's content
    // past the last successful Append is unspecified. With direct I/O the data, size and file
    // offset should be multiples of the volume's block size and the buffer aligned likewise
    // (see AlignedBuffer); a write the system refuses for alignment switches this file to
    // buffered writes instead of failing.
    virtual void Append(const void* data, size_t size) = 0;

    // Makes everything appended so far durable. Throws IOError.
    virtual void Sync() = 0;

    // Makes the data durable (when buffered) and closes the file. Further calls do nothing;
    // Append after Close throws IOError. Throws IOError.
    virtual void Close() = 0;

    // Whether writes currently bypass the system's cache (direct I/O).
    virtual bool IsDirectIo() const = 0;

    // Sets aside room for `size` bytes up front where the file system supports it (nothing
    // otherwise). The length at Close is still exactly what was appended. Throws IOError
    // (ENOSPC when the disk is full).
    virtual void Reserve(uint64_t size);
};

// A file opened for reading, with its own position.
class MCHOST_API ReadableFile {
public:
    virtual ~ReadableFile();

    // Reads up to `size` bytes at the current position into `buffer` and advances. Returns the
    // number read: less than `size` only at the end of the file, 0 at the end. Throws IOError.
    virtual size_t Read(void* buffer, size_t size) = 0;

    // Moves the position (beyond the end is allowed; reads there return 0).
    virtual void Seek(uint64_t offset) = 0;

    // The current length of the file in bytes. Throws IOError.
    virtual uint64_t Size() = 0;
};

// One entry of a folder listing. Symbolic links are never followed: a link (to a folder or
// not) is neither a folder nor a regular file here, and neither are FIFOs, sockets or devices.
struct DirectoryEntry {
    std::string name;  // UTF-8, without the folder
    bool isDirectory = false;
    bool isRegularFile = false;
    // Filled for regular files by ListDirectoryWithStats only.
    uint64_t size = 0;
    int64_t created = 0;  // nanoseconds since 1970 (birth time, else last modification)
};

class MCHOST_API FileSystem {
public:
    virtual ~FileSystem();

    // Opens an EXISTING regular file for sequential write-through writing from offset 0; the
    // previous content is discarded. A symbolic link or a non-regular file throws IOError. Uses
    // direct I/O where the file system allows it, else buffered writes made durable at Close.
    // Returns the open file, owned by the caller.
    virtual std::unique_ptr<WritableFile> OpenForDirectWrite(const std::filesystem::path& path) = 0;
    // Creates a NEW regular file (IOError with EEXIST when anything, a link included, is in its
    // place; FileNotFoundError for a missing parent), marked not to be indexed, and opens it as
    // OpenForDirectWrite does. Returns the open file, owned by the caller. The default composes
    // CreateFile, SetNotContentIndexed and OpenForDirectWrite (so a wrapper's overrides of those
    // apply); a native file system does it in one open.
    virtual std::unique_ptr<WritableFile> CreateForDirectWrite(const std::filesystem::path& path);

    // Opens an existing regular file for reading from offset 0, without blocking and without
    // following a symbolic link in the last component: a link, FIFO, device or folder throws
    // IOError. Returns the open file, owned by the caller.
    virtual std::unique_ptr<ReadableFile> OpenForRead(const std::filesystem::path& path) = 0;

    // Creates an empty file, readable by everyone and writable by its owner only (at most 0644,
    // less the umask). When it already exists: throws IOError (EEXIST) if failIfExists, else
    // truncates it to empty; a symbolic link in its place throws IOError. A missing parent
    // folder throws FileNotFoundError.
    virtual void CreateFile(const std::filesystem::path& path, bool failIfExists) = 0;

    // Deletes a file (not a folder).
    virtual void DeleteFile(const std::filesystem::path& path) = 0;

    // Renames `from` to `to` atomically, replacing an existing file at `to`.
    virtual void Rename(const std::filesystem::path& from, const std::filesystem::path& to) = 0;

    // The length in bytes of a regular file; a symbolic link (not followed) or any other kind
    // of entry throws IOError.
    virtual uint64_t FileSize(const std::filesystem::path& path) = 0;

    // Birth time where the file system records it, else the modification time; nanoseconds
    // since the Unix epoch. Of the entry itself: a symbolic link is not followed.
    virtual int64_t CreationTime(const std::filesystem::path& path) = 0;

    // Last modification time, nanoseconds since the Unix epoch (a link is not followed).
    virtual int64_t ModificationTime(const std::filesystem::path& path) = 0;

    // Whether anything exists at the path (false when missing; other failures throw IOError).
    virtual bool Exists(const std::filesystem::path& path) = 0;

    // Whether the path is a folder (false when missing or not a folder).
    virtual bool IsDirectory(const std::filesystem::path& path) = 0;

    // Whether the entry at the path is itself a symbolic link (or junction); false when missing.
    virtual bool IsSymbolicLink(const std::filesystem::path& path) = 0;

    // Creates one folder level, writable by its owner only (at most 0755, less the umask).
    // Succeeds if the folder already exists; a file in its place
    // throws IOError (EEXIST); a missing parent throws FileNotFoundError.
    virtual void CreateDirectory(const std::filesystem::path& path) = 0;

    // Removes an empty folder (a non-empty one throws IOError with ENOTEMPTY).
    virtual void RemoveDirectory(const std::filesystem::path& path) = 0;

    // Removes a folder and everything under it. Symbolic links are removed, not followed.
    // Entries that vanish meanwhile are ignored.
    virtual void RemoveDirectoryRecursive(const std::filesystem::path& path) = 0;

    // The entries of a folder (without "." and ".."), in no particular order. Links inside are
    // listed, not followed (see DirectoryEntry); the folder itself may be reached through one.
    virtual std::vector<DirectoryEntry> ListDirectory(const std::filesystem::path& path) = 0;

    // ListDirectory with each regular file's size and creation time (as FileSize and
    // CreationTime give them). A file that vanishes while it is listed is left out.
    virtual std::vector<DirectoryEntry> ListDirectoryWithStats(const std::filesystem::path& path);

    // The efficient I/O size of the file system holding the path (at least 512).
    virtual size_t GetBlockSize(const std::filesystem::path& path) = 0;

    // Bytes available to this process on the volume holding the path.
    virtual uint64_t GetFreeSpace(const std::filesystem::path& path) = 0;

    // Asks the system not to index the file's content for search (a no-op off Windows).
    virtual void SetNotContentIndexed(const std::filesystem::path& path) = 0;
};

// Forwards every call to a target file system (shared, never null). Subclass it to override a
// few operations. A method added to FileSystem must be added here in the same change.
class MCHOST_API FileSystemWrapper : public FileSystem {
public:
    // Requires a non-null target (throws std::invalid_argument otherwise).
    explicit FileSystemWrapper(std::shared_ptr<FileSystem> target);
    ~FileSystemWrapper() override;

    FileSystem& Target() const { return *target_; }

    std::unique_ptr<WritableFile> OpenForDirectWrite(const std::filesystem::path& path) override;
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
    size_t GetBlockSize(const std::filesystem::path& path) override;
    uint64_t GetFreeSpace(const std::filesystem::path& path) override;
    void SetNotContentIndexed(const std::filesystem::path& path) override;

private:
    std::shared_ptr<FileSystem> target_;
};

// Installs the process-wide file system; null restores the default (the operating system's).
// Returns the one it replaces (never null); dropping it may destroy it, so call this only while
// no file operation is running (at start-up, or in a test's set-up).
MCHOST_API std::shared_ptr<FileSystem> SetFileSystem(std::shared_ptr<FileSystem> fileSystem);

// The installed file system (the operating system's by default). Lock-free.
MCHOST_API FileSystem& GetFileSystem();

// The operating system's file system, whatever is installed. Shared; never null.
MCHOST_API std::shared_ptr<FileSystem> GetDefaultFileSystem();

}  // namespace velacore
