// Base64 encoding and strict decoding (see mc/host/BinaryText.h).
#include "mc/host/BinaryText.h"

#include <array>

#include "mc/host/Errors.h"

namespace velacore {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int8_t kInvalid = -1;

constexpr std::array<int8_t, 256> MakeDecodeTable() {
    std::array<int8_t, 256> table{};
    for (auto& v : table) v = kInvalid;
    for (int i = 0; i < 64; ++i) table[static_cast<uint8_t>(kAlphabet[i])] = static_cast<int8_t>(i);
    return table;
}
constexpr std::array<int8_t, 256> kDecode = MakeDecodeTable();

[[noreturn]] void ThrowBad(const char* why) {
    throw FormatError(std::string("bad base64 text: ") + why);
}

// Value of the base64 digit at text[i]; throws when it is not one.
uint32_t Digit(std::string_view text, size_t i) {
    const int8_t v = kDecode[static_cast<uint8_t>(text[i])];
    if (v == kInvalid) ThrowBad("character outside the alphabet");
    return static_cast<uint32_t>(v);
}

}  // namespace

std::string EncodeBinaryDataToUTF8String(const uint8_t* data, size_t size) {
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
        out.push_back(kAlphabet[(v >> 18) & 63]);
        out.push_back(kAlphabet[(v >> 12) & 63]);
        out.push_back(kAlphabet[(v >> 6) & 63]);
        out.push_back(kAlphabet[v & 63]);
    }
    const size_t rest = size - i;
    if (rest > 0) {
        uint32_t v = uint32_t{data[i]} << 16;
        if (rest == 2) v |= uint32_t{data[i + 1]} << 8;
        out.push_back(kAlphabet[(v >> 18) & 63]);
        out.push_back(kAlphabet[(v >> 12) & 63]);
        out.push_back(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

std::string EncodeBinaryDataToUTF8String(const std::vector<uint8_t>& data) {
    return EncodeBinaryDataToUTF8String(data.data(), data.size());
}

std::vector<uint8_t> DecodeBinaryDataFromUTF8String(std::string_view text) {
    if (text.size() % 4 != 0) ThrowBad("length is not a multiple of 4");
    size_t padding = 0;
    if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
    std::vector<uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    const size_t fullEnd = text.size() - (padding > 0 ? 4 : 0);
    for (size_t i = 0; i < fullEnd; i += 4) {
        const uint32_t v = (Digit(text, i) << 18) | (Digit(text, i + 1) << 12) |
                           (Digit(text, i + 2) << 6) | Digit(text, i + 3);
        out.push_back(static_cast<uint8_t>(v >> 16));
        out.push_back(static_cast<uint8_t>(v >> 8));
        out.push_back(static_cast<uint8_t>(v));
    }
    if (padding == 0) return out;
    // The last quantum: two or three digits then padding.
    const size_t i = fullEnd;
    uint32_t v = (Digit(text, i) << 18) | (Digit(text, i + 1) << 12);
    if (padding == 1) v |= Digit(text, i + 2) << 6;
    if ((padding == 2 && (v & 0xFFFF) != 0) || (padding == 1 && (v & 0xFF) != 0)) {
        ThrowBad("non-zero unused bits");
    }
    out.push_back(static_cast<uint8_t>(v >> 16));
    if (padding == 1) out.push_back(static_cast<uint8_t>(v >> 8));
    return out;
}

}  // namespace velacore
