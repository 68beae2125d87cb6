// Machine queries over sysconf and /proc.
#include <unistd.h>

#include <cstdlib>

#include "helpers/Machine.h"

namespace velacore {

uint64_t PhysicalMemoryBytes() {
    const long pages = ::sysconf(_SC_PHYS_PAGES), size = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && size > 0 ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(size) : 0;
}

std::filesystem::path ExecutablePath() {
    std::error_code ec;
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : exe;
}

const char* SharedLibrarySuffix() {
    return ".so";
}

std::filesystem::path UserCacheFolder() {
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg == '/') return xdg;
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::filesystem::path(home) / ".cache";
    return {};
}

std::vector<std::string> Utf8Arguments(int argc, char** argv) {
    return {argv, argv + argc};
}

bool SetProcessEnv(const char* name, const char* value) {
    return (value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name)) == 0;
}

}  // namespace velacore
