// DropFileFromPageCache on POSIX: fdatasync, then posix_fadvise(POSIX_FADV_DONTNEED).
#include <fcntl.h>
#include <unistd.h>

#include "helpers/PageCache.h"

namespace velacore {

bool DropFileFromPageCache(const std::filesystem::path& path) {
    // Never blocks on a FIFO and never follows a link.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return false;
    bool ok = ::fdatasync(fd) == 0;  // only clean pages can be dropped
#ifdef POSIX_FADV_DONTNEED
    ok = ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) == 0 && ok;
#else
    ok = false;
#endif
    ::close(fd);
    return ok;
}

}  // namespace velacore
