// The disk-cache file format: how a cache file is named, in which sub-folder it lies, and the
// 32-byte header in front of the payload. The writer, the read-back and the folder scan all use
// these helpers so that they agree on every field.
//
// Name: "<GUID>.<matchname>.<app version, %X>.<base64 header with '/' -> '-'>.zkcache", placed in
// the sub-folder named after the first two characters of the name.
// Content: header (magic, format version, app version, reserved, compute time, savings; all
// little-endian), then the payload, then padding up to a whole write buffer.
//
// Thread-safety: stateless functions and value types; callable from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mc/host/File.h"
#include "mc/host/Guid.h"

namespace velacore {
class IByteStream;
class OByteStream;
}  // namespace velacore

constexpr uint32_t kCacheFileMagic = 0x000431CB;
constexpr uint32_t kCacheFileFormatVersion = 1;
constexpr size_t kCacheFileHeaderSize = 32;
// The extension of every cache file, compared exactly (case-sensitive).
inline constexpr char16_t kCacheFileExtension[] = u".zkcache";

// Module error code thrown by ParseCacheFileName for a name that is not a cache-file name at all
// (too few fields, a GUID or header field that does not decode): the file is not of our format.
// A wrong, empty or unparsable version field throws 9 instead.
constexpr int kMalformedCacheFileNameError = 1;

// The fixed header at offset 0 of a cache file.
struct CacheFileHeader {
    uint32_t magic = kCacheFileMagic;
    uint32_t formatVersion = kCacheFileFormatVersion;
    uint32_t appVersion = 0;
    uint32_t reserved = 0;
    double computeTime = 0.0;  // seconds
    double savings = 0.0;      // cached compute-time savings, seconds

    // Returns the 32 little-endian bytes of the header.
    std::array<uint8_t, kCacheFileHeaderSize> Encode() const;
    // Decodes 32 bytes at `bytes` (must point at kCacheFileHeaderSize readable bytes). Performs no
    // validation: the caller checks magic and format version.
    static CacheFileHeader Decode(const uint8_t* bytes);

    // Writes the 32 bytes to `out`. Throws what the stream throws.
    void WriteTo(velacore::OByteStream& out) const;
    // Reads 32 bytes from `in` (IOError at a premature end). No validation.
    static CacheFileHeader ReadFrom(velacore::IByteStream& in);

    friend bool operator==(const CacheFileHeader&, const CacheFileHeader&) = default;
};

// Returns the file name (UTF-16) of an item: its GUID text, the data class's `matchname` (ASCII,
// no full stop; null is taken as empty), `appVersion` in upper-case hexadecimal, the encoded
// `header` bytes (empty header = empty field) and ".zkcache".
std::u16string BuildCacheFileName(const velacore::Guid& guid, const char* matchname,
                                  uint32_t appVersion, const std::vector<uint8_t>& header);

// Returns the file `name` inside its two-character sub-folder of `cacheDir` (the first two
// characters of the name, fewer if the name is shorter). Touches nothing on disk.
velacore::File CacheFileFor(const velacore::Dir& cacheDir, const std::u16string& name);

// Creates `cacheDir` and the sub-folder that CacheFileFor uses for `name` when they are missing.
// Returns whether the sub-folder exists afterwards; failures are swallowed (never throws), the
// later file creation reports them.
bool EnsureCacheSubfolder(const velacore::Dir& cacheDir, const std::u16string& name);

// Whether the folder or the sub-folder of `name` is a symbolic link: someone replaced it, and a
// file written there would land outside the cache folder. Errors count as linked.
bool CacheSubfolderIsLinked(const velacore::Dir& cacheDir, const std::u16string& name);

// What a cache-file name carries.
struct ParsedCacheFileName {
    velacore::Guid guid;
    std::u16string matchname;
    uint32_t appVersion = 0;
    std::vector<uint8_t> header;
};

// Parses the name of `file`. Throws the int 9 (MCp_Err_AppVersion) when the version field is
// empty, not hexadecimal, wider than 32 bits or different from `expectedAppVersion`; throws the
// int kMalformedCacheFileNameError when the name has fewer than four full stops or its GUID or
// header field does not decode. Never throws anything else.
ParsedCacheFileName ParseCacheFileName(const velacore::File& file, uint32_t expectedAppVersion);

// Returns whether `file` is a cache file by name: its extension is exactly ".zkcache".
bool IsCacheFile(const velacore::File& file);
