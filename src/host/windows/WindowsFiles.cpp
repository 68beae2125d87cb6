// The open files of WindowsFileSystem: the unbuffered, write-through sequential writer (with a
// write-through buffered fallback) and the positional reader.
#include <algorithm>
#include <cstdint>
#include <utility>

#include "host/windows/Win32.h"
#include "host/windows/WindowsFileSystem.h"
#include "host/windows/WindowsFsErrors.h"
#include "host/windows/WindowsPaths.h"

namespace velacore {
namespace {

using windows::Handle;
using windows::IsReparsePoint;
using windows::SystemPath;
using windows::ThrowFsError;
using windows::ThrowLastFsError;

// Largest single WriteFile/ReadFile request (the calls take a 32-bit count).
constexpr size_t kMaxChunk = 1u << 30;
// The writer shares the file with nobody; it is a temporary until committed.
constexpr DWORD kWriteShare = 0;
constexpr DWORD kWriteFlags =
    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH | FILE_FLAG_SEQUENTIAL_SCAN;

Handle OpenRegularFile(const std::filesystem::path& path, DWORD access, DWORD share, DWORD flags);

class WindowsWritableFile final : public WritableFile {
public:
    WindowsWritableFile(Handle file, std::filesystem::path path, bool direct)
        : file_(std::move(file)), path_(std::move(path)), direct_(direct) {}

    void Append(const void* data, size_t size) override {
        if (!file_.Valid()) ThrowFsError(ERROR_INVALID_HANDLE, "write to closed file", path_);
        const auto* bytes = static_cast<const uint8_t*>(data);
        while (size > 0) {
            const DWORD request = static_cast<DWORD>(std::min(size, kMaxChunk));
            DWORD written = 0;
            if (::WriteFile(file_.Get(), bytes, request, &written, nullptr) && written > 0) {
                bytes += written;
                size -= written;
                offset_ += written;
                continue;
            }
            const DWORD code = ::GetLastError();
            // An unbuffered handle refuses a buffer, size or offset off the sector grid.
            if (code == ERROR_INVALID_PARAMETER && direct_) {
                DropDirectIo();
                continue;
            }
            ThrowFsError(written == 0 && code == ERROR_SUCCESS ? ERROR_WRITE_FAULT : code, "write",
                         path_);
        }
    }

    void Sync() override {
        if (!file_.Valid()) ThrowFsError(ERROR_INVALID_HANDLE, "sync closed file", path_);
        if (!::FlushFileBuffers(file_.Get())) ThrowLastFsError("flush", path_);
    }

    void Close() override {
        if (!file_.Valid()) return;
        DWORD code = ERROR_SUCCESS;
        // Write-through covers the data; the flush also commits the length and times.
        if (!::FlushFileBuffers(file_.Get())) code = ::GetLastError();
        if (!file_.Reset() && code == ERROR_SUCCESS) code = ::GetLastError();
        if (code != ERROR_SUCCESS) ThrowFsError(code, "close", path_);
    }

    bool IsDirectIo() const override { return direct_; }

private:
    // Reopens the file write-through but buffered, at the same offset (the unshared handle
    // must go first).
    void DropDirectIo() {
        file_.Reset();
        Handle buffered = OpenRegularFile(path_, GENERIC_WRITE, kWriteShare, kWriteFlags);
        if (!buffered.Valid()) ThrowLastFsError("leave unbuffered I/O on", path_);
        LARGE_INTEGER offset{};
        offset.QuadPart = static_cast<LONGLONG>(offset_);
        if (!::SetFilePointerEx(buffered.Get(), offset, nullptr, FILE_BEGIN)) {
            ThrowLastFsError("seek", path_);
        }
        file_ = std::move(buffered);
        direct_ = false;
    }

    Handle file_;
    std::filesystem::path path_;
    bool direct_;
    uint64_t offset_ = 0;
};

class WindowsReadableFile final : public ReadableFile {
public:
    WindowsReadableFile(Handle file, std::filesystem::path path)
        : file_(std::move(file)), path_(std::move(path)) {}

