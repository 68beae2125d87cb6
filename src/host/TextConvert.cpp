// UTF-8 <-> UTF-16 conversion with U+FFFD replacement (see mc/host/TextConvert.h).
#include "mc/host/TextConvert.h"

#include <cstdint>

namespace velacore {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// What a lead byte announces: sequence length and the allowed range of the second byte
// (which rules out overlong forms, surrogates and values past U+10FFFF).
struct LeadInfo {
    int length;  // 0 for a byte that cannot start a sequence
    uint8_t secondLow;
    uint8_t secondHigh;
};

LeadInfo Classify(uint8_t b) {
    if (b < 0x80) return {1, 0, 0};
    if (b >= 0xC2 && b <= 0xDF) return {2, 0x80, 0xBF};
    if (b == 0xE0) return {3, 0xA0, 0xBF};
    if (b == 0xED) return {3, 0x80, 0x9F};
    if (b >= 0xE1 && b <= 0xEF) return {3, 0x80, 0xBF};
    if (b == 0xF0) return {4, 0x90, 0xBF};
    if (b >= 0xF1 && b <= 0xF3) return {4, 0x80, 0xBF};
    if (b == 0xF4) return {4, 0x80, 0x8F};
    return {0, 0, 0};
}

// Decodes one code point at text[i], advancing i past it (or past the maximal ill-formed prefix,
// which decodes as U+FFFD).
char32_t DecodeOne(std::string_view text, size_t& i) {
    const auto lead = static_cast<uint8_t>(text[i++]);
    const LeadInfo info = Classify(lead);
    if (info.length == 1) return lead;
    if (info.length == 0) return kReplacement;
    char32_t cp = lead & (0xFF >> (info.length + 1));
    for (int k = 1; k < info.length; ++k) {
        if (i >= text.size()) return kReplacement;
        const auto b = static_cast<uint8_t>(text[i]);
        const uint8_t low = k == 1 ? info.secondLow : 0x80;
        const uint8_t high = k == 1 ? info.secondHigh : 0xBF;
        if (b < low || b > high) return kReplacement;
        cp = (cp << 6) | (b & 0x3F);
        ++i;
    }
    return cp;
}

void AppendUtf8(char32_t cp, std::string& out) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

bool IsHighSurrogate(char16_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char16_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

}  // namespace

std::u16string ToUtf16(std::string_view utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    for (size_t i = 0; i < utf8.size();) {
        const char32_t cp = DecodeOne(utf8, i);
        if (cp < 0x10000) {
            out.push_back(static_cast<char16_t>(cp));
        } else {
            const char32_t v = cp - 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
        }
    }
    return out;
}

std::string ToUtf8(std::u16string_view utf16) {
    std::string out;
    out.reserve(utf16.size());
    for (size_t i = 0; i < utf16.size(); ++i) {
        const char16_t c = utf16[i];
        char32_t cp = c;
        if (IsHighSurrogate(c) && i + 1 < utf16.size() && IsLowSurrogate(utf16[i + 1])) {
            cp = 0x10000 + ((char32_t{c} - 0xD800) << 10) + (char32_t{utf16[i + 1]} - 0xDC00);
            ++i;
        } else if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
            cp = kReplacement;
        }
        AppendUtf8(cp, out);
    }
    return out;
}

}  // namespace velacore
