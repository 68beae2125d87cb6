// Base64 (BinaryText) and UTF-8/UTF-16 conversion (TextConvert): known vectors, round trips,
// strict rejection of bad base64, U+FFFD for ill-formed Unicode.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "mc/host/BinaryText.h"
#include "mc/host/Errors.h"
#include "mc/host/TextConvert.h"

namespace velacore {
namespace {

std::vector<uint8_t> Bytes(std::string_view s) {
    return {s.begin(), s.end()};
}

TEST(PrimsBase64, KnownVectors) {
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : cases) {
        EXPECT_EQ(EncodeBinaryDataToUTF8String(Bytes(plain)), encoded);
        EXPECT_EQ(DecodeBinaryDataFromUTF8String(encoded), Bytes(plain));
    }
}

TEST(PrimsBase64, BytesThatUseThePlusAndSlashDigits) {
    const std::vector<uint8_t> ones{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(EncodeBinaryDataToUTF8String(ones), "////////");
    EXPECT_EQ(DecodeBinaryDataFromUTF8String("////////"), ones);
    const std::vector<uint8_t> mixed{0xFB, 0xFF, 0xBF};
    EXPECT_EQ(EncodeBinaryDataToUTF8String(mixed), "+/+/");
    EXPECT_EQ(DecodeBinaryDataFromUTF8String("+/+/"), mixed);
    EXPECT_EQ(EncodeBinaryDataToUTF8String(std::vector<uint8_t>{0xFF}), "/w==");
    EXPECT_EQ(EncodeBinaryDataToUTF8String(std::vector<uint8_t>{0xFF, 0xFF}), "//8=");
}

TEST(PrimsBase64, RoundTripEveryLengthUpTo64) {
    std::mt19937 rng(7);
    for (size_t len = 0; len <= 64; ++len) {
        for (int pattern = 0; pattern < 3; ++pattern) {
            std::vector<uint8_t> data(len);
            for (auto& b : data) {
                b = pattern == 0 ? 0xFF : pattern == 1 ? 0x00 : static_cast<uint8_t>(rng());
            }
            const std::string text = EncodeBinaryDataToUTF8String(data.data(), data.size());
            EXPECT_EQ(text.size(), (len + 2) / 3 * 4);
            EXPECT_EQ(DecodeBinaryDataFromUTF8String(text), data) << "length " << len;
        }
    }
    EXPECT_EQ(EncodeBinaryDataToUTF8String(nullptr, 0), "");
}

TEST(PrimsBase64, BadTextIsRejected) {
    const char* bad[] = {
        "A",               // length not a multiple of 4
        "Zm9",             // unpadded
        "Zm9vY",           // unpadded
        "====",            // only padding
        "A===",            // one digit cannot make a byte
        "Zm=v",            // padding in the middle of a quantum
        "Zg==Zg==",        // padding before the end
        "Zm 9v",           // white space
        "Zm9v\n",          // trailing new line
        "-_8=",            // URL-safe alphabet
        "Zh==",            // unused bits set
        "Zm9=",            // unused bits set
        "Zm9v\xC3\xA9==",  // non-ASCII
    };
    for (const char* text : bad) {
        EXPECT_THROW(DecodeBinaryDataFromUTF8String(text), FormatError) << "\"" << text << "\"";
    }
    const std::string withNul("Zm9\0", 4);
    EXPECT_THROW(DecodeBinaryDataFromUTF8String(withNul), FormatError);
}

TEST(PrimsUtf, WellFormedTextConvertsBothWays) {
    // "A", e-acute, euro sign, grinning face (a surrogate pair in UTF-16).
    const std::string utf8 = "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    const std::u16string utf16 = u"A\u00E9\u20AC\U0001F600";
    EXPECT_EQ(ToUtf16(utf8), utf16);
    EXPECT_EQ(ToUtf8(utf16), utf8);
    EXPECT_EQ(utf16.size(), 5u);
    EXPECT_EQ(ToUtf16(""), u"");
    EXPECT_EQ(ToUtf8(u""), "");
    // Edges of each length and of the code space.
    const std::u16string edges = u"\u007F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF\U00010000\U0010FFFF";
    EXPECT_EQ(ToUtf16(ToUtf8(edges)), edges);
    EXPECT_EQ(ToUtf8(u"\U0010FFFF"), "\xF4\x8F\xBF\xBF");
}

TEST(PrimsUtf, EveryScalarValueRoundTrips) {
    std::u16string all;
    for (char32_t c = 1; c < 0xD800; ++c) all.push_back(static_cast<char16_t>(c));
    for (char32_t c = 0xE000; c <= 0xFFFF; ++c) all.push_back(static_cast<char16_t>(c));
    for (char32_t c = 0x10000; c <= 0x10FFFF; c += 0x101) {
        const char32_t v = c - 0x10000;
        all.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
        all.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
    }
    EXPECT_EQ(ToUtf16(ToUtf8(all)), all);
}

TEST(PrimsUtf, IllFormedUtf8BecomesReplacementCharacters) {
    const struct {
        const char* input;
        std::u16string expected;
    } cases[] = {
        {"\xC0\x80", u"\uFFFD\uFFFD"},                      // overlong NUL
        {"\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"},            // overlong 3-byte form
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},            // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // past U+10FFFF
        {"\xF5\x80", u"\uFFFD\uFFFD"},                      // impossible lead byte
        {"\x80x", u"\uFFFDx"},                              // stray continuation byte
        {"\xE2\x82x", u"\uFFFDx"},                          // truncated, one replacement
        {"a\xF0\x9F\x98", u"a\uFFFD"},                      // truncated at the end
        {"\xF0\x9F\x98\xF0\x9F\x98\x80", u"\uFFFD\U0001F600"},
        {"\xFF\xFE", u"\uFFFD\uFFFD"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ToUtf16(c.input), c.expected) << "input \"" << c.input << "\"";
    }
}

TEST(PrimsUtf, UnpairedSurrogatesBecomeReplacementCharacters) {
    const std::string fffd = "\xEF\xBF\xBD";
    EXPECT_EQ(ToUtf8(std::u16string(1, char16_t(0xD83D))), fffd);
    EXPECT_EQ(ToUtf8(std::u16string(1, char16_t(0xDE00))), fffd);
    EXPECT_EQ(ToUtf8(std::u16string{char16_t(0xD83D), u'x'}), fffd + "x");
    // A low surrogate before a high one is two unpaired halves.
    EXPECT_EQ(ToUtf8(std::u16string{char16_t(0xDE00), char16_t(0xD83D)}), fffd + fffd);
    EXPECT_EQ(ToUtf8(std::u16string{char16_t(0xD83D), char16_t(0xD83D), char16_t(0xDE00)}),
              fffd + "\xF0\x9F\x98\x80");
}

}  // namespace
}  // namespace velacore
