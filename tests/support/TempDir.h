// TempDir: a fresh, uniquely named folder under the system's temporary folder, removed with
// everything in it when the object goes away. Also small helpers to read and write whole files
// with the standard library, independently of the FileSystem under test.
// Thread-safety: a TempDir is immutable after construction; use it from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "mc/host/File.h"

namespace mctest {

class TempDir {
public:
    // Creates <base>/<prefix>-<random>. Throws std::filesystem::filesystem_error on failure.
    explicit TempDir(std::string_view prefix = "mc-test",
                     const std::filesystem::path& base = std::filesystem::temp_directory_path());
    // Removes the folder recursively, ignoring errors.
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& Path() const { return path_; }
    velacore::Dir AsDir() const { return velacore::Dir(path_); }
    // The path / File of `name` inside the folder (nothing is created).
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }
    velacore::File FileAt(std::string_view name) const { return velacore::File(path_ / name); }

private:
    std::filesystem::path path_;
};

// Creates (or replaces) a file holding `bytes`. Throws std::runtime_error on failure.
void WriteWholeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes);
void WriteWholeFile(const std::filesystem::path& path, std::string_view text);
// The content of a file. Throws std::runtime_error when it cannot be read.
std::vector<uint8_t> ReadWholeFile(const std::filesystem::path& path);
// `size` bytes of a reproducible pseudo-random pattern depending on `seed`.
std::vector<uint8_t> PatternBytes(size_t size, uint32_t seed);

}  // namespace mctest
