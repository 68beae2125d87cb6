// The cache file: one item's payload on disk. What a cache file is named, in which sub-folder
// it lies, the 32-byte header in front of the payload, and the stream it is written through.
// The writer, the reader, the folder scan and the mcache tool all use these so that they agree
// on every field.
//
// Name: "<GUID>.<matchname>.<app version, %X>.<base64 header with '/' -> '-'>.zkcache", placed in
// the sub-folder named after the first two characters of the name. A writer's temporary is the
// name followed by ".tmp".
// Content: header (magic, format version, app version, reserved, compute time, savings; all
// little-endian), then the payload, then padding up to a whole write buffer.
//
// Thread-safety: MCp_CacheFile and CacheFileHeader are stateless / value types, callable from any
// thread. One FastWriteOnlyStream belongs to one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mc/host/AlignedBuffer.h"
#include "mc/host/ByteStream.h"
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

// What a cache-file name carries.
struct ParsedCacheFileName {
    velacore::Guid guid;
    std::u16string matchname;
    uint32_t appVersion = 0;
    std::vector<uint8_t> header;
};

// Names and places of cache files. Static members only.
class MCp_CacheFile {
public:
    // Returns the file name (UTF-16) of an item: its GUID text, the data class's `matchname`
    // (ASCII, no full stop; null is taken as empty), `appVersion` in upper-case hexadecimal, the
    // encoded `header` bytes (empty header = empty field) and ".zkcache".
    static std::u16string BuildName(const velacore::Guid& guid, const char* matchname,
                                    uint32_t appVersion, const std::vector<uint8_t>& header);

    // Parses the name of `file`. Throws the int MCp_Err_AppVersion when the version field is
    // empty, not hexadecimal, wider than 32 bits or different from `expectedAppVersion`; throws
    // the int MCp_Err_FormatVersion when the name is not of our format at all (fewer than four
    // full stops, or a GUID or header field that does not decode). Never throws anything else.
    static ParsedCacheFileName ParseName(const velacore::File& file, uint32_t expectedAppVersion);
    // The same on a bare name in UTF-8 (as a folder listing gives it), without exceptions:
    // returns 0 and fills `parsed`, or returns the code the other form throws.
    static int ParseName(std::string_view utf8Name, uint32_t expectedAppVersion,
                         ParsedCacheFileName& parsed);

    // Whether `file` is a cache file by name: its extension is exactly ".zkcache".
    static bool IsCacheFile(const velacore::File& file);
    // Whether `file` is named like a writer's temporary of a cache file ("<name>.zkcache.tmp").
    static bool IsTempFile(const velacore::File& file);
    // The same two tests on a bare name in UTF-8.
    static bool IsCacheFileName(std::string_view utf8Name);
    static bool IsTempFileName(std::string_view utf8Name);

    // Returns the file `name` inside its two-character sub-folder of `cacheDir` (the first two
    // characters of the name, fewer if the name is shorter). Touches nothing on disk.
    static velacore::File FileFor(const velacore::Dir& cacheDir, const std::u16string& name);

    // Creates `cacheDir` and the sub-folder that FileFor uses for `name` when they are missing.
    // Returns whether the sub-folder exists afterwards; failures are swallowed (never throws),
    // the later file creation reports them.
    static bool EnsureSubfolder(const velacore::Dir& cacheDir, const std::u16string& name);

    // Whether the folder or the sub-folder of `name` is a symbolic link: someone replaced it, and
    // a file written there would land outside the cache folder. Errors count as linked.
    static bool SubfolderIsLinked(const velacore::Dir& cacheDir, const std::u16string& name);
};

// The stream a cache file is written through. Direct (unbuffered where the file system allows
// it), write-through and sequential. It collects bytes in an aligned buffer of 64 x the volume's
// efficient block size and writes only whole buffers, the last one too, so a finished file's
// length is always a multiple of the buffer size (the tail is padding).
// Errors: a missing file or folder throws velacore::FileNotFoundError, any other failure
// velacore::IOError; std::bad_alloc when the buffer cannot be allocated.
class FastWriteOnlyStream : public velacore::OPlatformByteStream {
public:
    static constexpr size_t kBlocksPerBuffer = 64;

    // Opens `file` (empties it if it exists; its folder must exist) and allocates the buffer.
    // With `expectedBytes`, reserves room for that many bytes rounded up to whole buffers (the
    // file still ends at the last buffer written). Throws FileNotFoundError / IOError /
    // std::bad_alloc.
    explicit FastWriteOnlyStream(const velacore::File& file, uint64_t expectedBytes = 0);
    // The same on a file this call creates: nothing may be at `file` yet (IOError with EEXIST
    // otherwise, a link included). The file is created, marked not to be indexed and opened
    // in one step where the file system allows it.
    struct CreateNew {};
    FastWriteOnlyStream(CreateNew, const velacore::File& file, uint64_t expectedBytes);
    ~FastWriteOnlyStream() override;

    FastWriteOnlyStream(const FastWriteOnlyStream&) = delete;
    FastWriteOnlyStream& operator=(const FastWriteOnlyStream&) = delete;

    // Buffers `size` bytes, writing every buffer that fills up as one block. Throws IOError
    // (also after Finish).
    void WriteBytes(const void* data, size_t size) override;

    // Writes the last, partly filled buffer whole (padding included; nothing when the bytes so far
    // filled whole buffers) and releases the buffer. Only the first call writes; later calls do
    // nothing. Does not close the file: call Close() afterwards to make it durable. Throws
    // IOError.
    void Finish();

    // Bytes handed to WriteBytes so far (without the padding).
    uint64_t TotalBytes() const { return total_; }
    // The buffer size: every block written is exactly this long.
    size_t BufferSize() const { return bufferSize_; }

private:
    void Reserve(uint64_t expectedBytes);
    void WriteBuffer();

    size_t bufferSize_ = 0;
    velacore::AlignedBuffer buffer_;
    size_t position_ = 0;  // bytes used in buffer_
    uint64_t total_ = 0;
    bool finished_ = false;
};
