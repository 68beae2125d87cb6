// Guid text form, parsing and random generation (see mc/host/Guid.h).
#include "mc/host/Guid.h"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>
#include <random>

#include "mc/host/Errors.h"

namespace velacore {
namespace {

constexpr size_t kTextLength = 36;
constexpr char kHexDigits[] = "0123456789ABCDEF";

// Positions of the dashes in the 36-character form.
constexpr bool IsDashPosition(size_t i) {
    return i == 8 || i == 13 || i == 18 || i == 23;
}

int HexValue(char32_t c) {
    if (c >= '0' && c <= '9') return static_cast<int>(c - '0');
    if (c >= 'A' && c <= 'F') return static_cast<int>(c - 'A' + 10);
    if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
    return -1;
}

[[noreturn]] void ThrowBadText(std::string_view shown) {
    throw FormatError("not a GUID: \"" + std::string(shown.substr(0, 64)) + "\"");
}

// Parses either character width. `shown` is only used for the error message.
template <class CharT>
Guid::Bytes ParseText(std::basic_string_view<CharT> text, std::string_view shown) {
    if (text.size() == kTextLength + 2) {
        if (text.front() != CharT('{') || text.back() != CharT('}')) ThrowBadText(shown);
        text = text.substr(1, kTextLength);
    }
    if (text.size() != kTextLength) ThrowBadText(shown);
    Guid::Bytes bytes{};
    size_t out = 0;
    for (size_t i = 0; i < kTextLength; ++i) {
        if (IsDashPosition(i)) {
            if (text[i] != CharT('-')) ThrowBadText(shown);
            continue;
        }
        // Hex digits come in pairs that never straddle a dash.
        const int high = HexValue(static_cast<char32_t>(text[i]));
        const int low = HexValue(static_cast<char32_t>(text[i + 1]));
        if (high < 0 || low < 0) ThrowBadText(shown);
        bytes[out++] = static_cast<uint8_t>((high << 4) | low);
        ++i;
    }
    return bytes;
}

std::string Narrow(std::u16string_view text) {
    std::string shown;
    for (char16_t c : text.substr(0, 64)) shown.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return shown;
}

std::mt19937 SeededEngine() {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(),
                       device(), device(), device(), device()};
    return std::mt19937(seed);
}

}  // namespace

Guid::Guid(std::string_view text) : bytes_(ParseText(text, text)) {}

Guid::Guid(std::u16string_view text) : bytes_(ParseText(text, Narrow(text))) {}

Guid Guid::CreateUnique() {
    // Version 4, RFC 4122 variant; one engine per thread, seeded from the system's entropy. The
    // engine is trivially destructible: a thread that ends (also at process exit on Windows,
    // where a thread-local destructor in a DLL can hang the exit) has nothing to run for it.
    static_assert(std::is_trivially_destructible_v<std::mt19937>);
    thread_local std::mt19937 engine = SeededEngine();
    boost::uuids::basic_random_generator<std::mt19937> generator(&engine);
    const boost::uuids::uuid id = generator();
    Bytes bytes{};
    std::copy(id.begin(), id.end(), bytes.begin());
    return Guid(bytes);
}

std::string Guid::AsString() const {
    std::string text;
    text.reserve(kTextLength);
    for (size_t i = 0; i < bytes_.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
        text.push_back(kHexDigits[bytes_[i] >> 4]);
        text.push_back(kHexDigits[bytes_[i] & 0x0F]);
    }
    return text;
}

std::u16string Guid::AsWString() const {
    const std::string narrow = AsString();
    return std::u16string(narrow.begin(), narrow.end());
}

bool Guid::IsNull() const {
    for (uint8_t b : bytes_) {
        if (b != 0) return false;
    }
    return true;
}

Guid GuidFromBytes(const uint8_t* sixteenBytes) {
    if (!sixteenBytes) throw NullPointerError("GuidFromBytes: null byte pointer");
    Guid::Bytes bytes{};
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = sixteenBytes[i];
    return Guid(bytes);
}

}  // namespace velacore
