// TempDir: a fresh, uniquely named folder under the system's temporary folder, removed with
// everything in it when the object goes away. Also small helpers to read and write whole files
// with the standard library, independently of the FileSystem under test.
// Thread-safety: a TempDir is immutable after construction; use it from any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "mc/host/File.h"

namespace mctest {

class TempDir {
public:
    // Creates <base>/<prefix>-<random>. Throws std::filesystem::filesystem_error on failure.
    explicit TempDir(std::string_view prefix = "mc-test",
                     const std::filesystem::path& base = std::filesystem::temp_directory_path()) {
        static thread_local std::mt19937_64 engine{std::random_device{}()};
        do {
            path_ = base / (std::string(prefix) + "-" + std::to_string(engine()));
        } while (!std::filesystem::create_directory(path_));
    }
    // Removes the folder recursively, ignoring errors.
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
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
inline void WriteWholeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path.string());
}
inline void WriteWholeFile(const std::filesystem::path& path, std::string_view text) {
    WriteWholeFile(path, std::vector<uint8_t>(text.begin(), text.end()));
}

// The content of a file. Throws std::runtime_error when it cannot be read.
inline std::vector<uint8_t> ReadWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>());
}

// `size` bytes of a reproducible pseudo-random pattern depending on `seed`.
inline std::vector<uint8_t> PatternBytes(size_t size, uint32_t seed) {
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed * 2654435761u + 1;
    for (uint8_t& b : bytes) {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

}  // namespace mctest
