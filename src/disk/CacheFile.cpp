// The cache file: header, names and places, and the write stream.
#include "disk/CacheFile.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string_view>

#include "lifecycle/Messages.h"
#include "mc/MC_Errors.h"
#include "mc/host/BinaryText.h"
#include "mc/host/ByteStream.h"
#include "mc/host/Errors.h"
#include "mc/host/FileSystem.h"
#include "mc/host/TextConvert.h"

using velacore::Dir;
using velacore::File;

namespace {

void PutU32(uint8_t* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}
void PutU64(uint8_t* out, uint64_t value) {
    for (int i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}
uint32_t GetU32(const uint8_t* in) {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(in[i]) << (8 * i);
    return value;
}
uint64_t GetU64(const uint8_t* in) {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value |= static_cast<uint64_t>(in[i]) << (8 * i);
    return value;
}

std::u16string Widen(std::string_view ascii) {
    return std::u16string(ascii.begin(), ascii.end());
}

// The version field, read as strtoull reads base 16: leading blanks, a sign and a "0x" prefix
// are taken, and whatever follows the digits is ignored. It counts only when at least one
// character was consumed, nothing overflowed, and the value fits in 32 bits.
bool ParseVersionField(const std::string& field, uint32_t& version) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(field.c_str(), &end, 16);
    if (end == field.c_str() || errno != 0 || value > 0xFFFFFFFFull) return false;
    version = static_cast<uint32_t>(value);
    return true;
}

// Splits off the text up to the next full stop; false when there is none.
template <class CharT>
bool NextField(std::basic_string_view<CharT>& rest, std::basic_string_view<CharT>& field) {
    const size_t dot = rest.find(CharT('.'));
    if (dot == std::basic_string_view<CharT>::npos) return false;
    field = rest.substr(0, dot);
    rest.remove_prefix(dot + 1);
    return true;
}

std::string Narrow(std::u16string_view text) {
    return velacore::ToUtf8(text);
}
std::string Narrow(std::string_view ascii) {
    return std::string(ascii);
}

bool IsAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Hex digit values, 0x10 for what is not one.
constexpr std::array<uint8_t, 256> MakeHexTable() {
    std::array<uint8_t, 256> table{};
    for (auto& v : table) v = 0x10;
    for (int i = 0; i < 10; ++i) table['0' + i] = static_cast<uint8_t>(i);
    for (int i = 0; i < 6; ++i) {
        table['A' + i] = static_cast<uint8_t>(10 + i);
        table['a' + i] = static_cast<uint8_t>(10 + i);
    }
    return table;
}
constexpr std::array<uint8_t, 256> kHexValue = MakeHexTable();

// The GUID text that names are built with (36 characters, dashes at 8, 13, 18 and 23, hex digits
// of either case), read without a branch per digit. Any other text goes to the host's parser,
// which accepts a little more (braces) and reports what it refuses.
bool ParseGuid(std::string_view text, velacore::Guid& guid) {
    static constexpr size_t kDigitPairs[16] = {0,  2,  4,  6,  9,  11, 14, 16,
                                               19, 21, 24, 26, 28, 30, 32, 34};
    if (text.size() == 36 && text[8] == '-' && text[13] == '-' && text[18] == '-' &&
        text[23] == '-') {
        velacore::Guid::Bytes bytes{};
        unsigned bad = 0;
        for (size_t k = 0; k < bytes.size(); ++k) {
            const unsigned high = kHexValue[static_cast<uint8_t>(text[kDigitPairs[k]])];
            const unsigned low = kHexValue[static_cast<uint8_t>(text[kDigitPairs[k] + 1])];
            bad |= high | low;
            bytes[k] = static_cast<uint8_t>((high << 4) | low);
        }
        if ((bad & 0x10) == 0) {
            guid = velacore::Guid(bytes);
            return true;
        }
    }
    try {
        guid = velacore::Guid(text);
        return true;
    } catch (const velacore::HostError&) {
        return false;
    }
}

bool ParseGuid(std::u16string_view text, velacore::Guid& guid) {
    try {
        guid = velacore::Guid(text);
        return true;
    } catch (const velacore::HostError&) {
        return false;
    }
}

// Parses a name held as UTF-16, or as ASCII (the usual case, which needs no conversion).
// Returns 0 or the error code.
template <class CharT>
int ParseFields(std::basic_string_view<CharT> name, uint32_t expectedAppVersion,
                ParsedCacheFileName& parsed) {
    std::basic_string_view<CharT> rest = name, guidText, matchname, versionText, headerText;
    if (!NextField(rest, guidText) || !NextField(rest, matchname) ||
        !NextField(rest, versionText) || !NextField(rest, headerText)) {
        return MCp_Err_FormatVersion;
    }
    if (!ParseGuid(guidText, parsed.guid)) return MCp_Err_FormatVersion;
    if (!ParseVersionField(Narrow(versionText), parsed.appVersion) ||
        parsed.appVersion != expectedAppVersion) {
        return MCp_Err_AppVersion;
    }
    std::string headerField = Narrow(headerText);
    std::replace(headerField.begin(), headerField.end(), '-', '/');
    try {
        parsed.header = velacore::DecodeBinaryDataFromUTF8String(headerField);
    } catch (const velacore::HostError&) {
        return MCp_Err_FormatVersion;
    }
    parsed.matchname.assign(matchname.begin(), matchname.end());
    return 0;
}

}  // namespace

