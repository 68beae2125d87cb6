// WindowsFileSystem: folder operations (create, remove, recursive removal, listing). Reparse
// points (symbolic links, junctions) are listed and removed as entries, never entered.
#include <string>
#include <vector>

#include "host/windows/Win32.h"
#include "host/windows/WindowsFileSystem.h"
#include "host/windows/WindowsFsErrors.h"
#include "host/windows/WindowsPaths.h"

namespace velacore {
namespace {

using windows::IsMissing;
using windows::IsReparsePoint;
using windows::SystemPath;
using windows::ThrowFsError;
using windows::ThrowLastFsError;

bool IsDotOrDotDot(const wchar_t* name) {
    return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

// Owns a search handle from FindFirstFileExW.
class FindHandle {
public:
    explicit FindHandle(HANDLE handle) : handle_(handle) {}
    ~FindHandle() {
        if (handle_ != INVALID_HANDLE_VALUE) ::FindClose(handle_);
    }
    FindHandle(const FindHandle&) = delete;
    FindHandle& operator=(const FindHandle&) = delete;
    HANDLE Get() const { return handle_; }

private:
    HANDLE handle_;
};

struct RawEntry {
    std::wstring name;
    DWORD attributes;
};

// Every entry of the folder at `path` with its own attributes (links not followed).
std::vector<RawEntry> ReadEntries(const std::filesystem::path& path) {
    const std::wstring pattern = SystemPath(path) + L"\\*";
    WIN32_FIND_DATAW data{};
    FindHandle find(::FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &data,
                                       FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH));
    std::vector<RawEntry> entries;
    if (find.Get() == INVALID_HANDLE_VALUE) {
        const DWORD code = ::GetLastError();
        // No match at all: a folder without even "." (a volume root can be like that).
        const DWORD attributes = ::GetFileAttributesW(SystemPath(path).c_str());
        if (code == ERROR_FILE_NOT_FOUND && attributes != INVALID_FILE_ATTRIBUTES &&
            (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            return entries;
        }
        ThrowFsError(code, "open folder", path);
    }
    do {
        if (!IsDotOrDotDot(data.cFileName))
            entries.push_back({data.cFileName, data.dwFileAttributes});
    } while (::FindNextFileW(find.Get(), &data));
    const DWORD code = ::GetLastError();
    if (code != ERROR_NO_MORE_FILES) ThrowFsError(code, "read folder", path);
    return entries;
}

std::string NameText(const std::wstring& name) {
    return ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(name.data()), name.size()));
}

// Deletes one file; a read-only one loses that attribute first. Gone already is fine.
void DeleteOneFile(const std::filesystem::path& path, DWORD attributes) {
    const std::wstring name = SystemPath(path);
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0) {
        ::SetFileAttributesW(name.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
    }
    if (!::DeleteFileW(name.c_str()) && !IsMissing(::GetLastError())) {
        ThrowLastFsError("delete file", path);
    }
}

// Removes the folder at `path` and its content. A folder that is already gone is fine, except
// the top one (`isTop`), which throws FileNotFoundError.
void RemoveTree(const std::filesystem::path& path, bool isTop) {
    std::vector<RawEntry> entries;
    try {
        entries = ReadEntries(path);
    } catch (const FileNotFoundError&) {
        if (isTop) throw;
        return;
    }
    for (const RawEntry& entry : entries) {
        const std::filesystem::path child = path / entry.name;
        const bool isFolder = (entry.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (isFolder && !IsReparsePoint(entry.attributes)) {
            RemoveTree(child, false);
        } else if (isFolder) {
            // A junction or folder link: remove the link itself, never what it points to.
            if (!::RemoveDirectoryW(SystemPath(child).c_str()) && !IsMissing(::GetLastError())) {
                ThrowLastFsError("remove folder link", child);
            }
        } else {
            DeleteOneFile(child, entry.attributes);
        }
    }
    if (!::RemoveDirectoryW(SystemPath(path).c_str())) {
        const DWORD code = ::GetLastError();
        if (!IsMissing(code) || isTop) ThrowFsError(code, "remove folder", path);
    }
}

}  // namespace

void WindowsFileSystem::CreateDirectory(const std::filesystem::path& path) {
    if (::CreateDirectoryW(SystemPath(path).c_str(), nullptr)) return;
    const DWORD code = ::GetLastError();
    if (code == ERROR_ALREADY_EXISTS && IsDirectory(path)) return;
    ThrowFsError(code, "create folder", path);
}

void WindowsFileSystem::RemoveDirectory(const std::filesystem::path& path) {
    if (!::RemoveDirectoryW(SystemPath(path).c_str())) ThrowLastFsError("remove folder", path);
}

void WindowsFileSystem::RemoveDirectoryRecursive(const std::filesystem::path& path) {
    // The top is never entered through a link either.
    if (IsSymbolicLink(path)) ThrowFsError(ERROR_CANT_RESOLVE_FILENAME, "remove folder", path);
    RemoveTree(path, true);
}

std::vector<DirectoryEntry> WindowsFileSystem::ListDirectory(const std::filesystem::path& path) {
    std::vector<DirectoryEntry> entries;
    for (const RawEntry& raw : ReadEntries(path)) {
        const bool link = IsReparsePoint(raw.attributes);
        const bool folder = (raw.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        const bool device = (raw.attributes & FILE_ATTRIBUTE_DEVICE) != 0;
        entries.push_back({NameText(raw.name), folder && !link, !folder && !link && !device});
    }
    return entries;
}

}  // namespace velacore
