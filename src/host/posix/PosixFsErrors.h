// Turns a failed system call of the file layer into the host exceptions: a missing path
// (ENOENT, ENOTDIR) becomes FileNotFoundError, anything else IOError with the errno.
// Thread-safety: stateless.
#pragma once

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <type_traits>

#include "mc/host/Errors.h"

namespace velacore::posix {

// The system's text for an errno value (thread-safe, whichever strerror_r flavour is present).
inline std::string ErrnoText(int err) {
    char buf[256] = {};
    auto pick = [&](auto result) -> std::string {
        if constexpr (std::is_same_v<decltype(result), char*>) {
            return result != nullptr ? std::string(result) : std::string();
        } else {
            return result == 0 ? std::string(buf) : "error " + std::to_string(err);
        }
    };
    return pick(::strerror_r(err, buf, sizeof buf));
}

inline bool IsMissing(int err) {
    return err == ENOENT || err == ENOTDIR;
}

// Throws for a failure of `operation` on `path` with system error `err`. Never returns.
[[noreturn]] inline void ThrowFsError(int err, std::string_view operation,
                                      const std::filesystem::path& path) {
    std::string message = std::string(operation) + " '" + path.string() + "': " + ErrnoText(err);
    if (IsMissing(err)) throw FileNotFoundError(message);
    throw IOError(message, err);
}

// Same with the current errno.
[[noreturn]] inline void ThrowLastFsError(std::string_view operation,
                                          const std::filesystem::path& path) {
    ThrowFsError(errno, operation, path);
}

// Repeats a system call while it fails with EINTR; returns its last result.
template <typename Call>
auto RetryOnInterrupt(Call call) {
    for (;;) {
        auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

}  // namespace velacore::posix