// --- header --------------------------------------------------------------------------------

std::array<uint8_t, kCacheFileHeaderSize> CacheFileHeader::Encode() const {
    std::array<uint8_t, kCacheFileHeaderSize> bytes{};
    PutU32(bytes.data(), magic);
    PutU32(bytes.data() + 4, formatVersion);
    PutU32(bytes.data() + 8, appVersion);
    PutU32(bytes.data() + 12, reserved);
    PutU64(bytes.data() + 16, std::bit_cast<uint64_t>(computeTime));
    PutU64(bytes.data() + 24, std::bit_cast<uint64_t>(savings));
    return bytes;
}

CacheFileHeader CacheFileHeader::Decode(const uint8_t* bytes) {
    CacheFileHeader h;
    h.magic = GetU32(bytes);
    h.formatVersion = GetU32(bytes + 4);
    h.appVersion = GetU32(bytes + 8);
    h.reserved = GetU32(bytes + 12);
    h.computeTime = std::bit_cast<double>(GetU64(bytes + 16));
    h.savings = std::bit_cast<double>(GetU64(bytes + 24));
    return h;
}

void CacheFileHeader::WriteTo(velacore::OByteStream& out) const {
    const auto bytes = Encode();
    out.WriteBytes(bytes.data(), bytes.size());
}

CacheFileHeader CacheFileHeader::ReadFrom(velacore::IByteStream& in) {
    std::array<uint8_t, kCacheFileHeaderSize> bytes{};
    in.ReadBytes(bytes.data(), bytes.size());
    return Decode(bytes.data());
}

// --- names and places ----------------------------------------------------------------------

std::u16string MCp_CacheFile::BuildName(const velacore::Guid& guid, const char* matchname,
                                        uint32_t appVersion, const std::vector<uint8_t>& header) {
    char version[16];
    std::snprintf(version, sizeof version, "%X", static_cast<unsigned>(appVersion));
    std::u16string encoded = Widen(velacore::EncodeBinaryDataToUTF8String(header));
    std::replace(encoded.begin(), encoded.end(), u'/', u'-');

    std::u16string name = guid.AsWString();
    name += u'.';
    name += Widen(matchname != nullptr ? matchname : "");
    name += u'.';
    name += Widen(version);
    name += u'.';
    name += encoded;
    name += kCacheFileExtension;
    return name;
}

File MCp_CacheFile::FileFor(const Dir& cacheDir, const std::u16string& name) {
    return cacheDir.GetSubdir(name.substr(0, 2)).GetFile(name);
}

bool MCp_CacheFile::EnsureSubfolder(const Dir& cacheDir, const std::u16string& name) {
    // One level at a time: a vanished root must not be re-created under the cache's feet.
    const Dir sub = cacheDir.GetSubdir(name.substr(0, 2));
    try {
        velacore::FileSystem& fs = velacore::GetFileSystem();
        if (!fs.IsDirectory(cacheDir.GetFullPath())) fs.CreateDirectory(cacheDir.GetFullPath());
        if (!fs.IsDirectory(sub.GetFullPath())) fs.CreateDirectory(sub.GetFullPath());
        return true;
    } catch (...) {
        return false;  // the file creation that follows reports the problem
    }
}

bool MCp_CacheFile::SubfolderIsLinked(const Dir& cacheDir, const std::u16string& name) {
    velacore::FileSystem& fs = velacore::GetFileSystem();
    try {
        return fs.IsSymbolicLink(cacheDir.GetFullPath()) ||
               fs.IsSymbolicLink(cacheDir.GetSubdir(name.substr(0, 2)).GetFullPath());
    } catch (...) {
        return true;  // cannot tell: do not write there
    }
}

// --- parsing -------------------------------------------------------------------------------

ParsedCacheFileName MCp_CacheFile::ParseName(const File& file, uint32_t expectedAppVersion) {
    ParsedCacheFileName parsed;
    const std::u16string name = file.GetName();
    if (const int code = ParseFields<char16_t>(name, expectedAppVersion, parsed)) throw code;
    return parsed;
}

