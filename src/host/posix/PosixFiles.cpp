// The open files of PosixFileSystem: sequential writer (direct I/O with a buffered fallback,
// made durable by one fdatasync at Close) and positional reader.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "host/posix/PosixFileSystem.h"
#include "host/posix/PosixFsErrors.h"

namespace velacore {
namespace {

using posix::RetryOnInterrupt;
using posix::ThrowFsError;
using posix::ThrowLastFsError;

class PosixWritableFile final : public WritableFile {
public:
    PosixWritableFile(int fd, std::filesystem::path path, bool direct)
        : fd_(fd), path_(std::move(path)), direct_(direct) {}
    ~PosixWritableFile() override {
        if (fd_ >= 0) ::close(fd_);
    }
    PosixWritableFile(const PosixWritableFile&) = delete;
    PosixWritableFile& operator=(const PosixWritableFile&) = delete;

    void Append(const void* data, size_t size) override {
        if (fd_ < 0) ThrowFsError(EBADF, "write to closed file", path_);
        const auto* bytes = static_cast<const uint8_t*>(data);
        while (size > 0) {
            const ssize_t written = ::write(fd_, bytes, size);
            if (written > 0) {
                bytes += written;
                size -= static_cast<size_t>(written);
                appended_ += static_cast<uint64_t>(written);
                continue;
            }
            const int err = written == 0 ? EIO : errno;
            if (err == EINTR) continue;
            // The file system refused this request for direct I/O (alignment or no support).
            if (err == EINVAL && direct_) {
                DropDirectIo();
                continue;
            }
            ThrowFsError(err, "write", path_);
        }
    }

    void Sync() override {
        if (fd_ < 0) ThrowFsError(EBADF, "sync closed file", path_);
        if (RetryOnInterrupt([&] { return ::fdatasync(fd_); }) != 0) {
            ThrowLastFsError("fdatasync", path_);
        }
    }

    void Reserve(uint64_t size) override {
        if (fd_ < 0) ThrowFsError(EBADF, "reserve on closed file", path_);
#ifdef __linux__
        // Allocated up front, a direct write fills blocks without growing the file each time.
        if (size <= appended_) return;
        const int rc =
            RetryOnInterrupt([&] { return ::fallocate(fd_, 0, 0, static_cast<off_t>(size)); });
        if (rc == 0) {
            reserved_ = std::max(reserved_, size);
        } else if (errno != EOPNOTSUPP && errno != ENOSYS) {
            ThrowLastFsError("fallocate", path_);
        }
#else
        (void)size;
#endif
    }

    void Close() override {
        if (fd_ < 0) return;
        const int fd = std::exchange(fd_, -1);
        int err = 0;
        // Room reserved but not written is cut off, so the length is what was appended.
        if (reserved_ > appended_ &&
            RetryOnInterrupt([&] { return ::ftruncate(fd, static_cast<off_t>(appended_)); }) != 0)
            err = errno;
        // Direct writes skip the cache but not the journal: one flush covers data and length.
        if (err == 0 && RetryOnInterrupt([&] { return ::fdatasync(fd); }) != 0) err = errno;
        // close() is never retried: the descriptor is gone even when it reports EINTR.
        if (::close(fd) != 0 && err == 0 && errno != EINTR) err = errno;
        if (err != 0) ThrowFsError(err, "close", path_);
    }

    bool IsDirectIo() const override {
        return direct_;
    }

private:
    void DropDirectIo() {
#ifdef O_DIRECT
        const int flags = ::fcntl(fd_, F_GETFL);
        if (flags == -1 || ::fcntl(fd_, F_SETFL, flags & ~O_DIRECT) == -1) {
            ThrowLastFsError("leave direct I/O on", path_);
        }
#endif
        direct_ = false;
    }

    int fd_;
    std::filesystem::path path_;
    bool direct_;
    uint64_t appended_ = 0;
    uint64_t reserved_ = 0;
};

class PosixReadableFile final : public ReadableFile {
public:
    PosixReadableFile(int fd, std::filesystem::path path) : fd_(fd), path_(std::move(path)) {}
    ~PosixReadableFile() override { ::close(fd_); }
    PosixReadableFile(const PosixReadableFile&) = delete;
    PosixReadableFile& operator=(const PosixReadableFile&) = delete;

