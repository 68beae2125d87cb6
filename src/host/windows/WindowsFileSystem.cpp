// WindowsFileSystem: operations on paths (create, delete, rename, sizes, times, volume queries).
// Folder operations are in WindowsDirectories.cpp, open files in WindowsFiles.cpp.
#include "host/windows/WindowsFileSystem.h"

#include <algorithm>
#include <vector>

#include "host/windows/Win32.h"
#include "host/windows/WindowsFsErrors.h"
#include "host/windows/WindowsPaths.h"

namespace velacore {
namespace {

using windows::Handle;
using windows::IsMissing;
using windows::IsReparsePoint;
using windows::SystemPath;
using windows::ThrowFsError;
using windows::ThrowLastFsError;

// 100 ns ticks between 1601-01-01 (FILETIME) and 1970-01-01.
constexpr int64_t kUnixEpochTicks = 116'444'736'000'000'000;

int64_t ToUnixNanos(const FILETIME& time) {
    const int64_t ticks = static_cast<int64_t>((static_cast<uint64_t>(time.dwHighDateTime) << 32) |
                                               time.dwLowDateTime);
    return (ticks - kUnixEpochTicks) * 100;
}

// The entry's own attributes and times (a link is not followed).
WIN32_FILE_ATTRIBUTE_DATA AttributesOrThrow(const std::filesystem::path& path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!::GetFileAttributesExW(SystemPath(path).c_str(), GetFileExInfoStandard, &data)) {
        ThrowLastFsError("get attributes", path);
    }
    return data;
}

// The entry's attributes, or INVALID_FILE_ATTRIBUTES when it is missing.
DWORD AttributesIfPresent(const std::filesystem::path& path) {
    const DWORD attributes = ::GetFileAttributesW(SystemPath(path).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const DWORD code = ::GetLastError();
        if (!IsMissing(code)) ThrowFsError(code, "get attributes", path);
    }
    return attributes;
}

// The root of the volume holding `path` ("\\?\C:\"), which the volume queries want.
std::wstring VolumeRoot(const std::filesystem::path& path) {
    AttributesOrThrow(path);  // the volume of a missing path is not asked for
    const std::wstring full = SystemPath(path);
    std::vector<wchar_t> root(full.size() + 2);
    if (!::GetVolumePathNameW(full.c_str(), root.data(), static_cast<DWORD>(root.size()))) {
        ThrowLastFsError("find the volume of", path);
    }
    return root.data();
}

}  // namespace

void WindowsFileSystem::CreateFile(const std::filesystem::path& path, bool failIfExists) {
    const std::wstring name = SystemPath(path);
    constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    Handle file(::CreateFileW(name.c_str(), GENERIC_WRITE, kShare, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.Valid()) return;
    DWORD code = ::GetLastError();
    if (failIfExists || (code != ERROR_FILE_EXISTS && code != ERROR_ALREADY_EXISTS)) {
        ThrowFsError(code, "create file", path);
    }
    // Truncate what is there, but only a regular file: a link in its place is not followed.
    file = Handle(::CreateFileW(name.c_str(), GENERIC_WRITE, kShare, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!file.Valid()) ThrowLastFsError("create file", path);
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(file.Get(), &info)) ThrowLastFsError("create file", path);
    if (IsReparsePoint(info.dwFileAttributes) ||
        (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        ThrowFsError(ERROR_FILE_EXISTS, "create file over a link or folder", path);
    }
    if (!::SetEndOfFile(file.Get())) ThrowLastFsError("truncate", path);
}

void WindowsFileSystem::DeleteFile(const std::filesystem::path& path) {
    if (::DeleteFileW(SystemPath(path).c_str())) return;
    const DWORD code = ::GetLastError();
    // A folder is refused as "access denied"; say what it is.
    const bool folder = code == ERROR_ACCESS_DENIED && IsDirectory(path);
    ThrowFsError(folder ? ERROR_DIRECTORY_NOT_SUPPORTED : code, "delete file", path);
}

void WindowsFileSystem::Rename(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (!::MoveFileExW(SystemPath(from).c_str(), SystemPath(to).c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        ThrowLastFsError("rename to '" + windows::PathText(to) + "' from", from);
    }
}

uint64_t WindowsFileSystem::FileSize(const std::filesystem::path& path) {
    const WIN32_FILE_ATTRIBUTE_DATA data = AttributesOrThrow(path);
    if (IsReparsePoint(data.dwFileAttributes) ||
        (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        ThrowFsError(ERROR_INVALID_PARAMETER, "size of a non-regular file", path);
    }
    return (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

int64_t WindowsFileSystem::CreationTime(const std::filesystem::path& path) {
    return ToUnixNanos(AttributesOrThrow(path).ftCreationTime);
}

int64_t WindowsFileSystem::ModificationTime(const std::filesystem::path& path) {
    return ToUnixNanos(AttributesOrThrow(path).ftLastWriteTime);
}

bool WindowsFileSystem::Exists(const std::filesystem::path& path) {
    return AttributesIfPresent(path) != INVALID_FILE_ATTRIBUTES;
}

bool WindowsFileSystem::IsDirectory(const std::filesystem::path& path) {
    const DWORD attributes = AttributesIfPresent(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool WindowsFileSystem::IsSymbolicLink(const std::filesystem::path& path) {
    const DWORD attributes = AttributesIfPresent(path);
    return attributes != INVALID_FILE_ATTRIBUTES && IsReparsePoint(attributes);
}

size_t WindowsFileSystem::GetBlockSize(const std::filesystem::path& path) {
    DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, clusters = 0;
    if (!::GetDiskFreeSpaceW(VolumeRoot(path).c_str(), &sectorsPerCluster, &bytesPerSector,
                             &freeClusters, &clusters)) {
        ThrowLastFsError("get the cluster size of", path);
    }
    return std::max<size_t>(512, static_cast<size_t>(sectorsPerCluster) * bytesPerSector);
}

uint64_t WindowsFileSystem::GetFreeSpace(const std::filesystem::path& path) {
    ULARGE_INTEGER available{}, total{}, free{};
    if (!::GetDiskFreeSpaceExW(VolumeRoot(path).c_str(), &available, &total, &free)) {
        ThrowLastFsError("get the free space of", path);
    }
    return available.QuadPart;
}

void WindowsFileSystem::SetNotContentIndexed(const std::filesystem::path& path) {
    const std::wstring name = SystemPath(path);
    const DWORD attributes = ::GetFileAttributesW(name.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) ThrowLastFsError("get attributes", path);
    if ((attributes & FILE_ATTRIBUTE_NOT_CONTENT_INDEXED) != 0) return;
    if (!::SetFileAttributesW(name.c_str(), attributes | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED)) {
        ThrowLastFsError("set not-content-indexed on", path);
    }
}

std::shared_ptr<FileSystem> MakeNativeFileSystem(NativeFileSystemOptions options) {
    return std::make_shared<WindowsFileSystem>(options);
}

}  // namespace velacore