int MCp_CacheFile::ParseName(std::string_view utf8Name, uint32_t expectedAppVersion,
                             ParsedCacheFileName& parsed) {
    if (IsAscii(utf8Name)) return ParseFields(utf8Name, expectedAppVersion, parsed);
    // Ill-formed bytes become U+FFFD, as in the name a File gives.
    return ParseFields<char16_t>(velacore::ToUtf16(utf8Name), expectedAppVersion, parsed);
}

bool MCp_CacheFile::IsCacheFile(const File& file) {
    return file.GetExtension(true) == kCacheFileExtension;
}

bool MCp_CacheFile::IsTempFile(const File& file) {
    constexpr std::u16string_view kTempSuffix = u".zkcache.tmp";
    const std::u16string name = file.GetName();
    return name.size() > kTempSuffix.size() && name.ends_with(kTempSuffix);
}

// ASCII suffixes: a byte below 0x80 is the same character in UTF-8 and UTF-16, and an
// ill-formed sequence never swallows one, so these agree with the two tests above.
bool MCp_CacheFile::IsCacheFileName(std::string_view utf8Name) {
    return utf8Name.ends_with(".zkcache");
}

bool MCp_CacheFile::IsTempFileName(std::string_view utf8Name) {
    constexpr std::string_view kTempSuffix = ".zkcache.tmp";
    return utf8Name.size() > kTempSuffix.size() && utf8Name.ends_with(kTempSuffix);
}

using velacore::IOError;

// --- write stream ----------------------------------------------------------------------------

namespace {

// Host errors and allocation failures pass through; anything else becomes an IOError naming the
// file, so callers see only the two file exceptions.
[[noreturn]] void RethrowAsFileError(const File& file) {
    try {
        throw;
    } catch (const velacore::HostError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw IOError("cache file '" + file.GetFullPathUtf8() + "': " + e.what(), EIO);
    }
}

size_t BlockSizeFor(const File& file) {
    const size_t block =
        velacore::FileUtils::GetEfficientDiskBufferSizeFromPath(file.GetFullPathUtf8());
    return block == 0 ? 4096 : block;
}

}  // namespace

FastWriteOnlyStream::FastWriteOnlyStream(const File& file, uint64_t expectedBytes) try
    : OPlatformByteStream(file),
      bufferSize_(kBlocksPerBuffer * BlockSizeFor(file)),
      buffer_(bufferSize_, std::bit_ceil(bufferSize_ / kBlocksPerBuffer)) {
    Reserve(expectedBytes);
} catch (...) {
    RethrowAsFileError(file);
}

FastWriteOnlyStream::FastWriteOnlyStream(CreateNew, const File& file, uint64_t expectedBytes) try
    : OPlatformByteStream(file, velacore::GetFileSystem().CreateForDirectWrite(file.GetFullPath())),
      bufferSize_(kBlocksPerBuffer * BlockSizeFor(file)),
      buffer_(bufferSize_, std::bit_ceil(bufferSize_ / kBlocksPerBuffer)) {
    Reserve(expectedBytes);
} catch (...) {
    RethrowAsFileError(file);
}

void FastWriteOnlyStream::Reserve(uint64_t expectedBytes) {
    if (expectedBytes != 0)
        GetWritableFile().Reserve(velacore::RoundUpToBlock(expectedBytes, bufferSize_));
}

FastWriteOnlyStream::~FastWriteOnlyStream() = default;

void FastWriteOnlyStream::WriteBytes(const void* data, size_t size) {
    if (finished_) throw IOError("write after finish '" + GetFile().GetFullPathUtf8() + "'", EBADF);
    const auto* bytes = static_cast<const uint8_t*>(data);
    total_ += size;
    while (size >= bufferSize_ - position_) {
        const size_t room = bufferSize_ - position_;
        std::memcpy(buffer_.Data() + position_, bytes, room);
        bytes += room;
        size -= room;
        position_ = bufferSize_;
        WriteBuffer();
    }
    if (size != 0) std::memcpy(buffer_.Data() + position_, bytes, size);
    position_ += size;
}

void FastWriteOnlyStream::Finish() {
    Flush();
    if (finished_) return;
    finished_ = true;
    // A buffer that was just written out holds nothing new; otherwise the tail goes out whole,
    // padding included, so the file length stays a multiple of the buffer.
    if (position_ != 0) {
        position_ = bufferSize_;
        WriteBuffer();
    }
    buffer_ = velacore::AlignedBuffer();
}

void FastWriteOnlyStream::WriteBuffer() {
    try {
        GetWritableFile().Append(buffer_.Data(), bufferSize_);
    } catch (...) {
        RethrowAsFileError(GetFile());
    }
    AddBytesWritten(bufferSize_);
    position_ = 0;
}