    size_t Read(void* buffer, size_t size) override {
        auto* bytes = static_cast<uint8_t*>(buffer);
        size_t total = 0;
        while (total < size) {
            OVERLAPPED at{};
            at.Offset = static_cast<DWORD>(offset_);
            at.OffsetHigh = static_cast<DWORD>(offset_ >> 32);
            const DWORD request = static_cast<DWORD>(std::min(size - total, kMaxChunk));
            DWORD got = 0;
            if (!::ReadFile(file_.Get(), bytes + total, request, &got, &at)) {
                if (::GetLastError() == ERROR_HANDLE_EOF) break;
                ThrowLastFsError("read", path_);
            }
            if (got == 0) break;
            total += got;
            offset_ += got;
        }
        return total;
    }

    void Seek(uint64_t offset) override { offset_ = offset; }

    uint64_t Size() override {
        LARGE_INTEGER size{};
        if (!::GetFileSizeEx(file_.Get(), &size)) ThrowLastFsError("get size", path_);
        return static_cast<uint64_t>(size.QuadPart);
    }

private:
    Handle file_;
    std::filesystem::path path_;
    uint64_t offset_ = 0;
};

// Opens an existing entry without following a link in its last component and checks that it is
// a regular file on disk (not a folder, link, device or pipe). Returns an invalid handle with
// the last error set on failure.
Handle OpenRegularFile(const std::filesystem::path& path, DWORD access, DWORD share, DWORD flags) {
    const std::wstring name = SystemPath(path);
    Handle file(::CreateFileW(name.c_str(), access, share, nullptr, OPEN_EXISTING,
                              flags | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!file.Valid()) {
        // A folder is refused as "access denied"; say what it is.
        const DWORD code = ::GetLastError();
        const DWORD attributes = ::GetFileAttributesW(name.c_str());
        const bool folder = code == ERROR_ACCESS_DENIED && attributes != INVALID_FILE_ATTRIBUTES &&
                            (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        ::SetLastError(folder ? ERROR_DIRECTORY_NOT_SUPPORTED : code);
        return file;
    }
    BY_HANDLE_FILE_INFORMATION info{};
    DWORD code = ERROR_SUCCESS;
    if (!::GetFileInformationByHandle(file.Get(), &info)) {
        code = ::GetLastError();
    } else if (::GetFileType(file.Get()) != FILE_TYPE_DISK ||
               IsReparsePoint(info.dwFileAttributes) ||
               (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        code = ERROR_INVALID_PARAMETER;
    }
    if (code == ERROR_SUCCESS) return file;
    file.Reset();
    ::SetLastError(code);
    return file;
}

}  // namespace

std::unique_ptr<WritableFile> WindowsFileSystem::OpenForDirectWrite(
    const std::filesystem::path& path) {
    bool direct = false;
    Handle file;
    if (options_.allowDirectIo) {
        file =
            OpenRegularFile(path, GENERIC_WRITE, kWriteShare, kWriteFlags | FILE_FLAG_NO_BUFFERING);
        if (file.Valid()) {
            direct = true;
        } else if (::GetLastError() != ERROR_INVALID_PARAMETER) {
            ThrowLastFsError("open for direct write", path);
        }
    }
    if (!file.Valid()) {
        file = OpenRegularFile(path, GENERIC_WRITE, kWriteShare, kWriteFlags);
        if (!file.Valid()) ThrowLastFsError("open for write", path);
    }
    if (!::SetEndOfFile(file.Get())) ThrowLastFsError("truncate", path);
    return std::make_unique<WindowsWritableFile>(std::move(file), path, direct);
}

std::unique_ptr<ReadableFile> WindowsFileSystem::OpenForRead(const std::filesystem::path& path) {
    // Others may still delete or replace the file while it is read, as on POSIX.
    Handle file = OpenRegularFile(path, GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 0);
    if (!file.Valid()) ThrowLastFsError("open for read", path);
    return std::make_unique<WindowsReadableFile>(std::move(file), path);
}

}  // namespace velacore
