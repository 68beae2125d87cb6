#include "support/TempDir.h"

#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <system_error>

namespace mctest {

TempDir::TempDir(std::string_view prefix, const std::filesystem::path& base) {
    static thread_local std::mt19937_64 engine{std::random_device{}()};
    do {
        path_ = base / (std::string(prefix) + "-" + std::to_string(engine()));
    } while (!std::filesystem::create_directory(path_));
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void WriteWholeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

void WriteWholeFile(const std::filesystem::path& path, std::string_view text) {
    WriteWholeFile(path, std::vector<uint8_t>(text.begin(), text.end()));
}

std::vector<uint8_t> ReadWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path.string());
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>());
}

std::vector<uint8_t> PatternBytes(size_t size, uint32_t seed) {
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed * 2654435761u + 1;
    for (uint8_t& b : bytes) {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

}  // namespace mctest
