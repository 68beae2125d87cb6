// Dropping a file's pages from the operating system's cache, so that the next read of it comes
// from the device. Used by benchmarks that compare reads against the disk's own limit.
// Thread-safety: stateless; callable from any thread.
#pragma once

#include <filesystem>

namespace velacore {

// Asks the system to forget the cached pages of the file at `path` (dirty pages are written
// first). Returns whether the system accepted the request; never throws. Where the system has
// no such request it returns false and changes nothing.
bool DropFileFromPageCache(const std::filesystem::path& path);

}  // namespace velacore
