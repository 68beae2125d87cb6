// Turns a failed Win32 call of the file layer into the host exceptions, with the same codes as
// the POSIX side: a missing path becomes FileNotFoundError, anything else IOError carrying the
// errno value that matches the Win32 error (ENOSPC for a full disk, EEXIST, ENOTEMPTY, ...).
// Thread-safety: stateless.
#pragma once

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>

#include "host/windows/Win32.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"

// "An operation is not supported on a directory" (older MinGW headers lack it).
#ifndef ERROR_DIRECTORY_NOT_SUPPORTED
#define ERROR_DIRECTORY_NOT_SUPPORTED 336L
#endif

namespace velacore::windows {

// The errno value the rest of the module expects for a Win32 error code.
inline int ErrnoFromWin32(DWORD code) {
    switch (code) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_INVALID_DRIVE:
        case ERROR_BAD_NETPATH:
        case ERROR_BAD_NET_NAME:
        case ERROR_BAD_PATHNAME:
            return ENOENT;
        case ERROR_DIRECTORY:
            return ENOTDIR;
        case ERROR_DIRECTORY_NOT_SUPPORTED:
            return EISDIR;
        case ERROR_ACCESS_DENIED:
        case ERROR_WRITE_PROTECT:
        case ERROR_PRIVILEGE_NOT_HELD:
            return EACCES;
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION:
        case ERROR_BUSY:
            return EBUSY;
        case ERROR_FILE_EXISTS:
        case ERROR_ALREADY_EXISTS:
            return EEXIST;
        case ERROR_DIR_NOT_EMPTY:
            return ENOTEMPTY;
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
            return ENOSPC;
        case ERROR_FILENAME_EXCED_RANGE:
            return ENAMETOOLONG;
        case ERROR_NOT_ENOUGH_MEMORY:
        case ERROR_OUTOFMEMORY:
            return ENOMEM;
        case ERROR_INVALID_HANDLE:
            return EBADF;
        case ERROR_NOT_SUPPORTED:
        case ERROR_INVALID_FUNCTION:
            return ENOSYS;
        case ERROR_CANT_RESOLVE_FILENAME:
            return ELOOP;
        case ERROR_INVALID_PARAMETER:
        case ERROR_INVALID_NAME:
        case ERROR_NEGATIVE_SEEK:
            return EINVAL;
        default:
            return EIO;
    }
}

inline bool IsMissing(DWORD code) {
    const int err = ErrnoFromWin32(code);
    return err == ENOENT || err == ENOTDIR;
}

// A path as UTF-8 for messages and listings.
inline std::string PathText(const std::filesystem::path& path) {
    const std::wstring& wide = path.native();
    return ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(wide.data()), wide.size()));
}

// The system's text for a Win32 error code, as UTF-8.
inline std::string Win32Text(DWORD code) {
    wchar_t* text = nullptr;
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::string result = "error " + std::to_string(code);
    if (length > 0 && text != nullptr) {
        std::wstring_view view(text, length);
        while (!view.empty() &&
               (view.back() == L'\r' || view.back() == L'\n' || view.back() == L' '))
            view.remove_suffix(1);
        result = PathText(std::filesystem::path(view)) + " (" + result + ")";
    }
    if (text != nullptr) ::LocalFree(text);
    return result;
}

// Throws for a failure of `operation` on `path` with Win32 error `code`. Never returns.
[[noreturn]] inline void ThrowFsError(DWORD code, std::string_view operation,
                                      const std::filesystem::path& path) {
    std::string message = std::string(operation) + " '" + PathText(path) + "': " + Win32Text(code);
    if (IsMissing(code)) throw FileNotFoundError(message);
    throw IOError(message, ErrnoFromWin32(code));
}

// Same with GetLastError().
[[noreturn]] inline void ThrowLastFsError(std::string_view operation,
                                          const std::filesystem::path& path) {
    ThrowFsError(::GetLastError(), operation, path);
}

}  // namespace velacore::windows