    size_t Read(void* buffer, size_t size) override {
        auto* bytes = static_cast<uint8_t*>(buffer);
        size_t total = 0;
        while (total < size) {
            const ssize_t got =
                ::pread(fd_, bytes + total, size - total, static_cast<off_t>(offset_));
            if (got > 0) {
                total += static_cast<size_t>(got);
                offset_ += static_cast<uint64_t>(got);
            } else if (got == 0) {
                break;
            } else if (errno != EINTR) {
                ThrowLastFsError("read", path_);
            }
        }
        return total;
    }

    void Seek(uint64_t offset) override { offset_ = offset; }

    uint64_t Size() override {
        struct stat st {};
        if (::fstat(fd_, &st) != 0) ThrowLastFsError("fstat", path_);
        return static_cast<uint64_t>(st.st_size);
    }

private:
    int fd_;
    std::filesystem::path path_;
    uint64_t offset_ = 0;
};

// Opens `path` without following a link in its last component and without blocking (a FIFO
// would block until a writer came), checks that it is a regular file, then makes the descriptor
// blocking again. Returns -1 with errno set on failure.
int OpenFile(const std::filesystem::path& path, int flags) {
    const int fd =
        RetryOnInterrupt([&] { return ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK); });
    if (fd < 0) return fd;
    struct stat st {};
    int err = 0;
    if (::fstat(fd, &st) != 0) {
        err = errno;
    } else if (!S_ISREG(st.st_mode)) {
        err = EINVAL;
    } else {
        const int fl = ::fcntl(fd, F_GETFL);
        if (fl == -1 || ::fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) == -1) err = errno;
    }
    if (err == 0) return fd;
    ::close(fd);
    errno = err;
    return -1;
}

// Opens for writing with `flags`, direct where allowed (a file system refusing O_DIRECT gets
// buffered writes). `create` opens with O_CREAT|O_EXCL, which never follows a link and always
// yields a fresh regular file; otherwise OpenFile checks what is there.
std::unique_ptr<WritableFile> OpenWritable(const std::filesystem::path& path, bool allowDirect,
                                           bool create) {
    const int flags = O_WRONLY | O_CLOEXEC | (create ? O_CREAT | O_EXCL : O_TRUNC);
    auto open = [&](int extra) {
        if (!create) return OpenFile(path, flags | extra);
        return RetryOnInterrupt([&] { return ::open(path.c_str(), flags | extra, 0644); });
    };
    bool direct = false;
    int fd = -1;
#ifdef O_DIRECT
    if (allowDirect) {
        fd = open(O_DIRECT);
        if (fd >= 0) {
            direct = true;
        } else if (errno != EINVAL) {
            ThrowLastFsError(create ? "create for direct write" : "open for direct write", path);
        }
    }
#else
    (void)allowDirect;
#endif
    if (fd < 0) {
        fd = open(0);
        if (fd < 0) ThrowLastFsError(create ? "create for write" : "open for write", path);
    }
    try {
        return std::make_unique<PosixWritableFile>(fd, path, direct);
    } catch (...) {
        ::close(fd);
        if (create) ::unlink(path.c_str());
        throw;
    }
}

}  // namespace

std::unique_ptr<WritableFile> PosixFileSystem::OpenForDirectWrite(
    const std::filesystem::path& path) {
    return OpenWritable(path, options_.allowDirectIo, false);
}

std::unique_ptr<WritableFile> PosixFileSystem::CreateForDirectWrite(
    const std::filesystem::path& path) {
    return OpenWritable(path, options_.allowDirectIo, true);
}

std::unique_ptr<ReadableFile> PosixFileSystem::OpenForRead(const std::filesystem::path& path) {
    const int fd = OpenFile(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) ThrowLastFsError("open for read", path);
    try {
        return std::make_unique<PosixReadableFile>(fd, path);
    } catch (...) {
        ::close(fd);
        throw;
    }
}

}  // namespace velacore
