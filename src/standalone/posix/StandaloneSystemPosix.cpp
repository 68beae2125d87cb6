// POSIX side of the standalone host's system queries (see host/StandaloneSystem.h).
#include <unistd.h>

#include <climits>
#include <string>

#include "standalone/StandaloneSystem.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace velacore::hostsys {

uint64_t PhysicalMemoryBytes() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) return 0;
    return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
}

std::string MachineName() {
#if defined(HOST_NAME_MAX)
    char name[HOST_NAME_MAX + 1] = {};
#else
    char name[256] = {};
#endif
    if (::gethostname(name, sizeof(name) - 1) != 0) return {};
    return std::string(name);
}

bool ReleaseFreeHeapMemory() {
#if defined(__GLIBC__)
    return ::malloc_trim(0) != 0;
#else
    return false;
#endif
}

}  // namespace velacore::hostsys
