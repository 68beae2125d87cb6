// Fuzzes the cache-file name parser. Input: 4 bytes of the expected application version, then
// the file name. The parser either returns the fields or throws one of its two codes; what it
// returns builds a name that parses back to the same fields. The other way round, the same input
// read as a GUID (16 bytes) and header bytes builds a name that parses back to exactly them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "disk/CacheFile.h"
#include "mc/MC_Errors.h"
#include "mc/host/TextConvert.h"

namespace {

const std::filesystem::path kFolder("/nonexistent-fuzz-folder");

bool IsAscii(const std::string& text) {
    for (const char c : text)
        if (static_cast<unsigned char>(c) >= 0x80 || c == '\0') return false;
    return true;
}

void CheckBuiltNameParsesBack(uint32_t version, const uint8_t* data, size_t size) {
    if (size < 16) return;
    velacore::Guid::Bytes bytes{};
    std::memcpy(bytes.data(), data, 16);
    const velacore::Guid guid(bytes);
    const std::vector<uint8_t> header(data + 16, data + size);
    const std::u16string name = MCp_CacheFile::BuildName(guid, "FuzzClass", version, header);
    const ParsedCacheFileName parsed =
        MCp_CacheFile::ParseName(velacore::File(kFolder / velacore::ToUtf8(name)), version);
    if (!(parsed.guid == guid) || parsed.header != header || parsed.matchname != u"FuzzClass")
        std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    uint32_t expected = 0;
    std::memcpy(&expected, data, 4);
    CheckBuiltNameParsesBack(expected, data + 4, size - 4);
    const std::string name(reinterpret_cast<const char*>(data + 4), size - 4);
    // Only what a folder listing can yield: one non-empty component.
    if (name.empty() || name == "." || name == ".." ||
        name.find_first_of(std::string("/\0", 2)) != std::string::npos)
        return 0;

    ParsedCacheFileName parsed;
    try {
        parsed = MCp_CacheFile::ParseName(velacore::File(kFolder / name), expected);
    } catch (int code) {
        if (code != MCp_Err_AppVersion && code != MCp_Err_FormatVersion) std::abort();
        return 0;
    }
    if (parsed.appVersion != expected) std::abort();
    const std::string matchname = velacore::ToUtf8(parsed.matchname);
    if (matchname.find('.') != std::string::npos) std::abort();
    if (!IsAscii(matchname)) return 0;  // data classes have ASCII names; others are not rebuilt

    const std::u16string rebuilt =
        MCp_CacheFile::BuildName(parsed.guid, matchname.c_str(), expected, parsed.header);
    const ParsedCacheFileName again =
        MCp_CacheFile::ParseName(velacore::File(kFolder / velacore::ToUtf8(rebuilt)), expected);
    if (!(again.guid == parsed.guid) || again.matchname != parsed.matchname ||
        again.header != parsed.header)
        std::abort();
    return 0;
}
