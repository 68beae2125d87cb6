// Path and handle helpers of WindowsFileSystem: every path reaches the system as UTF-16 in its
// extended-length form ("\\?\C:\..."), so names past 260 characters work without a manifest.
// Thread-safety: stateless; a Handle belongs to one thread at a time.
#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include "host/windows/Win32.h"

namespace velacore::windows {

// `path` made absolute, normalised, with native separators and the extended-length prefix.
inline std::wstring SystemPath(const std::filesystem::path& path) {
    std::error_code ec;
    std::filesystem::path full = std::filesystem::absolute(path, ec);
    if (ec) full = path;
    std::wstring text = full.lexically_normal().make_preferred().native();
    if (text.rfind(LR"(\\?\)", 0) == 0) return text;
    if (text.rfind(LR"(\\)", 0) == 0) return LR"(\\?\UNC\)" + text.substr(2);
    if (text.size() >= 2 && text[1] == L':') return LR"(\\?\)" + text;
    return text;
}

// Owns a file handle from CreateFileW.
class Handle {
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle) {}
    ~Handle() { Reset(); }
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
    Handle& operator=(Handle&& other) noexcept {
        if (this != &other) {
            Reset();
            handle_ = std::exchange(other.handle_, INVALID_HANDLE_VALUE);
        }
        return *this;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    bool Valid() const { return handle_ != INVALID_HANDLE_VALUE && handle_ != nullptr; }
    HANDLE Get() const { return handle_; }
    // Closes the handle now; returns whether CloseHandle succeeded (true when nothing was open).
    bool Reset() {
        if (!Valid()) return true;
        return ::CloseHandle(std::exchange(handle_, INVALID_HANDLE_VALUE)) != 0;
    }

private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

// Whether an entry with these attributes is a link of some kind (symbolic link, junction or any
// other reparse point); such entries are never followed.
inline bool IsReparsePoint(DWORD attributes) {
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

}  // namespace velacore::windows
