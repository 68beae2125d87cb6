// PosixFileSystem: folder operations (create, remove, recursive removal, listing).
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/posix/PosixFileSystem.h"
#include "host/posix/PosixFsErrors.h"

namespace velacore {
namespace {

using posix::ThrowFsError;
using posix::ThrowLastFsError;

bool IsDotOrDotDot(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// Owns an open DIR stream.
class DirStream {
public:
    explicit DirStream(DIR* dir) : dir_(dir) {}
    ~DirStream() {
        if (dir_ != nullptr) ::closedir(dir_);
    }
    DirStream(const DirStream&) = delete;
    DirStream& operator=(const DirStream&) = delete;
    DIR* Get() const { return dir_; }

private:
    DIR* dir_;
};

// Reads every entry of an open folder. Links are never followed: only what is itself a folder
// or a regular file counts as one.
std::vector<DirectoryEntry> ReadEntries(DIR* dir, const std::filesystem::path& path) {
    std::vector<DirectoryEntry> entries;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) ThrowLastFsError("read folder", path);
            return entries;
        }
        if (IsDotOrDotDot(entry->d_name)) continue;
        bool isDirectory = entry->d_type == DT_DIR;
        bool isRegular = entry->d_type == DT_REG;
        struct stat st {};
        if (entry->d_type == DT_UNKNOWN &&
            ::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) {
            isDirectory = S_ISDIR(st.st_mode);
            isRegular = S_ISREG(st.st_mode);
        }
        entries.push_back({entry->d_name, isDirectory, isRegular});
    }
}

// Removes the folder `name` inside `parentFd` and its content. A folder that is already gone
// is fine, except the top one (`isTop`), which throws FileNotFoundError.
void RemoveTree(int parentFd, const char* name, const std::filesystem::path& path, bool isTop) {
    const int fd = ::openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT && !isTop) return;
        ThrowLastFsError("open folder", path);
    }
    DIR* raw = ::fdopendir(fd);
    if (raw == nullptr) {
        const int err = errno;
        ::close(fd);
        ThrowFsError(err, "open folder", path);
    }
    DirStream dir(raw);
    for (const DirectoryEntry& entry : ReadEntries(dir.Get(), path)) {
        const std::filesystem::path child = path / entry.name;
        if (entry.isDirectory) {
            RemoveTree(fd, entry.name.c_str(), child, false);
        } else if (::unlinkat(fd, entry.name.c_str(), 0) != 0 && errno != ENOENT) {
            ThrowLastFsError("delete file", child);
        }
    }
    if (::unlinkat(parentFd, name, AT_REMOVEDIR) != 0 && (errno != ENOENT || isTop)) {
        ThrowLastFsError("remove folder", path);
    }
}

// Fills kind, size and creation time of `name` in the folder `dirFd`. Returns false when it
// vanished or cannot be looked at.
bool StatAt(int dirFd, const char* name, DirectoryEntry& out) {
#ifdef STATX_BTIME
    struct statx stx {};
    constexpr unsigned kMask = STATX_TYPE | STATX_SIZE | STATX_BTIME | STATX_MTIME;
    if (::statx(dirFd, name, AT_SYMLINK_NOFOLLOW, kMask, &stx) == 0) {
        out.isDirectory = S_ISDIR(stx.stx_mode);
        out.isRegularFile = S_ISREG(stx.stx_mode);
        out.size = stx.stx_size;
        const struct statx_timestamp& ts =
            (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_mtime;
        out.created = static_cast<int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
        return true;
    }
    if (errno != ENOSYS) return false;
#endif
    struct stat st {};
    if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
    out.isDirectory = S_ISDIR(st.st_mode);
    out.isRegularFile = S_ISREG(st.st_mode);
    out.size = static_cast<uint64_t>(st.st_size);
    out.created = static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
    return true;
}

}  // namespace

void PosixFileSystem::CreateDirectory(const std::filesystem::path& path) {
    if (::mkdir(path.c_str(), 0755) == 0) return;
    const int err = errno;
    if (err == EEXIST && IsDirectory(path)) return;
    ThrowFsError(err, "create folder", path);
}

void PosixFileSystem::RemoveDirectory(const std::filesystem::path& path) {
    if (::rmdir(path.c_str()) != 0) ThrowLastFsError("remove folder", path);
}

void PosixFileSystem::RemoveDirectoryRecursive(const std::filesystem::path& path) {
    RemoveTree(AT_FDCWD, path.c_str(), path, true);
}

std::vector<DirectoryEntry> PosixFileSystem::ListDirectory(const std::filesystem::path& path) {
    DIR* raw = ::opendir(path.c_str());
    if (raw == nullptr) ThrowLastFsError("open folder", path);
    DirStream dir(raw);
    return ReadEntries(dir.Get(), path);
}

std::vector<DirectoryEntry> PosixFileSystem::ListDirectoryWithStats(
    const std::filesystem::path& path) {
    DIR* raw = ::opendir(path.c_str());
    if (raw == nullptr) ThrowLastFsError("open folder", path);
    DirStream dir(raw);
    std::vector<DirectoryEntry> entries;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir.Get());
        if (entry == nullptr) {
            if (errno != 0) ThrowLastFsError("read folder", path);
            return entries;
        }
        if (IsDotOrDotDot(entry->d_name)) continue;
        DirectoryEntry out{entry->d_name, entry->d_type == DT_DIR, false};
        // Folders and other kinds are known from the listing; files take one look each,
        // relative to the folder and never through a link.
        if (entry->d_type == DT_REG || entry->d_type == DT_UNKNOWN) {
            if (!StatAt(::dirfd(dir.Get()), entry->d_name, out)) continue;
        }
        entries.push_back(std::move(out));
    }
}

}  // namespace velacore
