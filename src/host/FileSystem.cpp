// FileSystem plumbing: anchors of the interfaces, the forwarding wrapper, and the process-wide
// installed instance.
#include "mc/host/FileSystem.h"

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "host/NativeFileSystem.h"
#include "mc/host/Errors.h"

namespace velacore {

WritableFile::~WritableFile() = default;
void WritableFile::Reserve(uint64_t /*size*/) {}
ReadableFile::~ReadableFile() = default;
FileSystem::~FileSystem() = default;

std::unique_ptr<WritableFile> FileSystem::CreateForDirectWrite(const std::filesystem::path& path) {
    CreateFile(path, true);
    SetNotContentIndexed(path);
    return OpenForDirectWrite(path);
}

std::vector<DirectoryEntry> FileSystem::ListDirectoryWithStats(const std::filesystem::path& path) {
    std::vector<DirectoryEntry> entries = ListDirectory(path);
    std::erase_if(entries, [&](DirectoryEntry& entry) {
        if (!entry.isRegularFile) return false;
        try {
            entry.size = FileSize(path / entry.name);
            entry.created = CreationTime(path / entry.name);
            return false;
        } catch (const HostError&) {
            return true;  // vanished, or cannot be looked at: not listed
        }
    });
    return entries;
}

// --- FileSystemWrapper ----------------------------------------------------------------------

FileSystemWrapper::FileSystemWrapper(std::shared_ptr<FileSystem> target)
    : target_(std::move(target)) {
    if (!target_) throw std::invalid_argument("FileSystemWrapper needs a target");
}

FileSystemWrapper::~FileSystemWrapper() = default;

std::unique_ptr<WritableFile> FileSystemWrapper::OpenForDirectWrite(
    const std::filesystem::path& path) {
    return target_->OpenForDirectWrite(path);
}

std::unique_ptr<ReadableFile> FileSystemWrapper::OpenForRead(const std::filesystem::path& path) {
    return target_->OpenForRead(path);
}

void FileSystemWrapper::CreateFile(const std::filesystem::path& path, bool failIfExists) {
    target_->CreateFile(path, failIfExists);
}

void FileSystemWrapper::DeleteFile(const std::filesystem::path& path) {
    target_->DeleteFile(path);
}

void FileSystemWrapper::Rename(const std::filesystem::path& from, const std::filesystem::path& to) {
    target_->Rename(from, to);
}

uint64_t FileSystemWrapper::FileSize(const std::filesystem::path& path) {
    return target_->FileSize(path);
}

int64_t FileSystemWrapper::CreationTime(const std::filesystem::path& path) {
    return target_->CreationTime(path);
}

int64_t FileSystemWrapper::ModificationTime(const std::filesystem::path& path) {
    return target_->ModificationTime(path);
}

bool FileSystemWrapper::Exists(const std::filesystem::path& path) {
    return target_->Exists(path);
}

bool FileSystemWrapper::IsDirectory(const std::filesystem::path& path) {
    return target_->IsDirectory(path);
}

bool FileSystemWrapper::IsSymbolicLink(const std::filesystem::path& path) {
    return target_->IsSymbolicLink(path);
}

void FileSystemWrapper::CreateDirectory(const std::filesystem::path& path) {
    target_->CreateDirectory(path);
}

void FileSystemWrapper::RemoveDirectory(const std::filesystem::path& path) {
    target_->RemoveDirectory(path);
}

void FileSystemWrapper::RemoveDirectoryRecursive(const std::filesystem::path& path) {
    target_->RemoveDirectoryRecursive(path);
}

std::vector<DirectoryEntry> FileSystemWrapper::ListDirectory(const std::filesystem::path& path) {
    return target_->ListDirectory(path);
}

size_t FileSystemWrapper::GetBlockSize(const std::filesystem::path& path) {
    return target_->GetBlockSize(path);
}

uint64_t FileSystemWrapper::GetFreeSpace(const std::filesystem::path& path) {
    return target_->GetFreeSpace(path);
}

void FileSystemWrapper::SetNotContentIndexed(const std::filesystem::path& path) {
    target_->SetNotContentIndexed(path);
}

// --- the installed instance -----------------------------------------------------------------

namespace {

struct Installed {
    std::mutex mutex;
    std::shared_ptr<FileSystem> owner;       // guarded by mutex; null = the default
    std::atomic<FileSystem*> fast{nullptr};  // owner.get(), for lock-free readers
};

Installed& GetInstalled() {
    static Installed installed;
    return installed;
}

}  // namespace

std::shared_ptr<FileSystem> GetDefaultFileSystem() {
    static const std::shared_ptr<FileSystem> native = MakeNativeFileSystem();
    return native;
}

std::shared_ptr<FileSystem> SetFileSystem(std::shared_ptr<FileSystem> fileSystem) {
    Installed& installed = GetInstalled();
    std::lock_guard lock(installed.mutex);
    std::shared_ptr<FileSystem> previous =
        installed.owner ? std::move(installed.owner) : GetDefaultFileSystem();
    installed.owner = std::move(fileSystem);
    installed.fast.store(installed.owner.get(), std::memory_order_release);
    return previous;
}

FileSystem& GetFileSystem() {
    if (FileSystem* fs = GetInstalled().fast.load(std::memory_order_acquire)) return *fs;
    static FileSystem& native = *GetDefaultFileSystem();
    return native;
}

}  // namespace velacore
