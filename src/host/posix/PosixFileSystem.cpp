// PosixFileSystem: operations on paths (create, delete, rename, sizes, times, volume queries).
// Folder operations are in PosixDirectories.cpp, open files in PosixFiles.cpp.
#include "host/posix/PosixFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "host/posix/PosixFsErrors.h"

namespace velacore {
namespace {

using posix::IsMissing;
using posix::RetryOnInterrupt;
using posix::ThrowFsError;
using posix::ThrowLastFsError;

constexpr int64_t kNanosPerSecond = 1'000'000'000;

struct stat StatOrThrow(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) ThrowLastFsError("stat", path);
    return st;
}

// The entry itself, a symbolic link not followed.
struct stat LstatOrThrow(const std::filesystem::path& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) ThrowLastFsError("lstat", path);
    return st;
}

int64_t ToNanos(const struct timespec& ts) {
    return static_cast<int64_t>(ts.tv_sec) * kNanosPerSecond + ts.tv_nsec;
}

}  // namespace

void PosixFileSystem::CreateFile(const std::filesystem::path& path, bool failIfExists) {
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK |
                      (failIfExists ? O_EXCL : O_TRUNC);
    const int fd = RetryOnInterrupt([&] { return ::open(path.c_str(), flags, 0644); });
    if (fd < 0) ThrowLastFsError("create file", path);
    if (::close(fd) != 0 && errno != EINTR) ThrowLastFsError("close", path);
}

void PosixFileSystem::DeleteFile(const std::filesystem::path& path) {
    if (::unlink(path.c_str()) != 0) ThrowLastFsError("delete file", path);
}

void PosixFileSystem::Rename(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (::rename(from.c_str(), to.c_str()) != 0) {
        const int err = errno;
        ThrowFsError(err, "rename to '" + to.string() + "' from", from);
    }
}

uint64_t PosixFileSystem::FileSize(const std::filesystem::path& path) {
    const struct stat st = LstatOrThrow(path);
    if (!S_ISREG(st.st_mode)) ThrowFsError(EINVAL, "size of a non-regular file", path);
    return static_cast<uint64_t>(st.st_size);
}

int64_t PosixFileSystem::CreationTime(const std::filesystem::path& path) {
#ifdef STATX_BTIME
    struct statx stx {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &stx) ==
        0) {
        const struct statx_timestamp& ts =
            (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_mtime;
        return static_cast<int64_t>(ts.tv_sec) * kNanosPerSecond + ts.tv_nsec;
    }
    if (errno != ENOSYS) ThrowLastFsError("statx", path);
#endif
    return ModificationTime(path);
}

int64_t PosixFileSystem::ModificationTime(const std::filesystem::path& path) {
    return ToNanos(LstatOrThrow(path).st_mtim);
}

bool PosixFileSystem::Exists(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) return true;
    if (IsMissing(errno)) return false;
    ThrowLastFsError("stat", path);
}

bool PosixFileSystem::IsDirectory(const std::filesystem::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    if (IsMissing(errno)) return false;
    ThrowLastFsError("stat", path);
}

bool PosixFileSystem::IsSymbolicLink(const std::filesystem::path& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) return S_ISLNK(st.st_mode);
    if (IsMissing(errno)) return false;
    ThrowLastFsError("lstat", path);
}

size_t PosixFileSystem::GetBlockSize(const std::filesystem::path& path) {
    return std::max<size_t>(512, static_cast<size_t>(StatOrThrow(path).st_blksize));
}

uint64_t PosixFileSystem::GetFreeSpace(const std::filesystem::path& path) {
    struct statvfs vfs {};
    if (RetryOnInterrupt([&] { return ::statvfs(path.c_str(), &vfs); }) != 0) {
        ThrowLastFsError("statvfs", path);
    }
    return static_cast<uint64_t>(vfs.f_bavail) * static_cast<uint64_t>(vfs.f_frsize);
}

void PosixFileSystem::SetNotContentIndexed(const std::filesystem::path&) {
    // Nothing indexes file content behind our back here.
}

std::shared_ptr<FileSystem> MakeNativeFileSystem(NativeFileSystemOptions options) {
    return std::make_shared<PosixFileSystem>(options);
}

}  // namespace velacore
